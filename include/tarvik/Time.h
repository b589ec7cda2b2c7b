// Time.h: durations (TimePeriod) and points in civil time (TimeDate).
//
// TimePeriod is a signed duration of whole seconds (64-bit) and a microsecond fraction (32-bit). After every
// operation the fraction lies in -999999..999999 and, when the seconds are not zero, has their sign. A
// period of -1 second marks a time-out as unset throughout the library.
//
// TimeDate is a point on the proleptic Gregorian calendar, stored as the TimePeriod since the start
// (00:00:00) of Julian day 0, so that the whole days of the stored value are the Julian Day Number and the
// rest is the time of day. There is no time zone in the value: now() is UTC; a TimeDate made from a file
// time (timespec) is local time. 1970-01-01 00:00:00 is Julian day 2440588 (210866803200 stored seconds)
// and is both epoch() and the default value. Years have no year 0: year -1 is 1 BC (and a leap year).
//
// Some operations keep the library's fixed rules even where they look asymmetric:
//   * operator* builds TimePeriod(seconds * n, microseconds * n, true): the multiplied fraction is read as
//     milliseconds, so 1.000001 s * 2 is 2.002 s, while *= gives 2.000002 s;
//   * operator/ and operator% build their result with the fraction read as milliseconds as well, and the
//     remainder term of operator/ is computed in signed 32-bit arithmetic (it wraps for large values);
//     dividing by 0 logs "TIME PERIOD DIVISION BY ZERO" at ERR and yields a zero period instead of the
//     processor's division fault;
//   * a timeval's tv_usec is taken as milliseconds (5 gives 5 ms), so a round trip through timeval
//     multiplies the fraction by 1000;
//   * from_string skips a leading "-": the parsed period is never negative;
//   * to_string prints a negative period in its last form ("-30.000" for -90 s: the seconds modulo 60).
//
// Text forms. A period: "D:HH:MM:SS.mmm" from one day up, "HH:MM:SS.mmm" from one hour, "MM:SS.mmm" from
// one minute, else "S.mmm"; to_string_full_precision prints microseconds (six digits). from_string reads
// up to four ":"-separated numbers right-aligned onto days, hours, minutes, seconds ("1:30" is 90 s), and
// after a "." a fraction padded with zeros to six digits ("2.5" is 2.5 s). A date: to_string(format) with
// the conversions %Y %C %y %m %d %e %H %k %I %l %M %S %Q (milliseconds) %q (microseconds) %s %f %D %T %r
// %c %x %X %n %t, an optional "-" (pad right) or "0" (pad with zeros) flag and a minimum width ("%-5Y");
// any other letter stands for itself. The default format is "%Y-%m-%d %H:%M:%S.%Q"; the XML form is
// "%Y:%m:%dT%H:%M:%S.%Q". Limits on the texts read: a period or date text is at most 29 characters
// (read_xml stops there); a width in a format counts up to 9999 and composite conversions (%c, %D ...)
// expand fixed formats, never the caller's, so a format costs at most 9999 characters per conversion.
//
// Arithmetic on the seconds wraps around at the ends of the 64-bit range (as the machine's does) rather
// than overflowing: extreme values give wrapped results, never a fault.
//
// Thread safety: both are plain values, used by one thread at a time.
#pragma once

#include <cstdint>

#include "tarvik/AString.h"
#include "tarvik/Types.h"

struct timeval;
struct timespec;
struct tm;

namespace tarvik {

class TARVIK_EXPORT TimePeriod {
public:
    // Zero.
    TimePeriod() = default;
    // days * 86400 + hours * 3600 + minutes * 60 + seconds, plus the fraction (milliseconds when
    // fraction_in_ms, else microseconds); any part may be negative or out of its usual range.
    TimePeriod(long days, long hours, long minutes, long seconds, long fraction, bool fraction_in_ms);
    TimePeriod(std::int64_t seconds, long fraction, bool fraction_in_ms);
    // tv_sec seconds and tv_usec taken as milliseconds (see the header comment).
    explicit TimePeriod(timeval const& tv);

    TimePeriod& time_period(long days, long hours, long minutes, long seconds, long fraction, bool fraction_in_ms);
    TimePeriod& time_period(std::int64_t seconds, long fraction, bool fraction_in_ms);
    TimePeriod& time_period(timeval const& tv);
    TimePeriod& operator=(timeval const& tv) { return time_period(tv); }
    // That many seconds, no fraction.
    TimePeriod& operator=(std::int64_t const& seconds);
    // tv_sec = the seconds, tv_usec = the microsecond field.
    operator timeval() const;

