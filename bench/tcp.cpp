// tcp.cpp: the TCP/IP transport over loopback against raw sockets written here, in the same run.
//
//   Latency     a call carrying a blob of 64 B / 1 KiB that the service sends back, p50 and p99 over
//               kRoundTrips calls, against a raw ping-pong of the same payload over blocking sockets with
//               TCP_NODELAY (client writes n bytes, the echo thread reads n and writes them back).
//   Throughput  8 client threads, each with its own sender, against one listener; against a raw epoll echo
//               server (one thread per core, level-triggered) with 8 blocking clients.
//   Secure      the same call over "STCPIP:" (TLS, connection established) against "TCPIP:" in the same run.
//   Idle        10,000 connections opened by a child process and left idle: the listener process's resident
//               memory per connection and its thread count before and after.
// Every answer is checked (size and content of the blob sent back); a wrong one fails the benchmark.
//
//   ./build/release/bench/tarvik_bench_tcp
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tarvik/Blob.h"
#include "tarvik/GlobVar.h"
#include "tarvik/Interface.h"
#include "tarvik/Sender.h"
#include "tarvik/Service.h"
#include "tarvik/ServiceManager.h"
#include "tarvik/Tls.h"
#include "tarvik/Tuple.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

using namespace tarvik;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kRoundTrips = 20000;
constexpr int kThroughputCalls = 20000;  // per client thread
constexpr int kClients = 8;

// bench.echo: sends the blob "b" back.
struct Echo : Service::CallMethod {
    Echo() : CallMethod("echo", "copy") {}
    long call(Tuple const& in, Tuple& out) override {
        out.set_blob("b", in.get_blob("b"));
        return 0;
    }
};

// A self-signed certificate for the secure listener, written to /tmp; the caller does not check it (the
// figure is the cost of an established TLS connection, which checking does not change).
void make_self_signed(std::string const& crt, std::string const& key) {
    EVP_PKEY* k = EVP_EC_gen("P-256");
    X509* c = X509_new();
    X509_set_version(c, 2);
    X509_gmtime_adj(X509_getm_notBefore(c), -3600);
    X509_gmtime_adj(X509_getm_notAfter(c), 86400);
    X509_set_pubkey(c, k);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(c), "CN", MBSTRING_ASC,
                               reinterpret_cast<unsigned char const*>("localhost"), -1, -1, 0);
    X509_set_issuer_name(c, X509_get_subject_name(c));
    X509_sign(c, k, EVP_sha256());
    FILE* f = std::fopen(crt.c_str(), "w");
    PEM_write_X509(f, c);
    std::fclose(f);
    f = std::fopen(key.c_str(), "w");
    PEM_write_PrivateKey(f, k, nullptr, nullptr, 0, nullptr, nullptr);
    std::fclose(f);
    X509_free(c);
    EVP_PKEY_free(k);
}

struct Host {
    AutoRef<ServiceManager> manager;
    AutoRef<Service> service;
    AutoRef<Listener> listener;
    AutoRef<Listener> secure;
    std::string address;
    std::string secure_address;
    Host() {
        init();
        static Echo* const echo = new Echo;
        (void)echo;
        manager = ServiceManager::create();
        service = AutoRef<Service>(new Service("bench.echo", "main", ""));
        service->add_interface(AutoRef<Interface>(new Interface("echo")));
        service->publish(manager);
        listener = manager->add_listener("TCPIP:127.0.0.1:0");
        Tuple p;
        address = listener->get_param(p).get_astring("name", "");
        std::string const crt = "/tmp/tarvik_bench_tcp." + std::to_string(::getpid()) + ".crt";
        std::string const key = "/tmp/tarvik_bench_tcp." + std::to_string(::getpid()) + ".key";
        make_self_signed(crt, key);
        TlsOptions options;
        options.cert_file = crt.c_str();
        options.key_file = key.c_str();
        options.verify_peer = false;
        set_tls_defaults(options);
        secure = manager->add_listener("STCPIP:127.0.0.1:0");
        if (secure) secure_address = secure->get_param(p).get_astring("name", "");
        set_tls_defaults(TlsOptions{"", "", "", false, false});  // callers present nothing and check nothing
        std::remove(crt.c_str());
        std::remove(key.c_str());
    }
};

Host& host() {
    static Host* const h = new Host;
    return *h;
}

Tuple request(std::string const& payload) {
    Tuple args("copy");
    args.set_blob("b", Blob(payload.data(), static_cast<unsigned>(payload.size()), 0));
    Tuple r("tvk.call");
    r.set_astring("svc_class", "bench.echo");
    r.set_astring("svc_name", "main");
    r.set_astring("iface_name", "echo");
    r.set_tuple("args_in", args);
    return r;
}

