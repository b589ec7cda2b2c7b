#include "tarvik/Time.h"

#include <gtest/gtest.h>
#include <sys/time.h>

#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstdint>
#include <ctime>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "TestSupport.h"
#include "tarvik/IOBStream.h"
#include "tarvik/Tuple.h"

namespace tarvik {
// Readable values in failure messages.
void PrintTo(TimeDate const& d, std::ostream* os) { *os << d.to_string("%Y-%m-%d %H:%M:%S.%q").c_str(); }
void PrintTo(TimePeriod const& p, std::ostream* os) {
    *os << p.get_seconds() << "s" << p.get_microseconds() << "us";
}
}  // namespace tarvik

using tarvik::AString;
using tarvik::IBStream;
using tarvik::OBStream;
using tarvik::TimeDate;
using tarvik::TimePeriod;
using tarvik::test::str;

namespace {

using Fields = std::pair<std::int64_t, std::int32_t>;

Fields fields(TimePeriod const& p) { return {p.get_seconds(), p.get_microseconds()}; }
// Seconds and microseconds.
TimePeriod us(std::int64_t seconds, long micro) { return TimePeriod(seconds, micro, false); }

// Runs a test in a local time 5:30 ahead of UTC, so that local and UTC times differ.
class LocalZone {
public:
    LocalZone() : saved_(std::getenv("TZ") ? std::getenv("TZ") : "") {
        ::setenv("TZ", "XST-5:30", 1);
        ::tzset();
    }
    ~LocalZone() {
        saved_.empty() ? ::unsetenv("TZ") : ::setenv("TZ", saved_.c_str(), 1);
        ::tzset();
    }

private:
    std::string saved_;
};

}  // namespace

TEST(TimePeriod, ConstructionNormalisesTheFractionToTheSignOfTheSeconds) {
    EXPECT_EQ(fields(TimePeriod(0, 0, 0, -1, 500, true)), Fields(0, -500000));
    EXPECT_EQ(fields(TimePeriod(0, 0, 0, 1, -200, true)), Fields(0, 800000));
    EXPECT_EQ(fields(TimePeriod(0, 0, 0, 0, 2500000, false)), Fields(2, 500000));
    EXPECT_EQ(fields(TimePeriod(std::int64_t{-3}, 250, true)), Fields(-2, -750000));
    EXPECT_EQ(fields(TimePeriod(30000, 0, 0, 0, 0, true)), Fields(2592000000, 0));

    TimePeriod p(1, 2, 3, 4, 5, true);
    EXPECT_EQ(fields(p), Fields(93784, 5000));
    EXPECT_EQ((std::vector<long>{p.days(), p.hours(), p.minutes(), p.seconds(), p.milliseconds()}),
              (std::vector<long>{1, 2, 3, 4, 5}));
    EXPECT_EQ(p.to_minutes(), 1563);
    EXPECT_EQ(p.to_milliseconds(), 93784005);
    TimePeriod back = us(-90, -1500);  // remainders keep the sign
    EXPECT_EQ((std::vector<long>{back.minutes(), back.seconds()}), (std::vector<long>{-1, -30}));
    EXPECT_EQ(back.to_microseconds(), -90001500);
}

TEST(TimePeriod, SumsAndDifferencesNormaliseAcrossTheSign) {
    EXPECT_EQ(fields(us(1, 200000) - us(1, 500000)), Fields(0, -300000));
    EXPECT_EQ(fields(us(-1, -500000) + us(2, 200000)), Fields(0, 700000));
    EXPECT_EQ(fields(us(2, 300000) + us(0, 900000)), Fields(3, 200000));
    EXPECT_EQ(fields(us(1, 0) - us(0, 1)), Fields(0, 999999));
    EXPECT_EQ(fields(-us(3, 5)), Fields(-3, -5));
    TimePeriod p = us(0, 400000);
    EXPECT_EQ(fields(p -= us(1, 0)), Fields(0, -600000));
    EXPECT_EQ(fields(p += us(5, 700000)), Fields(5, 100000));
}

