// CriticalSection.h: the in-process lock of the library, and its scoped holder.
//
// A CriticalSection is recursive: the thread that holds it may enter it again, and must leave it as many
// times as it entered. Every lock in the library (reference counts, the symbol registry, the global
// variables, the log hooks, the console, the thread pool) is a CriticalSection taken through a
// CriticalSectionHolder, so a lock is never left held by an early return.
//
// The library's members that a section guards are marked TARVIK_GUARDED_BY(section) and the functions that
// need it held TARVIK_REQUIRES(section); clang's -Wthread-safety checks both.
//
// Thread safety: enter/leave/try_enter may be called from any thread. A CriticalSection must not be
// copied or moved, and must not be destroyed while a thread holds it.
#pragma once

#include "tarvik/ThreadSafety.h"
#include "tarvik/Types.h"

namespace tarvik {

class TARVIK_CAPABILITY("mutex") TARVIK_EXPORT CriticalSection {
public:
    CriticalSection();
    ~CriticalSection();
    CriticalSection(CriticalSection const&) = delete;
    CriticalSection& operator=(CriticalSection const&) = delete;

    // Blocks until the calling thread holds the section (at once when it already holds it).
    void enter() TARVIK_ACQUIRE();
    // REQUIRES: the calling thread holds the section.
    void leave() TARVIK_RELEASE();
    // Takes the section when that needs no wait; returns whether it did.
    bool try_enter() TARVIK_TRY_ACQUIRE(true);

private:
    // Storage for the platform's lock object, so that no system header reaches this header.
    alignas(16) unsigned char storage_[64];
};

// Enters a CriticalSection for the lifetime of the holder.
class TARVIK_SCOPED_CAPABILITY CriticalSectionHolder {
public:
    explicit CriticalSectionHolder(CriticalSection& cs) TARVIK_ACQUIRE(cs) : cs_(cs) { cs_.enter(); }
    ~CriticalSectionHolder() TARVIK_RELEASE() { cs_.leave(); }
    CriticalSectionHolder(CriticalSectionHolder const&) = delete;
    CriticalSectionHolder& operator=(CriticalSectionHolder const&) = delete;

private:
    CriticalSection& cs_;
};

}  // namespace tarvik
