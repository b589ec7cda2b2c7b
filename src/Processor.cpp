#include "tarvik/Processor.h"

#include "Deadline.h"
#include "LogUnit.h"
#include "Memory.h"
#include "ThreadImpl.h"
#include "tarvik/CriticalSection.h"
#include "tarvik/Event.h"
#include "tarvik/Thread.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

constexpr int kWorkWaitMs = 500;
// The longest single wait of a waiter: it looks at the processor again at least this often.
constexpr int kWaitSliceMs = 1000;
// terminate(): the time for the processor to become idle and its workers to end, together.
constexpr int kTerminateWaitMs = 1000;
constexpr int kTerminatePollMs = 50;
constexpr unsigned int kTerminateGraceMs = 3000;

// One wait of at most `max_ms` within the deadline, never 0 (which an event takes as "no limit").
TimePeriod slice(Deadline const& deadline, int max_ms) {
    int const left = deadline.ms_left();
    int const ms = left < 0 || left > max_ms ? max_ms : left;
    return TimePeriod(0, ms < 1 ? 1 : ms, true);
}

}  // namespace

// --- Action ---------------------------------------------------------------------------------------------

Action::Action() = default;
Action::~Action() = default;

CriticalSection& Action::counter_lock_() {
    static CriticalSection* const section = memory::create<CriticalSection>();
    return *section;
}

CriticalSection& Action::get_cs() { return counter_lock_(); }

void Action::run() {}  // NOLINT(bugprone-virtual-near-miss): see the declaration

bool Action::is_running() {
    CriticalSectionHolder hold(counter_lock_());
    return running_ > 0;
}

void Action::submit(Processor& processor) { processor.submit(AutoRef<Action>(this)); }

void Action::submit() {
    CriticalSectionHolder hold(counter_lock_());
    ++submitted_;
}

void Action::unsubmit() {
    CriticalSectionHolder hold(counter_lock_());
    --submitted_;
}

void Action::stop(Processor& processor, bool wait) {
    setStop();
    if (!wait) return;
    AutoRef<Action> self(this);
    processor.remove_from_submitted_action(self);
    processor.waitAction(self, -1);
}

void Action::abort(Processor& processor, bool wait) {
    setAbort();
    if (!wait) return;
    AutoRef<Action> self(this);
    processor.remove_from_submitted_action(self);
    processor.waitAction(self, -1);
}

int Action::wait(Processor& processor, int timeout_ms) { return processor.waitAction(AutoRef<Action>(this), timeout_ms); }

int Action::get_submitted() {
    CriticalSectionHolder hold(counter_lock_());
    return submitted_;
}

int Action::get_running() {
    CriticalSectionHolder hold(counter_lock_());
    return running_;
}

int Action::get_runs() {
    CriticalSectionHolder hold(counter_lock_());
    return runs_;
}

// --- ActionGroup ----------------------------------------------------------------------------------------

void ActionGroup::stop(Processor& processor, bool wait) {
    for (AutoRef<Action>& a : actions_) a->stop(processor, wait);
}

void ActionGroup::abort(Processor& processor, bool wait) {
    for (AutoRef<Action>& a : actions_) a->abort(processor, wait);
}

int ActionGroup::wait(Processor& processor, int timeout_ms) {
    int result = 1;
    for (AutoRef<Action>& a : actions_) {
        int r = a->wait(processor, timeout_ms);
        if (r < result) result = r;
    }
    return result;
}

void ActionGroup::reset() {
    for (AutoRef<Action>& a : actions_) a->reset();
}

// --- the processor --------------------------------------------------------------------------------------

class Worker;

// Lock order: action_lock_ and thread_lock_ are never held together. A submission appends under the action
// lock and releases it before the check for an idle worker takes the thread lock; a worker takes an action
// under the action lock and marks itself busy afterwards under the thread lock. The queue and running counts
// are atomics so that the check reads them under the thread lock alone. Inside either lock only the action
// counters' process-wide lock (Action::counter_lock_()) and, when a worker is started, the process-wide
// lock of thread records are taken.
class ProcessorImpl {
public:
    ProcessorImpl(Processor* owner, int max_threads) : owner_(owner), max_threads_(max_threads < 0 ? 0 : max_threads) {}

