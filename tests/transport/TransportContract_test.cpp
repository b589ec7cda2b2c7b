// What every transport shares: effective time-outs from the module variables, address patterns and the
// factories' records, the bounded page reader fed by a hostile peer, and the callback slot.
#include "../../src/transport/Transport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "ServiceSupport.h"
#include "TestSupport.h"
#include "tarvik/CommBuffer.h"
#include "tarvik/GlobVar.h"
#include "tarvik/Listener.h"
#include "tarvik/Sender.h"
#include "tarvik/Tuple.h"

using namespace tarvik;
using tarvik::test::IntVar;
using tarvik::test::LogLevel;
using tarvik::test::StdoutCapture;

namespace {

TimePeriod seconds(int s) { return TimePeriod(std::int64_t{s}, 0, false); }

TEST(TransportConfig, EveryModuleDeclaresItsVariablesWithTheirDefaults) {
    init();
    char const* const names[] = {"COMM.FORCE_TIMEOUT", "COMM.DEFAULT_TIMEOUT", "CONNECTION.FORCE_TIMEOUT",
                                 "CONNECTION.DEFAULT_TIMEOUT", "COMM.FORMAT", "COMM.MAX_BUFFER_SIZE"};
    int const defaults[] = {-1, 10000, -1, 10000, 0, 64 << 20};
    struct Module {
        char const* name;
        unsigned int variables;  // the six above and the transport's own
    } const modules[] = {{"TVK.TCPIP", 8}, {"TVK.SHM", 6}, {"TVK.INPROC", 6}};
    for (Module const& module : modules) {
        SymbolList listed;
        GlobVarInt::get_names(Symbol(module.name), listed);
        for (int i = 0; i < 6; ++i) {
            SCOPED_TRACE(std::string(module.name) + " " + names[i]);
            EXPECT_EQ(GlobVarInt::get(Symbol(module.name), Symbol(names[i])), defaults[i]);
        }
        EXPECT_EQ(listed.size(), module.variables) << module.name;
    }
    EXPECT_EQ(GlobVarInt::get(Symbol("TVK.TCPIP"), Symbol("IO.THREADS")), 0);
    EXPECT_EQ(GlobVarInt::get(Symbol("TVK.TCPIP"), Symbol("CONNECTIONS.MAX")), 10000);
    EXPECT_EQ(GlobVarInt::get(Symbol("TVK.COMM"), Symbol("NAMES.MAX_NEW_PER_BUFFER")), 10000);
    EXPECT_EQ(GlobVarInt::get(Symbol("TVK.COMM"), Symbol("NAMES.MAX_TOTAL")), 1000000);
}

TEST(TransportConfig, EffectiveTimeoutsComeFromTheVariablesAtEveryUse) {
    init();
    struct Case {
        char const* module;
        int comm_force, comm_default, connection_force, connection_default;
        TimePeriod own;
        int comm, connection;
    } const cases[] = {
        // Nothing set: the defaults.
        {"TVK.TCPIP", -1, 10000, -1, 10000, unset_time(), 10000, 10000},
        // A forced value wins over the endpoint's own 30 s.
        {"TVK.TCPIP", 500, 10000, 700, 10000, seconds(30), 500, 700},
        // Not forced: the endpoint's own value, else the default.
        {"TVK.TCPIP", -1, 2500, -1, 3500, seconds(30), 30000, 30000},
        {"TVK.TCPIP", -1, 2500, -1, 3500, unset_time(), 2500, 3500},
        // Shared memory: a forced connection time-out takes the forced communication value.
        {"TVK.SHM", 500, 10000, 700, 10000, seconds(30), 500, 500},
        {"TVK.SHM", -1, 10000, 700, 10000, seconds(30), 30000, -1},
        {"TVK.SHM", -1, 10000, -1, 4000, unset_time(), 10000, 4000},
        // An own value of zero is kept (no wait), not taken for "unset".
        {"TVK.INPROC", -1, 10000, -1, 10000, seconds(0), 0, 0},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(std::string(c.module) + " " + std::to_string(c.comm_force) + "/" +
                     std::to_string(c.connection_force) + " own " + std::to_string(c.own.get_seconds()));
        IntVar a(c.module, "COMM.FORCE_TIMEOUT", c.comm_force);
        IntVar b(c.module, "COMM.DEFAULT_TIMEOUT", c.comm_default);
        IntVar d(c.module, "CONNECTION.FORCE_TIMEOUT", c.connection_force);
        IntVar e(c.module, "CONNECTION.DEFAULT_TIMEOUT", c.connection_default);
        TransportConfig& config = std::string(c.module) == "TVK.SHM"     ? shm_config()
                                  : std::string(c.module) == "TVK.TCPIP" ? tcpip_config()
                                                                         : inproc_config();
        EXPECT_EQ(config.comm_timeout_ms(c.own), c.comm);
        EXPECT_EQ(config.connection_timeout_ms(c.own), c.connection);
    }
}

TEST(EndpointTimes, AbsentAttributesChangeNothingAndUnsetOnesReadBackAsMinusOneSecond) {
    EndpointTimes times;
    Tuple out;
    times.put(out, true);
    EXPECT_EQ(out.get_time_period("comm_timeout"), unset_time());
    EXPECT_EQ(out.get_time_period("connection_timeout"), unset_time());

    Tuple in;
    in.set_time_period("comm_timeout", seconds(3));
    in.set_int("connection_timeout", 9);  // another kind: ignored
    times.set_param(in);
    times.set_param(Tuple());
    EXPECT_EQ(times.comm(), seconds(3));
    EXPECT_TRUE(is_unset(times.connection()));

    Tuple listener_form;
    times.put(listener_form, false);
    EXPECT_TRUE(listener_form.is_set("comm_timeout"));
    EXPECT_FALSE(listener_form.is_set("connection_timeout"));
}

TEST(TransportAddress, PatternsTakeAddressesApart) {
    struct Case {
        char const* text;
        bool tcpip, secure, shm, inproc;
        char const* part;
        int size;
    } const cases[] = {
        {"TCPIP:127.0.0.1:5000", true, false, false, false, "127.0.0.1:5000", 0},
        {"STCPIP:[::1]:0", true, true, false, false, "[::1]:0", 0},
        {"TCPIP:a\\b:1", true, false, false, false, "a\\b:1", 0},  // no escape character: kept
        {"TCPIP:", true, false, false, false, "", 0},
        {"SHM:name:65536", false, false, true, false, "name", 65536},
        {"SHM:name", false, false, true, false, "name", 0},
        {"SHM:name:big", false, false, true, false, "name", 0},
        {"SHM:a:1:2", false, false, true, false, "a", 1},  // the size is atoi of "1:2"
        {"INPROC:demo", false, false, false, true, "demo", 0},
        {"tcpip:host:1", false, false, false, false, "", 0},
        {"TCP:host:1", false, false, false, false, "", 0},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.text);
        AString part;
        bool secure = !c.secure;
        int size = -7;
        EXPECT_EQ(match_tcpip_address(c.text, part, secure), c.tcpip);
        if (c.tcpip) {
            EXPECT_EQ(std::string(part.c_str()), c.part);
            EXPECT_EQ(secure, c.secure);
        }
        EXPECT_EQ(match_shm_address(c.text, part, size), c.shm);
        if (c.shm) {
            EXPECT_EQ(std::string(part.c_str()), c.part);
            EXPECT_EQ(size, c.size);
        }
        EXPECT_EQ(match_inproc_address(c.text, part), c.inproc);
        if (c.inproc) EXPECT_EQ(std::string(part.c_str()), c.part);
    }
}

