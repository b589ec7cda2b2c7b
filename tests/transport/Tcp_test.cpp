// The TCP/IP transport beyond the transport suite: address forms, what get_param reports, the distinct
// failures of a sender, hostile peers on raw sockets, and peer processes that die in the middle of a call.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "ServiceSupport.h"
#include "TestSupport.h"
#include "tarvik/Blob.h"
#include "tarvik/CommBuffer.h"
#include "tarvik/Interface.h"
#include "tarvik/Listener.h"
#include "tarvik/Sender.h"
#include "tarvik/Service.h"
#include "tarvik/ServiceManager.h"
#include "tarvik/Tuple.h"
#include "../../src/transport/Transport.h"

using namespace tarvik;
using tarvik::test::IntVar;
using tarvik::test::Method;
using tarvik::test::StdoutCapture;

namespace {

// tcp.copy: out = in. tcp.sleep: sleeps "ms".
void register_methods() {
    static Method const* const methods[] = {
        new Method("tcp", "copy", [](Tuple const& in, Tuple& out) {
            out = in;
            return 0L;
        }),
        new Method("tcp", "sleep", [](Tuple const& in, Tuple&) {
            std::this_thread::sleep_for(std::chrono::milliseconds(in.get_int("ms", 0)));
            return 0L;
        }),
    };
    (void)methods;
}

// A manager publishing "tcp.test:main" (interface "tcp") on a TCP/IP address.
struct Server {
    explicit Server(char const* address = "TCPIP:127.0.0.1:0") {
        init();
        register_methods();
        manager = ServiceManager::create();
        service = tarvik::test::make_service("tcp.test", "main", {"tcp"});
        service->publish(manager);
        listener = manager->add_listener(address);
        if (listener) name = param().get_astring("name", "");
    }
    ~Server() {
        if (listener) manager->remove_listener(listener);
    }
    Tuple param() {
        Tuple p;
        return listener->get_param(p);
    }
    int port() const { return std::atoi(name.substr(name.rfind(':') + 1).c_str()); }

    AutoRef<ServiceManager> manager;
    AutoRef<Service> service;
    AutoRef<Listener> listener;
    std::string name;
};

Tuple call_request(char const* method, Tuple const& args) {
    Tuple request("tvk.call");
    request.set_astring("svc_class", "tcp.test");
    request.set_astring("svc_name", "main");
    request.set_astring("iface_name", "tcp");
    Tuple in(args);
    in.set_class_name(Symbol(method));
    request.set_tuple("args_in", in);
    return request;
}

// The bytes of a request to tcp.copy, as a sender puts them on the wire.
std::string request_bytes(Tuple const& args = Tuple()) {
    CommBuffer buffer;
    encode_tuple(call_request("copy", args), buffer, false);
    return tarvik::test::bytes_of(buffer);
}

// A raw client socket on 127.0.0.1:port, blocking, or -1.
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
    return fd;
}

// Whether the peer closed `fd` within `ms` (what was sent before is read and dropped).
bool closed_by_peer(int fd, int ms) {
    auto const end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    char sink[4096];
    while (std::chrono::steady_clock::now() < end) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 50) <= 0) continue;
        ssize_t const n = ::recv(fd, sink, sizeof sink, 0);
        if (n <= 0) return true;
    }
    return false;
}

int call(Sender& sender, char const* method, Tuple const& args, Tuple& answer) {
    return sender.call(call_request(method, args), answer);
}

int call(std::string const& address, char const* method = "copy", Tuple const& args = Tuple()) {
    AutoRef<Sender> sender(address.c_str());
    Tuple answer;
    return sender ? call(*sender, method, args, answer) : -999;
}

long threads_now() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("Threads:", 0) == 0) return std::stol(line.substr(8));
    return -1;
}

int descriptors_now() {
    int n = 0;
    for (int fd = 0; fd < 4096; ++fd)
        if (::fcntl(fd, F_GETFD) != -1) ++n;
    return n;
}

}  // namespace

// --- addresses and parameters ----------------------------------------------------------------------------

