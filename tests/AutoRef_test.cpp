#include "tarvik/AutoRef.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

using tarvik::AutoRef;
using tarvik::AutoRefBase;
using tarvik::IAutoRef;
using tarvik::RefFactory;
using tarvik::RefObject;
using tarvik::test::run_together;

namespace {

// Records what happens to it in a shared journal: "+" attach, "-" release, "I" interface_release (with
// the counts at that moment), "~" destruction (with the count the destructor sees).
class Probe : public RefObject {
  public:
    Probe(std::string name, std::vector<std::string>* journal) : name_(std::move(name)), journal_(journal) {}
    ~Probe() override { note_("~" + std::to_string(get_count())); }
    void attach() override {
        note_("+");
        RefObject::attach();
    }
    void release() override {
        note_("-");
        RefObject::release();
    }
    void interface_release() override {
        note_("I" + std::to_string(get_count()) + "/" + std::to_string(get_nested_count()));
    }

  private:
    void note_(std::string const& what) {
        if (journal_) journal_->push_back(name_ + what);
    }
    std::string name_;
    std::vector<std::string>* journal_;
};

class Other : public RefObject {};

// Made by its class's own creation statics (tagged -1, 0 and 100); counts the calls.
class Made : public RefObject {
  public:
    explicit Made(int tag) : tag(tag) {}
    static AutoRefBase create() {
        ++creates;
        return AutoRefBase(new Made(-1));
    }
    static AutoRefBase auto_create(char const*) {
        ++auto_creates;
        return AutoRefBase(new Made(0));
    }
    static AutoRefBase bind(char const*) { return AutoRefBase(new Made(100)); }
    static char const* factory_name() { return "made"; }
    int tag;
    static inline int creates = 0;
    static inline int auto_creates = 0;
};

// A factory registered under `kind`: makes a Made tagged `tag` for the name `answers` (any name when
// `answers` is empty), null for every other name; counts how often it is asked.
class TestFactory : public RefFactory {
  public:
    TestFactory(char const* kind, int tag, std::string answers = "")
        : kind_(kind), tag_(tag), answers_(std::move(answers)) {}
    char const* factory_name() const override { return kind_; }
    AutoRefBase create(char const* name) override { return make_(name); }
    AutoRefBase bind(char const* name) override { return make_(name, 1000); }
    int asked = 0;

  private:
    AutoRefBase make_(char const* name, int offset = 0) {
        ++asked;
        if (!answers_.empty() && answers_ != name) return AutoRefBase();
        return AutoRefBase(new Made(tag_ + offset));
    }
    char const* kind_;
    int tag_;
    std::string answers_;
};

}  // namespace

TEST(AutoRef, HoldingTheSamePointerChangesNoCountAndAnotherIsAttachedAfterTheRelease) {
    std::vector<std::string> journal;
    auto* a = new Probe("a", &journal);
    AutoRef<Probe> r(a);
    AutoRef<Probe> copy(r);
    r.set_(a);
    AutoRef<Probe>& alias = r;
    r = alias;
    copy = r;
    copy = static_cast<RefObject*>(a);
    EXPECT_EQ(journal, (std::vector<std::string>{"a+", "a+"}));

    r.set_(new Probe("b", &journal));
    EXPECT_EQ(journal, (std::vector<std::string>{"a+", "a+", "a-", "b+"}));
    // Identity, also against raw pointers on either side.
    EXPECT_TRUE(r != copy);
    EXPECT_TRUE(r == r.get());
    EXPECT_TRUE(a == copy);
    EXPECT_FALSE(r == nullptr);
}

TEST(AutoRef, DowncastToAnotherTypeGivesNullAndAttachesNothing) {
    AutoRefBase other(new Other);
    RefObject* raw = other.get_();
    EXPECT_FALSE(AutoRef<Probe>(other));
    EXPECT_FALSE(AutoRef<Probe>(raw));
    std::vector<std::string> journal;
    AutoRef<Probe> held(new Probe("p", &journal));
    held = other;  // not a Probe: the reference lets its object go and holds null
    EXPECT_FALSE(held);
    EXPECT_EQ(journal, (std::vector<std::string>{"p+", "p-", "p~-1000"}));
    EXPECT_EQ(raw->get_count(), 1);
}

TEST(AutoRef, ConstructingFromFalseCreatesJustAsFromTrue) {
    int const before = Made::creates;
    AutoRef<Made> yes(true);
    AutoRef<Made> no(false);
    EXPECT_EQ(Made::creates, before + 2);
    ASSERT_TRUE(no);
    EXPECT_NE(yes, no);
    EXPECT_EQ(no->tag, -1);
    EXPECT_EQ(no->get_count(), 1);
}

