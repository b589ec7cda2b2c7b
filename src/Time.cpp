#include "tarvik/Time.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "LogUnit.h"
#include "tarvik/CommBuffer.h"
#include "tarvik/IOBStream.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

constexpr std::int64_t kDay = 86400;
constexpr std::int64_t kMicro = 1000000;
// Julian day of 1970-01-01.
constexpr long kEpochDay = 2440588;

// Seconds arithmetic wraps around at the ends of the 64-bit range, as the machine's does, instead of
// overflowing (which C++ leaves undefined): extreme periods give wrapped values, never a fault.
std::int64_t wrap_add(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}
std::int64_t wrap_sub(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}
std::int64_t wrap_mul(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) * static_cast<std::uint64_t>(b));
}

std::int64_t fraction_micro(long fraction, bool in_ms) {
    return in_ms ? wrap_mul(fraction, 1000) : static_cast<std::int64_t>(fraction);
}

// Reads decimal digits from p with saturation (never overflows); advances p past them.
std::int64_t read_digits(char const*& p) {
    std::int64_t v = 0;
    while (*p >= '0' && *p <= '9') {
        if (v < 100000000000000000LL) v = v * 10 + (*p - '0');
        ++p;
    }
    return v;
}

// atoi with saturation: optional white space and sign, then digits.
std::int64_t safe_atoi(char const* p) {
    while (*p == ' ' || *p == '\t') ++p;
    bool negative = *p == '-';
    if (*p == '-' || *p == '+') ++p;
    std::int64_t v = read_digits(p);
    return negative ? -v : v;
}

}  // namespace

// --- TimePeriod -----------------------------------------------------------------------------------------

void TimePeriod::normalize_() {
    // The fields may have been set from a 64-bit intermediate; do the carry in 64 bits.
    std::int64_t micro = microseconds_;
    seconds_ = wrap_add(seconds_, micro / kMicro);
    micro %= kMicro;
    if (seconds_ < 0 && micro > 0) {
        seconds_ = wrap_add(seconds_, 1);
        micro -= kMicro;
    } else if (seconds_ > 0 && micro < 0) {
        seconds_ = wrap_sub(seconds_, 1);
        micro += kMicro;
    }
    microseconds_ = static_cast<std::int32_t>(micro % kMicro);
}

namespace {

// Builds a period from 64-bit seconds and a 64-bit microsecond count, normalised.
TimePeriod make_period(std::int64_t seconds, std::int64_t micro) {
    return TimePeriod(wrap_add(seconds, micro / kMicro), static_cast<long>(micro % kMicro), false);
}

}  // namespace

TimePeriod::TimePeriod(long days, long hours, long minutes, long seconds, long fraction, bool fraction_in_ms) {
    time_period(days, hours, minutes, seconds, fraction, fraction_in_ms);
}

TimePeriod::TimePeriod(std::int64_t seconds, long fraction, bool fraction_in_ms) {
    time_period(seconds, fraction, fraction_in_ms);
}

TimePeriod::TimePeriod(timeval const& tv) { time_period(tv); }

TimePeriod& TimePeriod::time_period(long days, long hours, long minutes, long seconds, long fraction,
                                    bool fraction_in_ms) {
    std::int64_t micro = fraction_micro(fraction, fraction_in_ms);
    seconds_ = wrap_add(wrap_add(wrap_add(wrap_mul(days, kDay), wrap_mul(hours, 3600)), wrap_mul(minutes, 60)),
                        wrap_add(seconds, micro / kMicro));
    microseconds_ = static_cast<std::int32_t>(micro % kMicro);
    normalize_();
    return *this;
}

TimePeriod& TimePeriod::time_period(std::int64_t seconds, long fraction, bool fraction_in_ms) {
    std::int64_t micro = fraction_micro(fraction, fraction_in_ms);
    seconds_ = wrap_add(seconds, micro / kMicro);
    microseconds_ = static_cast<std::int32_t>(micro % kMicro);
    normalize_();
    return *this;
}

TimePeriod& TimePeriod::operator=(std::int64_t const& seconds) {
    seconds_ = seconds;
    microseconds_ = 0;
    return *this;
}