TEST(Tcp, ListenerAddressFormsBindOrAreRefusedWithARecord) {
    struct Case {
        char const* address;
        bool binds;
        char const* name_prefix;  // of the bound name
    } const cases[] = {
        {"TCPIP:127.0.0.1:0", true, "TCPIP:127.0.0.1:"},
        {"TCPIP:[::1]:0", true, "TCPIP:[::1]:"},
        {"TCPIP:*:0", true, "TCPIP:[::]:"},
        {"TCPIP::0", true, "TCPIP:[::]:"},
        {"TCPIP:localhost:0", true, "TCPIP:"},
        {"TCPIP:127.0.0.1", false, ""},
        {"TCPIP:::1:0", false, ""},
        {"TCPIP:127.0.0.1:65536", false, ""},
        {"TCPIP:127.0.0.1:http", false, ""},
        {"TCPIP:no-such-host.invalid:0", false, ""},
    };
    init();
    for (auto const& c : cases) {
        StdoutCapture capture;
        AutoRef<Listener> listener(c.address);
        EXPECT_EQ(static_cast<bool>(listener), c.binds) << c.address;
        if (listener) {
            Tuple p;
            std::string const name = listener->get_param(p).get_astring("name", "");
            EXPECT_EQ(name.rfind(c.name_prefix, 0), 0u) << c.address << " -> " << name;
            EXPECT_NE(name.substr(name.rfind(':') + 1), "0") << name;
        } else {
            EXPECT_EQ(capture.records_with("CANNOT LISTEN"), 1) << c.address << capture.text();
        }
    }
}

TEST(Tcp, ParametersReportClassTimeoutsBoundNameAndCounters) {
    Server server;
    ASSERT_TRUE(server.listener);
    ASSERT_EQ(call(server.name), 0);
    Tuple const p = server.param();
    EXPECT_EQ(std::string(p.get_class_name().c_str()), "tarvik.TCPIPListener");
    EXPECT_TRUE(p.is_set(Symbol("comm_timeout")) && p.is_set(Symbol("connection_timeout")));
    EXPECT_EQ(p.get_long("requests", -1), 1);
    EXPECT_GT(p.get_long("bytes_in", 0), 21);
    EXPECT_EQ(p.get_int("last_error", -1), 0);
    // Counted once written, which may be just after the caller has the answer.
    EXPECT_TRUE(tarvik::test::eventually([&] { return server.param().get_long("bytes_out", 0) > 21; }, 3));

    AutoRef<Sender> sender(server.name.c_str());
    Tuple answer, sp;
    ASSERT_EQ(call(*sender, "copy", Tuple(), answer), 0);
    sender->get_param(sp);
    EXPECT_EQ(std::string(sp.get_class_name().c_str()), "tarvik.TCPIPSender");
    EXPECT_EQ(sp.get_astring("name", ""), server.name);
    EXPECT_EQ(sp.get_long("connections", -1), 1);  // kept for the next call
    EXPECT_TRUE(sender->is_connected());
}

// --- the failures of a sender ----------------------------------------------------------------------------

TEST(Tcp, SenderFailuresHaveTheirOwnResultsAndRecords) {
    int closed_port;
    {
        Server gone;
        closed_port = gone.port();
    }
    Server server;
    IntVar small("TVK.TCPIP", "COMM.MAX_BUFFER_SIZE", 4096);
    Tuple big;
    big.set_blob("b", Blob(std::string(8192, 'x').data(), 8192, 0));
    struct Case {
        std::string address;
        Tuple args;
        int result;
        char const* record;
    } const cases[] = {
        {"TCPIP:127.0.0.1:" + std::to_string(closed_port), Tuple(), Sender::CALL_REFUSED, "Connection refused"},
        {"TCPIP:no-such-host.invalid:1", Tuple(), Sender::CALL_NOT_READY, "cannot resolve"},
        {server.name, big, Sender::CALL_TOO_LARGE, "more than COMM.MAX_BUFFER_SIZE"},
    };
    for (auto const& c : cases) {
        StdoutCapture capture;
        AutoRef<Sender> sender(c.address.c_str());
        ASSERT_TRUE(sender);
        Tuple answer;
        answer.set_int("stale", 1);
        EXPECT_EQ(call(*sender, "copy", c.args, answer), c.result) << c.address;
        EXPECT_TRUE(answer.is_empty());
        EXPECT_EQ(capture.records_with(c.record), 1) << capture.text();
        EXPECT_EQ(capture.records_with(c.address.c_str()), 1) << capture.text();
    }
}