TEST(TimePeriod, MultiplicationDivisionAndRemainderReadTheFractionAsMilliseconds) {
    EXPECT_EQ(fields(us(1, 1) * 2), Fields(2, 2000));
    EXPECT_EQ(fields(us(-1, -1) * 3), Fields(-3, -3000));
    EXPECT_EQ(fields(us(1, 1) *= 2), Fields(2, 2));
    EXPECT_EQ(fields(us(0, 600000) *= -3), Fields(-1, -800000));

    EXPECT_EQ(fields(us(3, 0) / 2), Fields(501, 0));
    EXPECT_EQ(fields(us(-3, 0) / 2), Fields(-501, 0));
    EXPECT_EQ(fields(us(4, 0) / 2), Fields(2, 0));
    EXPECT_EQ(fields(us(1, 500000) / 2), Fields(750, 0));
    EXPECT_EQ(fields(us(3, 0) / -1), Fields(-3, 0));
    // 3000 * 1000000 wraps in 32 bits to -1294967296; divided by 5000 that is -258993 (ms).
    EXPECT_EQ(fields(us(3000, 0) / 5000), Fields(-258, -993000));
    EXPECT_EQ(fields(us(9, 0) /= 3), Fields(3, 0));

    EXPECT_EQ(fields(us(7, 500000) % 4), Fields(3, 0));
    EXPECT_EQ(fields(us(7, 6) % 4), Fields(3, 2000));
    EXPECT_EQ(fields(us(-7, 0) % 4), Fields(-3, 0));
    EXPECT_EQ(fields(us(10, 0) %= 4), Fields(2, 0));
}

TEST(TimePeriod, DivisionByZeroLogsAndGivesZero) {
    tarvik::test::StdoutCapture capture;
    EXPECT_EQ(fields(us(5, 5) / 0), Fields(0, 0));
    EXPECT_EQ(fields(us(-5, -5) % 0), Fields(0, 0));
    EXPECT_EQ(fields(us(7, 0) /= 0), Fields(0, 0));
    EXPECT_EQ(capture.errors("TIME PERIOD DIVISION BY ZERO", "TIME"), 3) << capture.text();
}

TEST(TimePeriod, ComparisonsOrderSecondsThenMicroseconds) {
    TimePeriod const ordered[] = {us(-2, 0), us(-1, -1), us(-1, 0),    us(0, -1),
                                  us(0, 0),  us(0, 999999), us(1, 0)};
    for (std::size_t i = 0; i < std::size(ordered); ++i)
        for (std::size_t j = 0; j < std::size(ordered); ++j) {
            TimePeriod const &a = ordered[i], &b = ordered[j];
            EXPECT_EQ(a.compare(b), i < j ? -1 : i > j ? 1 : 0) << i << " " << j;
            EXPECT_EQ((std::vector<bool>{a == b, a != b, a < b, a <= b, a > b, a >= b}),
                      (std::vector<bool>{i == j, i != j, i < j, i <= j, i > j, i >= j}));
        }
}

TEST(TimePeriod, TimevalMicrosecondsAreReadAsMilliseconds) {
    EXPECT_EQ(fields(TimePeriod(timeval{7, 5})), Fields(7, 5000));
    TimePeriod p;
    EXPECT_EQ(fields(p = timeval{1, 999999}), Fields(1000, 999000));
    EXPECT_EQ(fields(p = std::int64_t{-42}), Fields(-42, 0));  // whole seconds: the fraction goes

    timeval out = us(3, 250);
    EXPECT_EQ(out.tv_sec, 3);
    EXPECT_EQ(out.tv_usec, 250);
    EXPECT_EQ(fields(TimePeriod(out)), Fields(3, 250000));  // the round trip multiplies the fraction by 1000
}

