// The secure TCP/IP transport ("STCPIP:"): real TLS between a listener and a sender of this process, with
// certificates made at test time; each kind of refused certificate fails the handshake with its reason.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "ServiceSupport.h"
#include "TestSupport.h"
#include "TlsTestCerts.h"
#include "tarvik/GlobVar.h"
#include "tarvik/IOBStream.h"
#include "tarvik/Listener.h"
#include "tarvik/Sender.h"
#include "tarvik/Service.h"
#include "tarvik/ServiceManager.h"
#include "tarvik/Tls.h"
#include "tarvik/Tuple.h"

using namespace tarvik;
using tarvik::test::Method;
using tarvik::test::StdoutCapture;
using tarvik::test::TlsTestCerts;

namespace {

TlsTestCerts const& certs() {
    static TlsTestCerts const* const c = new TlsTestCerts;
    return *c;
}

void register_methods() {
    static Method const* const copy = new Method("tls", "copy", [](Tuple const& in, Tuple& out) {
        out = in;
        return 0L;
    });
    (void)copy;
}

// The settings of one end as set_param attributes.
Tuple tls_param(std::string const& cert, std::string const& ca, int verify = 1, int require = 0) {
    Tuple p;
    p.set_astring("tls_cert_file", cert.empty() ? "" : certs().crt(cert.c_str()).c_str());
    p.set_astring("tls_key_file", cert.empty() ? "" : certs().key(cert.c_str()).c_str());
    p.set_astring("tls_ca_file", ca.empty() ? "" : certs().crt(ca.c_str()).c_str());
    p.set_int("tls_verify_peer", verify);
    p.set_int("tls_require_client_cert", require);
    return p;
}

// A manager publishing "tls.test:main" on an "STCPIP:" listener with the given settings.
struct SecureServer {
    explicit SecureServer(Tuple const& param, char const* address = "STCPIP:127.0.0.1:0") {
        init();
        register_methods();
        manager = ServiceManager::create();
        service = tarvik::test::make_service("tls.test", "main", {"tls"});
        service->publish(manager);
        listener = AutoRef<Listener>(address);
        if (!listener) return;
        listener->set_param(param);
        Tuple p;
        name = listener->get_param(p).get_astring("name", "");
        started = manager->add_listener(listener);
    }
    ~SecureServer() {
        if (started) manager->remove_listener(listener);
    }
    AutoRef<ServiceManager> manager;
    AutoRef<Service> service;
    AutoRef<Listener> listener;
    std::string name;
    bool started = false;
};

int call(std::string const& address, Tuple const& param, Tuple* answer = nullptr) {
    AutoRef<Sender> sender(address.c_str());
    if (!sender) return -999;
    sender->set_param(param);
    Tuple request("tvk.call"), args("copy"), out;
    args.set_astring("text", "over TLS");
    request.set_astring("svc_class", "tls.test");
    request.set_astring("svc_name", "main");
    request.set_astring("iface_name", "tls");
    request.set_tuple("args_in", args);
    int const r = sender->call(request, out);
    if (answer) *answer = out;
    return r;
}

}  // namespace

TEST(Tls, CallCrossesWithVerifiedCertificatesAndParametersReadBack) {
    ASSERT_TRUE(certs().ok());
    SecureServer server(tls_param("server", ""));
    ASSERT_TRUE(server.started);
    EXPECT_EQ(server.name.rfind("STCPIP:127.0.0.1:", 0), 0u);
    Tuple answer;
    ASSERT_EQ(call(server.name, tls_param("", "ca"), &answer), 0);
    EXPECT_EQ(std::string(answer.get_tuple("args_out").get_astring("text", "")), "over TLS");
    // By the host name as well: the certificate names "localhost".
    std::string const port = server.name.substr(server.name.rfind(':'));
    EXPECT_EQ(call("STCPIP:localhost" + port, tls_param("", "ca")), 0);

    Tuple p;
    server.listener->get_param(p);
    EXPECT_EQ(std::string(p.get_astring("tls_cert_file", "")), certs().crt("server"));
    EXPECT_EQ(p.get_int("tls_require_client_cert", -1), 0);
    EXPECT_EQ(p.get_long("requests", 0), 2);
}

TEST(Tls, RefusedCertificatesFailTheHandshakeWithTheirReason) {
    ASSERT_TRUE(certs().ok());
    struct Case {
        char const* server_cert;
        char const* reason;
    } const cases[] = {
        {"expired", "certificate has expired"},
        {"otherhost", "IP address mismatch"},
        {"stranger", "unable to get local issuer certificate"},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.server_cert);
        SecureServer server(tls_param(c.server_cert, ""));
        ASSERT_TRUE(server.started);
        StdoutCapture capture;
        EXPECT_EQ(call(server.name, tls_param("", "ca")), Sender::CALL_HANDSHAKE_FAILED);
        EXPECT_EQ(capture.records_with(c.reason), 1) << capture.text();
        // Checking switched off by the caller: the same listener answers.
        EXPECT_EQ(call(server.name, tls_param("", "", 0)), 0);
    }
}

