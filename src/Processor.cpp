#include "tarvik/Processor.h"

#include <chrono>

#include "LogUnit.h"
#include "ThreadImpl.h"
#include "tarvik/CriticalSection.h"
#include "tarvik/Event.h"
#include "tarvik/Thread.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

constexpr int kWorkWaitMs = 500;
constexpr int kTerminateIdleMs = 500;
constexpr int kTerminateThreadsMs = 1000;
constexpr unsigned int kTerminateGraceMs = 3000;

// Guards the counters of every action (and their reference counts).
CriticalSection& action_counters() {
    static CriticalSection* const section = new CriticalSection;
    return *section;
}

}  // namespace

// --- Action ---------------------------------------------------------------------------------------------

Action::Action() = default;
Action::~Action() = default;

CriticalSection& Action::get_cs() { return action_counters(); }

void Action::run() {}

bool Action::is_running() {
    CriticalSectionHolder hold(action_counters());
    return running_ > 0;
}

void Action::submit(Processor& processor) { processor.submit(AutoRef<Action>(this)); }

void Action::submit() {
    CriticalSectionHolder hold(action_counters());
    ++submitted_;
}

void Action::unsubmit() {
    CriticalSectionHolder hold(action_counters());
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
    CriticalSectionHolder hold(action_counters());
    return submitted_;
}

int Action::get_running() {
    CriticalSectionHolder hold(action_counters());
    return running_;
}

int Action::get_runs() {
    CriticalSectionHolder hold(action_counters());
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

class ProcessorImpl {
public:
    ProcessorImpl(Processor* owner, int max_threads) : owner_(owner), max_threads_(max_threads < 0 ? 0 : max_threads) {}

    void submit(AutoRef<Action> const& action);
    void remove_submitted(AutoRef<Action> const& action);
    void pause() { paused_.store(true); }
    void resume() {
        paused_.store(false);
        work_.signal();
        changed_.signal();
    }
    void stop_all(bool abort);
    void wait_idle(int limit_ms);
    int wait_action(AutoRef<Action> const& action, int timeout_ms);
    void terminate();

    int thread_count() {
        CriticalSectionHolder hold(thread_lock_);
        return static_cast<int>(threads_.size());
    }
    int max_threads() const { return max_threads_; }
    int submitted_count() {
        CriticalSectionHolder hold(action_lock_);
        return nb_submitted_action_;
    }
    int running_count() {
        CriticalSectionHolder hold(action_lock_);
        return nb_running_;
    }

    // Worker side.
    bool paused() const { return paused_.load(); }
    AutoRef<Action> take_next(Worker* worker);
    void run_action(AutoRef<Action> const& action);
    void finished(AutoRef<Action> const& action);
    void set_free(Worker* worker, bool free);
    void worker_ended(Worker* worker);
    Event& work() { return work_; }

private:
    void check_free_thread();
    bool busy();

    Processor* owner_;
    CriticalSection action_lock_;
    CriticalSection thread_lock_;
    CriticalSection reserved_lock_;  // kept for the implementation's own use
    int nb_submitted_action_ = 0;
    int nb_free_threads_ = 0;
    int nb_running_ = 0;
    int max_threads_;
    ActionList submitted_;
    ActionList running_;
    Event work_{true};     // wakes workers
    Event changed_{true};  // wakes waiters: something finished, was stopped, or may now start
    List<Worker*> threads_;
    List<Worker*> gone_;  // workers whose run() has returned, deleted (joined) by another thread
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
                AutoRef<Action> action = processor_->take_next(this);
                ran = static_cast<bool>(action);
                if (!ran) break;
                processor_->run_action(action);
                processor_->finished(action);
                processor_->set_free(this, true);
            }
        }
        processor_->worker_ended(this);
    }

    void ask_to_stop() { stop_flag_.store(true); }
    bool is_free() const { return free_; }
    void set_free_flag(bool free) { free_ = free; }

private:
    ProcessorImpl* processor_;
    std::atomic<bool> stop_flag_{false};
    bool free_ = true;  // guarded by the processor's thread lock
};

void ProcessorImpl::submit(AutoRef<Action> const& action) {
    if (!action) return;
    if (tvk_log() > 2) TVK_LOG(LEVEL_LOG, "Add submitted action %0") << static_cast<void const*>(action.get());
    {
        CriticalSectionHolder hold(action_lock_);
        submitted_.push_back(action);
        ++nb_submitted_action_;
        action->submit();
    }
    check_free_thread();
    work_.signal();
}

void ProcessorImpl::check_free_thread() {
    CriticalSectionHolder hold(thread_lock_);
    int submitted;
    int running;
    {
        // The action lock nests inside the thread lock (never the other way round).
        CriticalSectionHolder read(action_lock_);
        submitted = nb_submitted_action_;
        running = nb_running_;
    }
    if (tvk_log() > 2)
        TVK_LOG(LEVEL_LOG, "Check free thread nb_free_threads=%0 nb_submitted_action=%1 (nb_running=%2)")
            << nb_free_threads_ << submitted << running;
    if (submitted <= nb_free_threads_) return;
    int count = static_cast<int>(threads_.size());
    if (max_threads_ != 0 && count >= max_threads_) return;
    auto* worker = new Worker(this);
    threads_.push_back(worker);
    ++nb_free_threads_;
    if (tvk_log() > 0)
        TVK_LOG(LEVEL_LOG, "Create new thread. currently %0 / %1 threads") << count << max_threads_;
    worker->start();
}