bool answer_matches(Tuple const& answer, std::string const& payload) {
    Tuple out = answer.get_tuple("args_out");
    Blob b = out.get_blob("b");
    return b.get_size() == payload.size() && std::memcmp(b.get_content(), payload.data(), payload.size()) == 0;
}

void report(benchmark::State& state, std::vector<double>& us) {
    std::sort(us.begin(), us.end());
    state.counters["p50_us"] = us[us.size() / 2];
    state.counters["p99_us"] = us[us.size() * 99 / 100];
}

// --- raw sockets ------------------------------------------------------------------------------------------

int raw_listen(int& port) {
    int const fd = ::socket(AF_INET, SOCK_STREAM, 0);
    int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    ::listen(fd, SOMAXCONN);
    socklen_t len = sizeof a;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    port = ntohs(a.sin_port);
    return fd;
}

int raw_connect(int port) {
    int const fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<std::uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        ::close(fd);
        return -1;
    }
    int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

bool read_all(int fd, char* into, std::size_t n) {
    while (n) {
        ssize_t const got = ::recv(fd, into, n, 0);
        if (got <= 0) return false;
        into += got;
        n -= static_cast<std::size_t>(got);
    }
    return true;
}

bool write_all(int fd, char const* from, std::size_t n) {
    while (n) {
        ssize_t const put = ::send(fd, from, n, MSG_NOSIGNAL);
        if (put <= 0) return false;
        from += put;
        n -= static_cast<std::size_t>(put);
    }
    return true;
}

// --- latency ----------------------------------------------------------------------------------------------

void call_latency(benchmark::State& state, std::string const& address) {
    std::string const payload(static_cast<std::size_t>(state.range(0)), 'p');
    AutoRef<Sender> sender(address.c_str());
    if (!sender) {
        state.SkipWithError("no sender");
        return;
    }
    Tuple const req = request(payload);
    Tuple answer;
    sender->call(req, answer);  // the connection is made outside the measurement
    std::vector<double> us;
    us.reserve(kRoundTrips);
    for (auto _ : state) {
        for (int i = 0; i < kRoundTrips; ++i) {
            auto const t0 = Clock::now();
            int const r = sender->call(req, answer);
            us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
            if (r != 0 || !answer_matches(answer, payload)) {
                state.SkipWithError("wrong answer");
                return;
            }
        }
    }
    report(state, us);
}

void BM_TarvikCallLatency(benchmark::State& state) { call_latency(state, host().address); }
BENCHMARK(BM_TarvikCallLatency)->Arg(64)->Arg(1024)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_TarvikSecureCallLatency(benchmark::State& state) { call_latency(state, host().secure_address); }
BENCHMARK(BM_TarvikSecureCallLatency)->Arg(64)->Arg(1024)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_RawPingPongLatency(benchmark::State& state) {
    std::size_t const n = static_cast<std::size_t>(state.range(0));
    int port = 0;
    int const listener = raw_listen(port);
    std::thread echo([listener, n] {
        int const fd = ::accept(listener, nullptr, nullptr);
        int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        std::vector<char> buffer(n);
        while (read_all(fd, buffer.data(), n) && write_all(fd, buffer.data(), n)) {
        }
        ::close(fd);
    });
    int const fd = raw_connect(port);
    std::string const payload(n, 'p');
    std::vector<char> back(n);
    std::vector<double> us;
    us.reserve(kRoundTrips);
    for (auto _ : state) {
        for (int i = 0; i < kRoundTrips; ++i) {
            auto const t0 = Clock::now();
            bool const ok = write_all(fd, payload.data(), n) && read_all(fd, back.data(), n);
            us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
            if (!ok || std::memcmp(back.data(), payload.data(), n) != 0) {
                state.SkipWithError("wrong echo");
                break;
            }
        }
    }
    ::close(fd);
    echo.join();
    ::close(listener);
    if (!us.empty()) report(state, us);
}
BENCHMARK(BM_RawPingPongLatency)->Arg(64)->Arg(1024)->Iterations(1)->Unit(benchmark::kMillisecond);

// --- throughput -------------------------------------------------------------------------------------------