    void submit(AutoRef<Action> const& action) TARVIK_EXCLUDES(action_lock_, thread_lock_);
    void remove_submitted(AutoRef<Action> const& action) TARVIK_EXCLUDES(action_lock_, thread_lock_);
    void pause() { paused_.store(true); }
    void resume() {
        paused_.store(false);
        work_.signal();
        changed_.signal();
    }
    void stop_all(bool abort) TARVIK_EXCLUDES(action_lock_, thread_lock_);
    // Returns once idle, or when the deadline has passed.
    void wait_idle(Deadline const& deadline) TARVIK_EXCLUDES(action_lock_, thread_lock_);
    int wait_action(AutoRef<Action> const& action, int timeout_ms) TARVIK_EXCLUDES(action_lock_, thread_lock_);
    void terminate() TARVIK_EXCLUDES(action_lock_, thread_lock_);

    int thread_count() TARVIK_EXCLUDES(action_lock_, thread_lock_) {
        CriticalSectionHolder hold(thread_lock_);
        return static_cast<int>(threads_.size());
    }
    int max_threads() const { return max_threads_; }
    int submitted_count() const { return nb_submitted_action_.load(); }
    int running_count() const { return nb_running_.load(); }

    // Worker side.
    bool paused() const { return paused_.load(); }
    AutoRef<Action> take_next() TARVIK_EXCLUDES(action_lock_, thread_lock_);
    void run_action(AutoRef<Action> const& action);
    void finished(AutoRef<Action> const& action) TARVIK_EXCLUDES(action_lock_, thread_lock_);
    // A worker that was idle took an action; one that was busy is idle again.
    void worker_busy() TARVIK_EXCLUDES(action_lock_, thread_lock_);
    void worker_free() TARVIK_EXCLUDES(action_lock_, thread_lock_);
    void worker_ended(Worker* worker, bool was_free) TARVIK_EXCLUDES(action_lock_, thread_lock_);
    Event& work() { return work_; }

private:
    void check_free_thread() TARVIK_EXCLUDES(action_lock_, thread_lock_);
    void add_thread_if_short_() TARVIK_REQUIRES(thread_lock_);
    bool busy() TARVIK_EXCLUDES(action_lock_, thread_lock_);

    Processor* owner_;
    CriticalSection action_lock_;  // never held with thread_lock_
    CriticalSection thread_lock_;  // never held with action_lock_
    CriticalSection reserved_lock_;  // kept for the implementation's own use
    // The lengths of the two lists: changed under the action lock, read without it.
    std::atomic<int> nb_submitted_action_{0};
    std::atomic<int> nb_running_{0};
    int nb_free_threads_ TARVIK_GUARDED_BY(thread_lock_) = 0;
    int max_threads_;
    ActionList submitted_ TARVIK_GUARDED_BY(action_lock_);
    ActionList running_ TARVIK_GUARDED_BY(action_lock_);
    Event work_{true};     // wakes workers
    Event changed_{true};  // wakes waiters: something finished, was stopped, or may now start
    List<Worker*> threads_ TARVIK_GUARDED_BY(thread_lock_);
    // Workers whose run() has returned, deleted (joined) by another thread.
    List<Worker*> gone_ TARVIK_GUARDED_BY(thread_lock_);
    std::atomic<bool> paused_{false};
    std::atomic<int> idle_waiters_{0};    // callers inside wait_idle
    std::atomic<int> action_waiters_{0};  // callers inside wait_action
};

// A worker thread: takes actions from its processor until asked to stop.
class Worker : public Thread {
public:
    explicit Worker(ProcessorImpl* processor) : processor_(processor) {}
    ~Worker() override { stop(); }

