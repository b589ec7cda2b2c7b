// INPROCListener: the in-process listener, its port (mailbox and workers) and the registry of names.
#include "transport/inproc/INPROC.h"

#include <map>
#include <string>

#include "Deadline.h"
#include "LogUnit.h"
#include "Memory.h"
#include "tarvik/Tuple.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

// The started listeners by name. Made on first use and never destroyed.
struct PortRegistry {
    AnnotatedMutex mutex;
    std::map<std::string, std::weak_ptr<InprocPort>> ports TARVIK_GUARDED_BY(mutex);
};

PortRegistry& registry() {
    static PortRegistry* const r = memory::create<PortRegistry>();
    return *r;
}

bool claim_name(AString const& name, std::shared_ptr<InprocPort> const& port) {
    PortRegistry& r = registry();
    MutexHold hold(r.mutex);
    auto& slot = r.ports[std::string(name.c_str())];
    if (!slot.expired()) return false;
    slot = port;
    return true;
}

void free_name(AString const& name, InprocPort const* port) {
    PortRegistry& r = registry();
    MutexHold hold(r.mutex);
    auto it = r.ports.find(std::string(name.c_str()));
    if (it == r.ports.end()) return;
    auto held = it->second.lock();
    if (!held || held.get() == port) r.ports.erase(it);
}

// The port whose worker this thread is, so that a callback stopping its own listener does not wait for
// its own call.
thread_local InprocPort const* tls_port = nullptr;

}  // namespace

std::shared_ptr<InprocPort> find_inproc_port(AString const& name) {
    PortRegistry& r = registry();
    MutexHold hold(r.mutex);
    auto it = r.ports.find(std::string(name.c_str()));
    return it == r.ports.end() ? nullptr : it->second.lock();
}

// --- InprocExchange -------------------------------------------------------------------------------------

// Waiters are woken after the lock is dropped, so that they do not wake only to wait for it. Whoever
// settles an exchange holds a reference to it, so the condition variable outlives the notification.
bool InprocExchange::fail(int why) {
    {
        MutexHold hold(mutex);
        if (state != QUEUED && state != TAKEN) return false;
        state = FAILED;
        result = why;
    }
    settled.notify_all();
    return true;
}

// --- InprocPort -------------------------------------------------------------------------------------------

InprocPort::InprocPort(AString address, std::shared_ptr<InprocShared> shared)
    : address_(static_cast<AString&&>(address)), shared_(static_cast<std::shared_ptr<InprocShared>&&>(shared)) {}

InprocPort::~InprocPort() {
    // Reached after stop() joined or detached every worker (a detached worker holds the port until it ends).
    for (auto& w : detached_) {
        if (w->thread.joinable()) w->thread.detach();
    }
}

bool InprocPort::post(std::shared_ptr<InprocExchange> const& exchange) {
    MutexHold hold(mutex_);
    if (stopping_) return false;
    queue_.push_back(exchange);
    // Workers not serving a request will take the queued ones; another is started only when the queue is
    // longer than they are.
    int const free_workers = static_cast<int>(workers_.size()) - busy_;
    if (static_cast<int>(queue_.size()) > free_workers && static_cast<int>(workers_.size()) < kMaxWorkers) {
        auto worker = std::make_unique<Worker>();
        Worker* w = worker.get();
        workers_.push_back(static_cast<std::unique_ptr<Worker>&&>(worker));
        // The thread holds the port, so that a worker left running at stop still finds it.
        w->thread = std::thread([self = shared_from_this(), w] { self->run_worker_(w); });
        if (tvk_log() > 1) TVK_LOG(LEVEL_LOG, "INPROC LISTENER '%0' STARTS WORKER %1") << address_ << static_cast<int>(workers_.size());
    }
    hold.unlock();
    wake_.notify_one();
    return true;
}

bool InprocPort::is_stopped() {
    MutexHold hold(mutex_);
    return stopping_;
}

void InprocPort::run_worker_(Worker* worker) {
    tls_port = this;
    MutexHold hold(mutex_);
    for (;;) {
        while (queue_.empty() && !stopping_) wake_.wait(hold);
        if (queue_.empty()) break;
        std::shared_ptr<InprocExchange> exchange = static_cast<std::shared_ptr<InprocExchange>&&>(queue_.front());
        queue_.pop_front();
        current_(*worker) = exchange;
        ++busy_;
        hold.unlock();
        bool taken;
        {
            MutexHold lock(exchange->mutex);
            taken = exchange->state == InprocExchange::QUEUED;  // not abandoned by a caller that gave up
            if (taken) exchange->state = InprocExchange::TAKEN;
        }
        Outcome outcome;
        if (taken) serve_(*exchange, outcome);
        // Free before the caller learns of its answer, so that its next request finds this worker idle
        // rather than starting another one.
        hold.lock();
        current_(*worker).reset();
        if (--busy_ == 0) quiet_.notify_all();
        hold.unlock();
        if (taken) settle_(*exchange, outcome);
        hold.lock();
    }
}

