#include "tarvik/LogHook.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <latch>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "tarvik/IOBStream.h"
#include "tarvik/Log.h"
#include "tarvik/Path.h"
#include "tarvik/System.h"
#include "tarvik/Time.h"

using namespace tarvik;
using tarvik::test::StdoutCapture;
using tarvik::test::TempDir;
using tarvik::test::run_together;
using tarvik::test::split;

namespace {

// Log files in a directory, sorted by name (so by opening time).
std::vector<std::string> log_files(std::string const& dir) {
    std::vector<std::string> out;
    std::error_code ec;
    for (auto const& e : std::filesystem::directory_iterator(dir, ec))
        if (e.path().extension() == ".log") out.push_back(e.path().filename().string());
    std::sort(out.begin(), out.end());
    return out;
}

// A hook that runs a callback per record, and counts its notices.
class ProbeHook : public LogHook {
public:
    std::function<void(Tuple const&)> on_message;
    int activated = 0;
    int deactivated = 0;
    void notify_activated(bool on) override { ++(on ? activated : deactivated); }
    void message(Tuple const& record) override {
        if (on_message) on_message(record);
    }
};

Tuple fixed_record(char const* key, int level = LEVEL_ERR) {
    Tuple r;
    r.set_astring(Symbol("key"), key);
    r.set_int(Symbol("level"), level);
    r.set_list_astring(Symbol(""));
    r.set_time_date(Symbol("time"), TimeDate(2024, 1, 31, 14, 25, 1, 123, true));
    r.set_astring(Symbol("module"), "MOD");
    r.set_astring(Symbol("unit"), "UNIT");
    r.set_int(Symbol("line"), 7);
    r.set_long(Symbol("thread"), 0x1a2b);
    return r;
}

std::string line_of(Tuple const& record, bool escape = false, int width = 132) {
    AString text;
    {
        OBStream out(text, true);
        LogHook::format_line(record, out, escape, width);
    }
    return text.c_str();
}

std::string const kPrefix = "14:25:01.123\tERR|MOD|UNIT|7|1a2b|";

}  // namespace

TEST(LogRecord, CarriesTheDocumentedAttributesAndCatcherHandsThemOverInOrder) {
    CatcherLogHook catcher(true);
    Log("KEY %1 %0", LEVEL_WARN, "MOD", "UNIT", 42) << "a" << 7;
    Log("BARE %0", LEVEL_DEBUG);
    ListTuple out;
    out.push_back(Tuple("kept"));
    catcher.deactivate(out);
    EXPECT_FALSE(catcher->is_activated());
    ASSERT_EQ(out.size(), 3u);
    auto it = out.begin();
    EXPECT_EQ(it->get_class_name(), Symbol("kept"));
    Tuple const& full = *++it;
    Tuple const& bare = *++it;

    std::map<std::string, Types> kinds;
    for (Tuple::Value const* v = full.first(); v; v = v->get_next()) kinds[v->get_symbol().c_str()] = v->get_type();
    EXPECT_EQ(kinds, (std::map<std::string, Types>{{"", T_LIST_ASTRING}, {"key", T_ASTRING}, {"level", T_INT},
                                                   {"line", T_INT}, {"module", T_ASTRING}, {"thread", T_LONG},
                                                   {"time", T_TIME_DATE}, {"unit", T_ASTRING}}));
    EXPECT_EQ(full.get_astring(Symbol("key")), "KEY %1 %0");
    EXPECT_EQ(full.get_int(Symbol("level"), -1), LEVEL_WARN);
    EXPECT_EQ(full.get_astring(Symbol("module")), "MOD");
    EXPECT_EQ(full.get_astring(Symbol("unit")), "UNIT");
    EXPECT_EQ(full.get_int(Symbol("line"), 0), 42);
    EXPECT_EQ(full.get_long(Symbol("thread"), 0), static_cast<std::int64_t>(get_current_thread_id()));
    EXPECT_EQ(full.format(full.get_astring(Symbol("key")).c_str()), "KEY 7 a");
    TimeDate const at = full.get_time_date(Symbol("time"));
    std::time_t now = std::time(nullptr);  // UTC: the wall clock of gmtime()
    std::tm utc{};
    EXPECT_LT(std::abs((at - TimeDate(*gmtime_r(&now, &utc), 0)).to_seconds()), 5L);

    // Null module and unit and line 0 are left out; no arguments: the message is the key as it stands.
    for (char const* absent : {"module", "unit", "line"}) EXPECT_FALSE(bare.is_set(Symbol(absent))) << absent;
    EXPECT_TRUE(bare.is_set(Symbol(""), T_LIST_ASTRING));
    EXPECT_TRUE(bare.get_list_astring(Symbol("")).is_empty());
    EXPECT_EQ(bare.format(bare.get_astring(Symbol("key")).c_str()), "BARE %0");

    // Nothing caught since: the list stays as it is.
    catcher.deactivate(out);
    EXPECT_EQ(out.size(), 3u);
}

