// The version of the library as built: the macros are expanded here, inside the library, so the
// functions report the library's own version whatever headers the caller was compiled with.
#include "tarvik/Version.h"

#include "LogUnit.h"

TARVIK_LOG_UNIT()

namespace tarvik {

char const* version_string() { return TARVIK_VERSION_STRING; }
int version_major() { return TARVIK_VERSION_MAJOR; }
int version_minor() { return TARVIK_VERSION_MINOR; }
int version_patch() { return TARVIK_VERSION_PATCH; }

}  // namespace tarvik