TEST(AutoRef, InterfaceReferencesKeepBothCountsAndCallTheHookBeforeTheLastRelease) {
    std::vector<std::string> journal;
    auto* p = new Probe("p", &journal);
    AutoRef<Probe> plain(p);
    {
        IAutoRef<Probe> i1(p);
        IAutoRef<Probe> i2(i1);
        EXPECT_EQ(p->get_count(), 3);
        EXPECT_EQ(p->get_nested_count(), 2);
        i1.clear();
    }
    // The hook saw the last interface reference's ordinary reference still held.
    EXPECT_EQ(journal, (std::vector<std::string>{"p+", "p+", "p+", "p-", "pI2/-1000", "p-"}));
    EXPECT_EQ(p->get_count(), 1);
    EXPECT_EQ(p->get_nested_count(), -1000);
    plain.clear();
    EXPECT_EQ(journal.back(), "p~-1000");
}

TEST(AutoRef, CopyingAnObjectCopiesItsCounts) {
    AutoRef<Probe> a(new Probe("p", nullptr));
    IAutoRef<Probe> i(a);
    Probe copy(*a);
    EXPECT_EQ(copy.get_count(), 2);
    EXPECT_EQ(copy.get_nested_count(), 1);
    Probe assigned("q", nullptr);
    assigned = *a;
    EXPECT_EQ(assigned.get_count(), 2);
}

TEST(AutoRef, FactoriesAreAskedNewestFirstIgnoringCaseAndFallThroughOnNull) {
    RefFactory* const head = RefFactory::get_head();
    int const defaults = Made::auto_creates;
    {
        TestFactory older("MADE", 1);
        TestFactory other_kind("gadget", 2);
        TestFactory newer("Made", 3, "only-this");

        EXPECT_EQ(AutoRef<Made>("only-this")->tag, 3);
        EXPECT_EQ(older.asked, 0);
        EXPECT_EQ(AutoRef<Made>("anything")->tag, 1);
        EXPECT_EQ(newer.asked, 2);
        EXPECT_EQ(older.asked, 1);
        EXPECT_EQ(other_kind.asked, 0);
        // The default is built first, whether or not a factory answers.
        EXPECT_EQ(Made::auto_creates, defaults + 2);

        AutoRef<Made> bound;
        EXPECT_TRUE(bound.bind("only-this"));
        EXPECT_EQ(bound->tag, 1003);
    }
    EXPECT_EQ(RefFactory::get_head(), head);

    // With no factory answering, the class's own default.
    TestFactory picky("made", 7, "x");
    AutoRef<Made> defaulted;
    EXPECT_TRUE(defaulted.create("y"));
    EXPECT_EQ(defaulted->tag, 0);
    EXPECT_TRUE(defaulted.bind("y"));
    EXPECT_EQ(defaulted->tag, 100);
    AutoRefBase def(new Made(42));
    EXPECT_EQ(RefFactory::lookup_create("nobody", "x", def).get_(), def.get_());
}

TEST(AutoRef, DestroyingAFactoryBehindTheHeadDropsTheOnesInFrontOfIt) {
    RefFactory* const head = RefFactory::get_head();
    auto first = std::make_unique<TestFactory>("made", 1);
    auto second = std::make_unique<TestFactory>("made", 2);
    auto third = std::make_unique<TestFactory>("made", 3);
    ASSERT_EQ(RefFactory::get_head(), third.get());
    EXPECT_EQ(third->get_next(), second.get());

    second.reset();
    EXPECT_EQ(RefFactory::get_head(), first.get());
    AutoRef<Made> made("any");
    EXPECT_EQ(made->tag, 1);
    EXPECT_EQ(third->asked, 0);

    third.reset();  // no longer listed: nothing changes
    EXPECT_EQ(RefFactory::get_head(), first.get());
    first.reset();
    EXPECT_EQ(RefFactory::get_head(), head);
}

TEST(AutoRef, ConcurrentReferencesEndAtTheRightCounts) {
    constexpr int kThreads = 6;
    constexpr int kRounds = 5000;
    auto* p = new Probe("p", nullptr);
    AutoRef<Probe> owner(p);
    IAutoRef<Probe> interface_owner(p);
    run_together(kThreads, [&](int t) {
        for (int k = 0; k < kRounds; ++k) {
            AutoRef<Probe> a(owner);
            AutoRef<Probe> b;
            b = a;
            if ((k + t) % 3 == 0) {
                IAutoRef<Probe> i(b);
                IAutoRef<Probe> j(i);
            }
        }
    });
    EXPECT_EQ(p->get_count(), 2);
    EXPECT_EQ(p->get_nested_count(), 1);
}
