// Socket-linux: the TCP/IP transport's sockets and poller on Linux (BSD sockets, epoll, eventfd).
#include "transport/tcp/SocketImpl.h"

#include <dirent.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Memory.h"

namespace tarvik::socket_impl {

namespace {

// The one place errno becomes a result: the text names what was tried on which address.
int system_failure_(char const* what, AString const& where, AString& error, int err = errno) {
    error = what;
    if (!where.is_empty()) {
        error += " ";
        error += where;
    }
    error += ": ";
    error += std::strerror(err);
    switch (err) {
        case ECONNREFUSED:
        case EHOSTUNREACH:
        case ENETUNREACH:
        case EADDRNOTAVAIL:
            return REFUSED;
        case ETIMEDOUT:
            return TIMED_OUT;
        case EMFILE:
        case ENFILE:
            return NO_DESCRIPTOR;
        default:
            return FAILED;
    }
}

sockaddr const* as_sockaddr(SocketAddress const& a) { return reinterpret_cast<sockaddr const*>(a.bytes); }

void set_no_delay(int fd) {
    int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

// Splits "host:port" / "[v6]:port"; false when the form is wrong.
bool split_host_port(AString const& text, std::string& host, std::string& port) {
    std::string const s(text.c_str());
    if (!s.empty() && s[0] == '[') {
        auto const close = s.find(']');
        if (close == std::string::npos || close + 1 >= s.size() || s[close + 1] != ':') return false;
        host = s.substr(1, close - 1);
        port = s.substr(close + 2);
    } else {
        auto const colon = s.rfind(':');
        if (colon == std::string::npos) return false;
        host = s.substr(0, colon);
        port = s.substr(colon + 1);
        if (host.find(':') != std::string::npos) return false;  // an IPv6 address needs its brackets
    }
    if (port.empty() || port.size() > 5) return false;
    for (char c : port)
        if (c < '0' || c > '9') return false;
    return std::atoi(port.c_str()) <= 65535;
}

}  // namespace

int resolve(AString const& host_port, bool passive, std::vector<SocketAddress>& out, AString& error) {
    out.clear();
    std::string host, port;
    if (!split_host_port(host_port, host, port)) {
        error = "malformed address '";
        error += host_port;
        error += "' (host:port, [ipv6]:port or *:port)";
        return FAILED;
    }
    bool const any = host.empty() || host == "*";
    if (any && !passive) {
        error = "no host to connect to in '";
        error += host_port;
        error += "'";
        return FAILED;
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | (any ? AI_PASSIVE : 0);
    if (any) hints.ai_family = AF_INET6;  // the IPv6 wildcard with V6ONLY off takes IPv4 as well
    addrinfo* found = nullptr;
    int const rc = ::getaddrinfo(any ? nullptr : host.c_str(), port.c_str(), &hints, &found);
    if (rc != 0 && any) {  // no IPv6 on this machine: the IPv4 wildcard
        hints.ai_family = AF_INET;
        if (::getaddrinfo(nullptr, port.c_str(), &hints, &found) != 0) found = nullptr;
    } else if (rc != 0) {
        error = "cannot resolve '";
        error += host_port;
        error += "': ";
        error += ::gai_strerror(rc);
        return FAILED;
    }
    for (addrinfo* a = found; a; a = a->ai_next) {
        if (a->ai_addrlen > sizeof(SocketAddress::bytes)) continue;
        SocketAddress address;
        std::memcpy(address.bytes, a->ai_addr, a->ai_addrlen);
        address.length = a->ai_addrlen;
        out.push_back(address);
    }
    if (found) ::freeaddrinfo(found);
    if (out.empty()) {
        error = "no address for '";
        error += host_port;
        error += "'";
        return FAILED;
    }
    return 0;
}

AString to_text(SocketAddress const& address) {
    char host[INET6_ADDRSTRLEN] = "?";
    unsigned port = 0;
    auto const* sa = as_sockaddr(address);
    AString text;
    if (sa->sa_family == AF_INET6) {
        auto const* v6 = reinterpret_cast<sockaddr_in6 const*>(address.bytes);
        ::inet_ntop(AF_INET6, &v6->sin6_addr, host, sizeof host);
        port = ntohs(v6->sin6_port);
        text = "[";
        text += host;
        text += "]";
    } else {
        auto const* v4 = reinterpret_cast<sockaddr_in const*>(address.bytes);
        ::inet_ntop(AF_INET, &v4->sin_addr, host, sizeof host);
        port = ntohs(v4->sin_port);
        text = host;
    }
    text += ":";
    text += AString(std::to_string(port).c_str());
    return text;
}

int open_listener(SocketAddress const& address, SocketAddress& bound, AString& error) {
    auto const* sa = as_sockaddr(address);
    AString const where = to_text(address);
    int const fd = ::socket(sa->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return system_failure_("socket for", where, error);
    int on = 1, off = 0;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (sa->sa_family == AF_INET6) ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    if (::bind(fd, sa, address.length) != 0 || ::listen(fd, SOMAXCONN) != 0) {
        int const err = errno;
        ::close(fd);
        return system_failure_("listen on", where, error, err);
    }
    socklen_t length = sizeof bound.bytes;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(bound.bytes), &length) != 0) {
        int const err = errno;
        ::close(fd);
        return system_failure_("getsockname of", where, error, err);
    }
    bound.length = length;
    return fd;
}

int accept_one(int listener, AString& peer, AString& error) {
    SocketAddress from;
    socklen_t length = sizeof from.bytes;
    int const fd = ::accept4(listener, reinterpret_cast<sockaddr*>(from.bytes), &length, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR || errno == ECONNABORTED) return -1;
        return system_failure_("accept", AString(""), error);
    }
    from.length = length;
    peer = to_text(from);
    set_no_delay(fd);
    return fd;
}

int connect_start(SocketAddress const& address, int& fd, AString& error) {
    auto const* sa = as_sockaddr(address);
    fd = ::socket(sa->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return system_failure_("socket for", to_text(address), error);
    set_no_delay(fd);
    if (::connect(fd, sa, address.length) == 0) return CONNECTED;
    if (errno == EINPROGRESS) return IN_PROGRESS;
    int const err = errno;
    ::close(fd);
    fd = -1;
    return system_failure_("connect to", to_text(address), error, err);
}

int connect_finish(int fd, SocketAddress const& address, int timeout_ms, AString& error) {
    int const ready = wait_ready(fd, true, timeout_ms);
    if (ready == 0) {
        error = "connect to ";
        error += to_text(address);
        error += ": no connection within ";
        error += AString(std::to_string(timeout_ms).c_str());
        error += " ms";
        return TIMED_OUT;
    }
    int err = 0;
    socklen_t length = sizeof err;
    if (ready < 0 || ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &length) != 0) err = errno;
    if (err == 0) return CONNECTED;
    return system_failure_("connect to", to_text(address), error, err);
}

int wait_ready(int fd, bool for_write, int timeout_ms) {
    pollfd p{fd, static_cast<short>(for_write ? POLLOUT : POLLIN), 0};
    for (;;) {
        int const n = ::poll(&p, 1, timeout_ms);
        if (n > 0) return 1;
        if (n == 0) return 0;
        if (errno != EINTR) return FAILED;
    }
}

bool has_input_or_closed(int fd) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 0) != 0;
}

