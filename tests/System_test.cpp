#include "tarvik/System.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <unordered_set>

#include "TestSupport.h"

using namespace tarvik;
using tarvik::test::str;

namespace {

char const kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_$";

int alphabet_index(char c) {
    char const* at = std::char_traits<char>::find(kAlphabet, 64, c);
    return at ? static_cast<int>(at - kAlphabet) : -1;
}

}  // namespace

TEST(System, ProgramNameDefaultsToTheExecutableWhosePathIsAbsoluteAndCanBeSet) {
    std::string const exe = str(get_program_name());
    EXPECT_EQ(exe, "tarvik_System_test");
    EXPECT_TRUE(set_program_name("x"));
    EXPECT_FALSE(set_program_name("x"));
    EXPECT_EQ(str(get_program_name()), "x");
    EXPECT_TRUE(set_program_name(exe.c_str()));
    EXPECT_EQ(str(get_program_name()), exe);

    std::string const path = str(get_program_file_path());
    EXPECT_TRUE(path.starts_with('/')) << path;
    EXPECT_TRUE(path.ends_with("/tarvik_System_test")) << path;
    EXPECT_EQ(::access(path.c_str(), X_OK), 0);
}

TEST(System, ApplicationNameIsTvkUntilSet) {
    EXPECT_EQ(str(get_application_name()), "TVK");
    EXPECT_FALSE(set_application_name("TVK"));
    EXPECT_TRUE(set_application_name("svc"));
    EXPECT_EQ(str(get_application_name()), "svc");
    // An emptied name reads as "TVK" again.
    EXPECT_TRUE(set_application_name(""));
    EXPECT_EQ(str(get_application_name()), "TVK");
}

TEST(System, ThreadIdsDifferBetweenThreadsOfOneProcess) {
    unsigned long const main_id = get_current_thread_id();
    unsigned long other_id = 0, other_pid = 0;
    std::thread([&] {
        other_id = get_current_thread_id();
        other_pid = get_current_process_id();
    }).join();
    EXPECT_NE(other_id, main_id);
    EXPECT_NE(other_id, 0ul);
    EXPECT_EQ(other_pid, static_cast<unsigned long>(::getpid()));
    EXPECT_EQ(main_id, get_current_process_id());  // the main thread's id is the process id on Linux
}

TEST(System, ErrorTextIsNumberThenSystemMessage) {
    errno = 2;
    EXPECT_EQ(str(get_last_system_error_text()), "#2.No such file or directory");
    errno = 12345;
    EXPECT_EQ(str(get_last_system_error_text()), "#12345.");
    errno = -7;
    EXPECT_EQ(str(get_last_system_error_text()), "#-7.");
}

TEST(System, GuidsHaveTheRegistryTextFormOfVersion4) {
    std::regex const form("\\{[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}\\}");
    std::set<std::string> seen;
    for (int i = 0; i < 200; ++i) {
        std::string const guid = str(create_guid());
        ASSERT_TRUE(std::regex_match(guid, form)) << guid;
        seen.insert(guid);
    }
    EXPECT_EQ(seen.size(), 200u);
}

// The compact form encodes the GUID's four 32-bit words in memory order, each little-endian, most
// significant 6 bits first. A version 4 GUID fixes bits that therefore land at known characters: byte 7
// (the top byte of word 1) is 0x4?, so character 7 is always "B" and character 8 comes from the low 4
// bits only; byte 8 (the low byte of word 2) is 10??????, so character 17 has an index of 2 modulo 4.
TEST(System, CompactGuidsAreUniqueAndUseTheAlphabetWordByWord) {
    constexpr int kCount = 100000;
    std::unordered_set<std::string> seen;
    seen.reserve(kCount);
    std::set<char> used;
    std::set<char> firsts;
    int malformed = 0;
    for (int i = 0; i < kCount; ++i) {
        std::string const id = str(create_tvk_guid());
        seen.insert(id);
        if (id.size() != 24) {
            ++malformed;
            continue;
        }
        for (char c : id) {
            if (alphabet_index(c) < 0) ++malformed;
            used.insert(c);
        }
        for (int word = 0; word < 4; ++word) {
            int top = alphabet_index(id[word * 6]);
            if (top < 0 || top > 3) ++malformed;
            if (word != 1) firsts.insert(id[word * 6]);
        }
        if (id[6] != 'B' || alphabet_index(id[7]) > 15 || alphabet_index(id[16]) % 4 != 2) ++malformed;
    }
    EXPECT_EQ(malformed, 0);
    EXPECT_EQ(seen.size(), static_cast<size_t>(kCount));
    EXPECT_EQ(used.size(), 64u);  // every character of the alphabet turns up
    EXPECT_EQ(firsts, (std::set<char>{'A', 'B', 'C', 'D'}));
}
