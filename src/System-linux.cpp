// Linux half of System: uname/gethostname, /proc/self/exe, getcwd, gettid, strerror_r and getrandom.
#include "SystemImpl.h"

#include <pthread.h>
#include <sys/random.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "LogUnit.h"

TARVIK_LOG_UNIT()

namespace tarvik::system_impl {

bool computer_name(AString& out) {
    char name[128] = {};
    if (::gethostname(name, sizeof name - 1) != 0) return false;
    out = name;
    return true;
}

bool executable_path(AString& out) {
    char path[512];
    ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) return false;
    out.assign(path, static_cast<unsigned int>(n));
    return true;
}

bool working_directory(AString& out) {
    char dir[1024];
    if (!::getcwd(dir, sizeof dir)) return false;
    out = dir;
    return true;
}

namespace {

// Bumped in the child of every fork, whose threads must not keep the ids cached by their parent's.
std::atomic<unsigned int> fork_generation{0};

void after_fork_in_child() { fork_generation.fetch_add(1, std::memory_order_relaxed); }

}  // namespace

unsigned long thread_id() {
    // The id is asked of the kernel once per thread (every log record reads it).
    static bool const registered = (::pthread_atfork(nullptr, nullptr, after_fork_in_child), true);
    (void)registered;
    thread_local unsigned long cached = 0;
    thread_local unsigned int cached_generation = 0;
    unsigned int generation = fork_generation.load(std::memory_order_relaxed);
    if (cached == 0 || cached_generation != generation) {
        cached = static_cast<unsigned long>(::syscall(SYS_gettid));
        cached_generation = generation;
    }
    return cached;
}

unsigned long process_id() { return static_cast<unsigned long>(::getpid()); }

int last_error() { return errno; }

AString error_message(int error) {
    char text[256] = {};
    // The GNU strerror_r returns the message, which may or may not be `text`. Unknown numbers give
    // "Unknown error N", which counts as no message.
    char const* message = ::strerror_r(error, text, sizeof text);
    if (!message || std::strncmp(message, "Unknown error", 13) == 0) return AString();
    return AString(message);
}

bool random_guid(unsigned char bytes[16]) {
    ssize_t got = 0;
    while (got < 16) {
        ssize_t r = ::getrandom(bytes + got, static_cast<size_t>(16 - got), 0);
        if (r < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        got += r;
    }
    // An RFC 4122 version 4 GUID: random but for the version and variant bits.
    bytes[7] = static_cast<unsigned char>((bytes[7] & 0x0F) | 0x40);
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);
    return true;
}

}  // namespace tarvik::system_impl