bool set_blocking_timeout(int fd, int timeout_ms) {
    int const flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ((flags & O_NONBLOCK) && ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0)) return false;
    if (timeout_ms < 1) timeout_ms = 1;
    timeval t{timeout_ms / 1000, static_cast<suseconds_t>((timeout_ms % 1000) * 1000)};
    return ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &t, sizeof t) == 0 &&
           ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &t, sizeof t) == 0;
}

void close_socket(int fd) {
    if (fd >= 0) ::close(fd);
}

int open_descriptor_count() {
    DIR* dir = ::opendir("/proc/self/fd");
    if (!dir) return -1;
    int count = 0;
    while (dirent* entry = ::readdir(dir))
        if (entry->d_name[0] != '.') ++count;
    ::closedir(dir);
    return count - 1;  // the directory's own descriptor
}

// --- the plain channel -----------------------------------------------------------------------------------

namespace {

class PlainChannel : public Channel {
public:
    explicit PlainChannel(int fd) : fd_(fd) {}
    long open() override { return 0; }
    long read(unsigned char* into, unsigned long n) override {
        for (;;) {
            ssize_t const got = ::recv(fd_, into, n, 0);
            if (got > 0) return got;
            if (got == 0) return CLOSED;
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) return WANT_READ;
            return fail_(errno);
        }
    }
    long write(unsigned char const* from, unsigned long n) override {
        for (;;) {
            ssize_t const put = ::send(fd_, from, n, MSG_NOSIGNAL);
            if (put >= 0) return put;
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) return WANT_WRITE;
            if (errno == EPIPE || errno == ECONNRESET) {
                fail_(errno);
                return CLOSED;
            }
            return fail_(errno);
        }
    }
    bool has_buffered() const override { return false; }
    void shutdown() override {}
    char const* error_text() const override { return error_.c_str(); }
    bool secure() const override { return false; }

