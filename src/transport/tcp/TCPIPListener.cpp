// TCPIPListener: the TCP/IP listener and the I/O threads of a started one (TcpServer).
#include "transport/tcp/TCPIP.h"

#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "Deadline.h"
#include "LogUnit.h"
#include "Memory.h"
#include "tarvik/CommBuffer.h"
#include "tarvik/Tuple.h"
#include "transport/tls/Tls.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

constexpr std::uint64_t kListenTag = 0;
constexpr int kSweepMs = 250;
constexpr int kReadChunk = 64 * 1024;

std::int64_t now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

// --- variables ------------------------------------------------------------------------------------------

TcpipLimits::TcpipLimits()
    : io_threads_(Symbol("TVK.TCPIP"), Symbol("IO.THREADS"), 0),
      max_connections_(Symbol("TVK.TCPIP"), Symbol("CONNECTIONS.MAX"), 10000) {}

int TcpipLimits::io_threads() const {
    int const n = io_threads_.get();
    if (n > 0) return n > 256 ? 256 : n;
    unsigned const cores = std::thread::hardware_concurrency();
    return cores ? static_cast<int>(cores) : 2;
}

int TcpipLimits::max_connections() const { return max_connections_.get(); }

TcpipLimits& tcpip_limits() {
    static TcpipLimits* const limits = memory::create<TcpipLimits>();
    return *limits;
}

ChannelMaker plain_channel_maker() {
    return [](int fd, char const*, AString&) { return socket_impl::make_plain_channel(fd); };
}

ChannelMaker channel_maker(std::shared_ptr<TlsEndpoint> const& tls) {
    if (!tls) return plain_channel_maker();
    return [tls](int fd, char const* host, AString& error) { return tls->make_channel(fd, host, error); };
}

// --- one accepted connection ----------------------------------------------------------------------------

struct ServerConnection {
    std::mutex mutex;  // held by the thread serving its event, or by the sweep closing it
    std::uint64_t const id;
    int const fd;
    AString const peer;
    ChannelPtr channel;
    bool opened = false;
    bool closed = false;
    bool writing = false;
    bool was_text = false;
    CommBuffer in;
    std::unique_ptr<PageStreamReader> reader;
    CommBuffer out;
    std::vector<CommBuffer::Page const*> out_pages;
    std::size_t out_page = 0;
    unsigned int out_offset = 0;
    std::vector<unsigned char> leftover;  // bytes read past the end of the last request
    // When the connection entered the middle of an exchange (a request begun, an answer being written, a
    // handshake); 0 when it waits for a new request, which may take as long as the peer likes.
    std::atomic<std::int64_t> busy_since{0};

    ServerConnection(std::uint64_t id, int fd, AString peer) : id(id), fd(fd), peer(std::move(peer)) {}
};

// --- the I/O threads of a started listener ---------------------------------------------------------------

class TcpServer : public std::enable_shared_from_this<TcpServer> {
public:
    TcpServer(AString name, std::shared_ptr<TcpShared> shared, ChannelMaker maker)
        : name_(std::move(name)), shared_(std::move(shared)), maker_(std::move(maker)) {}
    ~TcpServer();

    bool start(int listen_fd);
    // See TCPIP.h; the listening socket is closed here.
    void stop();

private:
    void run_();
    void accept_();
    void serve_(ServerConnection& c);
    // Reads until a request is complete or nothing more is there; true when a request is complete.
    enum ReadResult { REQUEST_DONE, WAIT_READ, WAIT_WRITE, DROP };
    ReadResult read_request_(ServerConnection& c, unsigned char* buffer);
    ReadResult feed_(ServerConnection& c, unsigned char const* bytes, unsigned int n);
    // Decodes, delivers and encodes the answer; false when the connection must go.
    bool answer_(ServerConnection& c);
    // Writes what is left of the answer: 0 done, or WAIT_READ / WAIT_WRITE / DROP.
    int flush_(ServerConnection& c);
    void start_reading_(ServerConnection& c);
    void close_(ServerConnection& c, int why);
    void sweep_();
    int comm_timeout_ms_() const { return tcpip_config().comm_timeout_ms(shared_->times.comm()); }
    std::shared_ptr<ServerConnection> find_(std::uint64_t id);