TEST(TimePeriod, TextFormDependsOnTheLargestWholeUnit) {
    struct Case {
        TimePeriod period;
        char const *brief, *full;
    } const cases[] = {
        {TimePeriod(1, 2, 3, 4, 5, true), "1:02:03:04.005", "1:02:03:04.005000"},
        {us(3600, 1), "01:00:00.000", "01:00:00.000001"},
        {us(61, 250000), "01:01.250", "01:01.250000"},
        {us(3, 500000), "3.500", "3.500000"},
        {us(0, 0), "0.000", "0.000000"},
        {us(-90, 0), "-30.000", "-30.000000"},
        {us(-3661, 0), "-1.000", "-1.000000"},
        {us(0, -500000), "0.500", "0.500000"},
    };
    for (auto const& c : cases) {
        EXPECT_EQ(str(c.period.to_string()), c.brief);
        EXPECT_EQ(str(c.period.to_string_full_precision()), c.full);
    }
}

TEST(TimePeriod, ParsingRightAlignsTheNumbersAndSkipsTheSign) {
    struct Case {
        char const* text;
        Fields want;
    } const cases[] = {
        {"-5", {5, 0}},     {"1.2", {1, 200000}},  {"2.5", {2, 500000}},       {"1:30", {90, 0}},
        {"-1:30", {90, 0}}, {"1:2:3", {3723, 0}},  {"1:00:00:00", {86400, 0}}, {"1:2:3:4:5", {93784, 0}},
        {"x7y", {7, 0}},    {".000001", {0, 1}},   {"1.1234567", {2, 234567}}, {"", {0, 0}},
    };
    for (auto const& c : cases) {
        TimePeriod p = us(99, 99);
        EXPECT_TRUE(p.from_string(c.text));
        EXPECT_EQ(fields(p), c.want) << c.text;
    }
}

TEST(TimePeriod, XmlIsFullPrecisionAndReadingReturnsZero) {
    AString s;
    OBStream out(s);
    EXPECT_EQ(TimePeriod(1, 2, 3, 4, 5, false).write_xml(out), 1);
    EXPECT_EQ(str(s), "1:02:03:04.000005");

    IBStream in(" \t1:02:03:04.000005 1:30");
    TimePeriod p;
    EXPECT_EQ(p.read_xml(in), 0);
    EXPECT_EQ(fields(p), Fields(93784, 5));
    in >> p;
    EXPECT_EQ(fields(p), Fields(90, 0));
}

TEST(TimeDate, EpochIsJulianDay2440588) {
    TimeDate const epoch(1970, 1, 1, 0, 0, 0, 0, true);
    EXPECT_EQ(epoch.julian_day(), 2440588);
    EXPECT_EQ(fields(epoch.get_period()), Fields(210866803200, 0));
    EXPECT_EQ(TimeDate::epoch(), epoch);
    EXPECT_EQ(TimeDate(std::int64_t{210866803200}), epoch);
    EXPECT_EQ(TimeDate::day_number(2000, 1, 1), 2451545);
    EXPECT_EQ(TimeDate::day_number(-4714, 11, 24), 0);
    EXPECT_EQ(str(epoch.to_string()), "1970-01-01 00:00:00.000");
}

