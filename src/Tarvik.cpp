// Library start.
#include "tarvik/GlobVar.h"

#include "LogUnit.h"
#include "tarvik/TypeManager.h"
#include "transport/Transport.h"

TARVIK_LOG_UNIT()

namespace tarvik {

int init() {
    // The first lookup of a kind builds the whole table of managers.
    TypeManager::get(T_INT);
    // The transports' factories and variables, once for the process.
    static bool const transports = [] {
        name_limits();
        register_tcpip_factories();
        register_shm_factories();
        register_inproc_factories();
        return true;
    }();
    (void)transports;
    return 1;
}

}  // namespace tarvik