TEST(LogDispatch, RegistrationNotifiesOnceAndUnknownHooksCannotBeRemoved) {
    AutoRef<LogHook> probe(new ProbeHook);
    auto& p = static_cast<ProbeHook&>(*probe);
    unsigned int base = LogHook::registered_count();
    EXPECT_FALSE(probe->unhook());
    EXPECT_TRUE(probe->hook());
    EXPECT_FALSE(probe->hook());
    EXPECT_EQ(p.activated, 1);
    EXPECT_TRUE(probe->is_activated());
    EXPECT_EQ(LogHook::registered_count(), base + 1);
    EXPECT_TRUE(probe->unhook());
    EXPECT_FALSE(probe->unhook());
    EXPECT_EQ(p.deactivated, 1);
    EXPECT_FALSE(probe->is_activated());

    // A console hook prints each record once, not once for the hook and once more as a fallback.
    StdoutCapture capture;
    ConsoleLogHook console(true);
    EXPECT_TRUE(console->is_activated());
    Log("VIA CONSOLE HOOK", LEVEL_INFO);
    EXPECT_TRUE(console.activate(false));
    EXPECT_FALSE(console.activate(false));
    Log("NO HOOK AT ALL", LEVEL_INFO);
    EXPECT_EQ(capture.lines_with("VIA CONSOLE HOOK"), 1);
    EXPECT_EQ(capture.lines_with("NO HOOK AT ALL"), 1);
}

TEST(LogDispatch, RecordLoggedInsideAHookGoesToTheConsoleOnly) {
    AutoRef<LogHook> probe(new ProbeHook);
    std::vector<std::string> seen;
    static_cast<ProbeHook&>(*probe).on_message = [&](Tuple const& r) {
        seen.push_back(r.get_astring(Symbol("key")).c_str());
        Log("INNER %0", LEVEL_WARN) << static_cast<int>(seen.size());
    };
    probe->hook();
    StdoutCapture capture;
    Log("OUTER", LEVEL_INFO);
    Log("OUTER", LEVEL_INFO);
    probe->unhook();
    EXPECT_EQ(seen, (std::vector<std::string>{"OUTER", "OUTER"}));
    EXPECT_EQ(capture.lines_with("OUTER"), 0);
    EXPECT_EQ(capture.lines_with("|INNER 1"), 1);
    EXPECT_EQ(capture.lines_with("|INNER 2"), 1);
}

TEST(LogDispatch, RecordFromAnotherThreadDuringDeliveryGoesToTheConsoleOnly) {
    AutoRef<LogHook> probe(new ProbeHook);
    std::latch entered(1), released(1);
    std::vector<std::string> seen;
    static_cast<ProbeHook&>(*probe).on_message = [&](Tuple const& r) {
        seen.push_back(r.get_astring(Symbol("key")).c_str());
        if (seen.back() != "FIRST") return;
        entered.count_down();
        released.wait();
    };
    probe->hook();
    StdoutCapture capture;
    std::thread first([] { Log("FIRST", LEVEL_INFO); });
    entered.wait();
    Log("SECOND", LEVEL_INFO);
    released.count_down();
    first.join();
    Log("THIRD", LEVEL_INFO);  // the dispatch is over: the hooks again
    probe->unhook();
    EXPECT_EQ(seen, (std::vector<std::string>{"FIRST", "THIRD"}));
    EXPECT_EQ(capture.lines_with("|SECOND"), 1);
    EXPECT_EQ(capture.lines_with("FIRST"), 0);
    EXPECT_EQ(capture.lines_with("THIRD"), 0);
}

TEST(LineFormatter, WritesFieldsInOrderWithTheContextBeforeTheMessage) {
    Tuple r = fixed_record("msg %0 %1");
    r.add_astring(Symbol(""), AString("one"));
    r.add_astring(Symbol(""), AString("two"));
    r.set_astring(Symbol("context"), "ctx");
    EXPECT_EQ(line_of(r), kPrefix + "ctx|msg one two\n");

    Tuple sparse;
    sparse.set_astring(Symbol("key"), "SPARSE");
    sparse.set_int(Symbol("level"), 9);
    sparse.set_time_date(Symbol("time"), TimeDate(2024, 1, 31, 0, 0, 5, 7, true));
    EXPECT_EQ(line_of(sparse), "00:00:05.007\t???|||0|0||SPARSE\n");
}

