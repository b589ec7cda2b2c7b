// CriticalSection.h: the in-process lock of the library, and its scoped holder.
//
// A CriticalSection is recursive: the thread that holds it may enter it again, and must leave it as many
// times as it entered. Every lock in the library (reference counts, the symbol registry, the global
// variables, the log hooks, the console, the thread pool) is a CriticalSection taken through a
// CriticalSectionHolder, so a lock is never left held by an early return.
//
// Thread safety: enter/leave/try_enter may be called from any thread. A CriticalSection must not be
// copied or moved, and must not be destroyed while a thread holds it.
#pragma once

#include "tarvik/Types.h"

namespace tarvik {

class TARVIK_EXPORT CriticalSection {
public:
    CriticalSection();
    ~CriticalSection();
    CriticalSection(CriticalSection const&) = delete;
    CriticalSection& operator=(CriticalSection const&) = delete;

    // Blocks until the calling thread holds the section (at once when it already holds it).
    void enter();
    // REQUIRES: the calling thread holds the section.
    void leave();
    // Takes the section when that needs no wait; returns whether it did.
    bool try_enter();

private:
    // Storage for the platform's lock object, so that no system header reaches this header.
    alignas(16) unsigned char storage_[64];
};

// Enters a CriticalSection for the lifetime of the holder.
class CriticalSectionHolder {
public:
    explicit CriticalSectionHolder(CriticalSection& cs) : cs_(cs) { cs_.enter(); }
    ~CriticalSectionHolder() { cs_.leave(); }
    CriticalSectionHolder(CriticalSectionHolder const&) = delete;
    CriticalSectionHolder& operator=(CriticalSectionHolder const&) = delete;

private:
    CriticalSection& cs_;
};

}  // namespace tarvik
