#include "tarvik/GlobVar.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "tarvik/IOBStream.h"
#include "tarvik/Path.h"
#include "tarvik/TypeManager.h"

using tarvik::AString;
using tarvik::GlobVar;
using tarvik::GlobVarBool;
using tarvik::GlobVarInt;
using tarvik::GlobVarLog;
using tarvik::GlobVarText;
using tarvik::Symbol;
using tarvik::SymbolList;
using tarvik::test::run_together;

namespace {

std::vector<std::string> names(SymbolList const& list) {
    std::vector<std::string> out;
    for (Symbol const& s : list) out.emplace_back(s.c_str());
    return out;
}

bool has_module(char const* module) {
    SymbolList list;
    GlobVar::get_modules(list);
    std::vector<std::string> all = names(list);
    return std::find(all.begin(), all.end(), module) != all.end();
}

// Puts the process-wide default log level back however the test ends.
struct ProcessDefaultGuard {
    int saved = GlobVarLog::get_default();
    ~ProcessDefaultGuard() { GlobVarLog::set_default(saved); }
};

}  // namespace

TEST(GlobVar, IntAndBoolOfTheSameNameAreDistinctVariables) {
    Symbol m("T.GV.KINDS");
    GlobVarInt i(m, "X", 5);
    GlobVarBool b(m, "X", true);
    EXPECT_EQ(i.get(), 5);
    EXPECT_TRUE(b.get());
    EXPECT_EQ(GlobVarInt::set(m, "X", 0), 5);
    EXPECT_TRUE(GlobVarBool::set(m, "X", true));  // the previous value: the integer left it alone
    EXPECT_EQ(b.set(false), true);
    EXPECT_EQ(i.get(), 0);
    EXPECT_EQ(GlobVarLog::get(m, "X"), 0);
}

TEST(GlobVar, ObjectsOfOneVariableShareAnEntryUntilTheLastGoes) {
    Symbol m("T.GV.SHARED");
    auto five = std::make_unique<GlobVarInt>(m, "N", 5);
    auto seven = std::make_unique<GlobVarInt>(m, "N", 7);
    auto plain = std::make_unique<GlobVarInt>(m, "N");  // no value: keeps the one set before
    auto other = std::make_unique<GlobVarBool>(m, "B");
    EXPECT_EQ(five->get(), 7);
    (*five)++;
    EXPECT_EQ(plain->set(-3), 8);
    (*seven)--;
    EXPECT_EQ(GlobVarInt::get(m, "N"), -4);
    EXPECT_EQ(GlobVarLog::set_default(m, 3), 0);

    five.reset();
    plain.reset();
    EXPECT_EQ(GlobVarInt::get(m, "N"), -4);
    seven.reset();
    EXPECT_EQ(GlobVarInt::get(m, "N"), 0);
    SymbolList list;
    EXPECT_EQ(GlobVarInt::get_names(m, list), 0);
    EXPECT_TRUE(has_module("T.GV.SHARED"));  // kept by the boolean
    EXPECT_EQ(GlobVarLog::get_default(m), 3);

    other.reset();
    EXPECT_FALSE(has_module("T.GV.SHARED"));
    // Made anew, the module and the variable start from 0.
    GlobVarInt again(m, "N");
    EXPECT_EQ(again.get(), 0);
    EXPECT_EQ(GlobVarLog::get_default(m), 0);
}

TEST(GlobVar, StaticAccessToAnUndeclaredVariableCreatesNothing) {
    Symbol m("T.GV.UNDECLARED");
    EXPECT_EQ(GlobVarInt::set(m, "N", 3), 0);
    EXPECT_EQ(GlobVarInt::get(m, "N"), 0);
    EXPECT_FALSE(GlobVarBool::set(m, "B", true));
    EXPECT_EQ(GlobVarLog::set(m, "L", 4), 0);
    EXPECT_EQ(GlobVarLog::set_default(m, 3), 0);
    EXPECT_EQ(GlobVarLog::get_default(m), 0);
    EXPECT_FALSE(has_module("T.GV.UNDECLARED"));
}

