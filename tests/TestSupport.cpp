#include "TestSupport.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <latch>
#include <sstream>
#include <thread>
#include <vector>

#include "tarvik/IOBStream.h"

extern char** environ;

namespace tarvik::test {

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