    AString const name_;
    std::shared_ptr<TcpShared> const shared_;
    ChannelMaker const maker_;
    std::unique_ptr<socket_impl::Poller> poller_;
    std::vector<std::thread> threads_;
    // Held while the listening socket is used, so that stop() never closes it under an accept or a re-arm
    // (its number could be reused by then).
    AnnotatedMutex listen_mutex_;
    int listen_fd_ TARVIK_GUARDED_BY(listen_mutex_) = -1;
    std::atomic<bool> quit_{false};
    std::atomic<bool> stopping_{false};
    std::atomic<bool> accept_paused_{false};
    std::atomic<std::int64_t> next_sweep_{0};
    std::atomic<std::uint64_t> next_id_{1};
    std::atomic<int> in_callback_{0};

    AnnotatedMutex connections_mutex_;
    std::unordered_map<std::uint64_t, std::shared_ptr<ServerConnection>> connections_
        TARVIK_GUARDED_BY(connections_mutex_);
};

TcpServer::~TcpServer() {
    MutexHold hold(connections_mutex_);
    for (auto& [id, c] : connections_) socket_impl::close_socket(c->fd);
    connections_.clear();
}

bool TcpServer::start(int listen_fd) {
    AString error;
    poller_ = socket_impl::make_poller(error);
    if (!poller_ || !poller_->add(listen_fd, kListenTag, false)) {
        TVK_LOG(LEVEL_ERR, "TCPIP LISTENER %0 CANNOT START: %1") << name_ << error;
        return false;
    }
    {
        MutexHold hold(listen_mutex_);
        listen_fd_ = listen_fd;
    }
    int const n = tcpip_limits().io_threads();
    auto self = shared_from_this();
    for (int i = 0; i < n; ++i) threads_.emplace_back([self] { self->run_(); });
    return true;
}

void TcpServer::stop() {
    {
        MutexHold hold(listen_mutex_);
        stopping_ = true;
        poller_->remove(listen_fd_);
        socket_impl::close_socket(listen_fd_);
        listen_fd_ = -1;
    }
    Deadline const deadline = Deadline::in_ms(comm_timeout_ms_());
    while (in_callback_.load() > 0 && !deadline.expired()) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    int const stuck = in_callback_.load();
    quit_ = true;
    poller_->wake_all();
    if (stuck > 0) {
        TVK_LOG(LEVEL_ERR, "TCPIP LISTENER %0: %1 CALLS STILL RUNNING AT STOP") << name_ << stuck;
        // The threads in those calls keep the server alive through their own reference; the others end
        // at once, but which are which is not known here, so none is waited for.
        for (std::thread& t : threads_) t.detach();
    } else {
        for (std::thread& t : threads_) t.join();
    }
    threads_.clear();
    std::vector<std::shared_ptr<ServerConnection>> all;
    {
        MutexHold hold(connections_mutex_);
        for (auto& [id, c] : connections_) all.push_back(c);
    }
    for (auto& c : all) {
        std::unique_lock<std::mutex> lock(c->mutex, std::try_to_lock);
        if (lock.owns_lock() && !c->closed) close_(*c, 0);
    }
}

std::shared_ptr<ServerConnection> TcpServer::find_(std::uint64_t id) {
    MutexHold hold(connections_mutex_);
    auto it = connections_.find(id);
    return it == connections_.end() ? nullptr : it->second;
}

void TcpServer::run_() {
    socket_impl::Poller::Event event{};
    while (!quit_.load(std::memory_order_relaxed)) {
        int const n = poller_->wait(&event, 1, kSweepMs);
        if (quit_.load(std::memory_order_relaxed)) break;
        if (n == 1) {
            if (event.tag == kListenTag) {
                accept_();
            } else if (std::shared_ptr<ServerConnection> c = find_(event.tag)) {
                std::lock_guard<std::mutex> lock(c->mutex);
                if (!c->closed) serve_(*c);
            }
        }
        std::int64_t const now = now_ms();
        std::int64_t due = next_sweep_.load(std::memory_order_relaxed);
        if (now >= due && next_sweep_.compare_exchange_strong(due, now + kSweepMs)) sweep_();
    }
}

