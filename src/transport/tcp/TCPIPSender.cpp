// TCPIPSender: the TCP/IP sender and its pool of connections.
#include "transport/tcp/TCPIP.h"

#include <chrono>
#include <string>

#include "Deadline.h"
#include "LogUnit.h"
#include "Memory.h"
#include "tarvik/CommBuffer.h"
#include "tarvik/Tuple.h"
#include "transport/tls/Tls.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {
constexpr unsigned int kReadChunk = 64 * 1024;
// A connection back in the pool for less than this is taken again without looking at it first: calls in
// quick succession (the common case under load) save a system call each, at the price that a listener
// restarted within this window fails one call with CALL_PEER_CLOSED instead of being reconnected.
constexpr auto kFreshIdle = std::chrono::milliseconds(20);
}  // namespace

struct TCPIPSender::Connection {
    int fd = -1;
    ChannelPtr channel;
    int io_timeout_ms = 0;  // the time-out the blocking socket's reads and writes have now
    std::chrono::steady_clock::time_point idle_since{};
    ~Connection() {
        channel.reset();
        socket_impl::close_socket(fd);
    }
};

TCPIPSender::TCPIPSender(char const* host_port, bool secure)
    : address_(AString(secure ? "STCPIP:" : "TCPIP:") + AString(host_port ? host_port : "")),
      host_port_(host_port ? host_port : ""),
      tls_(secure ? std::make_shared<TlsEndpoint>(false) : nullptr),
      maker_(channel_maker(tls_)) {
    ok_ = socket_impl::resolve(host_port_, false, resolved_, resolve_error_) == 0;
    std::string const text(host_port_.c_str());
    auto const colon = text.rfind(':');
    std::string host = colon == std::string::npos ? text : text.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[') host = host.substr(1, host.size() - 2);
    host_ = host.c_str();
}

TCPIPSender::~TCPIPSender() = default;

bool TCPIPSender::is_connected() {
    MutexHold hold(mutex_);
    return open_ > 0;
}

int TCPIPSender::fail_(int result, AString const& why) {
    TVK_LOG(LEVEL_ERR, "TCPIP CALL TO '%0' FAILED (%1): %2") << address_ << result << why;
    last_error_ = result;
    return result;
}

std::unique_ptr<TCPIPSender::Connection> TCPIPSender::take_idle_() {
    for (;;) {
        std::unique_ptr<Connection> c;
        {
            MutexHold hold(mutex_);
            if (idle_.empty()) return nullptr;
            c = std::move(idle_.back());
            idle_.pop_back();
        }
        // An idle connection has nothing to read: input now means its peer closed it (a listener that
        // stopped or was restarted) or broke the protocol.
        if (std::chrono::steady_clock::now() - c->idle_since < kFreshIdle) return c;
        if (!socket_impl::has_input_or_closed(c->fd)) return c;
        MutexHold hold(mutex_);
        --open_;
    }
}

int TCPIPSender::connect_(std::unique_ptr<Connection>& out, Deadline const& deadline) {
    AString error;
    int result = Sender::CALL_REFUSED;
    for (socket_impl::SocketAddress const& a : resolved_) {
        auto c = memory::make_unique<Connection>();
        int r = socket_impl::connect_start(a, c->fd, error);
        if (r == socket_impl::IN_PROGRESS) r = socket_impl::connect_finish(c->fd, a, deadline.ms_left(), error);
        if (r == socket_impl::CONNECTED) {
            c->channel = maker_(c->fd, host_.c_str(), error);
            if (!c->channel) return fail_(CALL_NOT_READY, error);
            out = std::move(c);
            MutexHold hold(mutex_);
            ++open_;
            return 0;
        }
        result = r == socket_impl::TIMED_OUT      ? CALL_CONNECTION_TIMEOUT
                 : r == socket_impl::NO_DESCRIPTOR ? CALL_NOT_READY
                 : r == socket_impl::REFUSED       ? CALL_REFUSED
                                                   : CALL_FAILED;
        if (r == socket_impl::TIMED_OUT) break;
    }
    return fail_(result, error);
}

namespace {

// Bounds the socket's blocking reads and writes by what is left of the exchange. The socket keeps its
// time-out from one call to the next, so a call that takes less than a millisecond changes nothing.
bool bound_by(TCPIPSender::Connection& c, Deadline const& deadline);

}  // namespace

int TCPIPSender::exchange_(Connection& c, CommBuffer const& request, Tuple& reply, Deadline const& deadline) {
    if (!bound_by(c, deadline)) return fail_(CALL_FAILED, AString("cannot set the socket's time-out"));
    auto wait = [&](long want, char const* doing) -> int {
        int const ready = socket_impl::wait_ready(c.fd, want == Channel::WANT_WRITE, deadline.ms_left());
        if (ready > 0) return 0;
        if (ready == 0) return fail_(CALL_COMM_TIMEOUT, AString("no ") + AString(doing) + AString(" within the time-out"));
        return fail_(CALL_FAILED, AString("poll failed"));
    };
    auto broken = [&](long r, char const* doing) -> int {
        AString why(doing);
        why += ": ";
        why += r == Channel::CLOSED ? "connection closed by the listener" : c.channel->error_text();
        return fail_(r == Channel::CLOSED ? CALL_PEER_CLOSED : CALL_FAILED, why);
    };
    for (;;) {
        long const r = c.channel->open();
        if (r == 0) break;
        if (r == Channel::WANT_READ || r == Channel::WANT_WRITE) {
            if (int const w = wait(r, "opening")) return w;
            continue;
        }
        return fail_(CALL_HANDSHAKE_FAILED, AString(c.channel->error_text()));
    }
    CommBuffer::PageIterator pages(request);
    while (pages.hasNext()) {
        CommBuffer::Page const* page = pages.next();
        unsigned int done = 0;
        while (done < page->used) {
            if (!bound_by(c, deadline)) return fail_(CALL_FAILED, AString("cannot set the socket's time-out"));
            long const put = c.channel->write(page->data() + done, page->used - done);
            if (put > 0) {
                done += static_cast<unsigned int>(put);
                bytes_out_ += put;
            } else if (put == Channel::WANT_READ || put == Channel::WANT_WRITE) {
                if (int const w = wait(put, "request sent")) return w;
            } else {
                return broken(put, "sending the request");
            }
        }
    }
    CommBuffer answer;
    PageStreamReader reader(answer, tcpip_config().max_buffer_size(), address_.c_str());
    thread_local std::unique_ptr<unsigned char[]> buffer = memory::make_array<unsigned char>(kReadChunk);
    for (;;) {
        if (!bound_by(c, deadline)) return fail_(CALL_FAILED, AString("cannot set the socket's time-out"));
        long const got = c.channel->read(buffer.get(), kReadChunk);
        if (got > 0) {
            bytes_in_ += got;
            unsigned int taken = 0;
            PageStreamReader::Status const s = reader.feed(buffer.get(), static_cast<unsigned int>(got), taken);
            if (s == PageStreamReader::TOO_LARGE) return fail_(CALL_TOO_LARGE, AString("answer too large"));
            if (s == PageStreamReader::BAD_HEADER) return fail_(CALL_PROTOCOL_ERROR, AString("bad page header"));
            if (s == PageStreamReader::DONE) {
                if (taken != static_cast<unsigned int>(got) || c.channel->has_buffered())
                    return fail_(CALL_PROTOCOL_ERROR, AString("bytes after the last page of the answer"));
                break;
            }
        } else if (got == Channel::WANT_READ || got == Channel::WANT_WRITE) {
            if (int const w = wait(got, "answer")) return w;
        } else {
            return broken(got, reader.size() ? "reading the answer" : "waiting for the answer");
        }
    }
    int const r = decode_received(answer, reply, address_.c_str(), nullptr);
    if (r < 0) last_error_ = r;
    return r;
}

namespace {

bool bound_by(TCPIPSender::Connection& c, Deadline const& deadline) {
    int const left = deadline.is_never() ? 0 : deadline.ms_left();
    // 0 is "no time-out" for the socket: a deadline that never comes, or one just reached (given the
    // shortest time-out, so the next wait reports it).
    int const wanted = deadline.is_never() ? 0 : (left < 1 ? 1 : left);
    if (wanted == c.io_timeout_ms && c.io_timeout_ms != 0) return true;
    if (wanted == 0 && c.io_timeout_ms == -1) return true;
    if (!socket_impl::set_blocking_timeout(c.fd, wanted == 0 ? 0x3fffffff : wanted)) return false;
    c.io_timeout_ms = wanted == 0 ? -1 : wanted;
    return true;
}

}  // namespace

int TCPIPSender::call(Tuple const& request, Tuple& reply) {
    reply.clear();
    if (!ok_) return fail_(CALL_NOT_READY, resolve_error_);
    TransportConfig const& config = tcpip_config();
    CommBuffer encoded;
    if (encode_tuple(request, encoded, config.text_requests()) < 0)
        return fail_(CALL_PROTOCOL_ERROR, AString("the request cannot be encoded"));
    if (encoded.size() > config.max_buffer_size())
        return fail_(CALL_TOO_LARGE, AString("request of ") + AString(std::to_string(encoded.size()).c_str()) +
                                         AString(" bytes, more than COMM.MAX_BUFFER_SIZE"));
    std::unique_ptr<Connection> c = take_idle_();
    if (!c) {
        Deadline const connect_by = Deadline::in_ms(config.connection_timeout_ms(times_.connection()));
        if (int const r = connect_(c, connect_by)) return r;
    }
    Deadline const deadline = Deadline::in_ms(config.comm_timeout_ms(times_.comm()));
    int const r = exchange_(*c, encoded, reply, deadline);
    MutexHold hold(mutex_);
    if (r == 0) {
        ++calls_;
        c->idle_since = std::chrono::steady_clock::now();
        idle_.push_back(std::move(c));
    } else {
        --open_;  // closed when `c` goes, never reused
        hold.unlock();
        reply.clear();
    }
    return r;
}

void TCPIPSender::set_param(Tuple const& param) {
    times_.set_param(param);
    if (tls_) tls_->set_param(param);
}

Tuple& TCPIPSender::get_param(Tuple& param) {
    param.set_class_name(Symbol("tarvik.TCPIPSender"));
    if (tls_) tls_->put(param);
    times_.put(param, true);
    param.set_astring(Symbol("name"), address_);
    int open;
    {
        MutexHold hold(mutex_);
        open = open_;
    }
    param.set_long(Symbol("connections"), open);
    param.set_long(Symbol("requests"), calls_.load());
    param.set_long(Symbol("bytes_in"), bytes_in_.load());
    param.set_long(Symbol("bytes_out"), bytes_out_.load());
    param.set_int(Symbol("last_error"), last_error_.load());
    return param;
}

}  // namespace tarvik
