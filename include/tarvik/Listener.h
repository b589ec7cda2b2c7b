// Listener.h: the server end of a transport, and the callback it delivers requests to.
//
// A Listener receives request tuples from callers in other threads, processes or machines and hands each,
// with an empty reply tuple, to the one Listener::Callback linked to it (the service manager, in practice);
// what the callback leaves in the reply goes back to the caller. A Sender (Sender.h) is the other end.
// Both are counted objects made by name from an address string through the factories registered under
// factory_name():
//
//     AutoRef<Listener> listener("INPROC:demo");      // or "TCPIP:127.0.0.1:5000", "SHM:name:65536"
//     listener->set_callback(manager);                // before start(): no request is lost
//     listener->start();
//
// Addresses known to init(): "INPROC:name" (threads of this process), "TCPIP:host:port" and
// "STCPIP:host:port" (plain and secure TCP/IP), "SHM:name" and "SHM:name:size" (shared memory between
// processes of one machine). A factory that does not recognise an address yields a null reference; a null
// reference from all of them means the address names no transport of this build (a build without the
// socket or shared-memory endpoints still recognises their addresses and says so in an "ERR" record).
//
// Lifecycle: start() begins accepting requests (true on success); stop() stops accepting, lets requests
// already delivered to the callback finish within the communication time-out, then drops what remains
// (their callers see a failed call); is_stopped() tells which state the listener is in. A listener
// releases its threads and connections when stopped and in its destructor. Listener's own operations are
// the neutral ones (start/stop/is_ok false, is_stopped true, parameters ignored); concrete transports
// override them.
//
// Linking a callback (one callback per listener, one listener per callback; both pointers non-owning):
//   set_callback(cb)  unlinks cb from the listener it was linked to, if any, then links cb and this
//                     listener to each other. A callback already linked here is simply replaced.
//   reset_callback()  unlinks the linked callback, if any.
//   Callback::detach() calls reset_callback() on its listener through the virtual slot, so a concrete
//                     listener's override runs; the callback's destructor detaches it.
// Concrete listeners override both to also hand the callback to (or withdraw it from) their workers, and
// after reset_callback() returns no worker calls into the old callback any more: an object that is about
// to be destroyed may detach itself and then free what its on_request() uses.
// Copying a Callback copies its listener pointer as it stands; the listener keeps pointing at the object it
// was linked with (the copy is not linked in the listener's eyes).
//
// Parameters: set_param reads "comm_timeout" and "connection_timeout" (TimePeriod) from its tuple, an absent
// attribute changing nothing. get_param writes the class name of the endpoint ("tarvik.INPROCListener",
// "tarvik.SHMListener", ...), "comm_timeout", "connection_timeout" where the transport uses one, "name"
// (the endpoint's whole address, as a sender of the transport takes it; a TCP/IP listener on port 0
// reports the port actually bound) and the state counters (State below), and returns its argument. An endpoint's own time-outs start unset; the effective
// values come from the transport's global variables ("TVK.TCPIP", "TVK.SHM", "TVK.INPROC": COMM.* and
// CONNECTION.* FORCE_TIMEOUT / DEFAULT_TIMEOUT) and are read again at every use.
//
// Thread safety: a listener calls on_request() from its own worker threads, several at once; the callback
// must be safe for concurrent calls. start/stop/set_param/get_param may be called from any thread. The base
// class does not lock when linking or unlinking: link a callback before start() and unlink it after stop(),
// or rely on a concrete listener's override, which serialises linking against its workers.
#pragma once

#include <atomic>
#include <cstdint>

#include "tarvik/AutoRef.h"
#include "tarvik/Types.h"

namespace tarvik {

class Tuple;

class TARVIK_EXPORT Listener : public RefObject {
public:
    // The receiver of requests. The service manager is the library's implementation.
    class TARVIK_EXPORT Callback {
    public:
        Callback() = default;
        // Copies the listener pointer as it stands; the listener does not learn of the copy.
        Callback(Callback const& other) : listener_(other.listener_) {}
        Callback& operator=(Callback const& other) = delete;
        // Detaches from the listener, if linked.
        virtual ~Callback();

        // Handles one request. `request` is the decoded request tuple, read-only and owned by the
        // listener; `reply` is an empty tuple (class "") that the callback fills; the listener encodes
        // and sends it when on_request returns, whatever it holds. Runs on a listener worker thread,
        // possibly on several at once; it must not throw.
        virtual void on_request(Tuple const& request, Tuple& reply) = 0;

        // Unlinks this callback from its listener (through the listener's reset_callback()); nothing when
        // not linked.
        void detach();
        // The listener this callback is linked to, or null.
        Listener* get_listener() const { return listener_; }

    private:
        friend class Listener;
        Listener* listener_ = nullptr;
    };

    // What a listener counts about itself: the transport updates these as it works, get_param reports
    // them ("requests", "failed", "connections", "bytes_in", "bytes_out", "last_error").
    struct State {
        std::atomic<std::int64_t> requests{0};     // requests delivered to the callback and answered
        std::atomic<std::int64_t> failed{0};       // requests that could not be read, delivered or answered
        std::atomic<std::int64_t> connections{0};  // connections (or senders) open now
        std::atomic<std::int64_t> bytes_in{0};     // bytes of requests received
        std::atomic<std::int64_t> bytes_out{0};    // bytes of answers sent
        std::atomic<int> last_error{0};            // the last negative result met (0: none)
    };

    Listener() = default;
    ~Listener() override;
    Listener(Listener const&) = delete;
    Listener& operator=(Listener const&) = delete;

    // Begins accepting requests; true on success. false here.
    virtual bool start();
    // Stops accepting requests (see the header comment); true on success. false here.
    virtual bool stop();
    // Whether the listener was made and can run (its address could be used). false here.
    virtual bool is_ok();
    // Whether the listener is not accepting requests. true here.
    virtual bool is_stopped();
    // Links `callback` (see the header comment).
    virtual void set_callback(Callback& callback);
    // Unlinks the linked callback, if any.
    virtual void reset_callback();
    // The concrete listener's own state record.
    virtual State& get_state() = 0;
    // Reads "comm_timeout" / "connection_timeout"; ignores its argument here.
    virtual void set_param(Tuple const& param);
    // Writes the class name, time-outs, "name" and state into `param` and returns it; here returns it
    // unchanged.
    virtual Tuple& get_param(Tuple& param);

    // The linked callback, or null.
    Callback* get_callback() const { return callback_; }

    // The name listener factories register under: "tarvik::Listener".
    static char const* factory_name() { return "tarvik::Listener"; }

private:
    Callback* callback_ = nullptr;
};

}  // namespace tarvik
