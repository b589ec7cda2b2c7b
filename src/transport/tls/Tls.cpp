// Tls: the TLS contexts and channels of the secure TCP/IP transport, over OpenSSL.
#include "transport/tls/Tls.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include "Memory.h"
#include "tarvik/GlobVar.h"
#include "tarvik/Tuple.h"
#include "transport/tls/TlsImpl.h"

namespace tarvik {

namespace {

// The TLS library's queued errors as one text (emptied), or `fallback` when there are none.
AString take_errors(char const* fallback) {
    AString text;
    while (unsigned long code = ERR_get_error()) {
        char line[256];
        ERR_error_string_n(code, line, sizeof line);
        if (!text.is_empty()) text += "; ";
        text += line;
    }
    if (text.is_empty()) text = fallback;
    return text;
}

// The process defaults live in global variables, so that a host sets them from code or from its file of
// global variables alike.
struct TlsVariables {
    TlsVariables()
        : cert(Symbol("TVK.STCPIP"), Symbol("TLS.CERT_FILE"), ""),
          key(Symbol("TVK.STCPIP"), Symbol("TLS.KEY_FILE"), ""),
          ca(Symbol("TVK.STCPIP"), Symbol("TLS.CA_FILE"), ""),
          verify_peer(Symbol("TVK.STCPIP"), Symbol("TLS.VERIFY_PEER"), 1),
          require_client_cert(Symbol("TVK.STCPIP"), Symbol("TLS.REQUIRE_CLIENT_CERT"), 0) {}
    GlobVarText cert;
    GlobVarText key;
    GlobVarText ca;
    GlobVarInt verify_peer;
    GlobVarInt require_client_cert;
};

TlsVariables& variables() {
    static TlsVariables* const v = memory::create<TlsVariables>();
    return *v;
}

struct SslCtxFree {
    void operator()(SSL_CTX* c) const { SSL_CTX_free(c); }
};
struct SslFree {
    void operator()(SSL* s) const { SSL_free(s); }
};

}  // namespace

void set_tls_defaults(TlsOptions const& options) {
    TlsVariables& v = variables();
    v.cert.set(options.cert_file.c_str());
    v.key.set(options.key_file.c_str());
    v.ca.set(options.ca_file.c_str());
    v.verify_peer.set(options.verify_peer ? 1 : 0);
    v.require_client_cert.set(options.require_client_cert ? 1 : 0);
}

TlsOptions tls_defaults() {
    TlsVariables const& v = variables();
    TlsOptions options;
    options.cert_file = v.cert.get();
    options.key_file = v.key.get();
    options.ca_file = v.ca.get();
    options.verify_peer = v.verify_peer.get() != 0;
    options.require_client_cert = v.require_client_cert.get() != 0;
    return options;
}

void register_tls_variables() { variables(); }

// --- the context of one endpoint ----------------------------------------------------------------------

struct TlsEndpoint::Context {
    std::unique_ptr<SSL_CTX, SslCtxFree> ctx;
    bool verify_peer = true;
};

namespace {

// A context for `options`, or null with the reason in `error`.
std::shared_ptr<TlsEndpoint::Context> build_context(TlsOptions const& o, bool server, AString& error) {
    ERR_clear_error();
    auto context = std::make_shared<TlsEndpoint::Context>();
    context->ctx.reset(SSL_CTX_new(server ? TLS_server_method() : TLS_client_method()));
    SSL_CTX* ctx = context->ctx.get();
    if (!ctx) {
        error = take_errors("cannot make a TLS context");
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
    SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    if (server && o.cert_file.is_empty()) {
        error = "an STCPIP listener needs a certificate (tls_cert_file) and its key (tls_key_file)";
        return nullptr;
    }
    if (!o.cert_file.is_empty()) {
        char const* key = o.key_file.is_empty() ? o.cert_file.c_str() : o.key_file.c_str();
        if (SSL_CTX_use_certificate_chain_file(ctx, o.cert_file.c_str()) != 1 ||
            SSL_CTX_use_PrivateKey_file(ctx, key, SSL_FILETYPE_PEM) != 1 || SSL_CTX_check_private_key(ctx) != 1) {
            error = AString("certificate '") + o.cert_file + AString("': ") + take_errors("unusable");
            return nullptr;
        }
    }
    bool const verify = server ? o.require_client_cert : o.verify_peer;
    if (verify) {
        int const loaded = o.ca_file.is_empty() ? SSL_CTX_set_default_verify_paths(ctx)
                                                : SSL_CTX_load_verify_locations(ctx, o.ca_file.c_str(), nullptr);
        if (loaded != 1) {
            error = AString("authorities '") + o.ca_file + AString("': ") + take_errors("unusable");
            return nullptr;
        }
        SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | (server ? SSL_VERIFY_FAIL_IF_NO_PEER_CERT : 0), nullptr);
    } else {
        SSL_CTX_set_verify(ctx, SSL_VERIFY_NONE, nullptr);
    }
    context->verify_peer = verify;
    return context;
}

// The TLS channel: one SSL object over the socket.
class TlsChannel : public Channel {
public:
    TlsChannel(std::shared_ptr<TlsEndpoint::Context> context, SSL* ssl) : context_(std::move(context)), ssl_(ssl) {}