    void run() override {
        while (!stop_flag_.load()) {
            processor_->work().wait(TimePeriod(0, kWorkWaitMs, true));
            bool ran = true;
            while (!stop_flag_.load() && !processor_->paused() && ran) {
                AutoRef<Action> action = processor_->take_next();
                ran = static_cast<bool>(action);
                if (!ran) break;
                if (free_) {
                    free_ = false;
                    processor_->worker_busy();
                }
                processor_->run_action(action);
                processor_->finished(action);
                free_ = true;
                processor_->worker_free();
            }
        }
        processor_->worker_ended(this, free_);
    }

    void ask_to_stop() { stop_flag_.store(true); }

private:
    ProcessorImpl* processor_;
    std::atomic<bool> stop_flag_{false};
    // Counted in the processor's idle count; read and written only by this worker's own thread.
    bool free_ = true;
};

void ProcessorImpl::submit(AutoRef<Action> const& action) {
    if (!action) return;
    if (tvk_log() > 2) TVK_LOG(LEVEL_LOG, "Add submitted action %0") << static_cast<void const*>(action.get());
    {
        CriticalSectionHolder hold(action_lock_);
        submitted_.push_back(action);
        nb_submitted_action_.fetch_add(1);
        action->submit();
    }
    check_free_thread();
    work_.signal();
}

void ProcessorImpl::check_free_thread() {
    CriticalSectionHolder hold(thread_lock_);
    if (tvk_log() > 2)
        TVK_LOG(LEVEL_LOG, "Check free thread nb_free_threads=%0 nb_submitted_action=%1 (nb_running=%2)")
            << nb_free_threads_ << nb_submitted_action_.load() << nb_running_.load();
    add_thread_if_short_();
}

void ProcessorImpl::add_thread_if_short_() {
    if (nb_submitted_action_.load() <= nb_free_threads_) return;
    int const count = static_cast<int>(threads_.size());
    if (max_threads_ != 0 && count >= max_threads_) return;
    auto* worker = memory::create<Worker>(this);
    threads_.push_back(worker);
    ++nb_free_threads_;  // a new worker is idle until it takes an action
    if (tvk_log() > 0)
        TVK_LOG(LEVEL_LOG, "Create new thread. currently %0 / %1 threads") << count << max_threads_;
    worker->start();
}

AutoRef<Action> ProcessorImpl::take_next() {
    AutoRef<Action> action;
    bool more;
    {
        CriticalSectionHolder hold(action_lock_);
        if (submitted_.is_empty()) return action;
        action = submitted_.front();
        submitted_.pop_front();
        nb_submitted_action_.fetch_sub(1);
        action->unsubmit();
        running_.push_back(action);
        nb_running_.fetch_add(1);
        more = !submitted_.is_empty();
    }
    // The work event does not count its signals: submissions made before any worker woke leave a single
    // signal, taken by the one worker that got here. Pass it on so another idle worker takes the next action
    // now rather than at the end of its 500 ms wait.
    if (more) work_.signal();
    return action;
}

// A submission that checked for an idle worker between this worker's taking an action and its being
// counted busy counted it idle and started no thread; with the count now right, the check is made again
// here, so that such an action does not wait behind the one just taken. Both checks run under the thread
// lock: the later one sees the queued action and the busy worker.
void ProcessorImpl::worker_busy() {
    CriticalSectionHolder hold(thread_lock_);
    --nb_free_threads_;
    add_thread_if_short_();
}

void ProcessorImpl::worker_free() {
    CriticalSectionHolder hold(thread_lock_);
    ++nb_free_threads_;
}

void ProcessorImpl::run_action(AutoRef<Action> const& action) {
    if (action->is_to_stop()) return;  // stopped before it started: skipped
    {
        CriticalSectionHolder hold(Action::counter_lock_());
        ++action->running_;
    }
    action->run();
    CriticalSectionHolder hold(Action::counter_lock_());
    --action->running_;
    ++action->runs_;
}

