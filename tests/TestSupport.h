// TestSupport.h: what the tests share: scratch directories and the capture of printed log records.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tarvik/AString.h"
#include "tarvik/GlobVar.h"
#include "tarvik/Symbol.h"
#include "tarvik/Time.h"
#include "tarvik/Tuple.h"

namespace tarvik::test {

// A fresh directory under the system's temporary directory, removed with everything in it at the end.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(TempDir const&) = delete;
    TempDir& operator=(TempDir const&) = delete;
    std::string const& path() const { return path_; }
    // path() + "/" + name
    std::string file(char const* name) const;

private:
    std::string path_;
};

// How many "ERR" records in printed text (of `unit`, when given) end with exactly `message`; wrapped
// records are rejoined first.
int errors_in(std::string text, std::string const& message, std::string const& unit = "");

// Captures what the process writes to standard output (where log records are printed) between
// construction and text(). Records are flushed line by line, so text() sees every finished record.
class StdoutCapture {
public:
    StdoutCapture();
    ~StdoutCapture();
    StdoutCapture(StdoutCapture const&) = delete;
    StdoutCapture& operator=(StdoutCapture const&) = delete;
    // Stops capturing (once) and returns everything written meanwhile.
    std::string const& text();
    // How many captured lines contain `needle`.
    int lines_with(std::string const& needle);
    // How many captured log records contain `needle`. A record that wrapped (a line feed and the
    // continuation indent of 16 spaces) is rejoined first, so long records match as one text.
    int records_with(std::string const& needle);
    // How many "ERR" records (of `unit`, when given) end with exactly `message`; see errors_in().
    int errors(std::string const& message, std::string const& unit = "") {
        return errors_in(text(), message, unit);
    }

private:
    int saved_fd_ = -1;
    std::string file_;
    std::string text_;
    bool done_ = false;
};

// Runs `step` with standard output (where log records go) captured; what it printed.
template <class F>
std::string printed(F step) {
    StdoutCapture capture;
    step();
    return capture.text();
}

// The bytes of an AString, embedded zeros included.
inline std::string str(AString const& s) { return std::string(s.c_str(), s.length()); }

// A name no other test program running now uses: "tvk-test.<what>.<process id>".
std::string unique_name(char const* what);

// n milliseconds.
inline TimePeriod ms(long n) { return TimePeriod(0, n, true); }

// Counts live objects, so that every construction is matched by exactly one destruction; the AString
// member puts every element on the heap for the sanitizer builds.
struct Tracked {
    static inline int live = 0;
    int value = -1;
    AString text;
    Tracked() { ++live; }
    explicit Tracked(int v) : value(v), text(std::to_string(v).c_str()) { ++live; }
    Tracked(Tracked const& o) : value(o.value), text(o.text) { ++live; }
    Tracked(Tracked&& o) noexcept : value(o.value), text(static_cast<AString&&>(o.text)) { ++live; }
    Tracked& operator=(Tracked const&) = default;
    ~Tracked() { --live; }
};

// Sets an integer global variable (module, name) for the length of a test and restores it at the end.
class IntVar {
public:
    IntVar(char const* module, char const* name, int value)
        : module_(module), name_(name), saved_(GlobVarInt::set(module_, name_, value)) {}
    ~IntVar() { GlobVarInt::set(module_, name_, saved_); }
    IntVar(IntVar const&) = delete;
    IntVar& operator=(IntVar const&) = delete;

private:
    Symbol module_;
    Symbol name_;
    int saved_;
};

// One attribute of every kind with the awkward values of each, for the text and XML forms: markup,
// quotes, white space and non-ASCII text (no other control characters, which XML drops) in its strings
// and names, extreme and signed-zero and not-a-number floats, periods and dates at their limits, empty
// lists, items and names (class "every kind").
Tuple awkward_kinds();
// awkward_kinds() under the class "all.kinds".
Tuple all_kinds();

// Polls until `done` holds, at most `seconds`; whether it did.
bool eventually(std::function<bool()> const& done, int seconds = 10);

// Runs body(t) on n threads (t = 0 .. n-1), released together so that they contend from the start, and
// waits for all of them.
void run_together(int n, std::function<void(int)> const& body);

// The pieces of `text` between occurrences of `end` (a last piece without `end` included).
std::vector<std::string> split(std::string const& text, std::string const& end = "\n");

// The current thread's id as log records print it (lower-case hexadecimal).
std::string thread_hex();

// The whole content of a file ("" when it cannot be read).
std::string read_file(std::string const& path);
// Writes a file's whole content; false on failure.
bool write_file(std::string const& path, std::string const& content);

// Starts this test program again as a peer process that runs only the test `test` ("Suite.Name"), with
// `variable` ("NAME=value") added to this process's environment: the peer test skips unless it finds the
// variable. The peer's process id, or -1 when it could not be started.
int spawn_peer(char const* test, std::string const& variable);
// Waits for the process to end: its exit status, or -1 when it did not exit normally.
int exit_status(int pid);

}  // namespace tarvik::test