TEST(LineFormatter, EscapesLineEndsBackslashesAndSeparatorsWhenAsked) {
    std::string const indent(16, ' ');
    EXPECT_EQ(line_of(fixed_record("A\nB\nC")), kPrefix + "|A\n" + indent + "B\n" + indent + "C\n");
    EXPECT_EQ(line_of(fixed_record("C:\\dir\\f")), kPrefix + "|C:\\\\dir\\\\f\n");
    EXPECT_EQ(line_of(fixed_record("x\ry")), kPrefix + "|x\\ry\n");

    Tuple r = fixed_record("a|b");
    r.set_astring(Symbol("context"), "c|d\ne");
    EXPECT_EQ(line_of(r), kPrefix + "c|d\n" + indent + "e|a|b\n");
    EXPECT_EQ(line_of(r, true), kPrefix + "c\\|d\n" + indent + "e|a\\|b\n");
    // Width below 1: line feeds print as "\n" and nothing wraps.
    std::string long_key = "A\nB" + std::string(300, 'z');
    EXPECT_EQ(line_of(fixed_record(long_key.c_str()), true, 0), kPrefix + "|A\\nB" + std::string(300, 'z') + "\n");
}

TEST(LineFormatter, WrapsLongTextAtTheWidthLessTwo) {
    // The message starts at column 37 and breaks once the stream's column reaches width - 2; after a line
    // feed the stream counts from -1, so a continuation line holds width - 1 characters.
    std::string key(50, 'y');
    std::vector<std::string> lines = split(line_of(fixed_record(key.c_str()), false, 44), "\n");
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], kPrefix + "|" + std::string(5, 'y'));
    EXPECT_EQ(lines[1], std::string(16, ' ') + std::string(27, 'y'));
    EXPECT_EQ(lines[2], std::string(16, ' ') + std::string(18, 'y'));
}

TEST(FileHook, WritesCrLfLinesToAFileNamedAfterProgramAndOpeningTime) {
    set_program_name("hooktest");
    TempDir dir;
    StdoutCapture capture;
    FileLogHook file(dir.path().c_str());
    EXPECT_EQ(file.get_period(), TimePeriod(3600, 0, false));
    EXPECT_FALSE(file->is_activated());
    Log("BEFORE ACTIVATION", LEVEL_INFO);  // not registered yet: the console
    TimeDate before = TimeDate::now();
    EXPECT_TRUE(file.activate(true));
    Log("FIRST %0", LEVEL_INFO, "MOD", "UNIT", 12) << "x";
    Log("SECOND\nLINE", LEVEL_ERR);
    TimeDate after = TimeDate::now();
    EXPECT_TRUE(file.activate(false));
    Log("AFTER DEACTIVATION", LEVEL_INFO);
    std::string console = capture.text();
    EXPECT_EQ(split(console, "\n").size(), 2u) << console;  // nothing else reached the console
    EXPECT_EQ(capture.lines_with("BEFORE ACTIVATION"), 1);
    EXPECT_EQ(capture.lines_with("AFTER DEACTIVATION"), 1);

    std::vector<std::string> files = log_files(dir.path());
    ASSERT_EQ(files.size(), 1u);
    std::smatch m;
    ASSERT_TRUE(std::regex_match(files[0], m, std::regex("hooktest-([0-9]{8}h[0-9]{6})\\.log"))) << files[0];
    EXPECT_GE(m[1].str(), before.to_string("%Y%m%dh%H%M%S").c_str());
    EXPECT_LE(m[1].str(), after.to_string("%Y%m%dh%H%M%S").c_str());

    std::string const thread = tarvik::test::thread_hex();
    std::string const text = tarvik::test::read_file(dir.file(files[0].c_str()));
    std::regex const shape(std::string("[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}\tINFO\\|MOD\\|UNIT\\|12\\|") + thread +
                           "\\|\\|FIRST x\r\n[0-9:.]{12}\tERR\\|\\|\\|0\\|" + thread + "\\|\\|SECOND\r\n {16}LINE\r\n");
    EXPECT_TRUE(std::regex_match(text, shape)) << text;
}