void ProcessorImpl::finished(AutoRef<Action> const& action) {
    if (tvk_log() > 2)
        TVK_LOG(LEVEL_LOG, "Try remove action %0 from processor %1 running=%2")
            << static_cast<void const*>(action.get()) << static_cast<void const*>(owner_) << nb_running_.load();
    bool idle;
    {
        CriticalSectionHolder hold(action_lock_);
        for (auto i = running_.begin(); i != running_.end(); ++i) {
            if (*i == action) {
                running_.erase(i);
                nb_running_.fetch_sub(1);
                break;
            }
        }
        idle = running_.is_empty() && (paused_.load() || submitted_.is_empty());
    }
    if (tvk_log() >= 3)
        TVK_LOG(LEVEL_LOG, "Remove action %0 from processor %1 running=%2")
            << static_cast<void const*>(action.get()) << static_cast<void const*>(owner_) << nb_running_.load();
    work_.signal();
    // Waiters are woken only when one waits for this: an action to finish, or the processor to be idle.
    if (action_waiters_.load() > 0 || (idle && idle_waiters_.load() > 0)) changed_.signal();
}

void ProcessorImpl::worker_ended(Worker* worker, bool was_free) {
    CriticalSectionHolder hold(thread_lock_);
    for (auto i = threads_.begin(); i != threads_.end(); ++i) {
        if (*i == worker) {
            threads_.erase(i);
            if (was_free) --nb_free_threads_;
            gone_.push_back(worker);  // a thread cannot delete (join) itself
            break;
        }
    }
    changed_.signal();
}

void ProcessorImpl::remove_submitted(AutoRef<Action> const& action) {
    CriticalSectionHolder hold(action_lock_);
    for (auto i = submitted_.begin(); i != submitted_.end();) {
        if (*i == action) {
            (*i)->unsubmit();
            i = submitted_.erase(i);
            nb_submitted_action_.fetch_sub(1);
        } else {
            ++i;
        }
    }
    changed_.signal();
}

void ProcessorImpl::stop_all(bool abort) {
    {
        CriticalSectionHolder hold(action_lock_);
        for (AutoRef<Action>& a : submitted_) {
            if (abort) {
                a->setAbort();
            } else {
                a->setStop();
            }
            a->unsubmit();
        }
        submitted_.clear();
        nb_submitted_action_.store(0);
        for (AutoRef<Action>& a : running_) {
            if (abort) {
                a->setAbort();
            } else {
                a->setStop();
            }
        }
    }
    work_.signal();
    changed_.signal();
}

bool ProcessorImpl::busy() {
    CriticalSectionHolder hold(action_lock_);
    if (tvk_log() > 2)
        TVK_LOG(LEVEL_LOG, "Wait idle processor %0 submitted=%1 running=%2")
            << static_cast<void const*>(owner_) << nb_submitted_action_.load() << nb_running_.load();
    return (!paused_.load() && !submitted_.is_empty()) || !running_.is_empty();
}

// Counts a caller as waiting for as long as it is in scope.
class WaiterCount {
public:
    explicit WaiterCount(std::atomic<int>& count) : count_(count) { count_.fetch_add(1); }
    ~WaiterCount() { count_.fetch_sub(1); }
    WaiterCount(WaiterCount const&) = delete;
    WaiterCount& operator=(WaiterCount const&) = delete;

private:
    std::atomic<int>& count_;
};

void ProcessorImpl::wait_idle(Deadline const& deadline) {
    WaiterCount counted(idle_waiters_);
    while (busy()) {
        if (deadline.expired()) return;
        changed_.wait(slice(deadline, kWaitSliceMs));
    }
}