TEST(Tcp, ConnectToAListenerWhoseQueueIsFullTimesOutWithinTheConnectionTimeout) {
    init();
    // A listening socket that never accepts, with the shortest queue: once the queue is full the kernel
    // drops further connection requests, so a connection attempt hangs until it is given up.
    int const listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof a;
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ASSERT_EQ(::listen(listener, 0), 0);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&a), &length);
    std::vector<int> fillers;
    for (int i = 0; i < 8; ++i) {
        int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
        fillers.push_back(fd);
    }
    IntVar force("TVK.TCPIP", "CONNECTION.FORCE_TIMEOUT", 300);
    StdoutCapture capture;
    auto const start = std::chrono::steady_clock::now();
    EXPECT_EQ(call("TCPIP:127.0.0.1:" + std::to_string(ntohs(a.sin_port))), Sender::CALL_CONNECTION_TIMEOUT);
    auto const took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(290));
    EXPECT_LT(took, std::chrono::seconds(3));
    EXPECT_EQ(capture.records_with("no connection within 300 ms"), 1) << capture.text();
    for (int fd : fillers) ::close(fd);
    ::close(listener);
}

// --- hostile peers ---------------------------------------------------------------------------------------

// Each kind of damage is sent on a raw connection; the listener must drop that connection with a record and
// answer the next caller as before.
class TcpHostile : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(server.listener); }
    // Sends `bytes`, expects the listener to close the connection and to record `record`.
    void expect_dropped(std::string const& bytes, char const* record, int within_ms = 3000) {
        int const fd = raw_connect(server.port());
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
        EXPECT_TRUE(closed_by_peer(fd, within_ms));
        ::close(fd);
        EXPECT_TRUE(tarvik::test::eventually([&] { return capture.records_with(record) == 1; }, 3)) << capture.text();
        EXPECT_EQ(call(server.name), 0);
        EXPECT_TRUE(tarvik::test::eventually([&] { return server.param().get_long("connections", -1) == 0; }, 3));
    }

    StdoutCapture capture;
    Server server;
};

TEST_F(TcpHostile, GarbageInsteadOfAPageHeaderIsDropped) {
    expect_dropped(std::string(64, 'G'), "INVALID HEADER");
}

TEST_F(TcpHostile, HeaderClaimingFourGibibytesIsRefusedBeforeAnyAllocation) {
    std::string bytes = request_bytes();
    bytes.replace(12, 8, "FFFFFFFF");
    expect_dropped(bytes.substr(0, 21), "BUFFER OF MORE THAN 67108864 BYTES REFUSED");
}

TEST_F(TcpHostile, RequestBeyondTheConfiguredMaximumIsRefused) {
    IntVar small("TVK.TCPIP", "COMM.MAX_BUFFER_SIZE", 1024);
    Tuple args;
    args.set_blob("b", Blob(std::string(4096, 'x').data(), 4096, 0));
    expect_dropped(request_bytes(args), "BUFFER OF MORE THAN 1024 BYTES REFUSED");
}

TEST_F(TcpHostile, SlowDripStalledMidRequestIsDroppedAfterTheCommTimeout) {
    IntVar force("TVK.TCPIP", "COMM.FORCE_TIMEOUT", 300);
    std::string const bytes = request_bytes();
    expect_dropped(bytes.substr(0, bytes.size() / 2), "STALLED FOR MORE THAN 300 MS");
}

