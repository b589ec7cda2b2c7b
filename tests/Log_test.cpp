#include "tarvik/Log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "tarvik/Array.h"
#include "tarvik/Blob.h"
#include "tarvik/List.h"
#include "tarvik/Path.h"
#include "tarvik/String.h"
#include "tarvik/StringBuffer.h"
#include "tarvik/Symbol.h"
#include "tarvik/System.h"

using namespace tarvik;
using tarvik::test::StdoutCapture;
using tarvik::test::split;
using tarvik::test::thread_hex;

namespace {

// What a printed line holds after the thread and the empty context: the message (without the line end).
std::string message_of(std::string const& printed) {
    static std::regex const prefix("^[^\t]*\t[^|]*\\|[^|]*\\|[^|]*\\|[^|]*\\|[^|]*\\|\\|");
    std::smatch m;
    if (!std::regex_search(printed, m, prefix)) {
        ADD_FAILURE() << "not a log line: " << printed;
        return printed;
    }
    std::string rest = m.suffix();
    if (!rest.empty() && rest.back() == '\n') rest.pop_back();
    return rest;
}

// The one argument `value` becomes. The key's "%1" stays as it is when exactly one argument was added.
template <class T>
std::string argument_text(T const& value) {
    StdoutCapture capture;
    Log("<%0>%1", LEVEL_INFO) << value;
    std::string const& printed = capture.text();
    EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 1) << printed;
    std::string message = message_of(printed);
    EXPECT_EQ(message.substr(message.size() < 3 ? 0 : message.size() - 3), ">%1") << message;
    return message.size() < 4 ? message : message.substr(1, message.size() - 4);
}

}  // namespace

TEST(Log, PrintsOneLineWithTimeLevelSourceThreadAndMessage) {
    StdoutCapture capture;
    Log("CANNOT OPEN FILE '%0' [%1]", LEVEL_ERR, "TVK", "BLOB", 118) << "a.txt" << 2;
    std::string const text = capture.text();
    std::smatch m;
    ASSERT_TRUE(std::regex_match(
        text, m,
        std::regex("([0-2][0-9]):([0-5][0-9]):([0-5][0-9])\\.[0-9]{3}\tERR\\|TVK\\|BLOB\\|118\\|([0-9a-f]+)\\|\\|"
                   "CANNOT OPEN FILE 'a.txt' \\[2\\]\n")))
        << text;
    EXPECT_LT(std::stoi(m[1]), 24);
    EXPECT_EQ(m[4], thread_hex());
}

TEST(Log, AbsentFieldsPrintEmptyAndUnknownLevelsPrintQuestionMarks) {
    char const* const names[] = {"OK", "FATAL", "ERR", "WARN", "INFO", "LOG", "DEBUG"};
    for (int level = 0; level <= 6; ++level) EXPECT_STREQ(level_name(level), names[level]);
    EXPECT_STREQ(level_name(7), "???");
    EXPECT_STREQ(level_name(-1), "???");

    StdoutCapture capture;
    Log("PLAIN", LEVEL_WARN);
    Log("NULLS", LEVEL_DEBUG, nullptr, "UNIT", 0);
    Log("ODD", static_cast<LOG_LEVEL>(9), "M", nullptr, -3);
    auto lines = split(capture.text());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].substr(12), "\tWARN|||0|" + thread_hex() + "||PLAIN");
    EXPECT_EQ(lines[1].substr(12), "\tDEBUG||UNIT|0|" + thread_hex() + "||NULLS");
    EXPECT_EQ(lines[2].substr(12), "\t???|M||-3|" + thread_hex() + "||ODD");
}

TEST(Log, PlaceholdersAreFilledByArgumentPosition) {
    StdoutCapture capture;
    Log("%1 BEFORE %0", LEVEL_LOG) << "first" << "second";
    Log("RATE 100% OF %1 %{3}", LEVEL_LOG);  // no arguments: the key as it stands
    Log("ONLY %0:", LEVEL_LOG) << 1 << "two" << 3;  // the rest follow the text
    Log("ARG %0 %1", LEVEL_LOG) << "%1" << "x";      // argument texts are not expanded again
    Log(nullptr, LEVEL_LOG) << "alone";
    std::vector<std::string> messages;
    for (std::string const& line : split(capture.text())) messages.push_back(message_of(line));
    EXPECT_EQ(messages, (std::vector<std::string>{"second BEFORE first", "RATE 100% OF %1 %{3}", "ONLY 1:two3",
                                                  "ARG %1 x", "alone"}));
}