TimePeriod TimePeriod::operator-() const {
    TimePeriod r;
    r.seconds_ = wrap_sub(0, seconds_);
    r.microseconds_ = -microseconds_;
    return r;
}

TimePeriod TimePeriod::operator+(TimePeriod const& other) const {
    return make_period(wrap_add(seconds_, other.seconds_), static_cast<std::int64_t>(microseconds_) + other.microseconds_);
}

TimePeriod TimePeriod::operator-(TimePeriod const& other) const {
    return make_period(wrap_sub(seconds_, other.seconds_), static_cast<std::int64_t>(microseconds_) - other.microseconds_);
}

TimePeriod& TimePeriod::operator+=(TimePeriod const& other) { return *this = *this + other; }

TimePeriod& TimePeriod::operator-=(TimePeriod const& other) { return *this = *this - other; }

TimePeriod& TimePeriod::operator*=(long n) {
    return *this = make_period(wrap_mul(seconds_, n), wrap_mul(microseconds_, n));
}

TimePeriod TimePeriod::operator*(long n) const {
    // The multiplied fraction is read as milliseconds: the fixed rule of this operator.
    return TimePeriod(wrap_mul(seconds_, n), static_cast<long>(wrap_mul(microseconds_, n)), true);
}

TimePeriod TimePeriod::operator/(long n) const {
    if (n == 0) {
        TVK_LOG(LEVEL_ERR, "TIME PERIOD DIVISION BY ZERO");
        return TimePeriod();
    }
    std::int64_t whole = (n == -1) ? static_cast<std::int64_t>(0ULL - static_cast<std::uint64_t>(seconds_))
                                   : seconds_ / n;
    // The remainder term in signed 32-bit arithmetic, wrapping as the processor does.
    auto s32 = static_cast<std::int32_t>(static_cast<std::uint32_t>(static_cast<std::uint64_t>(seconds_)));
    auto n32 = static_cast<std::int32_t>(static_cast<std::uint32_t>(static_cast<std::uint64_t>(n)));
    std::int32_t rem = (n32 == 0 || n32 == -1) ? 0 : s32 % n32;
    auto scaled = static_cast<std::int32_t>(static_cast<std::uint32_t>(rem) * 1000000u);
    std::int32_t term = (n32 == 0 || (n32 == -1 && scaled == INT32_MIN)) ? 0 : scaled / n32;
    std::int64_t fraction = microseconds_ / n + term;
    return TimePeriod(whole, static_cast<long>(fraction), true);
}

TimePeriod TimePeriod::operator%(long n) const {
    if (n == 0) {
        TVK_LOG(LEVEL_ERR, "TIME PERIOD DIVISION BY ZERO");
        return TimePeriod();
    }
    std::int64_t whole = n == -1 ? 0 : seconds_ % n;
    return TimePeriod(whole, static_cast<long>(microseconds_ % n), true);
}

int TimePeriod::compare(TimePeriod const& other) const {
    if (seconds_ != other.seconds_) return seconds_ < other.seconds_ ? -1 : 1;
    if (microseconds_ != other.microseconds_) return microseconds_ < other.microseconds_ ? -1 : 1;
    return 0;
}

namespace {

AString period_text(TimePeriod const& p, bool full) {
    long frac = p.microseconds() < 0 ? -p.microseconds() : p.microseconds();
    if (!full) frac /= 1000;
    AString text;
    if (p.to_days() >= 1) {
        text.Format(full ? "%ld:%02ld:%02ld:%02ld.%06ld" : "%ld:%02ld:%02ld:%02ld.%03ld", p.to_days(), p.hours(),
                    p.minutes(), p.seconds(), frac);
    } else if (p.hours() >= 1) {
        text.Format(full ? "%02ld:%02ld:%02ld.%06ld" : "%02ld:%02ld:%02ld.%03ld", p.hours(), p.minutes(), p.seconds(),
                    frac);
    } else if (p.minutes() >= 1) {
        text.Format(full ? "%02ld:%02ld.%06ld" : "%02ld:%02ld.%03ld", p.minutes(), p.seconds(), frac);
    } else {
        text.Format(full ? "%ld.%06ld" : "%ld.%03ld", p.seconds(), frac);
    }
    return text;
}

}  // namespace