    // The raw fields.
    std::int64_t get_seconds() const { return seconds_; }
    std::int32_t get_microseconds() const { return microseconds_; }

    long to_seconds() const { return static_cast<long>(seconds_); }
    long to_minutes() const { return static_cast<long>(seconds_ / 60); }
    long to_hours() const { return static_cast<long>(seconds_ / 3600); }
    long to_days() const { return static_cast<long>(seconds_ / 86400); }
    long days() const { return to_days(); }
    long hours() const { return to_hours() % 24; }
    long minutes() const { return to_minutes() % 60; }
    long seconds() const { return to_seconds() % 60; }
    long milliseconds() const { return microseconds_ / 1000; }
    long microseconds() const { return microseconds_; }
    // Wrapping at the ends of the 64-bit range, as the period's own arithmetic does.
    std::int64_t to_milliseconds() const {
        return static_cast<std::int64_t>(static_cast<std::uint64_t>(seconds_) * 1000u + static_cast<std::uint64_t>(microseconds_ / 1000));
    }
    std::int64_t to_microseconds() const {
        return static_cast<std::int64_t>(static_cast<std::uint64_t>(seconds_) * 1000000u + static_cast<std::uint64_t>(static_cast<std::int64_t>(microseconds_)));
    }

    static bool is_microsecond(long value) { return value >= -999999 && value <= 999999; }

    TimePeriod operator-() const;
    TimePeriod operator+(TimePeriod const& other) const;
    TimePeriod operator-(TimePeriod const& other) const;
    TimePeriod& operator+=(TimePeriod const& other);
    TimePeriod& operator-=(TimePeriod const& other);
    TimePeriod& operator*=(long n);
    TimePeriod operator*(long n) const;
    TimePeriod operator/(long n) const;
    TimePeriod& operator/=(long n) { return *this = *this / n; }
    TimePeriod operator%(long n) const;
    TimePeriod& operator%=(long n) { return *this = *this % n; }

    // -1, 0 or 1: seconds first, then microseconds.
    int compare(TimePeriod const& other) const;
    friend bool operator==(TimePeriod const& a, TimePeriod const& b) { return a.compare(b) == 0; }
    friend bool operator<(TimePeriod const& a, TimePeriod const& b) { return a.compare(b) < 0; }
    friend bool operator<=(TimePeriod const& a, TimePeriod const& b) { return a.compare(b) <= 0; }
    friend bool operator>(TimePeriod const& a, TimePeriod const& b) { return a.compare(b) > 0; }
    friend bool operator>=(TimePeriod const& a, TimePeriod const& b) { return a.compare(b) >= 0; }

    AString to_string() const;
    AString to_string_full_precision() const;
    // Always true.
    bool from_string(char const* text);

    // The text form (to_string) on a stream; returns the characters written.
    long write(OBStream& out) const;
    // to_string_full_precision; returns 1.
    long write_xml(OBStream& out) const;
    // Skips white space, reads up to 29 further characters to the next white space and parses them with
    // from_string. Returns 0, whatever happened (callers do not test it).
    long read_xml(IBStream& in);

    // The seconds (64-bit) and the microseconds (32-bit) in the CommBuffer's signed integer form; the bytes
    // written / read.
    long write(CommBuffer& out) const;
    long read(CommBuffer const& in);

private:
    void normalize_();

    std::int64_t seconds_ = 0;
    std::int32_t microseconds_ = 0;
};

class TARVIK_EXPORT TimeDate {
public:
    // 1970-01-01 00:00:00.000000.
    TimeDate();
    // The date, then hour, minute, second and fraction (milliseconds when fraction_in_ms) added as a
    // period, so out-of-range time fields carry (hour 25 is 01:00 of the next day).
    TimeDate(int year, int month, int day, int hour, int minute, int second, int fraction, bool fraction_in_ms);
    // tm_year + 1900, tm_mon + 1, tm_mday, tm_hour, tm_min, tm_sec, and microseconds.
    TimeDate(tm const& fields, unsigned long microseconds);
    // The raw stored value: seconds since the start of Julian day 0.
    explicit TimeDate(std::int64_t seconds);
    explicit TimeDate(TimePeriod const& since_day_zero);
#if !defined(_WIN32)
    // A file time (as stat() gives it), converted to local time with its milliseconds; 1970-01-01 00:00:00
    // when it cannot be converted.
    explicit TimeDate(timespec const& file_time);
#endif

