// Sender.h: the client end of a transport.
//
// A Sender carries request tuples to one remote Listener (Listener.h) and waits for the reply tuple of
// each. It is a counted object made by name from the listener's address, through the factories registered
// under factory_name():
//
//     AutoRef<Sender> sender("INPROC:demo");          // or "TCPIP:host:port", "STCPIP:...", "SHM:name"
//     Tuple reply;
//     int r = sender->call(request, reply);           // 0: reply holds the answer
//
// A sender has no start operation: call() connects as needed (bounded by the effective connection
// time-out) and sends the request, then waits for the answer (bounded by the effective communication
// time-out; both read from the transport's global variables at every call, see Listener.h). A connection
// that failed or timed out is dropped, never reused; the next call makes a new one. Sender's own
// operations are the neutral ones (is_ok/is_connected false, call returns 0 and leaves `reply` alone,
// parameters ignored); concrete transports override them.
//
// Results of call(): 0 when the answer arrived and fills `reply` (the answer's own content, whatever the
// remote side put in it, may still report a failure); otherwise one of the negative results below, with
// an "ERR" record naming the address, and `reply` cleared. Every transport uses these same values.
//
// Thread safety: every operation may be called from any thread, call() from several at once; each answer
// goes to the call that sent its request.
#pragma once

#include "tarvik/AutoRef.h"
#include "tarvik/Types.h"

namespace tarvik {

class Tuple;

class TARVIK_EXPORT Sender : public RefObject {
public:
    // Results of call().
    enum CallResult : int {
        CALL_OK = 0,
        CALL_FAILED = -1,                      // any other failure (the record says which)
        CALL_NOT_READY = -1000001,             // the endpoint could not be set up (a bad address, no area)
        CALL_REFUSED = -1000010,               // nobody listens at the address, or the listener refused
        CALL_CONNECTION_TIMEOUT = -1000011,    // no connection within the connection time-out
        CALL_COMM_TIMEOUT = -1000012,          // no complete answer within the communication time-out
        CALL_PEER_CLOSED = -1000013,           // the listener closed or stopped before answering
        CALL_PROTOCOL_ERROR = -1000014,        // the request could not be encoded or the answer decoded
        CALL_TOO_LARGE = -1000015,             // a buffer beyond the transport's size limit
        CALL_HANDSHAKE_FAILED = -1000016,      // the secure connection could not be opened (certificate
                                               // refused, no common protocol): the record says why
    };

    Sender() = default;
    ~Sender() override;
    Sender(Sender const&) = delete;
    Sender& operator=(Sender const&) = delete;

    // Whether the sender was made and can be used (its address could be parsed). false here.
    virtual bool is_ok();
    // Whether a connection to the listener is open now. false here.
    virtual bool is_connected();
    // Sends `request` and waits for the answer, which replaces the content of `reply`; returns CALL_OK or
    // a negative CallResult. Here returns 0 and leaves `reply` unchanged.
    virtual int call(Tuple const& request, Tuple& reply);
    // Reads "comm_timeout" / "connection_timeout" (TimePeriod); absent ones change nothing. Ignores its
    // argument here.
    virtual void set_param(Tuple const& param);
    // Writes the class name ("tarvik.INPROCSender", "tarvik.SHMSender", ...), "comm_timeout",
    // "connection_timeout" and "name" (the address) into `param` and returns it; here returns it unchanged.
    virtual Tuple& get_param(Tuple& param);

    // The name sender factories register under: "tarvik::Sender".
    static char const* factory_name() { return "tarvik::Sender"; }
};

}  // namespace tarvik