// Until the socket and shared-memory endpoints exist, their factories recognise their addresses, trace
// them and say why nothing was made; the in-process factories make endpoints.
TEST(TransportFactories, TraceTheAddressAndMakeOnlyWhatThisBuildHas) {
    init();
    struct Case {
        char const* address;
        char const* unit;
        bool made;
        char const* refusal;
    } const cases[] = {
        {"TCPIP:127.0.0.1:0", "TCPIPFACTORY", true, nullptr},
        {"STCPIP:127.0.0.1:0", "TCPIPFACTORY", true, nullptr},
        {"SHM:name:65536", "SHMFACTORY", false, "NO SHM TRANSPORT IN THIS BUILD FOR 'SHM:name:65536'"},
        {"SHM:name:-4", "SHMFACTORY", false, "INVALID SHARED MEMORY SIZE -4 IN 'SHM:name:-4'"},
        {"INPROC:factory", "INPROCFACTORY", true, nullptr},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.address);
        LogLevel level(c.unit, 2);
        std::string const trace = std::string("LOG|TVK|") + c.unit;
        StdoutCapture log;
        AutoRef<Listener> listener(c.address);
        AutoRef<Sender> sender(c.address);
        EXPECT_EQ(static_cast<bool>(listener), c.made);
        EXPECT_EQ(static_cast<bool>(sender), c.made);
        EXPECT_EQ(log.records_with(std::string("TRY CREATE '") + c.address + "'"), 2);
        EXPECT_EQ(log.records_with(trace), c.made ? 4 : 2);
        EXPECT_EQ(log.records_with("OK CREATE '"), c.made ? 2 : 0);
        if (c.refusal) EXPECT_EQ(log.records_with(std::string("ERR|TVK|") + c.unit), 2);
        if (c.refusal) EXPECT_EQ(log.records_with(c.refusal), 2);
    }
    // Traces only above level 1; an address no factory knows gives null from all of them.
    LogLevel quiet("TCPIPFACTORY", 1);
    StdoutCapture log;
    EXPECT_FALSE(AutoRef<Listener>("UDP:1.2.3.4:5"));
    EXPECT_EQ(log.records_with("TRY CREATE"), 0);
}