    TimeDate& set_time_and_date(int year, int month, int day, int hour, int minute, int second, int fraction,
                                bool fraction_in_ms);
    TimeDate& set_time_and_date(tm const& fields, unsigned long microseconds);
    TimeDate& set_time_and_date(std::int64_t seconds);
    TimeDate& set_time_and_date(TimePeriod const& since_day_zero);
    TimeDate& operator=(tm const& fields) { return set_time_and_date(fields, 0); }
    // tm_wday, tm_yday and tm_isdst are 0.
    operator tm() const;

    // The current time, UTC, to the millisecond.
    static TimeDate now();
    static TimeDate now_if_available();
    static TimeDate epoch();

    // The stored value (since the start of Julian day 0).
    TimePeriod const& get_period() const { return value_; }

    void get_time_and_date(int& year, int& month, int& day, int& hour, int& minute, int& second, int& fraction,
                           bool fraction_in_ms) const;
    int get_year() const;
    int get_month() const;
    int get_day() const;
    int get_hour() const;
    int get_minute() const;
    int get_second() const;
    int get_millisecond() const;
    int get_microsecond() const;
    // The time of day: the value minus its whole days (plus one day when that is negative).
    TimePeriod get_time() const;
    // The whole days of the stored value (truncated toward zero).
    long julian_day() const { return value_.to_days(); }

    TimeDate operator+(TimePeriod const& p) const { return TimeDate(value_ + p); }
    TimeDate operator-(TimePeriod const& p) const { return TimeDate(value_ - p); }
    TimeDate& operator+=(TimePeriod const& p) {
        value_ += p;
        return *this;
    }
    TimeDate& operator-=(TimePeriod const& p) {
        value_ -= p;
        return *this;
    }
    TimePeriod operator-(TimeDate const& other) const { return value_ - other.value_; }

    int compare(TimeDate const& other) const { return value_.compare(other.value_); }
    friend bool operator==(TimeDate const& a, TimeDate const& b) { return a.compare(b) == 0; }
    friend bool operator<(TimeDate const& a, TimeDate const& b) { return a.compare(b) < 0; }
    friend bool operator<=(TimeDate const& a, TimeDate const& b) { return a.compare(b) <= 0; }
    friend bool operator>(TimeDate const& a, TimeDate const& b) { return a.compare(b) > 0; }
    friend bool operator>=(TimeDate const& a, TimeDate const& b) { return a.compare(b) >= 0; }

    // Formats with the conversions of the header comment; null means "%Y-%m-%d %H:%M:%S.%Q".
    AString to_string(char const* format = nullptr) const;
    // to_string() on a stream; returns the characters written.
    long write(OBStream& out) const;
    // to_string("%Y:%m:%dT%H:%M:%S.%Q"); returns 1.
    long write_xml(OBStream& out) const;
    // Skips white space and reads up to 29 characters to the next white space as "Y:M:DTh:m:s.ms" or
    // "Y:M:DTh:m:s". Returns 1, or 0 leaving the value unchanged.
    long read_xml(IBStream& in);

    // The period since 1970-01-01 00:00:00, in TimePeriod's binary form; the bytes written / read.
    long write(CommBuffer& out) const;
    long read(CommBuffer const& in);

    // Day numbers: the Julian Day Number of a date (the year taken as a 16-bit value, -1 being 1 BC), and
    // back. Gregorian leap rule, applied to the astronomical year.
    static long day_number(int year, int month, int day);
    static void date_of_day(long day_number, int& year, int& month, int& day);
    static bool is_leap_year(int year);

private:
    TimePeriod value_;
};

TARVIK_EXPORT OBStream& operator<<(OBStream& out, TimePeriod const& period);
TARVIK_EXPORT OBStream& operator<<(OBStream& out, TimeDate const& date);
TARVIK_EXPORT IBStream& operator>>(IBStream& in, TimePeriod& period);  // the XML form
TARVIK_EXPORT IBStream& operator>>(IBStream& in, TimeDate& date);      // the XML form

}  // namespace tarvik