TEST_F(TcpHostile, BytesThatAreNoTupleAreDropped) {
    std::string bytes = request_bytes();
    for (std::size_t i = 21; i < bytes.size(); ++i) bytes[i] = '\x7f';
    expect_dropped(bytes, "DAMAGED TUPLE FROM");
}

TEST_F(TcpHostile, RequestInterningMoreNewNamesThanAllowedIsDropped) {
    IntVar limit("TVK.COMM", "NAMES.MAX_NEW_PER_BUFFER", 3);
    Tuple args;
    std::string const stem = "tcpname" + std::to_string(::getpid()) + "_";
    for (int i = 0; i < 4; ++i) args.set_int((stem + std::to_string(i) + "X").c_str(), i);
    std::string bytes = request_bytes(args);
    for (std::size_t at = bytes.find(stem); at != std::string::npos; at = bytes.find(stem, at + 1))
        bytes[at + stem.size() + 1] = 'Y';  // names this process never interned
    expect_dropped(bytes, "REFUSED: MORE THAN 3 NEW NAMES");
}

TEST_F(TcpHostile, ConnectionsBeyondTheLimitAreClosedAtOnceWithARecord) {
    IntVar limit("TVK.TCPIP", "CONNECTIONS.MAX", 2);
    int const a = raw_connect(server.port()), b = raw_connect(server.port());
    ASSERT_TRUE(tarvik::test::eventually([&] { return server.param().get_long("connections", -1) == 2; }, 3));
    int const c = raw_connect(server.port());
    EXPECT_TRUE(closed_by_peer(c, 3000));
    EXPECT_EQ(capture.records_with("REFUSED, 2 CONNECTIONS OPEN"), 1) << capture.text();
    EXPECT_FALSE(closed_by_peer(a, 100));
    for (int fd : {a, b, c}) ::close(fd);
    EXPECT_TRUE(tarvik::test::eventually([&] { return server.param().get_long("connections", -1) == 0; }, 3));
    EXPECT_EQ(call(server.name), 0);
}

TEST(Tcp, ThousandConnectCallCloseCyclesKeepDescriptorsAndThreadsFlat) {
    Server server;
    ASSERT_EQ(call(server.name), 0);
    auto const none_open = [&] { return server.param().get_long("connections", -1) == 0; };
    ASSERT_TRUE(tarvik::test::eventually(none_open, 5));
    int const descriptors = descriptors_now();
    long const threads = threads_now();
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(call(server.name), 0) << i;
    EXPECT_TRUE(tarvik::test::eventually(none_open, 5));
    EXPECT_EQ(descriptors_now(), descriptors);
    EXPECT_EQ(threads_now(), threads);
    EXPECT_EQ(server.param().get_long("requests", 0), 1001);
}

TEST(Tcp, SlowSixteenThreadsTenThousandCallsEachThroughOneProxyGetTheirOwnAnswers) {
    Server server;
    AutoRef<Service> proxy = Service::bind(("tcp.test:main@" + server.name).c_str());
    ASSERT_TRUE(proxy);
    std::atomic<int> wrong{0};
    tarvik::test::run_together(16, [&](int t) {
        for (int i = 0; i < 10000; ++i) {
            Tuple in("copy"), out;
            in.set_int("t", t);
            in.set_int("i", i);
            if (proxy->call("tcp", in, out) < 0 || out.get_int("t", -1) != t || out.get_int("i", -1) != i) ++wrong;
        }
    });
    EXPECT_EQ(wrong.load(), 0);
}

// --- peer processes --------------------------------------------------------------------------------------

// Serves tcp.test on TARVIK_PEER_TCP=<file>:<port> and writes its bound address into the file, then waits
// to be killed.
TEST(TcpPeer, Serves) {
    char const* spec = std::getenv("TARVIK_PEER_TCP");
    if (!spec) GTEST_SKIP() << "run by the peer tests of Tcp";
    std::string const s(spec);
    std::string const file = s.substr(0, s.rfind(':'));
    Server server(("TCPIP:127.0.0.1:" + s.substr(s.rfind(':') + 1)).c_str());
    ASSERT_TRUE(server.listener);
    tarvik::test::write_file(file + ".tmp", server.name);
    ::rename((file + ".tmp").c_str(), file.c_str());
    std::this_thread::sleep_for(std::chrono::seconds(60));
}