int ProcessorImpl::wait_action(AutoRef<Action> const& action, int timeout_ms) {
    WaiterCount counted(action_waiters_);
    Deadline const deadline = Deadline::in_ms(timeout_ms);
    for (;;) {
        bool pending = false;
        {
            CriticalSectionHolder hold(action_lock_);
            for (AutoRef<Action> const& a : submitted_) pending = pending || a == action;
            for (AutoRef<Action> const& a : running_) pending = pending || a == action;
        }
        if (!pending) return 1;
        if (deadline.expired()) return 0;
        changed_.wait(slice(deadline, kWaitSliceMs));
    }
}

void ProcessorImpl::terminate() {
    void const* self = owner_;
    if (tvk_log() > 0) TVK_LOG(LEVEL_LOG, "Try terminate processor %0") << self;
    paused_.store(true);
    // One second for the running actions to end and then the workers: an action that never returns must
    // not hold terminate() for ever.
    Deadline const deadline = Deadline::in_ms(kTerminateWaitMs);
    wait_idle(deadline);
    if (tvk_log() > 0) TVK_LOG(LEVEL_LOG, "Processor %0 wait idle OK") << self;
    {
        CriticalSectionHolder hold(thread_lock_);
        for (Worker* w : threads_) {
            if (tvk_log() > 0) TVK_LOG(LEVEL_LOG, "Try stop thread action %0") << static_cast<void const*>(w);
            w->ask_to_stop();
            work_.signal();
        }
    }
    if (tvk_log() > 0) TVK_LOG(LEVEL_LOG, "Processor %0 wait threads") << self;
    int remaining = thread_count();
    while (remaining > 0 && !deadline.expired()) {
        work_.signal();  // one signal wakes one worker: keep waking them until all have gone
        changed_.wait(slice(deadline, kTerminatePollMs));
        remaining = thread_count();
    }
    if (remaining > 0) {
        TVK_LOG(LEVEL_ERR, "ERROR: processor will be deleted while %0 threads still running!!") << remaining;
        thread_impl::sleep_ms(kTerminateGraceMs);
    }
    // Workers that ended are joined and freed; ones still running are left to the process.
    List<Worker*> ended;
    {
        CriticalSectionHolder hold(thread_lock_);
        nb_free_threads_ = 0;
        ended.splice(gone_);
    }
    // A worker belongs to threads_, then gone_ (lists of plain pointers: a List copies its elements).
    for (Worker* w : ended) delete w;
    if (tvk_log() > 0) TVK_LOG(LEVEL_LOG, "Processor %0 terminated") << self;
}

// --- Processor ------------------------------------------------------------------------------------------

Processor::Processor(int max_threads) : impl_(memory::make_unique<ProcessorImpl>(this, max_threads)) {}

Processor::~Processor() {
    terminate();
    // A worker still running an action that outlived terminate() keeps using the processor's state: it is
    // left to that worker rather than freed under it.
    if (impl_->thread_count() != 0) static_cast<void>(impl_.release());
}

void Processor::submit(AutoRef<Action> const& action) { impl_->submit(action); }
void Processor::submit(ActionGroup& group) {
    for (AutoRef<Action>& a : group.get()) impl_->submit(a);
}
void Processor::remove_from_submitted_action(AutoRef<Action> const& action) { impl_->remove_submitted(action); }
void Processor::pause() { impl_->pause(); }
void Processor::resume() { impl_->resume(); }
void Processor::stop() { impl_->stop_all(false); }
void Processor::abort() { impl_->stop_all(true); }
void Processor::waitIdle() { impl_->wait_idle(Deadline::never()); }
int Processor::waitAction(AutoRef<Action> const& action, int timeout_ms) { return impl_->wait_action(action, timeout_ms); }
void Processor::terminate() { impl_->terminate(); }
int Processor::get_thread_count() const { return impl_->thread_count(); }
int Processor::get_max_threads() const { return impl_->max_threads(); }
int Processor::get_submitted_count() const { return impl_->submitted_count(); }
int Processor::get_running_count() const { return impl_->running_count(); }

Processor& Processor::getDefaultProcessor() {
    static Processor processor(8);
    return processor;
}

}  // namespace tarvik