void InprocPort::serve_(InprocExchange& exchange, Outcome& outcome) {
    Listener::State& state = shared_->state;
    TransportConfig const& config = inproc_config();
    state.bytes_in += exchange.request.size();
    Tuple request;
    bool text = false;
    int r = receive_tuple(exchange.request, request, config.max_buffer_size(), address_.c_str(), &text);
    if (r != 0) {
        outcome.failure = r;
        return;
    }
    Tuple reply;
    if (!shared_->slot.deliver(request, reply)) {
        TVK_LOG(LEVEL_ERR, "INPROC LISTENER '%0' HAS NO CALLBACK") << address_;
        outcome.failure = Sender::CALL_REFUSED;
        return;
    }
    if (encode_tuple(reply, outcome.answer, text) < 0) {
        TVK_LOG(LEVEL_ERR, "INPROC LISTENER '%0' CANNOT ENCODE ANSWER") << address_;
        outcome.failure = Sender::CALL_PROTOCOL_ERROR;
    }
}

void InprocPort::settle_(InprocExchange& exchange, Outcome& outcome) {
    Listener::State& state = shared_->state;
    if (outcome.failure != 0) {
        state.failed++;
        state.last_error = outcome.failure;
        exchange.fail(outcome.failure);
        return;
    }
    unsigned int size = outcome.answer.size();
    {
        MutexHold hold(exchange.mutex);
        if (exchange.state != InprocExchange::TAKEN) return;  // the caller gave up, or the port stopped
        exchange.answer.splice(outcome.answer);
        exchange.state = InprocExchange::ANSWERED;
        // Counted before the caller wakes, so that what it reads next includes its own call.
        state.requests++;
        state.bytes_out += size;
    }
    exchange.settled.notify_all();
}

void InprocPort::stop(int wait_ms) {
    std::deque<std::shared_ptr<InprocExchange>> waiting;
    {
        MutexHold hold(mutex_);
        if (stopping_) return;
        stopping_ = true;
        waiting.swap(queue_);
        wake_.notify_all();
    }
    free_name(address_, this);
    for (auto& exchange : waiting) exchange->fail(Sender::CALL_PEER_CLOSED);

    std::vector<std::unique_ptr<Worker>> ending;
    int stuck = 0;
    {
        MutexHold hold(mutex_);
        int const own = tls_port == this ? 1 : 0;  // stopped from inside a callback of this port
        Deadline const deadline = Deadline::in_ms(wait_ms);
        while (busy_ > own && quiet_.wait_until(hold, deadline)) {
        }
        for (auto& w : workers_) {
            if (w->thread.get_id() == std::this_thread::get_id()) {
                // This worker answers its own call, then ends.
                w->thread.detach();
                detached_.push_back(static_cast<std::unique_ptr<Worker>&&>(w));
            } else if (current_(*w)) {
                current_(*w)->fail(Sender::CALL_PEER_CLOSED);
                ++stuck;
                w->thread.detach();
                detached_.push_back(static_cast<std::unique_ptr<Worker>&&>(w));
            } else {
                ending.push_back(static_cast<std::unique_ptr<Worker>&&>(w));
            }
        }
        workers_.clear();
    }
    if (stuck) TVK_LOG(LEVEL_ERR, "INPROC LISTENER '%0': %1 WORKERS STILL BUSY AT STOP") << address_ << stuck;
    for (auto& w : ending) w->thread.join();
}

// --- INPROCListener ---------------------------------------------------------------------------------------

INPROCListener::INPROCListener(char const* address)
    : address_(address ? address : ""), shared_(std::make_shared<InprocShared>()) {
    ok_ = match_inproc_address(address_.c_str(), name_) && !name_.is_empty();
}

INPROCListener::~INPROCListener() {
    INPROCListener::stop();  // this class's own stop: a derived one is already gone
    INPROCListener::reset_callback();
}

bool INPROCListener::start() {
    if (!ok_) return false;
    MutexHold hold(mutex_);
    if (port_ && !port_->is_stopped()) return true;
    auto port = std::make_shared<InprocPort>(name_, shared_);
    if (!claim_name(name_, port)) {
        TVK_LOG(LEVEL_ERR, "INPROC LISTENER NAME '%0' ALREADY IN USE") << name_;
        return false;
    }
    port_ = port;
    if (tvk_log() > 0) TVK_LOG(LEVEL_LOG, "INPROC LISTENER '%0' STARTED") << address_;
    return true;
}

bool INPROCListener::stop() {
    std::shared_ptr<InprocPort> port;
    {
        MutexHold hold(mutex_);
        port.swap(port_);
    }
    if (!port) return true;
    port->stop(inproc_config().comm_timeout_ms(times_.comm()));
    if (tvk_log() > 0) TVK_LOG(LEVEL_LOG, "INPROC LISTENER '%0' STOPPED") << address_;
    return true;
}

bool INPROCListener::is_ok() { return ok_; }

bool INPROCListener::is_stopped() {
    MutexHold hold(mutex_);
    return !port_ || port_->is_stopped();
}

void INPROCListener::set_callback(Callback& callback) {
    Listener::set_callback(callback);
    shared_->slot.set(&callback);
}

void INPROCListener::reset_callback() {
    shared_->slot.reset();
    Listener::reset_callback();
}

void INPROCListener::set_param(Tuple const& param) { times_.set_param(param); }

Tuple& INPROCListener::get_param(Tuple& param) {
    param.set_class_name(Symbol("tarvik.INPROCListener"));
    times_.put(param, false);
    param.set_astring(Symbol("name"), address_);
    put_state(shared_->state, param);
    return param;
}

}  // namespace tarvik
