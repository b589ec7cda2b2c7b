#include "TestSupport.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <latch>
#include <limits>
#include <sstream>
#include <thread>
#include <vector>

#include "tarvik/Blob.h"
#include "tarvik/IOBStream.h"
#include "tarvik/String.h"
#include "tarvik/StringBuffer.h"
#include "tarvik/Symbol.h"
#include "tarvik/System.h"
#include "tarvik/Time.h"
#include "tarvik/Tuple.h"

extern char** environ;

namespace tarvik::test {

// One attribute of every kind, named by its code: values of several integer bytes, negative numbers, empty
// and non-ASCII contents, repeated names.
Tuple awkward_kinds() {
    using F = std::numeric_limits<float>;
    using D = std::numeric_limits<double>;
    using L = std::numeric_limits<std::int64_t>;
    AString bytes("<a href=\"x\" b='y'>&amp; </a>\n\r\t\v\f two  spaces \x80\xe9\xff");
    WChar const units[] = {'<', 0xE9, 0x20AC, 0xD83D, 0xDE00, 0xFFFF, '\n', ' '};
    StringBuffer buffer(4);  // several pages
    buffer.append(bytes.c_str(), bytes.length());
    Tuple inner("user & <co>");
    inner.set_astring("name\t\"x\"", " padded ");
    for (char const* name : {" ", ":", "a\"b"}) inner.set_astring(name, name);  // names that need quoting
    Tuple t("every kind");
    t.set_bool("b", true);
    t.set_list_bool("lbo", ListBool{false, true});
    t.set_int("i", std::numeric_limits<int>::min());
    t.set_list_int("li", ListInt{std::numeric_limits<int>::max(), 0});
    t.set_long("l", L::min());
    t.set_list_long("ll", ListLong{L::max(), -1});
    t.set_float("f", F::denorm_min());
    t.set_list_float("lf", ListFloat{F::infinity(), -F::infinity(), F::quiet_NaN(), F::max(), 0.1f});
    t.set_double("d", D::lowest());
    t.set_list_double("ld", ListDouble{D::infinity(), D::quiet_NaN(), D::denorm_min(), 0.1});
    t.set_astring("as", bytes);
    t.set_list_astring("las", ListAString{bytes, "", " "});
    t.set_string("s", String(units, 8));
    t.set_list_string("ls", ListString{String(units, 8), String()});
    t.set_blob("bb", Blob(std::string(100, '\xa5').data(), 100, 100));  // base64 over several lines
    t.set_list_blob("lb", ListBlob{Blob(), Blob("\xff", 1, 1)});
    t.set_stringbuffer("sb", buffer);
    t.set_list_stringbuffer("lsb", ListStringBuffer{buffer, StringBuffer()});
    t.set_symbol("ss", Symbol("a <b>:"));
    t.set_list_symbol("lss", ListSymbol{Symbol(""), Symbol("plain")});
    t.set_time_period("tp", TimePeriod(L::min(), 0, false));
    t.set_list_time_period("ltp", ListTimePeriod{TimePeriod(0, -1, false), TimePeriod(-5, -250000, false),
                                                 TimePeriod(L::max(), 999999, false), TimePeriod()});
    t.set_time_date("td", TimeDate(-44, 3, 15, 12, 30, 0, 7, false));
    t.set_list_time_date("ltd", ListTimeDate{TimeDate(2024, 2, 29, 23, 59, 59, 999999, false),
                                             TimeDate(L::max() / 4), TimeDate(std::int64_t{-1})});
    t.set_array_int("ai", ArrayInt{std::numeric_limits<int>::min(), 0});
    t.set_array_long("al", ArrayLong{});
    t.set_array_float("af", ArrayFloat{-0.0f, F::lowest()});
    t.set_array_double("ad", ArrayDouble{D::max(), D::min()});
    t.set_list_array_int("lai", ListArrayInt{ArrayInt{1}, ArrayInt{}});
    t.add_array_long("lal", ArrayLong{L::max()});
    t.add_array_float("laf", ArrayFloat{F::min()});
    t.set_list_array_double("lad", ListArrayDouble{});
    t.set_tuple("t", Tuple()).set_tuple("deeper", inner);
    t.set_list_tuple("lt", ListTuple{inner, Tuple(), inner});
    t.set_list_tuple("lt.empty", ListTuple{});
    t.set_astring("", "unnamed");
    return t;
}

Tuple all_kinds() {
    Tuple t = awkward_kinds();
    t.set_class_name(Symbol("all.kinds"));
    return t;
}

bool eventually(std::function<bool()> const& done, int seconds) {
    auto const limit = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (; !done(); std::this_thread::sleep_for(std::chrono::milliseconds(1)))
        if (std::chrono::steady_clock::now() > limit) return false;
    return true;
}

void run_together(int n, std::function<void(int)> const& body) {
    std::latch start(n);
    std::vector<std::thread> threads;
    for (int t = 0; t < n; ++t) {
        threads.emplace_back([&start, &body, t] {
            start.arrive_and_wait();
            body(t);
        });
    }
    for (std::thread& th : threads) th.join();
}

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tarvik-test-XXXXXX").string();
    char* made = ::mkdtemp(pattern.data());
    path_ = made ? made : pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::file(char const* name) const { return path_ + "/" + name; }

StdoutCapture::StdoutCapture() {
    bcout().flush();
    std::fflush(stdout);
    char pattern[] = "/tmp/tarvik-stdout-XXXXXX";
    int fd = ::mkstemp(pattern);
    file_ = pattern;
    saved_fd_ = ::dup(1);
    ::dup2(fd, 1);
    ::close(fd);
}

StdoutCapture::~StdoutCapture() { text(); }

std::string const& StdoutCapture::text() {
    if (done_) return text_;
    done_ = true;
    bcout().flush();
    std::fflush(stdout);
    ::dup2(saved_fd_, 1);
    ::close(saved_fd_);
    text_ = read_file(file_);
    ::unlink(file_.c_str());
    return text_;
}

int StdoutCapture::lines_with(std::string const& needle) {
    std::istringstream lines(text());
    int n = 0;
    for (std::string line; std::getline(lines, line);)
        if (line.find(needle) != std::string::npos) ++n;
    return n;
}

int StdoutCapture::records_with(std::string const& needle) {
    std::string const continuation = "\n" + std::string(16, ' ');
    std::string joined = text();
    for (std::size_t at; (at = joined.find(continuation)) != std::string::npos;) joined.erase(at, continuation.size());
    std::istringstream lines(joined);
    int n = 0;
    for (std::string line; std::getline(lines, line);)
        if (line.find(needle) != std::string::npos) ++n;
    return n;
}

int errors_in(std::string text, std::string const& message, std::string const& unit) {
    std::string const continuation = "\n" + std::string(16, ' ');
    for (std::size_t at; (at = text.find(continuation)) != std::string::npos;) text.erase(at, continuation.size());
    std::string const mark = "\tERR|TVK|" + (unit.empty() ? "" : unit + "|");
    std::istringstream lines(text);
    int n = 0;
    for (std::string line; std::getline(lines, line);)
        n += line.find(mark) != std::string::npos && line.ends_with("||" + message);
    return n;
}

std::string unique_name(char const* what) {
    return std::string("tvk-test.") + what + "." + std::to_string(::getpid());
}

std::vector<std::string> split(std::string const& text, std::string const& end) {
    std::vector<std::string> out;
    std::size_t from = 0;
    for (std::size_t at; (at = text.find(end, from)) != std::string::npos; from = at + end.size())
        out.push_back(text.substr(from, at - from));
    if (from < text.size()) out.push_back(text.substr(from));
    return out;
}

std::string thread_hex() {
    char text[32];
    std::snprintf(text, sizeof text, "%lx", get_current_thread_id());
    return text;
}

std::string read_file(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
}

bool write_file(std::string const& path, std::string const& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    return static_cast<bool>(out);
}

int spawn_peer(char const* test, std::string const& variable) {
    std::string filter = std::string("--gtest_filter=") + test;
    std::string assignment = variable;
    std::vector<char*> env{assignment.data()};
    for (char** e = environ; *e; ++e) env.push_back(*e);
    env.push_back(nullptr);
    char exe[] = "/proc/self/exe";
    char* argv[] = {exe, filter.data(), nullptr};
    pid_t pid = -1;
    return ::posix_spawn(&pid, exe, nullptr, nullptr, argv, env.data()) == 0 ? pid : -1;
}

int exit_status(int pid) {
    int status = 0;
    return ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace tarvik::test