// --- the page reader -------------------------------------------------------------------------------------

using tarvik::test::bytes_of;

std::string encoded(Tuple const& t, unsigned int page_size) {
    CommBuffer b(page_size);
    EXPECT_GT(encode_tuple(t, b, false), 0);
    return bytes_of(b);
}

PageStreamReader::Status feed_all(PageStreamReader& reader, std::string const& bytes, unsigned int step,
                                  unsigned int& consumed) {
    consumed = 0;
    PageStreamReader::Status s = PageStreamReader::MORE;
    while (consumed < bytes.size() && s == PageStreamReader::MORE) {
        unsigned int n = static_cast<unsigned int>(std::min<std::size_t>(step, bytes.size() - consumed));
        unsigned int taken = 0;
        s = reader.feed(reinterpret_cast<unsigned char const*>(bytes.data()) + consumed, n, taken);
        consumed += taken;
    }
    return s;
}

TEST(PageStreamReader, RebuildsTheBufferFromPiecesOfAnySizeAndLeavesWhatFollows) {
    Tuple t = tarvik::test::all_kinds();
    std::string const wire = encoded(t, 64);  // many pages
    for (unsigned int step : {1u, 7u, 21u, 4096u}) {
        SCOPED_TRACE(step);
        CommBuffer into;
        PageStreamReader reader(into, 1u << 20, "test");
        unsigned int consumed = 0;
        ASSERT_EQ(feed_all(reader, wire + "TVK01/next", step, consumed), PageStreamReader::DONE);
        EXPECT_EQ(consumed, wire.size());
        EXPECT_EQ(bytes_of(into), wire);
        Tuple back;
        ASSERT_GT(back.read(into), 0);
        EXPECT_EQ(back.to_string(), t.to_string());
    }
}

TEST(PageStreamReader, RefusesHostileHeadersBeforeStoringTheirPages) {
    std::string const good = encoded(Tuple("x"), 4096);
    struct Case {
        char const* what;
        std::string bytes;
        unsigned int max;
        PageStreamReader::Status status;
        char const* record;
    } const cases[] = {
        {"garbage", "GET / HTTP/1.1\r\nHost: x\r\n\r\n", 1u << 20, PageStreamReader::BAD_HEADER, "INVALID HEADER!"},
        {"length below a header", "TVK01/xxxx1/00000014/", 1u << 20, PageStreamReader::BAD_HEADER, "INVALID HEADER!"},
        {"upper-case magic only", "tvk01/xxxx1/00000015/", 1u << 20, PageStreamReader::BAD_HEADER, "INVALID HEADER!"},
        {"4 GiB page", "TVK01/xxxx1/ffffffff/", 64u << 20, PageStreamReader::TOO_LARGE,
         "BUFFER OF MORE THAN 67108864 BYTES REFUSED (peer)"},
        {"one byte over the limit", good, static_cast<unsigned int>(good.size()) - 1, PageStreamReader::TOO_LARGE,
         "REFUSED (peer)"},
        {"exactly the limit", good, static_cast<unsigned int>(good.size()), PageStreamReader::DONE, nullptr},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.what);
        CommBuffer into;
        PageStreamReader reader(into, c.max, "peer");
        StdoutCapture log;
        unsigned int consumed = 0;
        EXPECT_EQ(feed_all(reader, c.bytes, 5, consumed), c.status);
        if (c.record) {
            EXPECT_EQ(log.records_with(std::string("ERR|TVK|TRANSPORT|")), 1);
            EXPECT_EQ(log.records_with(c.record), 1);
            EXPECT_EQ(into.size(), 0u);  // nothing stored for the refused page
        }
    }
}

