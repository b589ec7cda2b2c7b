// TlsBio-linux: the socket BIO of the TLS layer on Linux: recv/send with MSG_NOSIGNAL.
#include "transport/tls/TlsImpl.h"

#include <openssl/bio.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

namespace tarvik::tls_impl {

namespace {

int fd_of(BIO* bio) { return static_cast<int>(reinterpret_cast<std::intptr_t>(BIO_get_data(bio))); }

bool would_block(int err) { return err == EAGAIN || err == EWOULDBLOCK || err == EINTR; }

int bio_write(BIO* bio, char const* data, int n) {
    BIO_clear_retry_flags(bio);
    ssize_t const put = ::send(fd_of(bio), data, static_cast<std::size_t>(n), MSG_NOSIGNAL);
    if (put < 0 && would_block(errno)) BIO_set_retry_write(bio);
    return static_cast<int>(put);
}

int bio_read(BIO* bio, char* data, int n) {
    BIO_clear_retry_flags(bio);
    ssize_t const got = ::recv(fd_of(bio), data, static_cast<std::size_t>(n), 0);
    if (got < 0 && would_block(errno)) BIO_set_retry_read(bio);
    return static_cast<int>(got);
}

long bio_ctrl(BIO*, int command, long, void*) { return command == BIO_CTRL_FLUSH ? 1 : 0; }

int bio_create(BIO* bio) {
    BIO_set_init(bio, 1);
    return 1;
}

BIO_METHOD* socket_method() {
    static BIO_METHOD* const method = [] {
        BIO_METHOD* m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "tarvik socket");
        if (m) {
            BIO_meth_set_write(m, bio_write);
            BIO_meth_set_read(m, bio_read);
            BIO_meth_set_ctrl(m, bio_ctrl);
            BIO_meth_set_create(m, bio_create);
        }
        return m;
    }();
    return method;
}

}  // namespace

bio_st* make_socket_bio(int fd) {
    BIO_METHOD* method = socket_method();
    if (!method) return nullptr;
    BIO* bio = BIO_new(method);
    // The descriptor itself is the BIO's data (no object lives behind the pointer).
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    if (bio) BIO_set_data(bio, reinterpret_cast<void*>(static_cast<std::intptr_t>(fd)));
    return bio;
}

}  // namespace tarvik::tls_impl
