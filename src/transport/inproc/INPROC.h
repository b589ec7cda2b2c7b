// INPROC.h: the in-process transport ("INPROC:name").
//
// Listeners and senders of one process exchange real CommBuffer page streams, exactly what a socket
// carries, without leaving the process: a sender encodes the request into pages and posts them to the
// listener's port; a worker thread of the listener takes the pages apart with the bounded page reader and
// decodes them (the same checks as a socket transport, so damaged pages give an "ERR" record and a failed
// call), delivers the request to the callback, encodes the answer in the form the request came in and
// hands its pages back; the sender takes those apart and decodes them on its own thread. So several
// service managers of one process can call each other, and every failure path of a remote call exists.
//
// Names: a started listener owns its name in a process-wide registry until it stops; a second listener of
// that name fails to start ("INPROC LISTENER NAME '%0' ALREADY IN USE"). A sender looks the name up at
// its first call and again whenever the port it holds has stopped; with no listener of that name the call
// fails at once with Sender::CALL_REFUSED (there is no connection to wait for, so the connection time-out
// is reported by get_param but not used).
//
// Threads: a port starts worker threads on demand, one more whenever a request arrives and every worker is
// busy, up to kMaxWorkers; they wait for requests until the listener stops. A call waits for its answer at
// most the effective communication time-out of the sender ("TVK.INPROC" variables); a call that times out
// is abandoned (its answer, if it comes, is dropped) and fails with Sender::CALL_COMM_TIMEOUT; the worker
// stays busy until the callback returns, and later calls get other workers.
//
// stop(): the name is freed, requests not yet taken fail with Sender::CALL_PEER_CLOSED, requests in the
// callback get the listener's communication time-out to finish; calls still running then fail with
// CALL_PEER_CLOSED, their workers are left to end on their own ("INPROC LISTENER '%0': %1 WORKERS STILL
// BUSY AT STOP" at ERR) and every other worker is joined. A callback that stops its own listener is not
// waited for: its call is answered and its worker ends after it.
//
// Thread safety: as Listener.h and Sender.h state; every lock below names what it guards.
//
// Lock order (a lock may be taken while holding only those above it):
//   INPROCListener::mutex_  (held while starting: takes the registry's lock; while checking is_stopped():
//                            takes InprocPort::mutex_)
//   INPROCSender::mutex_    (held while checking is_stopped(): takes InprocPort::mutex_)
//   the registry's lock     (INPROCListener.cpp; a leaf)
//   InprocPort::mutex_      (held while stop() fails the requests in flight: takes InprocExchange::mutex;
//                            dropped before a worker takes an exchange's lock or runs a callback)
//   InprocExchange::mutex   (a leaf; the listener's State counters, atomics, are updated under it)
// CallbackSlot's and EndpointTimes's locks (Transport.h) are leaves taken with none of these held.
#pragma once

#include <deque>
#include <memory>
#include <thread>
#include <vector>

#include "tarvik/AString.h"
#include "tarvik/CommBuffer.h"
#include "tarvik/Listener.h"
#include "tarvik/Sender.h"
#include "transport/Transport.h"

namespace tarvik {

// One request in flight between a sender and a port.
struct InprocExchange {
    enum State { QUEUED, TAKEN, ANSWERED, FAILED, ABANDONED };

    CommBuffer request;                  // filled by the sender before posting; read by one worker
    CommBuffer answer;                   // filled by the worker; read by the sender once ANSWERED
    AnnotatedMutex mutex;                // also orders the hand-over of answer (written before ANSWERED)
    CondVar settled;                     // signalled when state becomes ANSWERED or FAILED
    State state TARVIK_GUARDED_BY(mutex) = QUEUED;
    int result TARVIK_GUARDED_BY(mutex) = 0;

    // Ends a request that is still QUEUED or TAKEN with a failure; false when it was already settled or
    // abandoned.
    bool fail(int why) TARVIK_EXCLUDES(mutex);
    bool is_settled() const TARVIK_REQUIRES(mutex) { return state == ANSWERED || state == FAILED; }
};

// What a listener shares with its ports and their workers (which may outlive a listener that stopped
// while a callback was stuck).
struct InprocShared {
    CallbackSlot slot;
    Listener::State state;
};

// A started listener's mailbox and workers.
class InprocPort : public std::enable_shared_from_this<InprocPort> {
public:
    static constexpr int kMaxWorkers = 64;

    InprocPort(AString address, std::shared_ptr<InprocShared> shared);
    ~InprocPort();
    InprocPort(InprocPort const&) = delete;
    InprocPort& operator=(InprocPort const&) = delete;