TEST(ReceiveTuple, DamagedOrCutBuffersFailTheExchangeWithARecord) {
    init();
    Tuple t("req");
    t.set_astring("name", "value");
    t.set_int("n", 5);
    CommBuffer whole;
    ASSERT_GT(encode_tuple(t, whole, false), 0);

    Tuple out;
    bool text = true;
    EXPECT_EQ(receive_tuple(whole, out, 1u << 20, "peer", &text), 0);
    EXPECT_FALSE(text);
    EXPECT_EQ(out.to_string(), t.to_string());

    // A dictionary position that was never defined, behind a valid header.
    CommBuffer damaged;
    unsigned char const body[] = {0x05, 0x80, 0x07, 0x80, 0x83, 0x80};
    damaged.write_byte(body, sizeof body);
    damaged.get_last()->last = true;
    damaged.update_headers();
    // Pages that never reach the last one.
    CommBuffer cut;
    cut.write_byte(body, 2);
    cut.update_headers();
    struct Case {
        char const* what;
        CommBuffer const* buffer;
        unsigned int max;
        int result;
    } const cases[] = {
        {"damaged", &damaged, 1u << 20, Sender::CALL_PROTOCOL_ERROR},
        {"cut", &cut, 1u << 20, Sender::CALL_PROTOCOL_ERROR},
        {"too large", &whole, 30, Sender::CALL_TOO_LARGE},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.what);
        StdoutCapture log;
        Tuple got;
        got.set_int("stale", 1);
        EXPECT_EQ(receive_tuple(*c.buffer, got, c.max, "peer", nullptr), c.result);
        EXPECT_GE(log.records_with("ERR|"), 1);
        if (c.result == Sender::CALL_PROTOCOL_ERROR && std::string(c.what) == "damaged") EXPECT_TRUE(got.is_empty());
    }
}

// --- names a peer may add -------------------------------------------------------------------------------

// A buffer whose tuple has `n` attribute names never interned in this process: names of the same length
// are encoded, then their last letter is changed in the bytes (so the new names exist only there). The
// new names go to `names`.
CommBuffer buffer_with_new_names(int n, std::vector<std::string>* names = nullptr) {
    static int round = 0;
    std::string const stem = "nl" + std::to_string(::getpid()) + "r" + std::to_string(round++) + "k";
    for (int i = 0; names && i < n; ++i) names->push_back(stem + std::to_string(i) + "Y");
    Tuple t("req");
    for (int i = 0; i < n; ++i) t.set_int((stem + std::to_string(i) + "X").c_str(), i);
    CommBuffer b;
    EXPECT_GT(encode_tuple(t, b, false), 0);
    CommBuffer::PageIterator pages(b);
    while (pages.hasNext()) {
        CommBuffer::Page* page = const_cast<CommBuffer::Page*>(pages.next());
        for (unsigned int i = 21; i + 1 < page->used; ++i)
            if (page->data()[i] == 'X' && page->data()[i - 1] >= '0' && page->data()[i - 1] <= '9') page->data()[i] = 'Y';
    }
    return b;
}

