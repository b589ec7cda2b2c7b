// TlsImpl.h: what a platform half of the TLS layer provides (TlsBio-linux.cpp today).
#pragma once

struct bio_st;

namespace tarvik::tls_impl {

// A BIO that reads and writes the connected non-blocking socket `fd` (not owned, not closed), reporting
// "would block" as a retry and never raising SIGPIPE. Null when it cannot be made.
bio_st* make_socket_bio(int fd);

}  // namespace tarvik::tls_impl
