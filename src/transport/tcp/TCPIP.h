// TCPIP.h: the TCP/IP transport ("TCPIP:host:port"; "STCPIP:host:port" once its secure channel is built).
//
// Wire: nothing but CommBuffer page streams. A connection carries one request at a time: the request's
// pages until the page marked last, then the answer's pages, in the form the request came in.
//
// Listener. The address is bound when the listener is made (so is_ok() tells whether it could be, and a
// listener on port 0 knows its port: get_param's "name" is "TCPIP:<address bound>:<port>"). start() hands
// the socket to a fixed set of I/O threads ("TVK.TCPIP" "IO.THREADS", default one per core) that wait on
// one epoll set in which every descriptor is armed one-shot: the thread that takes a connection's event
// owns the connection until it arms it again. That thread reads what is there, and when a request is
// complete it decodes it, calls the callback inline, encodes and writes the answer and arms the connection
// again: no hand-off between threads on the call path and no thread per connection. An idle connection
// costs its descriptor and a ServerConnection (a few hundred bytes; its buffers are freed between
// requests). Bounds on what a peer can make us do:
//   * pages are checked against "COMM.MAX_BUFFER_SIZE" before anything is allocated (PageStreamReader);
//   * a connection in the middle of a request or an answer (or a handshake) for longer than the
//     communication time-out is dropped by a sweep that one I/O thread runs every kSweepMs;
//   * at most "CONNECTIONS.MAX" (default 10,000) connections are held; more are accepted and closed at once
//     with an "ERR" record; a process out of descriptors pauses accepting until the next sweep.
// stop() closes the listening socket, refuses requests completed after it, gives calls in the callback the
// communication time-out to finish, then ends the I/O threads and closes every connection. A thread stuck in
// a callback that never returns is left running (reported at ERR); what it uses is shared with it.
//
// Sender. A pool of connections, one exchange in flight on each: call() takes an idle connection (one idle
// for more than a few milliseconds that has input waiting or was closed by its peer is dropped: a
// restarted server is met with a new connection)
// or opens one with a non-blocking connect bounded by the effective connection time-out, writes the
// request and reads the answer within the effective communication time-out, then puts the connection back.
// A connection that failed or timed out is closed, never reused: its position in the stream is unknown.
//
// Results of call() (Sender.h): CALL_NOT_READY (address that cannot be parsed or resolved, or no
// descriptor), CALL_REFUSED (nobody listens, host unreachable), CALL_CONNECTION_TIMEOUT, CALL_COMM_TIMEOUT,
// CALL_PEER_CLOSED (the listener closed the connection before answering), CALL_PROTOCOL_ERROR (bytes that
// are no page stream or tuple), CALL_TOO_LARGE (a request or answer beyond "COMM.MAX_BUFFER_SIZE"), each
// with an "ERR" record naming the address and the system error.
//
// Channels: every connection reads and writes through a Channel (Channel.h) made by the endpoint's
// ChannelMaker: plain for "TCPIP:", TLS for "STCPIP:" (tls/Tls.h; the handshake runs as the channel's
// opening, bounded like a request: by the connection time-out on the sender, by the stall sweep on the
// listener). A secure listener that cannot load its certificate fails start() with a record.
//
// Thread safety: as Listener.h and Sender.h state. Lock order (a lock may be taken while holding only
// those above it):
//   TCPIPListener::mutex_     (held while starting: builds the TLS context under TlsEndpoint's lock)
//   TcpServer::listen_mutex_  (held while accepting: takes a new connection's lock)
//   ServerConnection::mutex   (held while serving an event or closing: takes the connections lock)
//   TcpServer::connections_mutex_, TlsEndpoint's lock, TCPIPSender::mutex_ (leaves)
// The sweep copies the stalled connections out of the connections lock before it takes their own.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "../../AnnotatedMutex.h"
#include "tarvik/AString.h"
#include "tarvik/GlobVar.h"
#include "tarvik/Listener.h"
#include "tarvik/Sender.h"
#include "transport/Transport.h"
#include "transport/tcp/Channel.h"
#include "transport/tcp/SocketImpl.h"

namespace tarvik {

// The variables of "TVK.TCPIP" beyond those of every transport (TransportConfig):
//   IO.THREADS       0      I/O threads of a listener; 0 or less: one per core
//   CONNECTIONS.MAX  10000  connections one listener holds at once
struct TcpipLimits {
    TcpipLimits();
    int io_threads() const;
    int max_connections() const;