TEST(GlobVar, ListsModulesAndNamesNewestFirst) {
    GlobVarInt older(Symbol("T.GV.LIST1"), "A");
    GlobVarInt a(Symbol("T.GV.LIST2"), "A");
    GlobVarInt b(Symbol("T.GV.LIST2"), "B");
    GlobVarBool c(Symbol("T.GV.LIST2"), "C");
    GlobVarInt d(Symbol("T.GV.LIST2"), "D");
    GlobVarLog e(Symbol("T.GV.LIST2"), "src/E.cpp");

    SymbolList mods;
    EXPECT_EQ(GlobVar::get_modules(mods), 0);
    std::vector<std::string> listed = names(mods);
    ASSERT_GE(listed.size(), 3u);
    EXPECT_EQ(listed[0], "T.GV.LIST2");
    EXPECT_EQ(listed[1], "T.GV.LIST1");
    EXPECT_NE(std::find(listed.begin(), listed.end(), "TVK"), listed.end());

    SymbolList ints;
    ints.push_back(Symbol("kept"));  // appended to, not replaced
    EXPECT_EQ(GlobVarInt::get_names(Symbol("T.GV.LIST2"), ints), 3);
    EXPECT_EQ(names(ints), (std::vector<std::string>{"kept", "D", "B", "A"}));
    SymbolList bools, logs;
    EXPECT_EQ(GlobVarBool::get_names(Symbol("T.GV.LIST2"), bools), 1);
    EXPECT_EQ(GlobVarLog::get_names(Symbol("T.GV.LIST2"), logs), 1);
    EXPECT_EQ(names(logs), (std::vector<std::string>{"E"}));
    EXPECT_EQ(GlobVarLog::get_names(Symbol("T.GV.NOWHERE"), logs), 0);
}

TEST(GlobVar, LogLevelIsTheLargestOfOwnModuleAndProcessLevels) {
    ProcessDefaultGuard guard;
    Symbol m("T.GV.LEVELS");
    GlobVarLog v(m, "some/dir/Level-unit.cpp");
    EXPECT_EQ(v.get_name(), Symbol("LEVEL-UNIT"));

    GlobVarLog::set_default(1);
    EXPECT_EQ(GlobVarLog::set_default(m, 2), 0);
    EXPECT_EQ(static_cast<int>(v), 2);
    EXPECT_EQ(GlobVarLog::get(m, "LEVEL-UNIT"), 0);  // the static form reads the own level
    EXPECT_EQ(GlobVarLog::set_default(4), 1);
    EXPECT_EQ(v.get(), 4);

    EXPECT_EQ(v.set(6), 0);
    v--;
    EXPECT_EQ(v.get(), 5);
    EXPECT_EQ(GlobVarLog::set(m, "LEVEL-UNIT", 0), 5);
    EXPECT_EQ(GlobVarLog::set_default(m, 0), 2);
    GlobVarLog::set_default(0);
    EXPECT_EQ(v.get(), 0);

    // A second object for the same file with a level sets the shared entry.
    GlobVarLog same(m, "elsewhere/Level-unit.h", 3);
    EXPECT_EQ(v.get(), 3);
}

TEST(GlobVar, LogVariablesAreNamedAfterTheSourceFileAndTheLibraryDeclaresItsOwn) {
    SymbolList logs;
    EXPECT_GT(GlobVarLog::get_names(Symbol("TVK"), logs), 5);
    std::vector<std::string> listed = names(logs);
    // Every source file of the library has its own unit, named after the file: Tarvik.cpp is "TARVIK",
    // Event-linux.cpp "EVENT-LINUX". Each name is listed once.
    char const* const units[] = {
        "ASTRING", "ASTRING-LINUX", "AUTOREF", "BASEARRAY", "BASELIST", "BLOB", "COMMBUFFER", "TARVIK",
        "CRITICALSECTION", "CRITICALSECTION-LINUX", "DIRECTORY", "DIRECTORY-LINUX", "EVENT", "EVENT-LINUX",
        "FILE-LINUX", "FILELOCK", "FILELOCK-LINUX", "GLOBVAR", "HMAP", "IOBSTREAM", "LOG", "LOGHOOK",
        "LOGHOOK-LINUX", "MEMORY", "MUTEX", "MUTEX-LINUX", "NAMEDSYNC-LINUX", "PARSER", "PATH", "PATH-LINUX",
        "PROCESSOR", "SHAREDMEMORY", "SHAREDMEMORY-LINUX", "STRING", "STRINGBUFFER", "SYMBOL", "SYSTEM",
        "SYSTEM-LINUX", "TABLE", "THREAD", "THREAD-LINUX", "THREADCONTEXT", "TIME", "TIME-LINUX", "TUPLE",
        "TUPLEREADXML", "TUPLETEXT", "TUPLEWRITEXML", "TYPEMANAGER"};
    for (char const* unit : units) EXPECT_EQ(std::count(listed.begin(), listed.end(), unit), 1) << unit;
    EXPECT_EQ(std::string(GlobVarLog::name_of_source("src/Blob-linux.cpp").c_str()), "BLOB-LINUX");
    EXPECT_EQ(std::string(GlobVarLog::name_of_source("Plain").c_str()), "PLAIN");
}

