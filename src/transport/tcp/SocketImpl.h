// SocketImpl.h: what a platform half of the TCP/IP transport provides (Socket-linux.cpp today).
//
// Sockets are plain int descriptors here, always non-blocking and close-on-exec, with TCP_NODELAY set on
// every connected socket (a request or an answer is written whole and waited for, so Nagle's delay would
// only add latency). Every failing operation returns a negative value and fills `error` with the address
// it was about and the system's own text ("connect to 127.0.0.1:1: Connection refused"); the callers turn
// that into their result and "ERR" record. Nothing here logs.
//
// Thread safety: every function may be called from any thread; a Poller may be waited on by several
// threads at once (that is its purpose) while others add, re-arm or remove descriptors.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "tarvik/AString.h"
#include "transport/tcp/Channel.h"

namespace tarvik::socket_impl {

// An IPv4 or IPv6 socket address, opaque to the portable code.
struct SocketAddress {
    unsigned char bytes[128] = {};
    unsigned int length = 0;
};

// Results of connect_start() and the failures callers tell apart.
enum Outcome : int {
    CONNECTED = 0,
    IN_PROGRESS = 1,
    REFUSED = -1,      // nobody listens there (or the host is unreachable)
    TIMED_OUT = -2,    // the wait ran out
    FAILED = -3,       // any other system error
    NO_DESCRIPTOR = -4 // the process (or system) is out of descriptors
};

// Takes "host:port" apart: host an IPv4 address, an IPv6 address in brackets, a name (resolved), or "*" /
// empty for every local address (only when `passive`, for a listener); port a decimal number 0..65535.
// Fills `out` with the addresses in the resolver's order (IPv6 wildcard first for "*", which also takes
// IPv4 connections). Returns 0, or FAILED with `error` set.
int resolve(AString const& host_port, bool passive, std::vector<SocketAddress>& out, AString& error);
// "127.0.0.1:5000" or "[::1]:5000".
AString to_text(SocketAddress const& address);

// A listening socket bound to `address` (SO_REUSEADDR, IPV6_V6ONLY off for a wildcard), or a negative
// Outcome. `bound` receives the address actually bound (the port chosen for port 0).
int open_listener(SocketAddress const& address, SocketAddress& bound, AString& error);
// The next pending connection of `listener`, non-blocking with TCP_NODELAY: a descriptor, -1 when none
// is pending, or NO_DESCRIPTOR / FAILED (with `error`). `peer` names the other end.
int accept_one(int listener, AString& peer, AString& error);

// Starts a non-blocking connection: CONNECTED or IN_PROGRESS with `fd` set, else a negative Outcome.
int connect_start(SocketAddress const& address, int& fd, AString& error);
// Waits for an IN_PROGRESS connection until `timeout_ms` passes (-1: no bound): CONNECTED, TIMED_OUT,
// REFUSED or FAILED.
int connect_finish(int fd, SocketAddress const& address, int timeout_ms, AString& error);

// Waits until `fd` is readable (or writable when `for_write`): 1 ready, 0 when `timeout_ms` passed (-1:
// no bound), FAILED on error.
int wait_ready(int fd, bool for_write, int timeout_ms);
// Whether an idle connection has something to read or was closed by its peer (looked at without waiting):
// such a connection cannot carry a new exchange.
bool has_input_or_closed(int fd);
void close_socket(int fd);
// Puts a connected socket in blocking mode whose reads and writes give up after `timeout_ms` (at least 1)
// with "would block"; a caller that waits for one answer saves a poll per read that way. false on error.
bool set_blocking_timeout(int fd, int timeout_ms);
// How many descriptors this process has open (for tests and get_param).
int open_descriptor_count();

// The channel that reads and writes `fd` itself (recv/send); the descriptor stays the caller's.
ChannelPtr make_plain_channel(int fd);

// An epoll set with one-shot arming: a descriptor reports one event, then stays silent until re-armed,
// so the thread that took an event owns its connection until it re-arms it.
class Poller {
public:
    struct Event {
        std::uint64_t tag;  // what add() was given
        bool readable;      // or hung up / in error: the reader finds out which
        bool writable;
    };

    virtual ~Poller() = default;
    // Watches `fd` for readability (writability when `for_write`), once.
    virtual bool add(int fd, std::uint64_t tag, bool for_write) = 0;
    // Arms `fd` again after its event was taken.
    virtual bool rearm(int fd, std::uint64_t tag, bool for_write) = 0;
    // Stops watching `fd` (before it is closed).
    virtual void remove(int fd) = 0;
    // Waits up to `timeout_ms` for events; the number stored in `events` (0 on time-out or wake()).
    virtual int wait(Event* events, int capacity, int timeout_ms) = 0;
    // Makes every thread blocked in wait() return (until the poller is destroyed).
    virtual void wake_all() = 0;
};

// A new poller, or null with `error` set.
std::unique_ptr<Poller> make_poller(AString& error);

}  // namespace tarvik::socket_impl
