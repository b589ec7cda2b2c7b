// Tls.h (private): the TLS state of one "STCPIP:" endpoint and the channels it makes.
//
// A TlsEndpoint holds the endpoint's TlsOptions (from the process defaults, changed by set_param) and the
// TLS context built from them, rebuilt on the first use after a change. make_channel() gives the TLS
// Channel (tcp/Channel.h) over a connected non-blocking socket: the handshake runs in its open(), and a
// client checks the host name it was given. Its socket reads and writes go through the platform half
// (TlsImpl.h), which never raises SIGPIPE.
//
// Thread safety: every operation locks; channels belong to their connection's thread.
#pragma once

#include <memory>

#include "../../AnnotatedMutex.h"
#include "tarvik/AString.h"
#include "tarvik/Tls.h"
#include "transport/tcp/Channel.h"

namespace tarvik {

class Tuple;

// Binds the process defaults' global variables ("TVK.STCPIP" TLS.*), so a host can list and load them from
// the start; called once by init().
void register_tls_variables();

class TlsEndpoint {
public:
    explicit TlsEndpoint(bool server);
    ~TlsEndpoint();
    TlsEndpoint(TlsEndpoint const&) = delete;
    TlsEndpoint& operator=(TlsEndpoint const&) = delete;

    // Reads the "tls_*" attributes present in `param`.
    void set_param(Tuple const& param) TARVIK_EXCLUDES(mutex_);
    // Writes the "tls_*" attributes.
    void put(Tuple& param) const TARVIK_EXCLUDES(mutex_);
    // Builds the context if it is missing or the options changed: true, or false with the reason in
    // `error` (the TLS library's text).
    bool ready(AString& error) TARVIK_EXCLUDES(mutex_);
    // A channel over `fd` (`host`: the name a client checks the certificate against), or null with the
    // reason in `error`.
    ChannelPtr make_channel(int fd, char const* host, AString& error) TARVIK_EXCLUDES(mutex_);

    struct Context;

private:
    bool const server_;
    mutable AnnotatedMutex mutex_;
    TlsOptions options_ TARVIK_GUARDED_BY(mutex_);
    std::shared_ptr<Context> context_ TARVIK_GUARDED_BY(mutex_);  // null until built, and after a change
};

}  // namespace tarvik