// Taking an action and marking the worker busy are one step under the thread lock, so that a submission
// checking for an idle thread sees both or neither. Otherwise a submission falling between them would count
// this worker as idle, start no thread, and leave its action queued behind the one just taken.
AutoRef<Action> ProcessorImpl::take_next(Worker* worker) {
    CriticalSectionHolder busy(thread_lock_);
    AutoRef<Action> action;
    bool more;
    {
        CriticalSectionHolder hold(action_lock_);
        if (submitted_.is_empty()) return action;
        action = submitted_.front();
        submitted_.pop_front();
        --nb_submitted_action_;
        action->unsubmit();
        running_.push_back(action);
        ++nb_running_;
        more = !submitted_.is_empty();
    }
    if (worker->is_free()) {
        worker->set_free_flag(false);
        --nb_free_threads_;
    }
    // The work event does not count its signals: submissions made before any worker woke leave a single
    // signal, taken by the one worker that got here. Pass it on so another idle worker takes the next action
    // now rather than at the end of its 500 ms wait.
    if (more) work_.signal();
    return action;
}

void ProcessorImpl::run_action(AutoRef<Action> const& action) {
    if (action->is_to_stop()) return;  // stopped before it started: skipped
    {
        CriticalSectionHolder hold(action_counters());
        ++action->running_;
    }
    action->run();
    CriticalSectionHolder hold(action_counters());
    --action->running_;
    ++action->runs_;
}

void ProcessorImpl::finished(AutoRef<Action> const& action) {
    if (tvk_log() > 2)
        TVK_LOG(LEVEL_LOG, "Try remove action %0 from processor %1 running=%2")
            << static_cast<void const*>(action.get()) << static_cast<void const*>(owner_) << running_count();
    bool idle;
    {
        CriticalSectionHolder hold(action_lock_);
        for (auto i = running_.begin(); i != running_.end(); ++i) {
            if (*i == action) {
                running_.erase(i);
                --nb_running_;
                break;
            }
        }
        idle = running_.is_empty() && (paused_.load() || submitted_.is_empty());
    }
    if (tvk_log() >= 3)
        TVK_LOG(LEVEL_LOG, "Remove action %0 from processor %1 running=%2")
            << static_cast<void const*>(action.get()) << static_cast<void const*>(owner_) << running_count();
    work_.signal();
    // Waiters are woken only when one waits for this: an action to finish, or the processor to be idle.
    if (action_waiters_.load() > 0 || (idle && idle_waiters_.load() > 0)) changed_.signal();
}

void ProcessorImpl::set_free(Worker* worker, bool free) {
    CriticalSectionHolder hold(thread_lock_);
    if (worker->is_free() == free) return;
    worker->set_free_flag(free);
    nb_free_threads_ += free ? 1 : -1;
}

void ProcessorImpl::worker_ended(Worker* worker) {
    CriticalSectionHolder hold(thread_lock_);
    for (auto i = threads_.begin(); i != threads_.end(); ++i) {
        if (*i == worker) {
            threads_.erase(i);
            if (worker->is_free()) --nb_free_threads_;
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
            --nb_submitted_action_;
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
        nb_submitted_action_ = 0;
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
            << static_cast<void const*>(owner_) << nb_submitted_action_ << nb_running_;
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

void ProcessorImpl::wait_idle(int limit_ms) {
    WaiterCount counted(idle_waiters_);
    auto const start = std::chrono::steady_clock::now();
    while (busy()) {
        int wait_ms = 1000;
        if (limit_ms >= 0) {
            auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
            int left = limit_ms - static_cast<int>(spent.count());
            if (left <= 0) return;
            if (left < wait_ms) wait_ms = left;
        }
        changed_.wait(TimePeriod(0, wait_ms, true));
    }
}

int ProcessorImpl::wait_action(AutoRef<Action> const& action, int timeout_ms) {
    WaiterCount counted(action_waiters_);
    auto const start = std::chrono::steady_clock::now();
    for (;;) {
        bool pending = false;
        {
            CriticalSectionHolder hold(action_lock_);
            for (AutoRef<Action> const& a : submitted_) pending = pending || a == action;
            for (AutoRef<Action> const& a : running_) pending = pending || a == action;
        }
        if (!pending) return 1;
        int wait_ms = 1000;
        if (timeout_ms >= 0) {
            auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
            int left = timeout_ms - static_cast<int>(spent.count());
            if (left <= 0) return 0;
            if (left < wait_ms) wait_ms = left;
        }
        changed_.wait(TimePeriod(0, wait_ms, true));
    }
}

void ProcessorImpl::terminate() {
    void const* self = owner_;
    if (tvk_log() > 0) TVK_LOG(LEVEL_LOG, "Try terminate processor %0") << self;
    paused_.store(true);
    wait_idle(kTerminateIdleMs);
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
    auto const start = std::chrono::steady_clock::now();
    int remaining = thread_count();
    while (remaining > 0 && std::chrono::steady_clock::now() - start < std::chrono::milliseconds(kTerminateThreadsMs)) {
        work_.signal();  // one signal wakes one worker: keep waking them until all have gone
        changed_.wait(TimePeriod(0, 50, true));
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
    for (Worker* w : ended) delete w;
    if (tvk_log() > 0) TVK_LOG(LEVEL_LOG, "Processor %0 terminated") << self;
}

// --- Processor ------------------------------------------------------------------------------------------

Processor::Processor(int max_threads) : impl_(new ProcessorImpl(this, max_threads)) {}

Processor::~Processor() {
    terminate();
    // A worker still running an action that outlived terminate() keeps using the processor's state: it is
    // left to that worker rather than freed under it.
    if (impl_->thread_count() == 0) delete impl_;
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
void Processor::waitIdle() { impl_->wait_idle(-1); }
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
