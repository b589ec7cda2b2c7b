// Linux half of Thread and ThreadContext: pthreads, which start running at once, so a new thread first
// waits at a gate until it is resumed; thread-local slots are pthread keys.
#include "ThreadImpl.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>

#include "AnnotatedMutex.h"
#include "Deadline.h"
#include "LogUnit.h"
#include "Memory.h"

TARVIK_LOG_UNIT()

namespace tarvik::thread_impl {

struct Handle {
    AnnotatedMutex m;
    CondVar cv;
    bool resumed TARVIK_GUARDED_BY(m) = false;
    bool cancelled TARVIK_GUARDED_BY(m) = false;
    bool ended TARVIK_GUARDED_BY(m) = false;
    std::atomic<unsigned long> tid{0};
    void (*body)(void*) = nullptr;
    void* arg = nullptr;
    pthread_t thread{};
    std::atomic<int> refs{2};  // the creator's and the thread's
};

namespace {

void drop(Handle* h) {
    // The handle is counted (creator and thread); the last reference frees it.
    if (h->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete h;
}

void* trampoline(void* p) {
    auto* h = static_cast<Handle*>(p);
    h->tid.store(static_cast<unsigned long>(::syscall(SYS_gettid)), std::memory_order_release);
    bool run;
    {
        MutexHold hold(h->m);
        while (!h->resumed && !h->cancelled) h->cv.wait(hold);
        run = !h->cancelled;
    }
    if (run) h->body(h->arg);
    {
        MutexHold hold(h->m);
        h->ended = true;
    }
    h->cv.notify_all();
    drop(h);
    return nullptr;
}

}  // namespace

Handle* create_suspended(void (*body)(void*), void* arg) {
    std::unique_ptr<Handle> h = memory::make_unique<Handle>();
    h->body = body;
    h->arg = arg;
    int r = pthread_create(&h->thread, nullptr, trampoline, h.get());
    if (r != 0) {
        errno = r;
        return nullptr;
    }
    return h.release();  // counted from here on: the creator's reference and the thread's (see drop)
}

bool resume(Handle* h) {
    {
        MutexHold hold(h->m);
        if (h->cancelled) return false;
        h->resumed = true;
    }
    h->cv.notify_all();
    return true;
}

int wait_end(Handle* h, unsigned int ms) {
    Deadline const deadline = Deadline::in_ms(ms);
    MutexHold hold(h->m);
    while (!h->ended && !deadline.expired()) h->cv.wait_until(hold, deadline);
    return h->ended ? 1 : 0;
}

bool has_ended(Handle* h) {
    MutexHold hold(h->m);
    return h->ended;
}

unsigned long id(Handle* h) { return h->tid.load(std::memory_order_acquire); }

void release(Handle* h) {
    bool ended;
    {
        MutexHold hold(h->m);
        if (!h->resumed) h->cancelled = true;  // a thread never resumed ends without running its body
        ended = h->ended;
    }
    h->cv.notify_all();
    if (ended) {
        pthread_join(h->thread, nullptr);
    } else {
        pthread_detach(h->thread);
    }
    drop(h);
}

void sleep_ms(unsigned int ms) { ::usleep(static_cast<useconds_t>(ms) * 1000); }

bool slot_alloc(unsigned long* key) {
    pthread_key_t k;
    int r = pthread_key_create(&k, nullptr);
    if (r != 0) {
        errno = r;
        return false;
    }
    *key = static_cast<unsigned long>(k);
    return true;
}

void slot_free(unsigned long key) { pthread_key_delete(static_cast<pthread_key_t>(key)); }

void* slot_get(unsigned long key) { return pthread_getspecific(static_cast<pthread_key_t>(key)); }

bool slot_set(unsigned long key, void* value) {
    return pthread_setspecific(static_cast<pthread_key_t>(key), value) == 0;
}

}  // namespace tarvik::thread_impl
