// LogHookImpl.h: what a platform half of LogHook provides: the console's colours.
#pragma once

namespace tarvik::log_hook_impl {

// Whether standard output is a terminal that shows colours.
bool console_has_colours();
// Sets the colour for a record of the given level (no change for levels without a colour), and back.
void console_colour_for(int level);
void console_restore();

}  // namespace tarvik::log_hook_impl