AString TimePeriod::to_string() const { return period_text(*this, false); }

AString TimePeriod::to_string_full_precision() const { return period_text(*this, true); }

bool TimePeriod::from_string(char const* text) {
    char const* p = text ? text : "";
    if (*p == '-') ++p;  // the sign is skipped and has no effect
    std::int64_t fields[4] = {0, 0, 0, 0};
    int given = 0;
    while (*p && *p != '.') {
        if ((*p >= '0' && *p <= '9') || *p == ':') {
            std::int64_t v = read_digits(p);  // at a ':' there are no digits: 0
            if (given < 4) fields[given++] = v;
            if (*p == ':') ++p;
        } else {
            ++p;
        }
    }
    std::int64_t micro = 0;
    if (*p == '.') {
        char padded[32];
        std::size_t n = std::strlen(p + 1);
        if (n > sizeof padded - 7) n = sizeof padded - 7;
        std::memcpy(padded, p + 1, n);
        while (n < 6) padded[n++] = '0';
        padded[n] = '\0';
        micro = safe_atoi(padded);
    }
    // Right-align the numbers given onto days, hours, minutes, seconds.
    std::int64_t dhms[4] = {0, 0, 0, 0};
    for (int i = 0; i < given; ++i) dhms[4 - given + i] = fields[i];
    std::int64_t seconds = wrap_add(wrap_add(wrap_mul(dhms[0], kDay), wrap_mul(dhms[1], 3600)),
                                    wrap_add(wrap_mul(dhms[2], 60), dhms[3]));
    *this = make_period(seconds, micro);
    return true;
}

long TimePeriod::write(OBStream& out) const {
    AString text = to_string();
    out << text;
    return text.length();
}

long TimePeriod::write_xml(OBStream& out) const {
    out << to_string_full_precision();
    return 1;
}

namespace {

// Skips white space and takes up to 29 characters to the next white space.
AString read_token(IBStream& in) {
    in.eatwhite();
    AString token;
    for (int c; token.length() < 29 && (c = in.peek()) >= 0 && c != ' ' && c != '\t' && c != '\n' && c != '\r';)
        token.append(1, static_cast<char>(in.get()));
    return token;
}

}  // namespace

long TimePeriod::read_xml(IBStream& in) {
    from_string(read_token(in).c_str());
    return 0;
}

// --- calendar -------------------------------------------------------------------------------------------

