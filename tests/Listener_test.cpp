// Listener, Listener::Callback and Sender: the neutral operations and the linking of callbacks.
#include "tarvik/Listener.h"

#include <gtest/gtest.h>

#include "tarvik/Sender.h"
#include "tarvik/Tuple.h"

using namespace tarvik;

namespace {

// The smallest concrete listener, counting the unlinks that reach its override.
struct PlainListener : Listener {
    State state;
    int resets = 0;
    State& get_state() override { return state; }
    void reset_callback() override {
        ++resets;
        Listener::reset_callback();
    }
};

struct NullCallback : Listener::Callback {
    void on_request(Tuple const&, Tuple&) override {}
};

TEST(Listener, NeutralOperationsRefuseAndLeaveParametersAlone) {
    PlainListener l;
    Sender s;
    EXPECT_FALSE(l.start());
    EXPECT_FALSE(l.stop());
    EXPECT_FALSE(l.is_ok());
    EXPECT_TRUE(l.is_stopped());
    EXPECT_FALSE(s.is_ok());
    EXPECT_FALSE(s.is_connected());
    Tuple param("p");
    param.set_int("comm_timeout", 5);
    l.set_param(param);
    s.set_param(param);
    Tuple reply("kept");
    EXPECT_EQ(s.call(param, reply), 0);
    EXPECT_EQ(reply.to_string(), "kept{}");
    EXPECT_EQ(&l.get_param(param), &param);
    EXPECT_EQ(&s.get_param(param), &param);
    EXPECT_EQ(param.to_string(), "p{comm_timeout:i=5}");
    EXPECT_STREQ(Listener::factory_name(), "tarvik::Listener");
    EXPECT_STREQ(Sender::factory_name(), "tarvik::Sender");
}

TEST(ListenerCallback, LinkingMovesACallbackAndReplacesAListenersOne) {
    PlainListener a, b;
    NullCallback first, second;
    a.set_callback(first);
    EXPECT_EQ(a.get_callback(), &first);
    EXPECT_EQ(first.get_listener(), &a);

    b.set_callback(first);  // moves: a is left without a callback, through its own override
    EXPECT_EQ(a.get_callback(), nullptr);
    EXPECT_EQ(a.resets, 1);
    EXPECT_EQ(b.get_callback(), &first);
    EXPECT_EQ(first.get_listener(), &b);

    b.set_callback(second);  // replaces: the first callback is no longer linked
    EXPECT_EQ(b.get_callback(), &second);
    EXPECT_EQ(first.get_listener(), nullptr);
    EXPECT_EQ(second.get_listener(), &b);

    second.detach();  // through the listener's override
    EXPECT_EQ(b.resets, 1);
    EXPECT_EQ(b.get_callback(), nullptr);
    EXPECT_EQ(second.get_listener(), nullptr);
    second.detach();  // not linked: nothing
    EXPECT_EQ(b.resets, 1);
}

TEST(ListenerCallback, CopyKeepsThePointerUnknownToTheListenerAndDestructionUnlinks) {
    PlainListener l;
    auto* original = new NullCallback;
    l.set_callback(*original);
    {
        NullCallback copy(*original);
        EXPECT_EQ(copy.get_listener(), &l);
        EXPECT_EQ(l.get_callback(), original);
    }
    // The copy's destruction detached through its listener pointer, as the original's would.
    EXPECT_EQ(l.get_callback(), nullptr);
    l.set_callback(*original);
    delete original;
    EXPECT_EQ(l.get_callback(), nullptr);
}

}  // namespace