TEST(GlobVar, ConcurrentBindingAndReleaseKeepTheRegistryConsistent) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    Symbol m("T.GV.THREADS");
    auto held = std::make_unique<GlobVarInt>(m, "SHARED", 1);
    run_together(kThreads, [&](int t) {
        std::string own = "OWN" + std::to_string(t);
        for (int k = 0; k < kRounds; ++k) {
            GlobVarInt shared(m, "SHARED");
            GlobVarBool mine(m, own.c_str(), true);
            GlobVarInt::set(m, "SHARED", k);
        }
    });

    SymbolList ints, bools;
    EXPECT_EQ(GlobVarInt::get_names(m, ints), 1);
    EXPECT_EQ(GlobVarBool::get_names(m, bools), 0);
    EXPECT_EQ(held->get(), kRounds - 1);
    held.reset();
    EXPECT_FALSE(has_module("T.GV.THREADS"));
}

// --- loading from INI text and library start ---------------------------------------------------------

namespace {

int load(char const* text, char const* source = "test.ini") {
    tarvik::IBStream in(text);
    return GlobVar::load_ini(in, source);
}

}  // namespace

TEST(GlobVarIni, SetsDeclaredVariablesOfEachKindAndCountsThem) {
    tarvik::test::TempDir dir;
    Symbol m("T.INI.SET");
    GlobVarInt retries(m, "RETRIES", 1);
    GlobVarBool verbose(m, "VERBOSE");
    GlobVarLog unit(m, "src/IniUnit.cpp");
    GlobVarInt other(Symbol("T.INI.OTHER"), "RETRIES", 4);
    std::string const path = dir.file("vars.ini");
    ASSERT_TRUE(tarvik::test::write_file(path, "; settings\r\n# more\r\n[T.INI.SET]\r\n  RETRIES = -12\r\n"
                                               "VERBOSE=yes\r\n\r\nINIUNIT = \"DEBUG\"\r\n"));
    EXPECT_EQ(GlobVar::load_ini(tarvik::Path(path.c_str())), 3);
    EXPECT_EQ(retries.get(), -12);
    EXPECT_TRUE(verbose.get());
    EXPECT_EQ(GlobVarLog::get(m, "INIUNIT"), 6);
    EXPECT_EQ(other.get(), 4);  // another module's variable of that name is left alone

    struct Case {
        char const* text;
        bool value;
    };
    for (Case c : {Case{"true", true}, Case{"false", false}, Case{"yes", true}, Case{"no", false},
                   Case{"on", true}, Case{"off", false}, Case{"1", true}, Case{"0", false}, Case{"ON", true}}) {
        verbose.set(!c.value);
        EXPECT_EQ(load(("[T.INI.SET]\nVERBOSE = " + std::string(c.text)).c_str()), 1) << c.text;
        EXPECT_EQ(verbose.get(), c.value) << c.text;
    }
    for (auto [text, level] : std::vector<std::pair<char const*, int>>{{"ERR", 2}, {"debug", 6}, {"OK", 0}, {"4", 4}}) {
        EXPECT_EQ(load(("[T.INI.SET]\nINIUNIT=" + std::string(text)).c_str()), 1) << text;
        EXPECT_EQ(GlobVarLog::get(m, "INIUNIT"), level) << text;
    }

    // One name under two kinds: each kind whose form the value has is set, and counted.
    GlobVarBool twin(m, "RETRIES");
    EXPECT_EQ(load("[T.INI.SET]\nRETRIES = 1\n"), 2);
    EXPECT_EQ(retries.get(), 1);
    EXPECT_TRUE(twin.get());
    EXPECT_EQ(load("[T.INI.SET]\nRETRIES = off\n"), 1);  // a boolean only; no bad value for the integer
    EXPECT_EQ(retries.get(), 1);
    EXPECT_FALSE(twin.get());
}