    long open() override {
        ERR_clear_error();
        int const r = SSL_do_handshake(ssl_.get());
        if (r == 1) return 0;
        return fail_(r, "handshake");
    }
    long read(unsigned char* into, unsigned long n) override {
        ERR_clear_error();
        int const r = SSL_read(ssl_.get(), into, static_cast<int>(n > 1u << 30 ? 1u << 30 : n));
        return r > 0 ? r : fail_(r, "read");
    }
    long write(unsigned char const* from, unsigned long n) override {
        ERR_clear_error();
        int const r = SSL_write(ssl_.get(), from, static_cast<int>(n > 1u << 30 ? 1u << 30 : n));
        return r > 0 ? r : fail_(r, "write");
    }
    bool has_buffered() const override { return SSL_pending(ssl_.get()) > 0; }
    void shutdown() override {
        if (SSL_is_init_finished(ssl_.get())) SSL_shutdown(ssl_.get());
        ERR_clear_error();
    }
    char const* error_text() const override { return error_.c_str(); }
    bool secure() const override { return true; }

private:
    long fail_(int r, char const* doing) {
        int const code = SSL_get_error(ssl_.get(), r);
        switch (code) {
            case SSL_ERROR_WANT_READ:
                return WANT_READ;
            case SSL_ERROR_WANT_WRITE:
                return WANT_WRITE;
            case SSL_ERROR_ZERO_RETURN:
                error_ = "closed by the peer";
                return CLOSED;
            default:
                break;
        }
        long const verified = SSL_get_verify_result(ssl_.get());
        error_ = "TLS ";
        error_ += doing;
        error_ += ": ";
        if (verified != X509_V_OK) {
            error_ += "certificate verify failed: ";
            error_ += X509_verify_cert_error_string(verified);
            ERR_clear_error();
            return FAILED;
        }
        error_ += take_errors(code == SSL_ERROR_SYSCALL ? "connection closed by the peer" : "failed");
        // A peer that closed the socket without a TLS goodbye, outside a handshake: the stream ended.
        return code == SSL_ERROR_SYSCALL && SSL_is_init_finished(ssl_.get()) ? CLOSED : FAILED;
    }

    std::shared_ptr<TlsEndpoint::Context> context_;  // the SSL object refers to it
    std::unique_ptr<SSL, SslFree> ssl_;
    AString error_;
};

bool to_bool(Tuple const& param, char const* name, bool current) {
    Symbol const key(name);
    return param.is_set(key) ? param.get_int(key, current ? 1 : 0) != 0 : current;
}

void take_string(Tuple const& param, char const* name, AString& into) {
    Symbol const key(name);
    if (param.is_set(key)) into = param.get_astring(key, "");
}

}  // namespace

TlsEndpoint::TlsEndpoint(bool server) : server_(server), options_(tls_defaults()) {}

TlsEndpoint::~TlsEndpoint() = default;

void TlsEndpoint::set_param(Tuple const& param) {
    MutexHold hold(mutex_);
    TlsOptions before = options_;
    take_string(param, "tls_cert_file", options_.cert_file);
    take_string(param, "tls_key_file", options_.key_file);
    take_string(param, "tls_ca_file", options_.ca_file);
    options_.verify_peer = to_bool(param, "tls_verify_peer", options_.verify_peer);
    options_.require_client_cert = to_bool(param, "tls_require_client_cert", options_.require_client_cert);
    bool const changed = !(before.cert_file == options_.cert_file) || !(before.key_file == options_.key_file) ||
                         !(before.ca_file == options_.ca_file) || before.verify_peer != options_.verify_peer ||
                         before.require_client_cert != options_.require_client_cert;
    if (changed) context_.reset();
}

void TlsEndpoint::put(Tuple& param) const {
    MutexHold hold(mutex_);
    param.set_astring(Symbol("tls_cert_file"), options_.cert_file);
    param.set_astring(Symbol("tls_key_file"), options_.key_file);
    param.set_astring(Symbol("tls_ca_file"), options_.ca_file);
    param.set_int(Symbol("tls_verify_peer"), options_.verify_peer ? 1 : 0);
    param.set_int(Symbol("tls_require_client_cert"), options_.require_client_cert ? 1 : 0);
}

bool TlsEndpoint::ready(AString& error) {
    MutexHold hold(mutex_);
    if (!context_) context_ = build_context(options_, server_, error);
    return context_ != nullptr;
}

ChannelPtr TlsEndpoint::make_channel(int fd, char const* host, AString& error) {
    std::shared_ptr<Context> context;
    {
        MutexHold hold(mutex_);
        if (!context_) context_ = build_context(options_, server_, error);
        context = context_;
    }
    if (!context) return nullptr;
    ERR_clear_error();
    std::unique_ptr<SSL, SslFree> ssl(SSL_new(context->ctx.get()));
    BIO* bio = ssl ? tls_impl::make_socket_bio(fd) : nullptr;
    if (!bio) {
        error = take_errors("cannot make a TLS connection");
        return nullptr;
    }
    SSL_set_bio(ssl.get(), bio, bio);
    if (server_) {
        SSL_set_accept_state(ssl.get());
    } else {
        SSL_set_connect_state(ssl.get());
        if (host && *host) {
            // A name is sent for the listener to choose its certificate; an IP address is checked as one.
            ASN1_OCTET_STRING* ip = a2i_IPADDRESS(host);
            if (!ip) SSL_set_tlsext_host_name(ssl.get(), host);
            if (context->verify_peer) {
                X509_VERIFY_PARAM* check = SSL_get0_param(ssl.get());
                if (ip) X509_VERIFY_PARAM_set1_ip_asc(check, host);
                else X509_VERIFY_PARAM_set1_host(check, host, 0);
            }
            ASN1_OCTET_STRING_free(ip);
        }
    }
    return memory::make_unique<TlsChannel>(std::move(context), ssl.release());
}

}  // namespace tarvik