// Connects to TARVIK_PEER_TCP_SEND=<file>:<port>, sends half a request, writes the file and waits to be
// killed.
TEST(TcpPeer, SendsHalfARequest) {
    char const* spec = std::getenv("TARVIK_PEER_TCP_SEND");
    if (!spec) GTEST_SKIP() << "run by the peer tests of Tcp";
    std::string const s(spec);
    int const fd = raw_connect(std::atoi(s.substr(s.rfind(':') + 1).c_str()));
    ASSERT_GE(fd, 0);
    std::string const bytes = request_bytes();
    ASSERT_GT(::send(fd, bytes.data(), bytes.size() / 2, 0), 0);
    tarvik::test::write_file(s.substr(0, s.rfind(':')), "sent");
    std::this_thread::sleep_for(std::chrono::seconds(60));
}

namespace {

// Starts a peer server on `port` (0: any); its process id, and its address in `address`.
int start_peer_server(tarvik::test::TempDir const& dir, int port, std::string& address) {
    std::string const file = dir.path() + "/address";
    ::unlink(file.c_str());
    int const pid = tarvik::test::spawn_peer("TcpPeer.Serves", "TARVIK_PEER_TCP=" + file + ":" + std::to_string(port));
    tarvik::test::eventually([&] { return !tarvik::test::read_file(file).empty(); }, 20);
    address = tarvik::test::read_file(file);
    return pid;
}

void kill_peer(int pid) {
    ::kill(pid, SIGKILL);
    tarvik::test::exit_status(pid);
}

}  // namespace

TEST(Tcp, ServerKilledMidCallFailsTheCallAndARestartedServerIsReachedThroughTheSamePool) {
    init();
    register_methods();
    tarvik::test::TempDir dir;
    std::string address;
    int pid = start_peer_server(dir, 0, address);
    ASSERT_FALSE(address.empty());
    AutoRef<Sender> sender(address.c_str());
    Tuple answer, args;
    ASSERT_EQ(call(*sender, "copy", Tuple(), answer), 0);

    args.set_int("ms", 20000);
    std::thread killer([pid] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        ::kill(pid, SIGKILL);
    });
    auto const start = std::chrono::steady_clock::now();
    EXPECT_EQ(call(*sender, "sleep", args, answer), Sender::CALL_PEER_CLOSED);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    killer.join();
    tarvik::test::exit_status(pid);

    int const port = std::atoi(address.substr(address.rfind(':') + 1).c_str());
    std::string again;
    pid = start_peer_server(dir, port, again);
    ASSERT_EQ(again, address);
    EXPECT_EQ(call(*sender, "copy", Tuple(), answer), 0);
    kill_peer(pid);
}

TEST(Tcp, ClientKilledMidRequestIsDroppedAndTheListenerServesOthers) {
    Server server;
    tarvik::test::TempDir dir;
    std::string const file = dir.path() + "/sent";
    StdoutCapture capture;
    int const pid = tarvik::test::spawn_peer("TcpPeer.SendsHalfARequest",
                                             "TARVIK_PEER_TCP_SEND=" + file + ":" + std::to_string(server.port()));
    ASSERT_TRUE(tarvik::test::eventually([&] { return !tarvik::test::read_file(file).empty(); }, 20));
    EXPECT_TRUE(tarvik::test::eventually([&] { return server.param().get_long("connections", -1) == 1; }, 5));
    kill_peer(pid);
    EXPECT_TRUE(tarvik::test::eventually([&] { return server.param().get_long("connections", -1) == 0; }, 5));
    EXPECT_TRUE(tarvik::test::eventually(
        [&] { return capture.records_with("CLOSED THE CONNECTION IN THE MIDDLE OF A REQUEST") == 1; }, 3))
        << capture.text();
    EXPECT_EQ(call(server.name), 0);
}