    GlobVarInt io_threads_;
    GlobVarInt max_connections_;
};
TcpipLimits& tcpip_limits();

// Makes the channel of a new connection; `host` is the name a client asked for (for checking a
// certificate), null on the accepting side. Null, with the reason in `error`, when it cannot be made.
using ChannelMaker = std::function<ChannelPtr(int fd, char const* host, AString& error)>;
ChannelMaker plain_channel_maker();
// The maker of an endpoint: TLS over `tls` when it is not null, plain otherwise.
class TlsEndpoint;
ChannelMaker channel_maker(std::shared_ptr<TlsEndpoint> const& tls);

// What a listener shares with its server's threads, which may outlive it (a thread stuck in a callback).
struct TcpShared {
    CallbackSlot slot;
    Listener::State state;
    EndpointTimes times;
};

class TcpServer;

class TCPIPListener : public Listener {
public:
    TCPIPListener(char const* host_port, bool secure);
    ~TCPIPListener() override;

    bool start() override TARVIK_EXCLUDES(mutex_);
    bool stop() override TARVIK_EXCLUDES(mutex_);
    bool is_ok() override { return ok_; }
    bool is_stopped() override TARVIK_EXCLUDES(mutex_);
    void set_callback(Callback& callback) override;
    void reset_callback() override;
    State& get_state() override { return shared_->state; }
    void set_param(Tuple const& param) override;
    Tuple& get_param(Tuple& param) override TARVIK_EXCLUDES(mutex_);

private:
    bool bind_() TARVIK_REQUIRES(mutex_);

    AString const requested_;  // "host:port" as given
    bool const secure_;
    bool ok_ = false;
    std::shared_ptr<TcpShared> const shared_;
    std::shared_ptr<TlsEndpoint> const tls_;  // null for plain TCP/IP
    ChannelMaker maker_;
    AnnotatedMutex mutex_;  // serialises start/stop/get_param
    socket_impl::SocketAddress bound_ TARVIK_GUARDED_BY(mutex_);
    AString name_ TARVIK_GUARDED_BY(mutex_);  // the whole address as bound, "TCPIP:127.0.0.1:40123"
    int listen_fd_ TARVIK_GUARDED_BY(mutex_) = -1;
    std::shared_ptr<TcpServer> server_ TARVIK_GUARDED_BY(mutex_);
};

class TCPIPSender : public Sender {
public:
    TCPIPSender(char const* host_port, bool secure);
    ~TCPIPSender() override;

    bool is_ok() override { return ok_; }
    bool is_connected() override TARVIK_EXCLUDES(mutex_);
    int call(Tuple const& request, Tuple& reply) override TARVIK_EXCLUDES(mutex_);
    void set_param(Tuple const& param) override;
    Tuple& get_param(Tuple& param) override TARVIK_EXCLUDES(mutex_);

    struct Connection;  // a pooled connection (TCPIPSender.cpp)

private:
    std::unique_ptr<Connection> take_idle_() TARVIK_EXCLUDES(mutex_);
    int connect_(std::unique_ptr<Connection>& out, Deadline const& deadline);
    int exchange_(Connection& connection, CommBuffer const& request, Tuple& reply, Deadline const& deadline);
    int fail_(int result, AString const& why);

    AString const address_;    // the whole address, for records and "name"
    AString const host_port_;
    AString host_;             // the host part, for checking a certificate
    bool ok_ = false;
    EndpointTimes times_;
    std::shared_ptr<TlsEndpoint> const tls_;  // null for plain TCP/IP
    ChannelMaker maker_;
    std::vector<socket_impl::SocketAddress> resolved_;  // set at construction
    AString resolve_error_;
    std::atomic<std::int64_t> calls_{0};
    std::atomic<std::int64_t> bytes_in_{0};
    std::atomic<std::int64_t> bytes_out_{0};
    std::atomic<int> last_error_{0};
    AnnotatedMutex mutex_;
    std::vector<std::unique_ptr<Connection>> idle_ TARVIK_GUARDED_BY(mutex_);
    int open_ TARVIK_GUARDED_BY(mutex_) = 0;  // connections made and not yet closed, idle or in use
};

}  // namespace tarvik