    // Queues a request for a worker; false when the port has stopped.
    bool post(std::shared_ptr<InprocExchange> const& exchange) TARVIK_EXCLUDES(mutex_);
    // See the header comment; `wait_ms` bounds the wait for calls in progress (negative: no bound).
    void stop(int wait_ms) TARVIK_EXCLUDES(mutex_);
    bool is_stopped() TARVIK_EXCLUDES(mutex_);
    InprocShared& shared() { return *shared_; }
    AString const& address() const { return address_; }

private:
    // The analysis cannot tie a Worker's field to the port that owns it, so `current` is reached only
    // through current_(), which requires the port's lock.
    struct Worker {
        std::thread thread;
        std::shared_ptr<InprocExchange> current;  // the request being served, null when idle
    };
    std::shared_ptr<InprocExchange>& current_(Worker& worker) TARVIK_REQUIRES(mutex_) { return worker.current; }

    // What serving one request gave: its encoded answer, or the failure to report.
    struct Outcome {
        int failure = 0;
        CommBuffer answer;
    };

    void run_worker_(Worker* worker) TARVIK_EXCLUDES(mutex_);
    // Decodes the request, delivers it and encodes the answer (no lock held).
    void serve_(InprocExchange& exchange, Outcome& outcome) TARVIK_EXCLUDES(mutex_, exchange.mutex);
    // Hands the answer (or the failure) to the caller, unless it has given up.
    void settle_(InprocExchange& exchange, Outcome& outcome) TARVIK_EXCLUDES(mutex_, exchange.mutex);

    AString const address_;
    std::shared_ptr<InprocShared> const shared_;
    AnnotatedMutex mutex_;
    CondVar wake_;                       // workers wait here for requests (or the stop)
    CondVar quiet_;                      // stop() waits here for busy_ to reach 0
    std::deque<std::shared_ptr<InprocExchange>> queue_ TARVIK_GUARDED_BY(mutex_);
    std::vector<std::unique_ptr<Worker>> workers_ TARVIK_GUARDED_BY(mutex_);
    // Workers left running at stop, kept until the port goes (each holds the port until it ends).
    std::vector<std::unique_ptr<Worker>> detached_ TARVIK_GUARDED_BY(mutex_);
    int busy_ TARVIK_GUARDED_BY(mutex_) = 0;
    bool stopping_ TARVIK_GUARDED_BY(mutex_) = false;
};

class INPROCListener : public Listener {
public:
    explicit INPROCListener(char const* address);
    ~INPROCListener() override;

    bool start() override TARVIK_EXCLUDES(mutex_);
    bool stop() override TARVIK_EXCLUDES(mutex_);
    bool is_ok() override;
    bool is_stopped() override TARVIK_EXCLUDES(mutex_);
    void set_callback(Callback& callback) override;
    void reset_callback() override;
    State& get_state() override { return shared_->state; }
    void set_param(Tuple const& param) override;
    Tuple& get_param(Tuple& param) override;

private:
    AString const address_;
    AString name_;
    bool ok_ = false;
    EndpointTimes times_;
    std::shared_ptr<InprocShared> const shared_;
    AnnotatedMutex mutex_;               // serialises start/stop/is_stopped
    std::shared_ptr<InprocPort> port_ TARVIK_GUARDED_BY(mutex_);
};

class INPROCSender : public Sender {
public:
    explicit INPROCSender(char const* address);
    ~INPROCSender() override;

    bool is_ok() override { return ok_; }
    bool is_connected() override TARVIK_EXCLUDES(mutex_);
    int call(Tuple const& request, Tuple& reply) override TARVIK_EXCLUDES(mutex_);
    void set_param(Tuple const& param) override { times_.set_param(param); }
    Tuple& get_param(Tuple& param) override;

private:
    // The port of the listener of our name, looked up again when the one held has stopped; null when no
    // listener of the name runs.
    std::shared_ptr<InprocPort> port_() TARVIK_EXCLUDES(mutex_);
    void hold_(std::shared_ptr<InprocPort> const& port) TARVIK_EXCLUDES(mutex_);

    AString const address_;
    AString name_;
    bool ok_ = false;
    EndpointTimes times_;
    AnnotatedMutex mutex_;
    std::shared_ptr<InprocPort> held_ TARVIK_GUARDED_BY(mutex_);
};

// The port of the started listener of that name, or null.
std::shared_ptr<InprocPort> find_inproc_port(AString const& name);

}  // namespace tarvik