namespace {

constexpr int kCumulative[2][12] = {{0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334},
                                    {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335}};

bool leap_astronomical(long year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int month_length(int month, bool leap) {
    switch (month) {
        case 2: return leap ? 29 : 28;
        case 4:
        case 6:
        case 9:
        case 11: return 30;
        default: return 31;
    }
}

}  // namespace

bool TimeDate::is_leap_year(int year) { return leap_astronomical(year < 0 ? year + 1 : year); }

long TimeDate::day_number(int year, int month, int day) {
    // No year 0: year -1 is astronomical year 0. The adjustment comes before a month outside 1..12 carries
    // into the year, so that month 13 of year -1 is January of year 1.
    long y = static_cast<std::int16_t>(year);
    if (y < 0) y += 1;
    long m = static_cast<long>(month) - 1;
    long carry = m >= 0 ? m / 12 : -((11 - m) / 12);
    y += carry;
    m -= carry * 12;
    long n = y + 4799;
    return (n / 400) * 146097 + ((n % 400) / 100) * 36524 + ((n % 100) / 4) * 1461 + (n % 4) * 365 + (day - 1) +
           kCumulative[leap_astronomical(y) ? 1 : 0][m] - 31738;
}

void TimeDate::date_of_day(long day_number, int& year, int& month, int& day) {
    long m = day_number + 31738;
    long n = 0;
    long r = m;
    if (m >= 365) {
        long q400 = m / 146097;
        r = m % 146097;
        long q100 = r / 36524;
        if (q100 > 3) q100 = 3;
        r -= q100 * 36524;
        long q4 = r / 1461;
        r %= 1461;
        long q1 = r / 365;
        if (q1 > 3) q1 = 3;
        r -= q1 * 365;
        n = 400 * q400 + 100 * q100 + 4 * q4 + q1;
    }
    long y = n - 4799;
    if (y < 1) y = n - 4800;
    bool leap = is_leap_year(static_cast<int>(y));
    int mo = 1;
    while (mo < 12 && r >= month_length(mo, leap)) {
        r -= month_length(mo, leap);
        ++mo;
    }
    year = static_cast<int>(y);
    month = mo;
    day = static_cast<int>(r + 1);
}

// --- TimeDate ---------------------------------------------------------------------------------------------

TimeDate::TimeDate() : value_(static_cast<std::int64_t>(kEpochDay) * kDay, 0, false) {}

TimeDate::TimeDate(int year, int month, int day, int hour, int minute, int second, int fraction,
                   bool fraction_in_ms) {
    set_time_and_date(year, month, day, hour, minute, second, fraction, fraction_in_ms);
}

TimeDate::TimeDate(tm const& fields, unsigned long microseconds) { set_time_and_date(fields, microseconds); }

TimeDate::TimeDate(std::int64_t seconds) : value_(seconds, 0, false) {}

TimeDate::TimeDate(TimePeriod const& since_day_zero) : value_(since_day_zero) {}

TimeDate& TimeDate::set_time_and_date(int year, int month, int day, int hour, int minute, int second, int fraction,
                                      bool fraction_in_ms) {
    value_.time_period(day_number(year, month, day), hour, minute, second, fraction, fraction_in_ms);
    return *this;
}

TimeDate& TimeDate::set_time_and_date(tm const& fields, unsigned long microseconds) {
    // In 64 bits: a tm_year near INT_MAX must not overflow (the year is cut to 16 bits anyway).
    int year = static_cast<int>(static_cast<long long>(fields.tm_year) + 1900);
    return set_time_and_date(year, fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec,
                             static_cast<int>(microseconds), false);
}

TimeDate& TimeDate::set_time_and_date(std::int64_t seconds) {
    value_ = TimePeriod(seconds, 0, false);
    return *this;
}

TimeDate& TimeDate::set_time_and_date(TimePeriod const& since_day_zero) {
    value_ = since_day_zero;
    return *this;
}

TimeDate TimeDate::now() { return now_if_available(); }

TimeDate TimeDate::now_if_available() {
    using namespace std::chrono;
    auto ms = time_point_cast<milliseconds>(system_clock::now()).time_since_epoch().count();
    std::int64_t seconds = ms / 1000;
    long rest = static_cast<long>(ms % 1000);
    return epoch() + TimePeriod(seconds, rest, true);
}

TimeDate TimeDate::epoch() {
    static TimeDate const reference(1970, 1, 1, 0, 0, 0, 0, true);
    return reference;
}

TimePeriod TimeDate::get_time() const {
    TimePeriod t = value_ - TimePeriod(static_cast<std::int64_t>(value_.to_days()) * kDay, 0, false);
    if (t < TimePeriod()) t += TimePeriod(kDay, 0, false);
    return t;
}

void TimeDate::get_time_and_date(int& year, int& month, int& day, int& hour, int& minute, int& second,
                                 int& fraction, bool fraction_in_ms) const {
    TimePeriod t = get_time();
    // Before day 0 the whole days count toward zero while the time of day counts forward: step back one.
    long days = value_.to_days();
    if (value_ - TimePeriod(static_cast<std::int64_t>(days) * kDay, 0, false) < TimePeriod()) --days;
    date_of_day(days, year, month, day);
    hour = static_cast<int>(t.to_hours());
    minute = static_cast<int>(t.minutes());
    second = static_cast<int>(t.seconds());
    fraction = static_cast<int>(fraction_in_ms ? t.microseconds() / 1000 : t.microseconds());
}

int TimeDate::get_year() const {
    int y, mo, d, h, mi, s, f;
    get_time_and_date(y, mo, d, h, mi, s, f, false);
    return y;
}
int TimeDate::get_month() const {
    int y, mo, d, h, mi, s, f;
    get_time_and_date(y, mo, d, h, mi, s, f, false);
    return mo;
}
int TimeDate::get_day() const {
    int y, mo, d, h, mi, s, f;
    get_time_and_date(y, mo, d, h, mi, s, f, false);
    return d;
}
int TimeDate::get_hour() const { return static_cast<int>(get_time().to_hours()); }
int TimeDate::get_minute() const { return static_cast<int>(get_time().minutes()); }
int TimeDate::get_second() const { return static_cast<int>(get_time().seconds()); }
int TimeDate::get_millisecond() const { return static_cast<int>(get_time().microseconds() / 1000); }
int TimeDate::get_microsecond() const { return static_cast<int>(get_time().microseconds()); }

TimeDate::operator tm() const {
    tm fields;
    std::memset(&fields, 0, sizeof fields);
    int y, mo, d, h, mi, s, f;
    get_time_and_date(y, mo, d, h, mi, s, f, false);
    fields.tm_sec = s;
    fields.tm_min = mi;
    fields.tm_hour = h;
    fields.tm_mday = d;
    fields.tm_mon = mo - 1;
    fields.tm_year = y - 1900;
    return fields;
}

// --- date text ------------------------------------------------------------------------------------------

namespace {

struct DateFields {
    int year, month, day, hour, minute, second, micro;
};

// A small text buffer for one conversion, so formatting a date makes no temporary strings.
struct Piece {
    char text[64];
    unsigned int length = 0;
    void put(char c) {
        if (length < sizeof text) text[length++] = c;
    }
    // value in decimal, at least `digits` digits, padded with `fill`; a minus sign for negatives.
    void number(long value, unsigned int digits, char fill) {
        char tmp[24];
        unsigned int n = 0;
        unsigned long v = value < 0 ? 0ul - static_cast<unsigned long>(value) : static_cast<unsigned long>(value);
        do {
            tmp[n++] = static_cast<char>('0' + v % 10);
            v /= 10;
        } while (v);
        if (value < 0) tmp[n++] = '-';
        for (unsigned int i = n; i < digits; ++i) put(fill);
        while (n) put(tmp[--n]);
    }
};

void format_date(AString& out, char const* format, DateFields const& f, int depth);

// The text of one conversion letter (before padding).
void conversion(Piece& piece, char letter, DateFields const& f, int depth) {
    int h12 = f.hour % 12 == 0 ? 12 : f.hour % 12;
    auto nested = [&](char const* inner) {
        AString text;
        if (depth < 4) format_date(text, inner, f, depth + 1);
        for (unsigned int i = 0; i < text.length(); ++i) piece.put(text.c_str()[i]);
    };
    switch (letter) {
        case 'Y': piece.number(f.year, 0, '0'); break;
        case 'C': piece.number(f.year / 100, 0, '0'); break;
        case 'y': piece.number(f.year % 100, 2, '0'); break;
        case 'm': piece.number(f.month, 2, '0'); break;
        case 'd': piece.number(f.day, 2, '0'); break;
        case 'e': piece.number(f.day, 2, ' '); break;
        case 'H': piece.number(f.hour, 2, '0'); break;
        case 'k': piece.number(f.hour, 2, ' '); break;
        case 'I': piece.number(h12, 2, '0'); break;
        case 'l': piece.number(h12, 2, ' '); break;
        case 'M': piece.number(f.minute, 2, '0'); break;
        case 'S': piece.number(f.second, 2, '0'); break;
        case 'Q': piece.number(f.micro / 1000, 3, '0'); break;
        case 'q': piece.number(f.micro, 6, '0'); break;
        case 's': piece.number(f.year < 0 ? -f.year : f.year, 0, '0'); break;
        case 'f': nested(f.year >= 1000 ? "%s" : "%s %P"); break;
        case 'D': nested("%m/%d/%y"); break;
        case 'T': nested("%H:%M:%S"); break;
        case 'r': nested("%I:%M:%S %p"); break;
        case 'c':
        case 'x':
        case 'X': nested("%Y-%m-%d %H:%M:%S.%Q"); break;
        case 'n': piece.put('\n'); break;
        case 't': piece.put('\t'); break;
        default: piece.put(letter);
    }
}

void format_date(AString& out, char const* format, DateFields const& f, int depth) {
    for (char const* p = format; *p; ++p) {
        if (*p != '%') {
            char const* run = p;
            while (p[1] && p[1] != '%') ++p;
            out.append(run, static_cast<unsigned int>(p - run + 1));
            continue;
        }
        ++p;
        bool right = false;
        char fill = ' ';
        if (*p == '-') {
            right = true;
            ++p;
        } else if (*p == '0') {
            fill = '0';
            ++p;
        }
        unsigned int width = 0;
        while (*p >= '0' && *p <= '9') {
            if (width < 1000) width = width * 10 + static_cast<unsigned>(*p - '0');
            ++p;
        }
        if (!*p) break;
        Piece piece;
        conversion(piece, *p, f, depth);
        unsigned int pad = piece.length < width ? width - piece.length : 0;
        if (!right) out.append(pad, fill);
        out.append(piece.text, piece.length);
        if (right) out.append(pad, fill);
    }
}

}  // namespace

AString TimeDate::to_string(char const* format) const {
    DateFields f{};
    int fraction = 0;
    get_time_and_date(f.year, f.month, f.day, f.hour, f.minute, f.second, fraction, false);
    f.micro = fraction;
    AString out;
    out.reserve(32);
    format_date(out, format ? format : "%Y-%m-%d %H:%M:%S.%Q", f, 0);
    return out;
}

long TimeDate::write(OBStream& out) const {
    AString text = to_string();
    out << text;
    return text.length();
}

long TimeDate::write_xml(OBStream& out) const {
    out << to_string("%Y:%m:%dT%H:%M:%S.%Q");
    return 1;
}

namespace {

// Reads "Y:M:DTh:m:s" with an optional ".ms" into seven numbers; false when the text has another shape.
bool parse_xml_date(char const* p, long v[7]) {
    static char const separators[] = "::T::.";
    for (int i = 0; i < 7; ++i) {
        // Six numbers are a complete date whatever follows them (milliseconds 0), as with the seven.
        if (i == 6 && (p[0] != '.' || ((p[1] < '0' || p[1] > '9') &&
                                       !((p[1] == '-' || p[1] == '+') && p[2] >= '0' && p[2] <= '9')))) {
            v[6] = 0;
            return true;
        }
        if (i > 0) {
            if (*p != separators[i - 1]) return false;
            ++p;
        }
        bool negative = *p == '-';
        if (*p == '-' || *p == '+') ++p;
        if (*p < '0' || *p > '9') return false;
        std::int64_t n = read_digits(p);
        if (n > 0x7FFFFFFF) n = 0x7FFFFFFF;
        v[i] = static_cast<long>(negative ? -n : n);
    }
    return true;
}

}  // namespace

long TimeDate::read_xml(IBStream& in) {
    AString token = read_token(in);
    long v[7] = {};
    if (!parse_xml_date(token.c_str(), v)) return 0;
    set_time_and_date(static_cast<int>(v[0]), static_cast<int>(v[1]), static_cast<int>(v[2]), static_cast<int>(v[3]),
                      static_cast<int>(v[4]), static_cast<int>(v[5]), static_cast<int>(v[6]), true);
    return 1;
}

// --- binary form ------------------------------------------------------------------------------------------

long TimePeriod::write(CommBuffer& out) const {
    long n = out.write(static_cast<long long>(seconds_));
    return n + out.write(static_cast<int>(microseconds_));
}

long TimePeriod::read(CommBuffer const& in) {
    CommBuffer::Pos before = in.get_pos();
    long long seconds = 0;
    int micro = 0;
    in.read(seconds);
    in.read(micro);
    time_period(static_cast<std::int64_t>(seconds), micro, false);
    return static_cast<long>(in.bytes_since(before));
}

long TimeDate::write(CommBuffer& out) const { return (*this - epoch()).write(out); }

long TimeDate::read(CommBuffer const& in) {
    TimePeriod since;
    long n = since.read(in);
    *this = epoch() + since;
    return n;
}

OBStream& operator<<(OBStream& out, TimePeriod const& period) {
    period.write(out);
    return out;
}

OBStream& operator<<(OBStream& out, TimeDate const& date) {
    date.write(out);
    return out;
}

IBStream& operator>>(IBStream& in, TimePeriod& period) {
    period.read_xml(in);
    return in;
}

IBStream& operator>>(IBStream& in, TimeDate& date) {
    date.read_xml(in);
    return in;
}

}  // namespace tarvik
