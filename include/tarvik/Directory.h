// Directory.h: directories named by a Path: creating, listing and removing them, and being told of changes
// to the files in one.
//
// A Directory holds only its Path; every operation asks the system anew. Symbolic links are followed where
// a directory is used (a link to a directory lists that directory) but never inside remove_all(), which
// removes a link found in the tree as a link and refuses a path that is itself a link.
//
//   exists()       whether the path names a directory (a file of that name is not one)
//   create()       creates the directory and every missing parent, like "mkdir -p"; true when the directory
//                  exists afterwards, whoever made it
//   remove()       removes the directory when it is empty
//   remove_all()   removes the directory with everything in it; true when it is gone afterwards (a missing
//                  directory included). Refuses, with a record and nothing removed, a path that is empty,
//                  a root ("/", "C:\"), or whose normalised form is "." or ends in "..".
//   list()         the entries' names without "." and "..", sorted by text (AString's order: byte by byte
//                  as signed characters), with their kind, or only the names of one kind. A link counts as
//                  what it points to; a dangling link, a device, a pipe or a socket is EntryKind::other.
//
// Change notification. A Directory::Watcher, opened on a directory, collects what happens to the entries
// directly in it (not in its subdirectories) from the moment it is opened; poll() waits for changes and
// hands them out in the order they happened:
//   created    an entry appeared: made there, or renamed or moved into the directory
//   changed    a file opened for writing was closed (once per close, whether or not bytes were written;
//              a new file that is written gives created, then changed)
//   removed    an entry went: deleted, or renamed or moved out of the directory (a rename within the
//              directory is a removed of the old name and a created of the new)
//   overflow   the system dropped changes because they came faster than they were read; the name is empty
//              and the caller should list the directory again. Logged at ERR.
// When the watched directory itself is removed or moved away, poll() hands out the changes it already has,
// logs "WATCHED DIRECTORY %0 IS GONE" at ERR once, and fails (returns -1) from then on. A watcher holds
// one inotify descriptor (and one event descriptor to be woken) on Linux, released by close() and by its
// destructor.
//
// A Directory::Monitor runs the same watch on a library Thread of its own and calls a handler for each
// change, on that thread. stop() (and the destructor) ends the thread; once it returns, the handler is
// not running and is not called again.
//
// Records (module "TVK", unit "DIRECTORY", at ERR), with the path and the system error text:
// "CANNOT CREATE DIRECTORY %0 [%1]" (naming the directory that could not be made), "CANNOT REMOVE
// DIRECTORY %0 [%1]", "CANNOT REMOVE %0 [%1]" (naming the entry of the tree that could not be removed),
// "CANNOT LIST DIRECTORY %0 [%1]", "CANNOT WATCH DIRECTORY %0 [%1]", "CANNOT READ CHANGES OF %0 [%1]";
// without a system error: "REFUSE TO REMOVE TREE %0", "CHANGES LOST ON %0", "WATCHED DIRECTORY %0 IS GONE",
// "DIRECTORY WATCHER NOT OPEN %0".
//
// Thread safety: a Directory may be used from any thread (it holds only its path). A Watcher is used by one
// thread at a time, except wake(), which any thread may call while another polls. A Monitor's start() and
// stop() are called by its owner's thread, never by the handler.
#pragma once

#include <functional>
#include <memory>

#include "tarvik/AString.h"
#include "tarvik/Array.h"
#include "tarvik/Path.h"
#include "tarvik/Time.h"
#include "tarvik/Types.h"

namespace tarvik {

namespace directory_impl {
struct Watch;
// Releases a watch's descriptors and frees it; defined by the platform half, where Watch is complete.
struct CloseWatch {
    void operator()(Watch* watch) const;
};
}  // namespace directory_impl

class TARVIK_EXPORT Directory {
public:
    enum class EntryKind { file, directory, other };
    struct Entry {
        AString name;
        EntryKind kind = EntryKind::other;
    };

    enum class ChangeKind { created, changed, removed, overflow };
    struct Change {
        ChangeKind kind = ChangeKind::overflow;
        // The entry's name within the directory (no directory part); empty for overflow.
        AString name;
        // Whether the entry is a directory (as the system reported it with the change).
        bool is_directory = false;
    };

    class Watcher;
    class Monitor;

    Directory() = default;
    explicit Directory(Path const& path) : path_(path) {}
    Path const& get_path() const { return path_; }

    bool exists() const;
    bool create() const;
    bool remove() const;
    bool remove_all() const;

    // Replace `out` with the directory's entries, sorted; on failure `out` is empty.
    bool list(Array<Entry>& out) const;
    bool list(Array<AString>& names) const;
    bool list(Array<AString>& names, EntryKind only) const;

private:
    Path path_;
};

class TARVIK_EXPORT Directory::Watcher {
public:
    Watcher() = default;
    // open(directory).
    explicit Watcher(Path const& directory);
    // close().
    ~Watcher();
    Watcher(Watcher const&) = delete;
    Watcher& operator=(Watcher const&) = delete;

    // Closes a previous watch, then watches the directory. False, with a record, when it cannot be watched
    // (it does not exist, is not a directory, or the system refuses).
    bool open(Path const& directory);
    // Releases the system's descriptors; changes not yet polled are lost.
    void close();
    bool is_open() const { return watch_ != nullptr; }
    Path const& get_path() const { return path_; }

    // Waits at most `timeout` for changes and appends every change that has arrived to `changes`. A zero
    // timeout only looks; a negative one waits without limit. Returns the number appended: 0 when the time
    // ran out or wake() was called; -1, with a record, when the watcher is not open or reading fails.
    long poll(Array<Change>& changes, TimePeriod const& timeout);
    // Makes a poll() running on another thread (or the next one) return at once.
    void wake();

private:
    std::unique_ptr<directory_impl::Watch, directory_impl::CloseWatch> watch_;
    Path path_;
    bool gone_ = false;
};

class TARVIK_EXPORT Directory::Monitor {
public:
    using Handler = std::function<void(Change const&)>;

    Monitor();
    // stop().
    ~Monitor();
    Monitor(Monitor const&) = delete;
    Monitor& operator=(Monitor const&) = delete;

    // Stops a previous run, then watches the directory and calls `handler` for every change on a thread of
    // its own. False, with a record, when the directory cannot be watched or the thread cannot start.
    // REQUIRES: handler is callable.
    bool start(Path const& directory, Handler handler);
    // Ends the thread and the watch; changes not yet handed to the handler are dropped.
    void stop();
    // Started, and the watch has not ended (the directory is still there).
    bool is_running() const;

private:
    struct Worker;
    std::unique_ptr<Worker> worker_;
};

}  // namespace tarvik