TEST(Log, EachInsertionAddsExactlyOneArgument) {
    EXPECT_EQ(argument_text(true), "true");
    EXPECT_EQ(argument_text(1.5), "1.500000");
    EXPECT_EQ(argument_text('c'), "c");
    EXPECT_EQ(argument_text(4294967295u), "4294967295");
    EXPECT_EQ(argument_text(-42L), "-42");
    EXPECT_EQ(argument_text(LLONG_MIN), "-9223372036854775808");
    EXPECT_EQ(argument_text(18446744073709551615ULL), "18446744073709551615");
    EXPECT_EQ(argument_text(reinterpret_cast<void const*>(0x1234abcdefULL)), "1234abcdef");
    EXPECT_EQ(argument_text(static_cast<char const*>(nullptr)), "");
    EXPECT_EQ(argument_text(reinterpret_cast<unsigned char const*>("bytes")), "bytes");
    EXPECT_EQ(argument_text(AString("narrow")), "narrow");
    EXPECT_EQ(argument_text(Symbol("log.symbol")), "log.symbol");
    EXPECT_EQ(argument_text(Path("logs/srv.log")), "logs/srv.log");
    EXPECT_EQ(argument_text(String(L"caf\u00e9")), "caf\xc3\xa9");
    EXPECT_EQ(argument_text(StringBuffer("paged", 2)), "paged");
    EXPECT_EQ(argument_text(Blob("abc", 3, 3)), "Blob#3");
    EXPECT_EQ(argument_text(List<int>{1, 2, 3}), "1,2,3");
    EXPECT_EQ(argument_text(List<int>{}), "");
    EXPECT_EQ(argument_text(List<Symbol>{Symbol("a"), Symbol("b c")}), "a,b c");
    EXPECT_EQ(argument_text(Array<double>{1.5, -2}), "1.500000,-2.000000");
}

TEST(Log, TextConvertersOverwriteAndReturnTheirTarget) {
    AString s("previous");
    EXPECT_EQ(&Log::toString(1.5, s), &s);
    EXPECT_EQ(s, "1.500000");
    EXPECT_EQ(Log::toString(0.125f, s), "0.125000");
    EXPECT_EQ(Log::toString(std::int64_t{-9007199254740993LL}, s), "-9007199254740993");
    EXPECT_EQ(Log::toString(-5, s), "-5");
    EXPECT_EQ(Log::toString(false, s), "false");
}

TEST(Log, MessageIndentsContinuationLinesAndDoublesBackslashes) {
    StdoutCapture capture;
    Log("FIRST\nSECOND %0", LEVEL_INFO) << "arg\nline";
    Log("C:\\dir\\%0", LEVEL_INFO) << "f\\g";
    auto lines = split(capture.text());
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(message_of(lines[0]), "FIRST");
    EXPECT_EQ(lines[1], std::string(16, ' ') + "SECOND arg");
    EXPECT_EQ(lines[2], std::string(16, ' ') + "line");
    EXPECT_EQ(message_of(lines[3]), "C:\\\\dir\\\\f\\\\g");
}

TEST(Log, LongMessagesWrapAtColumn130) {
    std::string key(300, 'x');
    StdoutCapture capture;
    Log(key.c_str(), LEVEL_INFO, "TVK", "LOG", 7);
    auto lines = split(capture.text());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(16 + lines[0].size() - lines[0].find('\t') - 1, 130u);  // the tab reaches column 16
    // Continuation lines start at column 15 after the indent, so a full one holds 131 characters.
    EXPECT_EQ(lines[1], std::string(16, ' ') + std::string(115, 'x'));
    ASSERT_EQ(lines[2].substr(0, 16), std::string(16, ' '));
    EXPECT_EQ(message_of(lines[0]) + lines[1].substr(16) + lines[2].substr(16), key);
}

TEST(Log, RecordsFromSeveralThreadsNeverInterleave) {
    constexpr int kThreads = 4;
    constexpr int kRecords = 250;
    StdoutCapture capture;
    tarvik::test::run_together(kThreads, [&](int t) {
        for (int i = 0; i < kRecords; ++i)
            Log("WORKER %0 RECORD %1 OF %2", LEVEL_LOG, "TVK", "TEST", 1) << t << i << kRecords;
    });
    auto lines = split(capture.text());
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kRecords));
    std::regex const shape("[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}\tLOG\\|TVK\\|TEST\\|1\\|[0-9a-f]+\\|\\|"
                           "WORKER ([0-3]) RECORD ([0-9]+) OF 250");
    std::vector<int> next(kThreads, 0);
    for (std::string const& line : lines) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, shape)) << line;
        int t = std::stoi(m[1]);
        EXPECT_EQ(std::stoi(m[2]), next[t]++);  // each thread's records in its own order
    }
    EXPECT_EQ(next, std::vector<int>(kThreads, kRecords));
}
