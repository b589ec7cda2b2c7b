// Library start.
#include "tarvik/GlobVar.h"

#include "LogUnit.h"
#include "tarvik/TypeManager.h"

TARVIK_LOG_UNIT()

namespace tarvik {

int init() {
    // The transports' factories join here once the transports exist. The first lookup of a kind builds
    // the whole table of managers.
    TypeManager::get(T_INT);
    return 1;
}

}  // namespace tarvik
