// Channel.h: the byte pipe under one TCP/IP connection, plain or TLS, as the listener and sender see it.
//
// A connection owns its socket descriptor and one Channel over it. The channel never owns or closes the
// descriptor; it only moves bytes through it. A channel that cannot go on says which readiness it waits
// for (WANT_READ / WANT_WRITE), so the caller arms its poller (listener) or polls with its deadline
// (sender) and calls again. The listener's descriptors are non-blocking; a sender's may be blocking with a
// send and receive time-out (SocketImpl.h), in which case WANT_ means that time-out passed. The plain channel is a thin layer over recv/send; the TLS channel (src/transport/tls/) runs the
// handshake in open() and may want to write while reading and the other way round (renegotiation, key
// updates), which is why every operation may answer either WANT_.
//
// Thread safety: a channel belongs to one thread at a time (the thread that owns its connection).
#pragma once

#include <memory>

namespace tarvik {

class Channel {
public:
    // Results below zero; a read or write that moved bytes returns their number (> 0).
    static constexpr long WANT_READ = -1;   // call again when the descriptor is readable
    static constexpr long WANT_WRITE = -2;  // call again when the descriptor is writable
    static constexpr long CLOSED = -3;      // the peer ended the stream (orderly close, or close_notify)
    static constexpr long FAILED = -4;      // a system or TLS error; error_text() says which

    virtual ~Channel() = default;

    // Completes what must happen before the first byte (the TLS handshake; nothing for plain): 0 when
    // done, WANT_READ / WANT_WRITE to be called again, FAILED (a failed handshake) with error_text().
    virtual long open() = 0;
    // Reads up to n (> 0) bytes into `into`.
    virtual long read(unsigned char* into, unsigned long n) = 0;
    // Writes up to n (> 0) bytes from `from`; may write fewer.
    virtual long write(unsigned char const* from, unsigned long n) = 0;
    // Whether bytes already taken off the socket wait inside the channel: the poller will not announce
    // them, so a reader must drain them before arming for readability.
    virtual bool has_buffered() const = 0;
    // Ends the stream politely where the layer has such a thing (TLS close_notify), best effort, without
    // blocking. The descriptor stays open.
    virtual void shutdown() = 0;
    // The last failure as text: the system error for plain, the TLS library's error text for TLS.
    virtual char const* error_text() const = 0;
    // Whether this is the secure channel (for records and get_param).
    virtual bool secure() const = 0;
};

using ChannelPtr = std::unique_ptr<Channel>;

}  // namespace tarvik