void TcpServer::accept_() {
    int const max = tcpip_limits().max_connections();
    MutexHold hold(listen_mutex_);
    if (listen_fd_ < 0) return;
    for (int i = 0; i < 64; ++i) {
        AString peer, error;
        int const fd = socket_impl::accept_one(listen_fd_, peer, error);
        if (fd == -1) break;
        if (fd < 0) {
            TVK_LOG(LEVEL_ERR, "TCPIP LISTENER %0: %1") << name_ << error;
            shared_->state.last_error = Sender::CALL_FAILED;
            if (fd == socket_impl::NO_DESCRIPTOR) {
                accept_paused_ = true;  // the sweep arms the socket again
                return;
            }
            break;
        }
        if (shared_->state.connections.load() >= max) {
            TVK_LOG(LEVEL_ERR, "TCPIP LISTENER %0: CONNECTION FROM %1 REFUSED, %2 CONNECTIONS OPEN")
                << name_ << peer << max;
            shared_->state.last_error = Sender::CALL_REFUSED;
            socket_impl::close_socket(fd);
            continue;
        }
        auto c = std::make_shared<ServerConnection>(next_id_++, fd, peer);
        c->channel = maker_(fd, nullptr, error);
        if (!c->channel) {
            TVK_LOG(LEVEL_ERR, "TCPIP LISTENER %0: NO CHANNEL FOR %1: %2") << name_ << peer << error;
            socket_impl::close_socket(fd);
            continue;
        }
        shared_->state.connections++;
        std::lock_guard<std::mutex> lock(c->mutex);
        {
            MutexHold connections(connections_mutex_);
            connections_.emplace(c->id, c);
        }
        c->busy_since = now_ms();  // until its opening (a handshake) is done
        if (!poller_->add(fd, c->id, false)) close_(*c, Sender::CALL_FAILED);
    }
    poller_->rearm(listen_fd_, kListenTag, false);
}

void TcpServer::start_reading_(ServerConnection& c) {
    c.in.clear();
    c.reader = memory::make_unique<PageStreamReader>(c.in, tcpip_config().max_buffer_size(), c.peer.c_str());
}

void TcpServer::serve_(ServerConnection& c) {
    if (!c.opened) {
        long const r = c.channel->open();
        if (r == Channel::WANT_READ || r == Channel::WANT_WRITE) {
            if (!poller_->rearm(c.fd, c.id, r == Channel::WANT_WRITE)) close_(c, Sender::CALL_FAILED);
            return;
        }
        if (r < 0) {
            TVK_LOG(LEVEL_ERR, "TCPIP LISTENER %0: OPENING THE CONNECTION FROM %1 FAILED: %2")
                << name_ << c.peer << c.channel->error_text();
            close_(c, Sender::CALL_PROTOCOL_ERROR);
            return;
        }
        c.opened = true;
        c.busy_since = 0;
        start_reading_(c);
    }
    thread_local std::unique_ptr<unsigned char[]> buffer = memory::make_array<unsigned char>(kReadChunk);
    for (;;) {
        if (c.writing) {
            int const w = flush_(c);
            if (w == WAIT_READ || w == WAIT_WRITE) {
                if (!poller_->rearm(c.fd, c.id, w == WAIT_WRITE)) close_(c, Sender::CALL_FAILED);
                return;
            }
            if (w == DROP) {
                close_(c, Sender::CALL_PEER_CLOSED);
                return;
            }
            c.writing = false;
            c.out.clear();
            c.out_pages.clear();
            c.busy_since = 0;
            start_reading_(c);
            // The caller reads its answer before it sends again: a read now would almost always find
            // nothing, so the connection is armed at once unless bytes already wait on our side.
            if (c.leftover.empty() && !c.channel->has_buffered()) {
                if (!poller_->rearm(c.fd, c.id, false)) close_(c, Sender::CALL_FAILED);
                return;
            }
        }
        ReadResult const r = read_request_(c, buffer.get());
        if (r == DROP) return;  // closed inside
        if (r == WAIT_READ || r == WAIT_WRITE) {
            if (!poller_->rearm(c.fd, c.id, r == WAIT_WRITE)) close_(c, Sender::CALL_FAILED);
            return;
        }
        if (!answer_(c)) return;
    }
}

TcpServer::ReadResult TcpServer::feed_(ServerConnection& c, unsigned char const* bytes, unsigned int n) {
    if (c.busy_since.load(std::memory_order_relaxed) == 0) c.busy_since = now_ms();
    unsigned int taken = 0;
    PageStreamReader::Status const s = c.reader->feed(bytes, n, taken);
    if (s == PageStreamReader::MORE) return WAIT_READ;
    if (s == PageStreamReader::DONE) {
        c.leftover.assign(bytes + taken, bytes + n);
        return REQUEST_DONE;
    }
    close_(c, s == PageStreamReader::TOO_LARGE ? Sender::CALL_TOO_LARGE : Sender::CALL_PROTOCOL_ERROR);
    return DROP;
}