TEST(NameLimits, BufferWithMoreNewNamesThanAllowedIsRefusedAndOneAtTheLimitPasses) {
    init();
    IntVar limit("TVK.COMM", "NAMES.MAX_NEW_PER_BUFFER", 5);
    struct Case {
        int names;
        int result;
        unsigned int interned;  // of the new names, after the read
    } const cases[] = {{5, 0, 5}, {6, Sender::CALL_PROTOCOL_ERROR, 5}, {0, 0, 0}};
    for (Case const& c : cases) {
        SCOPED_TRACE(c.names);
        std::vector<std::string> names;
        CommBuffer const b = buffer_with_new_names(c.names, &names);
        StdoutCapture log;
        Tuple out;
        EXPECT_EQ(receive_tuple(b, out, 1u << 20, "peer-x", nullptr), c.result);
        unsigned int interned = 0;
        Symbol found;
        for (std::string const& name : names)
            interned += Symbol::find(name.c_str(), static_cast<unsigned int>(name.size()), found) ? 1 : 0;
        EXPECT_EQ(interned, c.interned);
        if (c.result) {
            EXPECT_EQ(log.records_with("BUFFER FROM peer-x REFUSED: MORE THAN 5 NEW NAMES"), 1) << log.text();
            EXPECT_TRUE(out.is_empty());
        } else {
            EXPECT_EQ(out.get_count(), static_cast<unsigned int>(c.names));
        }
    }
}

TEST(NameLimits, NamesAlreadyInternedDoNotCountAndAFullRegistryRefusesNewOnes) {
    init();
    Tuple t("req");
    t.set_int("known-a", 1);
    t.set_int("known-b", 2);
    CommBuffer known;
    ASSERT_GT(encode_tuple(t, known, false), 0);
    Tuple out;
    {
        IntVar none("TVK.COMM", "NAMES.MAX_NEW_PER_BUFFER", 0);
        EXPECT_EQ(receive_tuple(known, out, 1u << 20, "peer", nullptr), 0);
        EXPECT_EQ(out.get_int("known-b", 0), 2);
    }
    std::vector<std::string> names;
    CommBuffer const fresh = buffer_with_new_names(1, &names);
    IntVar full("TVK.COMM", "NAMES.MAX_TOTAL", static_cast<int>(Symbol::count()));
    StdoutCapture log;
    EXPECT_EQ(receive_tuple(fresh, out, 1u << 20, "peer-y", nullptr), Sender::CALL_PROTOCOL_ERROR);
    Symbol found;
    EXPECT_FALSE(Symbol::find(names[0].c_str(), static_cast<unsigned int>(names[0].size()), found));
    EXPECT_EQ(log.records_with("BUFFER FROM peer-y REFUSED: THE NAME REGISTRY HOLDS"), 1) << log.text();
    EXPECT_EQ(receive_tuple(known, out, 1u << 20, "peer", nullptr), 0);  // known names still pass
}

// --- the callback slot ------------------------------------------------------------------------------------

struct BlockingCallback : Listener::Callback {
    std::atomic<bool> entered{false};
    std::atomic<bool> release{false};
    CallbackSlot* slot = nullptr;
    bool reset_inside = false;
    void on_request(Tuple const&, Tuple& reply) override {
        entered = true;
        if (reset_inside) slot->reset();  // unlinking itself from inside its own call must not wait for it
        while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        reply.set_int("done", 1);
    }
};

TEST(CallbackSlot, ResetWaitsForCallsInProgressAndNothingIsDeliveredAfterIt) {
    CallbackSlot slot;
    BlockingCallback callback;
    slot.set(&callback);
    Tuple reply;
    std::thread caller([&] { EXPECT_TRUE(slot.deliver(Tuple(), reply)); });
    while (!callback.entered) std::this_thread::yield();
    std::atomic<bool> reset_done{false};
    std::thread resetter([&] {
        slot.reset();
        reset_done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(reset_done.load());
    callback.release = true;
    resetter.join();
    caller.join();
    EXPECT_EQ(reply.get_int("done", 0), 1);
    Tuple after;
    EXPECT_FALSE(slot.deliver(Tuple(), after));
    EXPECT_TRUE(after.is_empty());
}

TEST(CallbackSlot, CallbackResettingItsOwnSlotDoesNotWaitForItself) {
    CallbackSlot slot;
    BlockingCallback callback;
    callback.slot = &slot;
    callback.reset_inside = true;
    callback.release = true;
    slot.set(&callback);
    Tuple reply;
    EXPECT_TRUE(slot.deliver(Tuple(), reply));
    EXPECT_FALSE(slot.deliver(Tuple(), reply));
}

}  // namespace
