// Console.h: the process-wide console lock.
//
// Standard output is shared by every thread: each write to it, and each log line printed on it, holds this
// lock (made on first use, never destroyed, recursive like every CriticalSection).
#pragma once

#include "tarvik/CriticalSection.h"

namespace tarvik {

CriticalSection& console_lock();

}  // namespace tarvik
