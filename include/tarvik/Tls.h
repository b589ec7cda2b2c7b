// Tls.h: the settings of the secure TCP/IP transport ("STCPIP:host:port").
//
// An "STCPIP:" connection is TLS (1.2 at least, 1.3 preferred) over TCP/IP; it never falls back to plain
// text. Each end uses a TlsOptions: the process-wide defaults, which every new "STCPIP:" listener and
// sender starts from, are the global variables of the module "TVK.STCPIP" (so a host sets them from code
// with set_tls_defaults or from its file of global variables, GlobVar::load_ini):
//   TLS.CERT_FILE, TLS.KEY_FILE, TLS.CA_FILE   text, default ""
//   TLS.VERIFY_PEER                            int, default 1
//   TLS.REQUIRE_CLIENT_CERT                    int, default 0
// They are overridden per endpoint through set_param with the attributes
//   "tls_cert_file", "tls_key_file", "tls_ca_file"   (strings: paths of PEM files)
//   "tls_verify_peer", "tls_require_client_cert"     (ints: 0 or 1)
// which get_param writes back. A listener must have a certificate and its key; it asks for a client
// certificate, and refuses a connection without one, only when require_client_cert is set (mutual TLS).
// A sender checks the listener's certificate against ca_file (the system's authorities when empty) and
// that it was issued for the host named in the address, unless verify_peer is 0; it presents cert_file
// when one is set. The files are read when an endpoint starts (a listener) or makes its first connection
// after a change (a sender); a file that cannot be read, or a key that does not match its certificate,
// fails that start or call with an "ERR" record carrying the TLS library's reason. A failed handshake is
// Sender::CALL_HANDSHAKE_FAILED for the caller, with the reason in the record.
//
// Thread safety: set_tls_defaults / tls_defaults may be called from any thread; endpoints made before a
// change keep the options they had.
#pragma once

#include "tarvik/AString.h"
#include "tarvik/Types.h"

namespace tarvik {

struct TARVIK_EXPORT TlsOptions {
    AString cert_file;                 // PEM certificate (chain) this end presents
    AString key_file;                  // PEM private key of cert_file
    AString ca_file;                   // PEM certificates the peer's certificate must chain to
    bool verify_peer = true;           // a sender checks the listener's certificate and host name
    bool require_client_cert = false;  // a listener requires a certificate from every client
};

// The options new "STCPIP:" endpoints start from.
TARVIK_EXPORT void set_tls_defaults(TlsOptions const& options);
TARVIK_EXPORT TlsOptions tls_defaults();

}  // namespace tarvik
