#include "tarvik/Directory.h"

#include <algorithm>
#include <utility>

#include "DirectoryImpl.h"
#include "LogUnit.h"
#include "Memory.h"
#include "tarvik/System.h"
#include "tarvik/Thread.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

// A failure of the system on `path`: the record carries the system error text, read before anything else
// can change it.
void log_system_failure(char const* key, AString const& path) {
    AString why = get_last_system_error_text();
    TVK_LOG(LEVEL_ERR, key) << path << why;
}

// Creates the directory after its missing parents; the record names the first one that cannot be made.
bool make_tree(Path const& path) {
    if (path.is_directory()) return true;
    Path parent = path.get_parent();
    if (!parent.is_empty() && !(parent == path) && !make_tree(parent)) return false;
    if (directory_impl::make(path.c_str())) return true;
    log_system_failure("CANNOT CREATE DIRECTORY %0 [%1]", path.get_text());
    return false;
}

// Paths remove_all() will not touch: nothing, a root, the current directory or something above it.
bool is_protected(Path const& path) {
    if (path.is_empty()) return true;
    Path plain = path.normalise();
    if (plain.is_absolute() && plain.get_parent() == plain) return true;
    return plain.get_text() == "." || plain.get_file_name() == "..";
}

}  // namespace

bool Directory::exists() const { return path_.is_directory(); }

bool Directory::create() const { return make_tree(path_); }

bool Directory::remove() const {
    if (directory_impl::remove_empty(path_.c_str())) return true;
    log_system_failure("CANNOT REMOVE DIRECTORY %0 [%1]", path_.get_text());
    return false;
}

bool Directory::remove_all() const {
    if (is_protected(path_)) {
        TVK_LOG(LEVEL_ERR, "REFUSE TO REMOVE TREE %0") << path_.get_text();
        return false;
    }
    AString failed;
    if (directory_impl::remove_tree(path_.c_str(), failed)) return true;
    log_system_failure("CANNOT REMOVE %0 [%1]", failed);
    return false;
}

bool Directory::list(Array<Entry>& out) const {
    out.clear();
    if (!directory_impl::read_entries(path_.c_str(), out)) {
        log_system_failure("CANNOT LIST DIRECTORY %0 [%1]", path_.get_text());
        out.clear();
        return false;
    }
    std::sort(out.begin(), out.end(), [](Entry const& a, Entry const& b) { return a.name < b.name; });
    return true;
}

bool Directory::list(Array<AString>& names) const {
    names.clear();
    Array<Entry> entries;
    if (!list(entries)) return false;
    names.reserve(entries.size());
    for (Entry const& e : entries) names.push_back(e.name);
    return true;
}

bool Directory::list(Array<AString>& names, EntryKind only) const {
    names.clear();
    Array<Entry> entries;
    if (!list(entries)) return false;
    for (Entry const& e : entries)
        if (e.kind == only) names.push_back(e.name);
    return true;
}

// --- Watcher -------------------------------------------------------------------------------------------

Directory::Watcher::Watcher(Path const& directory) { open(directory); }

Directory::Watcher::~Watcher() { close(); }

bool Directory::Watcher::open(Path const& directory) {
    close();
    path_ = directory;
    gone_ = false;
    watch_ = directory_impl::open_watch(directory.c_str());
    if (watch_) return true;
    log_system_failure("CANNOT WATCH DIRECTORY %0 [%1]", directory.get_text());
    return false;
}

void Directory::Watcher::close() {
    watch_.reset();
}

long Directory::Watcher::poll(Array<Change>& changes, TimePeriod const& timeout) {
    if (!watch_) {
        TVK_LOG(LEVEL_ERR, "DIRECTORY WATCHER NOT OPEN %0") << path_.get_text();
        return -1;
    }
    if (gone_) return -1;  // reported once, when it went
    // Whole milliseconds, rounded up so that a short positive time-out still waits.
    std::int64_t us = timeout.to_microseconds();
    long long ms = us < 0 ? -1 : (us + 999) / 1000;
    unsigned int const first = changes.size();
    bool ended = false;
    long n = directory_impl::wait_changes(watch_.get(), ms, changes, ended);
    if (n < 0) {
        log_system_failure("CANNOT READ CHANGES OF %0 [%1]", path_.get_text());
        return -1;
    }
    for (unsigned int i = first; i < changes.size(); ++i)
        if (changes[i].kind == ChangeKind::overflow)
            TVK_LOG(LEVEL_ERR, "CHANGES LOST ON %0") << path_.get_text();
    if (ended) {
        gone_ = true;
        TVK_LOG(LEVEL_ERR, "WATCHED DIRECTORY %0 IS GONE") << path_.get_text();
        if (n == 0) return -1;
    }
    return n;
}

void Directory::Watcher::wake() {
    if (watch_) directory_impl::wake(watch_.get());
}

// --- Monitor -------------------------------------------------------------------------------------------

struct Directory::Monitor::Worker : Thread {
    Watcher watcher;
    Handler handler;

    // Stops the thread before the members it uses go.
    ~Worker() override {
        request_stop();
        watcher.wake();
        stop();
    }

    void run() override {
        Array<Change> changes;
        while (!is_to_stop()) {
            changes.clear();
            if (watcher.poll(changes, TimePeriod(-1, 0, false)) < 0) return;  // wake() ends the wait
            for (Change const& change : changes) {
                if (is_to_stop()) return;
                handler(change);
            }
        }
    }
};

Directory::Monitor::Monitor() = default;

Directory::Monitor::~Monitor() { stop(); }

bool Directory::Monitor::start(Path const& directory, Handler handler) {
    stop();
    std::unique_ptr<Worker> worker = memory::make_unique<Worker>();
    worker->handler = std::move(handler);
    if (!worker->watcher.open(directory) || !worker->start()) return false;
    worker_ = std::move(worker);
    return true;
}

void Directory::Monitor::stop() { worker_.reset(); }

bool Directory::Monitor::is_running() const { return worker_ && worker_->is_running(); }

}  // namespace tarvik
