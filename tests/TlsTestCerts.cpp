// TlsTestCerts: see TlsTestCerts.h.
#include "TlsTestCerts.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>

namespace tarvik::test {

namespace {

struct KeyFree {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct CertFree {
    void operator()(X509* c) const { X509_free(c); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyFree>;
using Cert = std::unique_ptr<X509, CertFree>;

Key new_key() { return Key(EVP_EC_gen("P-256")); }

void add_extension(X509* cert, X509* issuer, int nid, char const* value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
    if (ext) X509_add_ext(cert, ext, -1);
    X509_EXTENSION_free(ext);
}

// A certificate for `key` named `cn`, signed by issuer/issuer_key (itself when null), valid from
// `from_days` to `to_days` days from now; `san` is its subjectAltName, `ca` whether it is an authority.
Cert make_cert(EVP_PKEY* key, char const* cn, X509* issuer, EVP_PKEY* issuer_key, long from_days, long to_days,
               char const* san, bool ca) {
    static long serial = 1;
    Cert cert(X509_new());
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial++);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), from_days * 86400);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), to_days * 86400);
    X509_set_pubkey(cert.get(), key);
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<unsigned char const*>(cn), -1, -1, 0);
    X509* signer = issuer ? issuer : cert.get();
    X509_set_issuer_name(cert.get(), X509_get_subject_name(signer));
    add_extension(cert.get(), signer, NID_basic_constraints, ca ? "critical,CA:TRUE" : "CA:FALSE");
    if (ca) add_extension(cert.get(), signer, NID_key_usage, "critical,keyCertSign,cRLSign");
    if (san) add_extension(cert.get(), signer, NID_subject_alt_name, san);
    X509_sign(cert.get(), issuer_key ? issuer_key : key, EVP_sha256());
    return cert;
}

bool write_pem(std::string const& crt_path, std::string const& key_path, X509* cert, EVP_PKEY* key) {
    FILE* c = std::fopen(crt_path.c_str(), "w");
    FILE* k = std::fopen(key_path.c_str(), "w");
    bool ok = c && k && PEM_write_X509(c, cert) == 1 &&
              PEM_write_PrivateKey(k, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
    if (c) std::fclose(c);
    if (k) std::fclose(k);
    return ok;
}

}  // namespace

TlsTestCerts::TlsTestCerts() {
    char const* const local = "DNS:localhost,IP:127.0.0.1,IP:::1";
    Key ca_key = new_key(), unknown_key = new_key();
    Cert ca = make_cert(ca_key.get(), "tarvik test authority", nullptr, nullptr, -1, 30, nullptr, true);
    Cert unknown = make_cert(unknown_key.get(), "unknown authority", nullptr, nullptr, -1, 30, nullptr, true);
    ok_ = write_pem(crt("ca"), key("ca"), ca.get(), ca_key.get()) &&
          write_pem(crt("unknown-ca"), key("unknown-ca"), unknown.get(), unknown_key.get());
    struct Leaf {
        char const* name;
        X509* issuer;
        EVP_PKEY* issuer_key;
        long from, to;
        char const* san;
    } const leaves[] = {
        {"server", ca.get(), ca_key.get(), -1, 30, local},
        {"client", ca.get(), ca_key.get(), -1, 30, "DNS:client"},
        {"expired", ca.get(), ca_key.get(), -30, -1, local},
        {"otherhost", ca.get(), ca_key.get(), -1, 30, "DNS:other.example"},
        {"stranger", unknown.get(), unknown_key.get(), -1, 30, local},
    };
    for (Leaf const& l : leaves) {
        Key k = new_key();
        Cert c = make_cert(k.get(), l.name, l.issuer, l.issuer_key, l.from, l.to, l.san, false);
        ok_ = ok_ && write_pem(crt(l.name), key(l.name), c.get(), k.get());
    }
}

}  // namespace tarvik::test