TEST(TimeDate, EveryDayFromYearMinus4713To9999ConvertsBothWays) {
    auto leap = [](int civil) {
        int y = civil < 0 ? civil + 1 : civil;
        return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
    };
    static int const length[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    int y = -4713, m = 1, d = 1;
    long day = 38;  // -4713-01-01 is 38 days after -4714-11-24
    for (; y <= 9999; ++day) {
        int gy = 0, gm = 0, gd = 0;
        TimeDate::date_of_day(day, gy, gm, gd);
        bool late = day % 2 != 0;  // alternate the first and the last microsecond of the day
        TimeDate at(y, m, d, late ? 23 : 0, late ? 59 : 0, late ? 59 : 0, late ? 999999 : 0, false);
        if (TimeDate::day_number(y, m, d) != day || gy != y || gm != m || gd != d || at.julian_day() != day ||
            at.get_year() != y || at.get_month() != m || at.get_day() != d)
            FAIL() << y << "-" << m << "-" << d << " is not day " << day << " (back: " << gy << "-" << gm
                   << "-" << gd << ", day " << TimeDate::day_number(y, m, d) << ")";
        if (++d > length[m - 1] + (m == 2 && leap(y) ? 1 : 0)) {
            d = 1;
            if (++m > 12) m = 1, y = y == -1 ? 1 : y + 1;
        }
    }
    EXPECT_EQ(day - 1, 5373484);  // 9999-12-31
}

TEST(TimeDate, LeapYearsFollowTheGregorianRuleWithoutYearZero) {
    for (int year : {-1, -5, -401, 4, 1600, 2000, 2024}) EXPECT_TRUE(TimeDate::is_leap_year(year)) << year;
    for (int year : {-2, -4, -101, 1, 1900, 2023, 2100}) EXPECT_FALSE(TimeDate::is_leap_year(year)) << year;
    EXPECT_EQ(TimeDate::day_number(-1, 3, 1) - TimeDate::day_number(-1, 2, 28), 2);
    EXPECT_EQ(TimeDate::day_number(1900, 3, 1) - TimeDate::day_number(1900, 2, 28), 1);
    EXPECT_EQ(TimeDate::day_number(1, 1, 1) - TimeDate::day_number(-1, 12, 31), 1);
}

TEST(TimeDate, OutOfRangeFieldsCarry) {
    EXPECT_EQ(TimeDate::day_number(2023, 13, 1), TimeDate::day_number(2024, 1, 1));
    EXPECT_EQ(TimeDate::day_number(2024, 0, 31), TimeDate::day_number(2023, 12, 31));
    EXPECT_EQ(TimeDate::day_number(2024, -11, 1), TimeDate::day_number(2023, 1, 1));
    EXPECT_EQ(TimeDate::day_number(-1, 13, 1), TimeDate::day_number(1, 1, 1));
    EXPECT_EQ(TimeDate::day_number(1, 0, 1), TimeDate::day_number(-1, 12, 1));
    EXPECT_EQ(TimeDate::day_number(2024 + 65536, 1, 1), TimeDate::day_number(2024, 1, 1));  // 16-bit year

    EXPECT_EQ(TimeDate(2024, 2, 28, 25, 0, 0, 0, true), TimeDate(2024, 2, 29, 1, 0, 0, 0, true));
    EXPECT_EQ(TimeDate(2023, 12, 31, 23, 59, 60, 0, true), TimeDate(2024, 1, 1, 0, 0, 0, 0, true));
    EXPECT_EQ(TimeDate(2024, 3, 1, 0, -1, 0, 1500, true), TimeDate(2024, 2, 29, 23, 59, 1, 500, true));
    TimeDate a(2024, 2, 28, 12, 0, 0, 0, true), b(2024, 3, 1, 13, 0, 0, 0, true);
    EXPECT_EQ(fields(b - a), Fields(2 * 86400 + 3600, 0));
    EXPECT_EQ(a + TimePeriod(2, 1, 0, 0, 0, true), b);
    EXPECT_EQ(a += TimePeriod(2, 1, 0, 0, 0, true), b);
}

TEST(TimeDate, FieldsAndTimeOfDaySplitTheValue) {
    TimeDate d(2024, 1, 31, 14, 25, 1, 123456, false);
    EXPECT_EQ(fields(d.get_time()), Fields(14 * 3600 + 25 * 60 + 1, 123456));
    int y, mo, day, h, mi, s, f;
    d.get_time_and_date(y, mo, day, h, mi, s, f, true);
    EXPECT_EQ((std::vector<int>{y, mo, day, h, mi, s, f}), (std::vector<int>{2024, 1, 31, 14, 25, 1, 123}));
    d.get_time_and_date(y, mo, day, h, mi, s, f, false);
    EXPECT_EQ((std::vector<int>{f, d.get_millisecond(), d.get_microsecond()}),
              (std::vector<int>{123456, 123, 123456}));

    // Before day 0 the stored value is negative; the time of day still counts forward from midnight.
    TimeDate early(-4714, 11, 23, 6, 30, 0, 0, true);
    EXPECT_LT(early.get_period(), TimePeriod());
    EXPECT_EQ(fields(early.get_time()), Fields(6 * 3600 + 30 * 60, 0));
    EXPECT_EQ(str(early.to_string()), "-4714-11-23 06:30:00.000");
}

TEST(TimeDate, TmConversionGoesBothWays) {
    std::tm t{};
    t.tm_year = 124, t.tm_mon = 1, t.tm_mday = 29, t.tm_hour = 13, t.tm_min = 14, t.tm_sec = 15;
    t.tm_wday = 5, t.tm_yday = 50, t.tm_isdst = 1;
    EXPECT_EQ(TimeDate(t, 250), TimeDate(2024, 2, 29, 13, 14, 15, 250, false));
    TimeDate d;
    EXPECT_EQ(d = t, TimeDate(2024, 2, 29, 13, 14, 15, 0, true));
    EXPECT_EQ(d.set_time_and_date(t, 7).get_microsecond(), 7);

    std::tm r = TimeDate(1899, 12, 31, 23, 58, 57, 0, true);
    EXPECT_EQ((std::vector<int>{r.tm_year, r.tm_mon, r.tm_mday, r.tm_hour, r.tm_min, r.tm_sec, r.tm_wday,
                                r.tm_yday, r.tm_isdst}),
              (std::vector<int>{-1, 11, 31, 23, 58, 57, 0, 0, 0}));
}

TEST(TimeDate, FormatConversionsWithFlagsAndWidths) {
    TimeDate const d(2024, 3, 5, 7, 8, 9, 12345, false), y42(42, 3, 5, 0, 0, 0, 0, true),
        bc(-44, 3, 15, 15, 30, 0, 0, true);
    struct Case {
        TimeDate const& date;
        char const *format, *want;
    } const cases[] = {
        {d, "%Y", "2024"},     {d, "%C", "20"},         {d, "%y", "24"},          {d, "%m", "03"},
        {d, "%d", "05"},       {d, "%e", " 5"},         {d, "%H", "07"},          {d, "%k", " 7"},
        {d, "%I", "07"},       {d, "%l", " 7"},         {d, "%M", "08"},          {d, "%S", "09"},
        {d, "%Q", "012"},      {d, "%q", "012345"},     {d, "%s", "2024"},        {d, "%f", "2024"},
        {d, "%D", "03/05/24"}, {d, "%T", "07:08:09"},   {d, "%r", "07:08:09 p"},  {d, "%n%t", "\n\t"},
        {d, "%c|%x|%X", "2024-03-05 07:08:09.012|2024-03-05 07:08:09.012|2024-03-05 07:08:09.012"},
        {d, "%p%P%Z%%", "pPZ%"}, {d, "at %H!", "at 07!"}, {d, "%05Y", "02024"},   {d, "%3Y", "2024"},
        {d, "%5m", "   03"},   {d, "%-3e|", " 5 |"},    {d, "%06q", "012345"},    {d, "%8T", "07:08:09"},
        {y42, "%-5Y|", "42   |"}, {y42, "%05C", "00000"}, {y42, "%I %l", "12 12"}, {y42, "%f", "42 P"},
        {bc, "%Y %s %f", "-44 44 44 P"}, {bc, "%I %l %k", "03  3 15"}, {bc, "%-5Y|%05s", "-44  |00044"},
    };
    for (auto const& c : cases) EXPECT_EQ(str(c.date.to_string(c.format)), c.want) << c.format;
    EXPECT_EQ(str(d.to_string()), "2024-03-05 07:08:09.012");
}

TEST(TimeDate, XmlIsWrittenWithTheTSeparatorAndReadInTwoForms) {
    AString s;
    OBStream out(s);
    EXPECT_EQ(TimeDate(2024, 1, 31, 14, 25, 1, 123, true).write_xml(out), 1);
    EXPECT_EQ(str(s), "2024:01:31T14:25:01.123");

    struct Case {
        char const* text;
        TimeDate want;
    } const accepted[] = {
        {"2024:01:31T14:25:01.123", TimeDate(2024, 1, 31, 14, 25, 1, 123, true)},
        {" \n 2024:1:31T14:25:01 more", TimeDate(2024, 1, 31, 14, 25, 1, 0, true)},
        {"2024:01:31T14:25:01Z", TimeDate(2024, 1, 31, 14, 25, 1, 0, true)},
        {"-44:03:15T15:30:00.5", TimeDate(-44, 3, 15, 15, 30, 0, 5, true)},
    };
    for (auto const& c : accepted) {
        IBStream in(c.text);
        TimeDate got;
        EXPECT_EQ(got.read_xml(in), 1) << c.text;
        EXPECT_EQ(got, c.want) << c.text;
    }
    for (char const* text :
         {"", "2024-01-31T14:25:01", "2024:01:31", "2024:01:31 14:25:01", "2024:01:31T14:25", "x"}) {
        IBStream in(text);
        TimeDate got(2001, 2, 3, 4, 5, 6, 7, true);
        EXPECT_EQ(got.read_xml(in), 0) << text;
        EXPECT_EQ(got, TimeDate(2001, 2, 3, 4, 5, 6, 7, true)) << text;
    }
}

TEST(TimeDate, NowIsUtcToTheMillisecond) {
    using namespace std::chrono;
    LocalZone zone;
    auto before = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
    TimeDate now = TimeDate::now();
    auto after = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
    std::int64_t ms = (now - TimeDate::epoch()).to_milliseconds();
    EXPECT_GE(ms, before - 1000);
    EXPECT_LE(ms, after + 1000);
    EXPECT_EQ(now.get_microsecond() % 1000, 0);
}

TEST(TimeDate, FileTimeIsLocalTimeOrTheEpochWhenItCannotBeConverted) {
    LocalZone zone;
    timespec ts{1700000000, 123456789};  // 2023-11-14 22:13:20.123456789 UTC
    std::tm local{};
    ASSERT_NE(localtime_r(&ts.tv_sec, &local), nullptr);
    EXPECT_EQ(TimeDate(ts), TimeDate(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                                     local.tm_min, local.tm_sec, 123, true));
    EXPECT_EQ(str(TimeDate(ts).to_string()), "2023-11-15 03:43:20.123");

    for (timespec bad : {timespec{1700000000, 1000000000}, timespec{1700000000, -1}, timespec{INT64_MAX, 0}})
        EXPECT_EQ(TimeDate(bad), TimeDate::epoch()) << bad.tv_sec << " " << bad.tv_nsec;

    // Late in the last year a tm can hold (tm_year INT_MAX); the year is then cut to 16 bits: 1899.
    ts = timespec{67768036191676799 - 2 * 86400, 0};
    if (!localtime_r(&ts.tv_sec, &local) || local.tm_year != INT_MAX)
        GTEST_SKIP() << "no such local time here";
    TimeDate far(ts);
    EXPECT_EQ(far.get_year(), 1899);
    EXPECT_EQ(far.get_month(), local.tm_mon + 1);
    EXPECT_EQ(far.get_day(), local.tm_mday);
}

TEST(TimePeriod, ArithmeticWrapsAtTheEndsOfTheRangeInsteadOfOverflowing) {
    std::int64_t const max = std::numeric_limits<std::int64_t>::max();
    std::int64_t const min = std::numeric_limits<std::int64_t>::min();
    EXPECT_EQ((TimePeriod(max, 0, false) + TimePeriod(1, 0, false)).get_seconds(), min);
    EXPECT_EQ((TimePeriod(min, 0, false) - TimePeriod(1, 0, false)).get_seconds(), max);
    EXPECT_EQ((-TimePeriod(min, 0, false)).get_seconds(), min);
    TimePeriod scaled(max, 0, false);
    scaled *= 2;
    EXPECT_EQ(scaled.get_seconds(), -2);
    EXPECT_EQ(TimePeriod(max, 0, false).to_milliseconds(), static_cast<std::int64_t>(static_cast<std::uint64_t>(max) * 1000u));
    TimePeriod parsed;
    parsed.from_string("999999999999999999:0:0:0");  // days beyond the range: wraps, no fault
    // Dates at the ends of the range still have a text form.
    tarvik::Tuple t;
    t.set_time_date("d", TimeDate(TimePeriod(min, 0, false)));
    EXPECT_FALSE(t.to_string().is_empty());
}
