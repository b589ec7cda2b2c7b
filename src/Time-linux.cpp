// Linux half of Time: the system's time structures (timeval, and a file time as timespec) to and from
// the library's values.
#include "tarvik/Time.h"

#include <sys/time.h>

#include <ctime>

#include "LogUnit.h"

TARVIK_LOG_UNIT()

namespace tarvik {

TimePeriod& TimePeriod::time_period(timeval const& tv) {
    // tv_usec is passed as the fraction with the milliseconds flag: the fixed rule of this conversion.
    return time_period(static_cast<std::int64_t>(tv.tv_sec), static_cast<long>(tv.tv_usec), true);
}

TimePeriod::operator timeval() const {
    timeval tv;
    tv.tv_sec = static_cast<decltype(tv.tv_sec)>(seconds_);
    tv.tv_usec = static_cast<decltype(tv.tv_usec)>(microseconds_);
    return tv;
}

TimeDate::TimeDate(timespec const& file_time) : TimeDate() {
    std::time_t seconds = file_time.tv_sec;
    std::tm local;
    if (!::localtime_r(&seconds, &local) || file_time.tv_nsec < 0 || file_time.tv_nsec >= 1000000000L) return;
    // Through the tm form, which also copes with a tm_year near INT_MAX; whole milliseconds only.
    set_time_and_date(local, static_cast<unsigned long>(file_time.tv_nsec / 1000000) * 1000);
}

}  // namespace tarvik