TEST(Tls, ListenerRequiringClientCertificatesServesOnlyClientsThatPresentOne) {
    ASSERT_TRUE(certs().ok());
    SecureServer server(tls_param("server", "ca", 1, 1));
    ASSERT_TRUE(server.started);
    EXPECT_EQ(call(server.name, tls_param("client", "ca")), 0);
    StdoutCapture capture;
    EXPECT_LT(call(server.name, tls_param("", "ca")), 0);
    EXPECT_LT(call(server.name, tls_param("stranger", "ca")), 0);
    EXPECT_TRUE(tarvik::test::eventually([&] { return capture.records_with("OPENING THE CONNECTION FROM") == 2; }, 3))
        << capture.text();
}

TEST(Tls, NeitherEndFallsBackToPlainText) {
    ASSERT_TRUE(certs().ok());
    SecureServer secure(tls_param("server", ""));
    ASSERT_TRUE(secure.started);
    std::string const plain_to_secure = "TCPIP:" + secure.name.substr(7);
    EXPECT_LT(call(plain_to_secure, Tuple()), 0);

    init();
    AutoRef<ServiceManager> manager = ServiceManager::create();
    AutoRef<Listener> plain = manager->add_listener("TCPIP:127.0.0.1:0");
    ASSERT_TRUE(plain);
    Tuple p;
    std::string const secure_to_plain = std::string("S") + plain->get_param(p).get_astring("name", "");
    StdoutCapture capture;
    EXPECT_EQ(call(secure_to_plain, tls_param("", "ca")), Sender::CALL_HANDSHAKE_FAILED);
    manager->remove_listener(plain);
}

// A raw client on 127.0.0.1:port.
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

TEST(Tls, PeersThatNeverCompleteTheHandshakeAreDroppedWithARecord) {
    ASSERT_TRUE(certs().ok());
    SecureServer server(tls_param("server", ""));
    ASSERT_TRUE(server.started);
    tarvik::test::IntVar force("TVK.TCPIP", "COMM.FORCE_TIMEOUT", 300);
    int const port = std::atoi(server.name.substr(server.name.rfind(':') + 1).c_str());
    struct Case {
        std::string sent;
        char const* record;
    } const cases[] = {
        {"", "STALLED FOR MORE THAN 300 MS"},                         // says nothing at all
        {std::string(64, 'G'), "OPENING THE CONNECTION FROM"},        // no ClientHello
    };
    for (Case const& c : cases) {
        StdoutCapture capture;
        int const fd = raw_connect(port);
        ASSERT_GE(fd, 0);
        if (!c.sent.empty()) ASSERT_GT(::send(fd, c.sent.data(), c.sent.size(), MSG_NOSIGNAL), 0);
        char sink[256];
        EXPECT_LE(::recv(fd, sink, sizeof sink, 0), 0);  // closed by the listener (after its alert, if any)
        while (::recv(fd, sink, sizeof sink, 0) > 0) {
        }
        ::close(fd);
        EXPECT_TRUE(tarvik::test::eventually([&] { return capture.records_with(c.record) == 1; }, 3)) << capture.text();
    }
    EXPECT_EQ(call(server.name, tls_param("", "ca")), 0);
}

TEST(Tls, ListenerWithoutAUsableCertificateDoesNotStart) {
    ASSERT_TRUE(certs().ok());
    struct Case {
        Tuple param;
        char const* reason;
    } const cases[] = {
        {tls_param("", ""), "needs a certificate"},
        {[] {
             Tuple p = tls_param("server", "");
             p.set_astring("tls_key_file", certs().key("client").c_str());  // a key of another certificate
             return p;
         }(),
         "certificate '"},
        {[] {
             Tuple p = tls_param("server", "");
             p.set_astring("tls_cert_file", "/nonexistent/server.crt");
             return p;
         }(),
         "/nonexistent/server.crt"},
    };
    for (Case const& c : cases) {
        StdoutCapture capture;
        SecureServer server(c.param);
        EXPECT_FALSE(server.started);
        EXPECT_EQ(capture.records_with(c.reason), 1) << capture.text();
    }
}

TEST(Tls, ProcessDefaultsComeFromTheFileOfGlobalVariablesAndApplyToEndpointsMadeAfterThem) {
    ASSERT_TRUE(certs().ok());
    init();
    TlsOptions const saved = tls_defaults();
    std::string const ini = "[TVK.STCPIP]\nTLS.CERT_FILE = " + certs().crt("server") + "\nTLS.KEY_FILE = " +
                            certs().key("server") + "\nTLS.CA_FILE = " + certs().crt("ca") + "\nTLS.VERIFY_PEER = 1\n";
    IBStream in(ini.c_str());
    ASSERT_EQ(GlobVar::load_ini(in, "tls.ini"), 4);
    EXPECT_EQ(std::string(tls_defaults().cert_file.c_str()), certs().crt("server"));

    AutoRef<ServiceManager> manager = ServiceManager::create();
    AutoRef<Service> service = tarvik::test::make_service("tls.test", "main", {"tls"});
    register_methods();
    service->publish(manager);
    AutoRef<Listener> listener = manager->add_listener("STCPIP:[::1]:0");
    ASSERT_TRUE(listener);
    Tuple p;
    EXPECT_EQ(call(listener->get_param(p).get_astring("name", ""), Tuple()), 0);
    manager->remove_listener(listener);
    set_tls_defaults(saved);
}