void BM_TarvikThroughput8Clients(benchmark::State& state) {
    std::string const payload(64, 'p');
    Tuple const req = request(payload);
    std::atomic<int> wrong{0};
    double seconds = 0;
    for (auto _ : state) {
        std::vector<std::thread> clients;
        auto const t0 = Clock::now();
        for (int c = 0; c < kClients; ++c)
            clients.emplace_back([&] {
                AutoRef<Sender> sender(host().address.c_str());
                Tuple answer;
                for (int i = 0; i < kThroughputCalls; ++i)
                    if (sender->call(req, answer) != 0 || !answer_matches(answer, payload)) ++wrong;
            });
        for (auto& t : clients) t.join();
        seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    }
    if (wrong) state.SkipWithError("wrong answers");
    state.counters["calls_per_s"] = kClients * kThroughputCalls / seconds;
}
BENCHMARK(BM_TarvikThroughput8Clients)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_RawEpollEchoThroughput8Clients(benchmark::State& state) {
    constexpr std::size_t n = 64;
    int port = 0;
    int const listener = raw_listen(port);
    int const epoll = ::epoll_create1(0);
    std::atomic<bool> quit{false};
    unsigned const cores = std::max(1u, std::thread::hardware_concurrency());
    std::vector<std::thread> servers;
    for (unsigned s = 0; s < cores; ++s)
        servers.emplace_back([&] {
            epoll_event events[16];
            char buffer[n];
            while (!quit) {
                int const k = ::epoll_wait(epoll, events, 16, 50);
                for (int i = 0; i < k; ++i) {
                    int const fd = events[i].data.fd;
                    ssize_t const got = ::recv(fd, buffer, n, MSG_DONTWAIT);
                    if (got > 0) write_all(fd, buffer, static_cast<std::size_t>(got));
                }
            }
        });
    std::vector<int> accepted;
    std::vector<int> clients;
    for (int c = 0; c < kClients; ++c) {
        clients.push_back(raw_connect(port));
        int const fd = ::accept(listener, nullptr, nullptr);
        int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        accepted.push_back(fd);
        // One-shot would need re-arming; level-triggered with one reader per event is enough for
        // one request in flight per client.
        epoll_event e{};
        e.events = EPOLLIN | EPOLLEXCLUSIVE;
        e.data.fd = fd;
        ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &e);
    }
    std::atomic<int> wrong{0};
    double seconds = 0;
    for (auto _ : state) {
        std::vector<std::thread> threads;
        auto const t0 = Clock::now();
        for (int c = 0; c < kClients; ++c)
            threads.emplace_back([&, fd = clients[c]] {
                char const out[n] = {'p'};
                char back[n];
                for (int i = 0; i < kThroughputCalls; ++i)
                    if (!write_all(fd, out, n) || !read_all(fd, back, n) || back[0] != 'p') ++wrong;
            });
        for (auto& t : threads) t.join();
        seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    }
    quit = true;
    for (auto& t : servers) t.join();
    for (int fd : clients) ::close(fd);
    for (int fd : accepted) ::close(fd);
    ::close(epoll);
    ::close(listener);
    if (wrong) state.SkipWithError("wrong echoes");
    state.counters["calls_per_s"] = kClients * kThroughputCalls / seconds;
}
BENCHMARK(BM_RawEpollEchoThroughput8Clients)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// --- idle connections -------------------------------------------------------------------------------------

long status_value(char const* key) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind(key, 0) == 0) return std::stol(line.substr(std::strlen(key)));
    return -1;
}

void BM_TarvikIdleConnections(benchmark::State& state) {
    int const count = static_cast<int>(state.range(0));
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < static_cast<rlim_t>(count) + 100) {
        state.SkipWithError("descriptor limit too low");
        return;
    }
    Host& h = host();
    int const port = std::atoi(h.address.substr(h.address.rfind(':') + 1).c_str());
    auto open_now = [&] {
        Tuple p;
        return h.listener->get_param(p).get_long("connections", -1);
    };
    long const base = open_now();
    long const rss_before = status_value("VmRSS:");
    long const threads_before = status_value("Threads:");
    for (auto _ : state) {
        int ready[2];
        if (::pipe(ready) != 0) return;
        pid_t const child = ::fork();
        if (child == 0) {  // opens the connections, reports, and waits for the parent to close the pipe
            ::close(ready[0]);
            int made = 0;
            for (int i = 0; i < count; ++i)
                if (raw_connect(port) >= 0) ++made;
            if (::write(ready[1], &made, sizeof made) < 0) _exit(1);
            char c;
            while (::read(ready[1], &c, 1) > 0) {
            }
            ::pause();
            _exit(0);
        }
        ::close(ready[1]);
        int made = 0;
        if (::read(ready[0], &made, sizeof made) != sizeof made || made != count) state.SkipWithError("connect failed");
        auto const until = Clock::now() + std::chrono::seconds(30);
        while (open_now() < base + count && Clock::now() < until) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        long const held = open_now() - base;
        long const rss_after = status_value("VmRSS:");
        state.counters["connections"] = static_cast<double>(held);
        state.counters["bytes_per_connection"] = (rss_after - rss_before) * 1024.0 / static_cast<double>(held);
        state.counters["threads_before"] = static_cast<double>(threads_before);
        state.counters["threads_after"] = static_cast<double>(status_value("Threads:"));
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
        ::close(ready[0]);
        if (held != count) state.SkipWithError("not every connection was held");
    }
}
BENCHMARK(BM_TarvikIdleConnections)->Arg(10000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
