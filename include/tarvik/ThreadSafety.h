// ThreadSafety.h: locking rules the compiler checks. Internal detail, not part of the API.
//
// These macros carry clang's thread-safety attributes: a lock type is a CAPABILITY, a scoped holder a
// SCOPED_CAPABILITY, a member that may be touched only under a lock is GUARDED_BY it, a function that must
// be called with a lock held REQUIRES it (or EXCLUDES it when it takes that lock itself). Built with
// -Wthread-safety, clang then reports every access the annotations do not allow. Other compilers see
// nothing. The macros sit beside the public headers because the lock types they annotate (CriticalSection,
// Mutex) are public and an installed header must find them; the header lies flat there rather than in a
// detail/ folder because the public headers are installed as one flat set. Only the library's own headers
// and sources use these macros; applications should not, and they may change without notice.
//
// What the analysis does not know: CriticalSection and Mutex are recursive, so a function that holds a
// lock and calls one that takes it again is correct even though it would be flagged when both are
// annotated; such re-entry is written without EXCLUDES on the callee. ACQUIRED_BEFORE / ACQUIRED_AFTER
// state a lock order; clang checks it only with -Wthread-safety-beta, so the order is also written in a
// comment beside the locks.
#pragma once

#if defined(__clang__)
#define TARVIK_THREAD_ANNOTATION_(x) __attribute__((x))
#else
#define TARVIK_THREAD_ANNOTATION_(x)
#endif

#define TARVIK_CAPABILITY(x) TARVIK_THREAD_ANNOTATION_(capability(x))
#define TARVIK_SCOPED_CAPABILITY TARVIK_THREAD_ANNOTATION_(scoped_lockable)
#define TARVIK_GUARDED_BY(x) TARVIK_THREAD_ANNOTATION_(guarded_by(x))
#define TARVIK_PT_GUARDED_BY(x) TARVIK_THREAD_ANNOTATION_(pt_guarded_by(x))
#define TARVIK_ACQUIRED_BEFORE(...) TARVIK_THREAD_ANNOTATION_(acquired_before(__VA_ARGS__))
#define TARVIK_ACQUIRED_AFTER(...) TARVIK_THREAD_ANNOTATION_(acquired_after(__VA_ARGS__))
#define TARVIK_REQUIRES(...) TARVIK_THREAD_ANNOTATION_(requires_capability(__VA_ARGS__))
#define TARVIK_REQUIRES_SHARED(...) TARVIK_THREAD_ANNOTATION_(requires_shared_capability(__VA_ARGS__))
#define TARVIK_ACQUIRE(...) TARVIK_THREAD_ANNOTATION_(acquire_capability(__VA_ARGS__))
#define TARVIK_RELEASE(...) TARVIK_THREAD_ANNOTATION_(release_capability(__VA_ARGS__))
#define TARVIK_TRY_ACQUIRE(...) TARVIK_THREAD_ANNOTATION_(try_acquire_capability(__VA_ARGS__))
#define TARVIK_EXCLUDES(...) TARVIK_THREAD_ANNOTATION_(locks_excluded(__VA_ARGS__))
#define TARVIK_ASSERT_CAPABILITY(x) TARVIK_THREAD_ANNOTATION_(assert_capability(x))
#define TARVIK_RETURN_CAPABILITY(x) TARVIK_THREAD_ANNOTATION_(lock_returned(x))
#define TARVIK_NO_THREAD_SAFETY_ANALYSIS TARVIK_THREAD_ANNOTATION_(no_thread_safety_analysis)