private:
    long fail_(int err) {
        error_ = std::strerror(err);
        return err == ECONNRESET ? CLOSED : FAILED;
    }

    int fd_;
    AString error_;
};

class EpollPoller : public Poller {
public:
    EpollPoller(int epoll, int wake) : epoll_(epoll), wake_(wake) {}
    ~EpollPoller() override {
        ::close(wake_);
        ::close(epoll_);
    }
    bool add(int fd, std::uint64_t tag, bool for_write) override { return control_(EPOLL_CTL_ADD, fd, tag, for_write); }
    bool rearm(int fd, std::uint64_t tag, bool for_write) override { return control_(EPOLL_CTL_MOD, fd, tag, for_write); }
    void remove(int fd) override { ::epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr); }
    int wait(Event* events, int capacity, int timeout_ms) override {
        epoll_event got[64];
        if (capacity > 64) capacity = 64;
        int const n = ::epoll_wait(epoll_, got, capacity, timeout_ms);
        int stored = 0;
        for (int i = 0; i < n; ++i) {
            if (got[i].data.u64 == kWakeTag) continue;  // level-triggered and never read: wakes everyone
            events[stored].tag = got[i].data.u64;
            events[stored].readable = (got[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR | EPOLLRDHUP)) != 0;
            events[stored].writable = (got[i].events & (EPOLLOUT | EPOLLHUP | EPOLLERR)) != 0;
            ++stored;
        }
        return stored;
    }
    void wake_all() override {
        std::uint64_t one = 1;
        if (::write(wake_, &one, sizeof one) < 0) {
        }  // the counter only needs to be non-zero; a full counter is non-zero already
    }
    bool watch_wake() {
        epoll_event e{};
        e.events = EPOLLIN;
        e.data.u64 = kWakeTag;
        return ::epoll_ctl(epoll_, EPOLL_CTL_ADD, wake_, &e) == 0;
    }

private:
    static constexpr std::uint64_t kWakeTag = ~std::uint64_t{0};

    bool control_(int op, int fd, std::uint64_t tag, bool for_write) {
        epoll_event e{};
        e.events = EPOLLONESHOT | EPOLLRDHUP | (for_write ? EPOLLOUT : EPOLLIN);
        e.data.u64 = tag;
        return ::epoll_ctl(epoll_, op, fd, &e) == 0;
    }

    int epoll_;
    int wake_;
};

}  // namespace

ChannelPtr make_plain_channel(int fd) { return memory::make_unique<PlainChannel>(fd); }

std::unique_ptr<Poller> make_poller(AString& error) {
    int const epoll = ::epoll_create1(EPOLL_CLOEXEC);
    if (epoll < 0) {
        system_failure_("epoll_create1", AString(""), error);
        return nullptr;
    }
    int const wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake < 0) {
        system_failure_("eventfd", AString(""), error);
        ::close(epoll);
        return nullptr;
    }
    auto poller = memory::make_unique<EpollPoller>(epoll, wake);
    if (!poller->watch_wake()) {
        system_failure_("epoll_ctl", AString(""), error);
        return nullptr;
    }
    return poller;
}

}  // namespace tarvik::socket_impl
