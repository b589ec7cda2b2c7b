// TlsTestCerts.h: certificates made at test time for the secure transport's tests, with the TLS
// library's own API (nothing is committed, nothing is run): an authority, a listener certificate for
// "localhost", 127.0.0.1 and ::1, a client certificate, and the bad ones (expired, issued for another host,
// issued by an authority nobody trusts). PEM files in a directory of their own, removed at the end.
#pragma once

#include <string>

#include "TestSupport.h"

namespace tarvik::test {

class TlsTestCerts {
public:
    TlsTestCerts();
    // The PEM files: certificate and key of each, "<name>.crt" / "<name>.key".
    std::string crt(char const* name) const { return dir_.path() + "/" + name + ".crt"; }
    std::string key(char const* name) const { return dir_.path() + "/" + name + ".key"; }
    // "ca" (the trusted authority), "server", "client", "expired", "otherhost", "stranger" (issued by
    // "unknown-ca", which is not trusted).
    bool ok() const { return ok_; }

private:
    TempDir dir_;
    bool ok_ = false;
};

}  // namespace tarvik::test