TEST(FileHook, OpensANewFileOnceThePeriodFromConfigXmlHasPassed) {
    set_program_name("rotate");
    TempDir dir;
    Tuple config("config");
    config.set_time_period(Symbol("max"), TimePeriod(0, 300, true));
    ASSERT_GT(config.write_xml(Path(dir.file("config.xml").c_str())), 0);
    FileLogHook file(dir.path().c_str());
    EXPECT_EQ(file.get_period(), TimePeriod(0, 300, true));
    file.activate(true);
    Log("ROTATE A", LEVEL_INFO);
    Log("ROTATE B", LEVEL_INFO);
    EXPECT_EQ(log_files(dir.path()).size(), 1u);
    // Past the period, and past a second boundary so that the new name differs.
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    Log("ROTATE C", LEVEL_INFO);
    file.activate(false);
    std::vector<std::string> files = log_files(dir.path());
    ASSERT_EQ(files.size(), 2u);
    std::string first = tarvik::test::read_file(dir.file(files[0].c_str()));
    std::string second = tarvik::test::read_file(dir.file(files[1].c_str()));
    EXPECT_NE(first.find("|ROTATE A\r\n"), std::string::npos);
    EXPECT_NE(first.find("|ROTATE B\r\n"), std::string::npos);
    EXPECT_EQ(first.find("ROTATE C"), std::string::npos);
    EXPECT_EQ(split(second, "\r\n").size(), 1u);
    EXPECT_NE(second.find("|ROTATE C\r\n"), std::string::npos);
}

TEST(FileHook, DropsRecordsWhileTheDirectoryCannotBeWrittenAndRecoversLater) {
    set_program_name("dropper");
    TempDir dir;
    std::string const sub = dir.file("later");
    FileLogHook file(sub.c_str());
    file.activate(true);
    StdoutCapture capture;
    Log("LOST", LEVEL_INFO);  // the directory is missing
    ASSERT_EQ(::mkdir(sub.c_str(), 0555), 0);
    bool const read_only_holds = ::geteuid() != 0;  // root writes anyway
    if (read_only_holds) Log("DENIED", LEVEL_INFO);
    ASSERT_EQ(::chmod(sub.c_str(), 0755), 0);
    Log("FOUND", LEVEL_INFO);
    file.activate(false);
    EXPECT_EQ(capture.lines_with("LOST"), 0);
    EXPECT_EQ(capture.lines_with("DENIED"), 0);
    std::vector<std::string> files = log_files(sub);
    ASSERT_EQ(files.size(), 1u);
    std::string text = tarvik::test::read_file(sub + "/" + files[0]);
    EXPECT_EQ(split(text, "\r\n").size(), 1u) << text;
    EXPECT_NE(text.find("|FOUND\r\n"), std::string::npos);
}

TEST(FileHook, ManyThreadsLogEachRecordOnceAndNoLineIsTorn) {
    constexpr int kThreads = 8;
    constexpr int kRecords = 200;
    set_program_name("threads");
    TempDir dir;
    FileLogHook file(dir.path().c_str());
    file.activate(true);
    StdoutCapture capture;
    run_together(kThreads, [&](int t) {
        for (int i = 0; i < kRecords; ++i) Log("WORKER %0 RECORD %1", LEVEL_LOG, "TVK", "TEST", 1) << t << i;
    });
    file.activate(false);

    std::regex const shape("[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}\tLOG\\|TVK\\|TEST\\|1\\|[0-9a-f]+\\|\\|"
                           "WORKER ([0-7]) RECORD ([0-9]+)");
    std::multiset<std::pair<int, int>> found;
    auto take = [&](std::vector<std::string> const& lines, char const* where) {
        for (std::string const& line : lines) {
            std::smatch m;
            ASSERT_TRUE(std::regex_match(line, m, shape)) << where << ": " << line;
            found.emplace(std::stoi(m[1]), std::stoi(m[2]));
        }
    };
    take(split(capture.text(), "\n"), "console");
    std::size_t in_files = 0;
    for (std::string const& name : log_files(dir.path())) {
        std::string text = tarvik::test::read_file(dir.file(name.c_str()));
        EXPECT_EQ(std::count(text.begin(), text.end(), '\r'), std::count(text.begin(), text.end(), '\n'));
        std::vector<std::string> lines = split(text, "\r\n");
        in_files += lines.size();
        take(lines, name.c_str());
    }
    EXPECT_GT(in_files, 0u);
    ASSERT_EQ(found.size(), static_cast<std::size_t>(kThreads * kRecords));
    for (int t = 0; t < kThreads; ++t)
        for (int i = 0; i < kRecords; ++i) EXPECT_EQ(found.count({t, i}), 1u) << t << "/" << i;
}

TEST(SysLogHook, ReceivesRecordsAndPrintsNothing) {
    StdoutCapture capture;
    SysLogHook sys("localhost", 514);
    EXPECT_TRUE(sys->is_activated());
    Log("QUIET %0", LEVEL_ERR, "TVK", "X", 3) << "arg\nline";
    EXPECT_TRUE(sys.activate(false));
    Log("LOUD", LEVEL_ERR);
    EXPECT_EQ(capture.lines_with("QUIET"), 0);
    EXPECT_EQ(capture.lines_with("LOUD"), 1);
}