TcpServer::ReadResult TcpServer::read_request_(ServerConnection& c, unsigned char* buffer) {
    if (!c.leftover.empty()) {
        std::vector<unsigned char> pending;
        pending.swap(c.leftover);
        ReadResult const r = feed_(c, pending.data(), static_cast<unsigned int>(pending.size()));
        if (r != WAIT_READ) return r;
    }
    for (;;) {
        long const got = c.channel->read(buffer, kReadChunk);
        if (got > 0) {
            shared_->state.bytes_in += got;
            ReadResult const r = feed_(c, buffer, static_cast<unsigned int>(got));
            if (r != WAIT_READ) return r;
            continue;
        }
        if (got == Channel::WANT_READ) {
            if (c.channel->has_buffered()) continue;
            return WAIT_READ;
        }
        if (got == Channel::WANT_WRITE) return WAIT_WRITE;
        bool const mid_request = c.busy_since.load(std::memory_order_relaxed) != 0;
        if (got == Channel::FAILED)
            TVK_LOG(LEVEL_ERR, "TCPIP LISTENER %0: READING FROM %1 FAILED: %2") << name_ << c.peer
                                                                                << c.channel->error_text();
        else if (mid_request)
            TVK_LOG(LEVEL_ERR, "TCPIP LISTENER %0: %1 CLOSED THE CONNECTION IN THE MIDDLE OF A REQUEST")
                << name_ << c.peer;
        close_(c, mid_request || got == Channel::FAILED ? Sender::CALL_PEER_CLOSED : 0);
        return DROP;
    }
}

bool TcpServer::answer_(ServerConnection& c) {
    Tuple request;
    if (decode_received(c.in, request, c.peer.c_str(), &c.was_text) < 0) {
        close_(c, Sender::CALL_PROTOCOL_ERROR);
        return false;
    }
    c.in.clear();
    Tuple reply;
    bool delivered = false;
    if (!stopping_) {
        in_callback_++;
        delivered = shared_->slot.deliver(request, reply);
        in_callback_--;
    }
    if (!delivered) {
        if (!stopping_) TVK_LOG(LEVEL_ERR, "TCPIP LISTENER %0: NO CALLBACK FOR A REQUEST FROM %1") << name_ << c.peer;
        close_(c, Sender::CALL_PEER_CLOSED);
        return false;
    }
    if (encode_tuple(reply, c.out, c.was_text) < 0) {
        TVK_LOG(LEVEL_ERR, "TCPIP LISTENER %0: CANNOT ENCODE THE ANSWER TO %1") << name_ << c.peer;
        close_(c, Sender::CALL_PROTOCOL_ERROR);
        return false;
    }
    CommBuffer::PageIterator pages(c.out);
    while (pages.hasNext()) c.out_pages.push_back(pages.next());
    c.out_page = 0;
    c.out_offset = 0;
    c.writing = true;
    shared_->state.requests++;
    return true;
}

int TcpServer::flush_(ServerConnection& c) {
    while (c.out_page < c.out_pages.size()) {
        CommBuffer::Page const* page = c.out_pages[c.out_page];
        if (c.out_offset == page->used) {
            ++c.out_page;
            c.out_offset = 0;
            continue;
        }
        long const put = c.channel->write(page->data() + c.out_offset, page->used - c.out_offset);
        if (put > 0) {
            c.out_offset += static_cast<unsigned int>(put);
            shared_->state.bytes_out += put;
            continue;
        }
        if (put == Channel::WANT_WRITE) return WAIT_WRITE;
        if (put == Channel::WANT_READ) return WAIT_READ;
        TVK_LOG(LEVEL_ERR, "TCPIP LISTENER %0: WRITING TO %1 FAILED: %2") << name_ << c.peer << c.channel->error_text();
        return DROP;
    }
    return 0;
}

void TcpServer::close_(ServerConnection& c, int why) {
    c.closed = true;
    c.channel->shutdown();
    poller_->remove(c.fd);
    socket_impl::close_socket(c.fd);
    if (why < 0) {
        shared_->state.failed++;
        shared_->state.last_error = why;
    }
    shared_->state.connections--;
    MutexHold hold(connections_mutex_);
    connections_.erase(c.id);
}