TEST(GlobVarIni, TextVariablesTakeTheValueAsItStandsAndReadBackByName) {
    Symbol m("T.INI.TEXT");
    GlobVarText path(m, "PATH", "/etc/default.pem");
    GlobVarText same(m, "PATH");  // binds the same entry: the value of the first
    EXPECT_EQ(same.get(), "/etc/default.pem");
    EXPECT_EQ(load("[T.INI.TEXT]\nPATH = /srv/tls/server key.pem\n"), 1);
    EXPECT_EQ(path.get(), "/srv/tls/server key.pem");
    EXPECT_TRUE(GlobVarText::set(m, "PATH", ""));
    EXPECT_EQ(GlobVarText::get(m, "PATH"), "");
    EXPECT_FALSE(GlobVarText::set(m, "UNDECLARED", "x"));
    EXPECT_EQ(GlobVarText::get(m, "UNDECLARED"), "");
    SymbolList names;
    EXPECT_EQ(GlobVarText::get_names(m, names), 1);
}

TEST(GlobVarIni, ReportsUnknownNamesAndBadValuesAndSetsTheRest) {
    Symbol m("T.INI.BAD");
    GlobVarInt n(m, "N", 3);
    GlobVarBool b(m, "B", true);
    GlobVarLog l(m, "Lvl.cpp", 1);
    tarvik::test::StdoutCapture capture;
    EXPECT_EQ(load("[T.INI.BAD]\nGHOST = 1\nN = twelve\nB = maybe\nLVL = LOUD\nN = 99999999999\n[T.INI.NEW]\nA=1\n"
                   "[T.INI.BAD]\nN = 8\n",
                   "cfg.ini"),
              1);
    EXPECT_EQ(capture.records_with("WARN|TVK|GLOBVAR|"), 2);
    EXPECT_EQ(capture.records_with("ERR|TVK|GLOBVAR|"), 4);
    for (char const* record : {"UNKNOWN GLOBAL VARIABLE [T.INI.BAD] GHOST (cfg.ini LINE 2)",
                               "UNKNOWN GLOBAL VARIABLE [T.INI.NEW] A (cfg.ini LINE 8)",
                               "BAD VALUE 'twelve' FOR [T.INI.BAD] N (cfg.ini LINE 3)",
                               "BAD VALUE 'maybe' FOR [T.INI.BAD] B (cfg.ini LINE 4)",
                               "BAD VALUE 'LOUD' FOR [T.INI.BAD] LVL (cfg.ini LINE 5)",
                               "BAD VALUE '99999999999' FOR [T.INI.BAD] N (cfg.ini LINE 6)"})
        EXPECT_EQ(capture.records_with(std::string("|") + record), 1) << record;
    EXPECT_EQ(n.get(), 8);
    EXPECT_TRUE(b.get());
    EXPECT_EQ(GlobVarLog::get(m, "LVL"), 1);
    EXPECT_FALSE(has_module("T.INI.NEW"));
    SymbolList ints;
    EXPECT_EQ(GlobVarInt::get_names(m, ints), 1);  // no GHOST made
}

TEST(GlobVarIni, MalformedTextOrAMissingFileSetsNothing) {
    Symbol m("T.INI.MALFORMED");
    GlobVarInt n(m, "N", 3);
    tarvik::test::StdoutCapture capture;
    EXPECT_EQ(load("[T.INI.MALFORMED]\nN = 4\nno equals sign here\nN = 5\n"), -1);
    EXPECT_EQ(load("[T.INI.MALFORMED\nN = 4\n"), -1);
    EXPECT_EQ(load("[T.INI.MALFORMED]\n = 4\n"), -1);
    EXPECT_EQ(n.get(), 3);
    EXPECT_EQ(capture.records_with("INI: '=' EXPECTED AT LINE 3"), 1);
    EXPECT_EQ(load(""), 0);

    tarvik::test::TempDir dir;
    EXPECT_EQ(GlobVar::load_ini(tarvik::Path(dir.file("missing.ini").c_str())), -1000002);
    EXPECT_EQ(n.get(), 3);
}

TEST(LibraryStart, ReturnsOneEveryTimeAndBuildsTheKindManagers) {
    EXPECT_EQ(tarvik::init(), 1);
    EXPECT_NE(tarvik::TypeManager::get(tarvik::T_INT), nullptr);
    EXPECT_NE(tarvik::TypeManager::get(tarvik::T_LIST_TUPLE), nullptr);
    EXPECT_EQ(tarvik::init(), 1);
}
