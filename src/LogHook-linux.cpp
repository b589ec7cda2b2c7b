// Linux half of LogHook: colours through ANSI escape sequences on a terminal.
#include "LogHookImpl.h"

#include <unistd.h>

#include "LogUnit.h"
#include "tarvik/IOBStream.h"

TARVIK_LOG_UNIT()

namespace tarvik::log_hook_impl {

bool console_has_colours() {
    static bool const terminal = ::isatty(1) == 1;
    return terminal;
}

void console_colour_for(int level) {
    switch (level) {
        case 2: bcout().put("\033[1;31m"); break;  // ERR: bright red
        case 3: bcout().put("\033[1;35m"); break;  // WARN: bright magenta (red and blue)
        case 4: bcout().put("\033[32m"); break;    // INFO: green
        default: break;
    }
}

void console_restore() { bcout().put("\033[0m"); }

}  // namespace tarvik::log_hook_impl