void TcpServer::sweep_() {
    if (accept_paused_.exchange(false)) {
        MutexHold hold(listen_mutex_);
        if (listen_fd_ >= 0) poller_->rearm(listen_fd_, kListenTag, false);
    }
    int const timeout = comm_timeout_ms_();
    if (timeout < 0) return;
    std::int64_t const limit = now_ms() - timeout;
    std::vector<std::shared_ptr<ServerConnection>> stalled;
    {
        MutexHold hold(connections_mutex_);
        for (auto& [id, c] : connections_) {
            std::int64_t const since = c->busy_since.load(std::memory_order_relaxed);
            if (since != 0 && since < limit) stalled.push_back(c);
        }
    }
    for (auto& c : stalled) {
        // A connection whose lock is held is being served (perhaps in a long call): not stalled.
        std::unique_lock<std::mutex> lock(c->mutex, std::try_to_lock);
        if (!lock.owns_lock() || c->closed) continue;
        std::int64_t const since = c->busy_since.load(std::memory_order_relaxed);
        if (since == 0 || since >= limit) continue;
        TVK_LOG(LEVEL_ERR, "TCPIP LISTENER %0: %1 STALLED FOR MORE THAN %2 MS, CONNECTION DROPPED")
            << name_ << c->peer << timeout;
        close_(*c, Sender::CALL_COMM_TIMEOUT);
    }
}

// --- the listener ---------------------------------------------------------------------------------------

TCPIPListener::TCPIPListener(char const* host_port, bool secure)
    : requested_(host_port ? host_port : ""),
      secure_(secure),
      shared_(std::make_shared<TcpShared>()),
      tls_(secure ? std::make_shared<TlsEndpoint>(true) : nullptr),
      maker_(channel_maker(tls_)) {
    MutexHold hold(mutex_);
    ok_ = bind_();
}

TCPIPListener::~TCPIPListener() {
    TCPIPListener::stop();
    TCPIPListener::reset_callback();
    MutexHold hold(mutex_);
    socket_impl::close_socket(listen_fd_);
}

bool TCPIPListener::bind_() {
    std::vector<socket_impl::SocketAddress> addresses;
    AString error;
    int fd = -1;
    if (socket_impl::resolve(requested_, true, addresses, error) == 0) {
        // A listener that was bound before takes its port again (port 0 chose one the first time).
        if (bound_.length) addresses.assign(1, bound_);
        for (auto const& a : addresses) {
            fd = socket_impl::open_listener(a, bound_, error);
            if (fd >= 0) break;
        }
    }
    if (fd < 0) {
        TVK_LOG(LEVEL_ERR, "TCPIP LISTENER '%0' CANNOT LISTEN: %1") << requested_ << error;
        shared_->state.last_error = Sender::CALL_NOT_READY;
        return false;
    }
    listen_fd_ = fd;
    name_ = secure_ ? "STCPIP:" : "TCPIP:";
    name_ += socket_impl::to_text(bound_);
    return true;
}

bool TCPIPListener::start() {
    MutexHold hold(mutex_);
    if (!ok_) return false;
    if (server_) return true;
    if (listen_fd_ < 0 && !bind_()) return false;
    AString error;
    if (tls_ && !tls_->ready(error)) {
        TVK_LOG(LEVEL_ERR, "TCPIP LISTENER %0 CANNOT START: %1") << name_ << error;
        shared_->state.last_error = Sender::CALL_NOT_READY;
        return false;
    }
    auto server = std::make_shared<TcpServer>(name_, shared_, maker_);
    if (!server->start(listen_fd_)) return false;
    listen_fd_ = -1;  // the server's now
    server_ = std::move(server);
    if (tvk_log() > 0) TVK_LOG(LEVEL_LOG, "TCPIP LISTENER %0 STARTED") << name_;
    return true;
}

bool TCPIPListener::stop() {
    std::shared_ptr<TcpServer> server;
    {
        MutexHold hold(mutex_);
        server.swap(server_);
    }
    if (!server) return false;
    server->stop();
    return true;
}

bool TCPIPListener::is_stopped() {
    MutexHold hold(mutex_);
    return !server_;
}

void TCPIPListener::set_callback(Callback& callback) {
    Listener::set_callback(callback);
    shared_->slot.set(&callback);
}

void TCPIPListener::reset_callback() {
    shared_->slot.reset();
    Listener::reset_callback();
}

void TCPIPListener::set_param(Tuple const& param) {
    shared_->times.set_param(param);
    if (tls_) tls_->set_param(param);
}

Tuple& TCPIPListener::get_param(Tuple& param) {
    param.set_class_name(Symbol("tarvik.TCPIPListener"));
    if (tls_) tls_->put(param);
    shared_->times.put(param, true);
    {
        MutexHold hold(mutex_);
        param.set_astring(Symbol("name"), name_.is_empty() ? AString(secure_ ? "STCPIP:" : "TCPIP:") + requested_ : name_);
    }
    put_state(shared_->state, param);
    return param;
}

}  // namespace tarvik
