#include "tarvik/CommBuffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "../src/IOBStreamImpl.h"
#include "TestSupport.h"
#include "tarvik/Blob.h"
#include "tarvik/IOBStream.h"
#include "tarvik/String.h"
#include "tarvik/StringBuffer.h"
#include "tarvik/Symbol.h"
#include "tarvik/Time.h"
#include "tarvik/Tuple.h"

using namespace tarvik;
using namespace std::string_literals;
using tarvik::test::all_kinds;
using tarvik::test::errors_in;
using tarvik::test::printed;
using tarvik::test::StdoutCapture;
using tarvik::test::TempDir;

namespace {

// The value bytes of a buffer, from its first page on.
std::string values(CommBuffer const& b) {
    b.rewind();
    std::string out(b.remaining(), '\0');
    if (!out.empty()) b.read_byte(reinterpret_cast<unsigned char*>(out.data()), out.size());
    b.rewind();
    return out;
}

// Bytes as lower-case hexadecimal pairs separated by spaces ("05 80"), and back.
std::string hex(std::string const& bytes) {
    static char const digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes)
        out += std::string(out.empty() ? "" : " ") + digits[c >> 4] + digits[c & 15];
    return out;
}

std::string unhex(std::string const& text) {
    std::string out;
    for (std::size_t at = 0; at + 1 < text.size(); at += 3)
        out += static_cast<char>(std::stoi(text.substr(at, 2), nullptr, 16));
    return out;
}

// A buffer as it goes on the wire: its pages, headers first.
std::string wire(CommBuffer const& b) {
    AString text;
    OBStream out(text);
    b.write(out);
    out.close();
    return std::string(text.c_str(), text.length());
}

CommBuffer raw(std::string const& bytes, unsigned int page_size = CommBuffer::kDefaultPageSize) {
    CommBuffer b(page_size);
    b.write_raw(reinterpret_cast<unsigned char const*>(bytes.data()), bytes.size());
    return b;
}

// Delivers a byte string in chunks: `chunk` bytes per call, or random sizes (1..97) when chunk is 0. Keeps
// the largest room a reader asked for.
class ChunkedInput final : public IBStreamImpl {
  public:
    ChunkedInput(std::string bytes, unsigned int chunk)
        : IBStreamImpl(false), bytes_(std::move(bytes)), chunk_(chunk) {}
    int get() override { return at_ < bytes_.size() ? static_cast<unsigned char>(bytes_[at_++]) : -1; }
    int peek() override { return at_ < bytes_.size() ? static_cast<unsigned char>(bytes_[at_]) : -1; }
    unsigned int read(char* dest, unsigned int n) override {
        largest_request = std::max(largest_request, n);
        std::size_t k = chunk_ ? chunk_ : rng_() % 97 + 1;
        k = std::min({k, static_cast<std::size_t>(n), bytes_.size() - at_});
        std::memcpy(dest, bytes_.data() + at_, k);
        at_ += k;
        return static_cast<unsigned int>(k);
    }
    unsigned int largest_request = 0;

  private:
    std::string bytes_;
    std::size_t at_ = 0;
    unsigned int chunk_;
    std::mt19937 rng_{7};
};

long receive(std::string const& bytes, CommBuffer& into, unsigned int chunk = 0) {
    IBStream in;
    in.open(std::make_unique<ChunkedInput>(bytes, chunk));
    return into.read(in);
}

Blob blob_of(std::string const& bytes) {
    return Blob(bytes.data(), bytes.size(), 0);
}

Tuple nested(int depth) {
    Tuple t("leaf");
    t.set_int("depth", depth);
    for (int i = 1; i < depth; ++i) {
        Tuple outer("level");
        outer.set_tuple("in", t);
        t = outer;
    }
    return t;
}

}  // namespace

// --- integer forms --------------------------------------------------------------------------------------

TEST(CommBuffer, SignedFormPutsSignInFirstByte) {
    constexpr long long kMax = std::numeric_limits<long long>::max();
    // clang-format off
    std::pair<long long, std::string> const cases[] = {
        {0, "00 80"}, {5, "05 80"}, {-5, "85 80"}, {127, "7f 80"}, {128, "00 81"}, {200, "48 81"},
        {-200, "c8 81"}, {-1, "81 80"}, {0x7FFFFFFF, "7f 7f 7f 7f 87"}, {kMax, "7f 7f 7f 7f 7f 7f 7f 7f ff"},
        {-kMax, "ff 7f 7f 7f 7f 7f 7f 7f ff"}};
    // clang-format on
    for (auto const& [value, bytes] : cases) {
        CommBuffer b;
        EXPECT_EQ(b.write(value), static_cast<long>(bytes.size() + 1) / 3) << value;
        EXPECT_EQ(hex(values(b)), bytes) << value;
        long long back = 12345;
        EXPECT_EQ(b.read(back), 0);
        EXPECT_EQ(back, value);
    }
    CommBuffer narrow;
    EXPECT_EQ(narrow.write(short{-200}), 2);
    EXPECT_EQ(hex(values(narrow)), "c8 81");
}

TEST(CommBuffer, UnsignedFormSetsHighBitOnLastByteOnly) {
    std::pair<unsigned long long, std::string> const cases[] = {
        {0, "80"}, {127, "ff"}, {128, "00 81"}, {~0ull, "7f 7f 7f 7f 7f 7f 7f 7f 7f 81"}};
    for (auto const& [value, bytes] : cases) {
        CommBuffer b;
        EXPECT_EQ(b.write(value), static_cast<long>(bytes.size() + 1) / 3);
        EXPECT_EQ(hex(values(b)), bytes) << value;
        unsigned long long back = 1;
        EXPECT_EQ(b.read(back), 0);
        EXPECT_EQ(back, value);
    }
}

TEST(CommBuffer, IntegerReadPastEndKeepsPartialValueAndReturnsZero) {
    CommBuffer s = raw(unhex("05"));  // a signed value without its second byte
    int i = -1;
    EXPECT_EQ(s.read(i), 0);
    EXPECT_EQ(i, 5);
    EXPECT_EQ(s.read(i), 0);
    EXPECT_EQ(i, 0);
    CommBuffer u = raw(unhex("01 02"));  // unsigned groups without their terminator
    unsigned int v = 0;
    EXPECT_EQ(u.read(v), 0);
    EXPECT_EQ(v, 1u + 2u * 128u);
}

// --- pages ------------------------------------------------------------------------------------------------

TEST(CommBuffer, PagesStartWithTheirHeaderAndSplitValuesAtThePageSize) {
    CommBuffer one;
    EXPECT_EQ(one.write(5), 2);
    EXPECT_EQ(one.get_first(), one.get_last());
    EXPECT_EQ(one.get_last()->used, 23u);
    EXPECT_EQ(wire(one), "TVK01/xxxx1/00000017/\x05\x80");
    EXPECT_EQ(CommBuffer(10).get_page_size(), 22u);
    EXPECT_EQ(CommBuffer(21).get_page_size(), 21u);
    CommBuffer b(10);
    EXPECT_EQ(b.write_byte(reinterpret_cast<unsigned char const*>("abc"), 3), 3u);
    EXPECT_EQ(b.size(), 66u);
    EXPECT_TRUE(b == raw("abc", 10));
    EXPECT_FALSE(b == raw("abd", 10));
    EXPECT_FALSE(b == raw("abc", 23));  // equal value bytes in other pages
    EXPECT_EQ(wire(b), "TVK01/xxxx0/00000016/aTVK01/xxxx0/00000016/bTVK01/xxxx1/00000016/c");
    std::string used;
    for (CommBuffer::PageIterator it(b); it.hasNext();) used += std::to_string(it.next()->used) + " ";
    EXPECT_EQ(used, "22 22 22 ");
    EXPECT_TRUE(b.remains(3));
    EXPECT_FALSE(b.remains(4));
    unsigned char out[8] = {};
    EXPECT_EQ(b.read_byte(out, 8), 3);  // headers skipped
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out), 3), "abc");
    EXPECT_EQ(CommBuffer().read_byte(out, 1), -1);
    b.write(TimePeriod(std::int64_t{-300}, 7, false));  // one byte a page
    TimePeriod back;
    EXPECT_EQ(b.read(back), 5);
    EXPECT_EQ(back, TimePeriod(std::int64_t{-300}, 7, false));
}

TEST(CommBuffer, AsciiFlagReachesEveryPageHeader) {
    CommBuffer b(23);
    b.write_raw(reinterpret_cast<unsigned char const*>("<x/>"), 4);
    b.get_first()->flags[1] = 'a';
    b.set_is_ascii(true);
    b.update_ascii_flags();
    EXPECT_EQ(b.to_string(), "TVK01/xaxx0/00000017/<xTVK01/axxx1/00000017//>");
    b.set_is_ascii(false);
    b.update_ascii_flags();
    EXPECT_EQ(wire(b), "TVK01/xxxx0/00000017/<xTVK01/xxxx1/00000017//>");
    EXPECT_EQ(b.to_string(), "string format supported only for ascii CommBuffer!");
    CommBuffer received;
    ASSERT_EQ(receive("TVK01/axxx1/00000019/<x/>", received), 25);
    EXPECT_TRUE(received.is_ascii());
    EXPECT_EQ(received.to_string(), "TVK01/axxx1/00000019/<x/>");
}

TEST(CommBuffer, CopySpliceAndClearKeepPageSizeAndAsciiFlag) {
    CommBuffer b(22);
    b.set_is_ascii(true);
    b.write(Symbol("cb.copy"));
    b.write(300);
    int skipped;
    b.read(skipped);  // a copy reads from the start all the same
    CommBuffer copy(b);
    EXPECT_TRUE(copy == b && copy.is_ascii());
    Symbol s;
    EXPECT_EQ(copy.read(s), 9);
    EXPECT_EQ(s, Symbol("cb.copy"));
    copy.write(Symbol("cb.copy"));  // the copied dictionary knows the name
    EXPECT_TRUE(hex(values(copy)).ends_with(" 81 80"));

    CommBuffer assigned(4096), taker;
    assigned = b;
    EXPECT_EQ(assigned.get_page_size(), 22u);
    taker.splice(assigned);
    EXPECT_TRUE(taker == b && taker.get_page_size() == 22 && taker.dictionary_size() == 1);
    for (CommBuffer::PageIterator it(taker); it.hasNext();) EXPECT_EQ(it.next()->owner, &taker);
    EXPECT_TRUE(assigned.size() == 0 && !assigned.get_first() && assigned.dictionary_size() == 0);

    taker.clear();
    EXPECT_TRUE(taker.size() == 0 && !taker.get_first() && taker.dictionary_size() == 0);
    EXPECT_TRUE(taker.get_page_size() == 22 && taker.is_ascii());
}

TEST(CommBuffer, AllocateAndAddSizeFillPagesInPlace) {
    CommBuffer b(22);
    unsigned int room = 0;
    unsigned char* p = b.allocate(room);
    EXPECT_EQ(room, 22u);  // no header room
    EXPECT_EQ(b.add_size(5), 5u);
    EXPECT_EQ(b.allocate(room), p + 5);
    EXPECT_EQ(room, 17u);
    std::vector<unsigned int> sizes;
    std::string out = printed([&] { sizes = {b.add_size(18), CommBuffer().add_size(1)}; });
    EXPECT_EQ(sizes, (std::vector<unsigned int>{5, 0}));
    EXPECT_EQ(errors_in(out, "WRONG ADD SIZE 18 [5/22]"), 1);
    EXPECT_EQ(errors_in(out, "WRONG ADD SIZE 1 [0/0]"), 1);
    EXPECT_EQ(b.add_size(17), 22u);
    b.allocate(room);
    EXPECT_EQ(room, 22u);
    p = b.allocate_in_new_page(100, true);
    EXPECT_EQ(p, b.get_last()->data() + 21);
    EXPECT_EQ(b.size(), 43u);
    p = b.allocate_in_new_page(30, false);
    EXPECT_EQ(p, b.get_last()->data());
}

TEST(CommBuffer, PagesReceivedInPlaceReadBackAfterHeaderUpdate) {
    CommBuffer sent(24);
    sent.write(Symbol("cb.inplace"));
    sent.write(-70000);
    std::string const bytes = wire(sent);
    CommBuffer got;
    for (std::size_t at = 0, length; at < bytes.size(); at += length) {
        length = std::stoul(bytes.substr(at + 12, 8), nullptr, 16);
        std::memcpy(got.allocate_in_new_page(length + 10, false), bytes.data() + at, length);
        got.add_size(length + 3);  // a few bytes too many: the header knows better
        EXPECT_TRUE(got.get_last()->update_from_header());
    }
    EXPECT_TRUE(got == sent);
    EXPECT_TRUE(got.get_last()->last);
    AString name;
    int v = 0;
    EXPECT_EQ(got.read_using_dictionary(name), 12);
    got.read(v);
    EXPECT_EQ(name, "cb.inplace");
    EXPECT_EQ(v, -70000);
}

TEST(CommBuffer, BadPageHeaderIsRefusedInPlaceAndFromAStream) {
    std::string const record = "CommBuffer::Page::update_from_header: INVALID HEADER!";
    // Non-hex length, wrong magic, length below the header size, length beyond the page.
    for (char const* header : {"TVK01/xxxx1/0000001g/", "TVX01/xxxx1/00000017/", "TVK01/xxxx1/00000014/",
                               "TVK01/xxxx1/00000029/"}) {
        CommBuffer b;
        std::memcpy(b.allocate_in_new_page(40, false), header, 21);
        b.add_size(30);
        bool ok = true;
        std::string out = printed([&] { ok = b.get_last()->update_from_header(); });
        EXPECT_FALSE(ok) << header;
        EXPECT_EQ(b.get_last()->used, 0u);  // the page is dropped
        EXPECT_EQ(b.size(), 0u);
        EXPECT_EQ(errors_in(out, record), 1);
    }
    for (std::string const& bytes : {"TVX01/xxxx1/00000017/\x05\x80"s, "TVK01/xxxx1/0000001z/\x05\x80"s,
                                     "TVK01/xxxx1/00000014/\x05\x80"s,
                                     "TVK01/xxxx0/00000016/aTVK01/xxxx1/0000-016/b"s}) {  // the second page
        CommBuffer b;
        long r = 0;
        std::string out = printed([&] { r = receive(bytes, b); });
        EXPECT_EQ(r, -1) << bytes;
        EXPECT_EQ(errors_in(out, record), 1) << bytes;
    }
}

// --- value forms ------------------------------------------------------------------------------------------

TEST(CommBuffer, ValueFormsHaveTheirExactBytes) {
    static WChar const units[] = {0xE9, 0x20AC, 0};
    StringBuffer sb("xyz");
    TimePeriod const period(std::int64_t{5}, 7, false);
    TimeDate const date(1970, 1, 1, 0, 0, 1, 0, false);
    CommBuffer b;
    // clang-format off
    std::vector<long> sizes = {b.write(true), b.write(1.0f), b.write(-2.0), b.write(AString("hi")),
                               b.write(String(units)), b.write(blob_of("\x01\x02\x03")), b.write(sb),
                               b.write_counted(sb), b.write(period), b.write(date)};
    // clang-format on
    EXPECT_EQ(sizes, (std::vector<long>{1, 4, 8, 3, 5, 4, 3, 4, 4, 4}));
    EXPECT_EQ(
        hex(values(b)),
        "01 00 00 80 3f 00 00 00 00 00 00 00 c0 82 68 69 82 69 81 2c c1 83 01 02 03 78 79 7a 83 78 79 7a "
        "05 80 07 80 01 80 00 80");
    bool flag = false;
    float f = 0;
    double d = 0;
    AString a;
    String s;
    Blob bl;
    StringBuffer back;
    TimePeriod tp;
    TimeDate td;
    unsigned char bare[3];
    sizes = {b.read(flag),         b.read(f),    b.read(d),  b.read(a), b.read(s), b.read(bl),
             b.read_byte(bare, 3), b.read(back), b.read(tp), b.read(td)};
    EXPECT_EQ(sizes, (std::vector<long>{1, 4, 8, 3, 5, 4, 3, 3, 4, 4}));
    EXPECT_TRUE(flag && f == 1.0f && d == -2.0 && a == "hi" && s == String(units));
    EXPECT_TRUE(bl == blob_of("\x01\x02\x03") && back == "xyz" && tp == period && td == date);
    // Nothing left: a boolean, like an integer, keeps its value and reports no failure.
    std::string out = printed([&] { sizes = {b.read(flag), b.read(f), b.read(d)}; });
    EXPECT_EQ(sizes, (std::vector<long>{0, -1, -1}));
    EXPECT_TRUE(flag);
    EXPECT_EQ(errors_in(out, "CommBuffer::read: corrupted! (invalid length 4, 0 bytes left)"), 1);
    EXPECT_EQ(out.find("invalid length 1,"), std::string::npos) << out;
}

// The count fits the bytes left but the elements do not: integer reads never fail, so the missing
// elements read as 0 (a value cut inside keeps what was read) and nothing is logged.
TEST(CommBuffer, IntegerListCutShortReadsMissingElementsAsZero) {
    auto read_as_text = [](auto items, std::string const& bytes, long& r) {
        r = raw(unhex(bytes)).read(items);
        std::string text;
        for (auto v : items) text += (text.empty() ? "" : ",") + std::to_string(v);
        return text;
    };
    struct Case {
        char const* bytes;
        char const* kind;
        char const* values;
    };
    Case const cases[] = {
        {"83 05 80 01", "int", "5,1,0"},
        {"82 85 80", "long", "-5,0"},
        {"83 81 02 03", "unsigned short", "1,386,0"},
        {"84 05 80 06 80", "array int", "5,6,0,0"},
    };
    for (Case const& c : cases) {
        long r = -2;
        std::string got;
        std::string out = printed([&] {
            std::string const kind = c.kind;
            if (kind == "int") got = read_as_text(ListInt{9}, c.bytes, r);
            if (kind == "long") got = read_as_text(ListLong{}, c.bytes, r);
            if (kind == "unsigned short") got = read_as_text(List<unsigned short>{}, c.bytes, r);
            if (kind == "array int") got = read_as_text(ArrayInt{}, c.bytes, r);
        });
        EXPECT_EQ(r, 0) << c.kind;
        EXPECT_EQ(got, c.values) << c.kind;
        EXPECT_EQ(out, "") << c.kind;
    }
}

// Lists of numbers are encoded and decoded in runs; the bytes must be exactly those of the values written
// one at a time, and values must survive being cut by page ends at every offset.
TEST(CommBuffer, IntegerListsEncodeLikeSingleValuesAndSurvivePageEnds) {
    std::vector<long long> const edges{0, 1, -1, 63, -63, 64, 127, -127, 128, -128, 200, -200, 16383, -16384,
                                       0x7FFFFFFF, -0x7FFFFFFFLL - 1, std::numeric_limits<long long>::max(),
                                       std::numeric_limits<long long>::min() + 1};
    ListInt ints;
    ListLong longs;
    ArrayInt array;
    for (int round = 0; round < 10; ++round) {
        for (long long v : edges) {
            ints.push_back(static_cast<int>(v));
            longs.push_back(v);
            array.push_back(static_cast<int>(v) ^ round);
        }
    }
    for (unsigned int page_size = 22; page_size < 40; ++page_size) {
        CommBuffer runs(page_size), singles(page_size);
        long const run_bytes = runs.write(ints) + runs.write(longs) + runs.write(array);
        long single_bytes = 0;
        singles.write(ints.size());
        for (int v : ints) single_bytes += singles.write(v);
        singles.write(longs.size());
        for (long long v : longs) single_bytes += singles.write(v);
        singles.write(array.size());
        for (int v : array) single_bytes += singles.write(v);
        EXPECT_EQ(run_bytes, single_bytes);
        ASSERT_EQ(values(runs), values(singles)) << page_size;
        ListInt ints_back{7};
        ListLong longs_back;
        ArrayInt array_back;
        EXPECT_GE(runs.read(ints_back), 0);
        EXPECT_GE(runs.read(longs_back), 0);
        EXPECT_GE(runs.read(array_back), 0);
        EXPECT_EQ(ints_back, ints) << page_size;
        EXPECT_EQ(longs_back, longs) << page_size;
        EXPECT_EQ(array_back, array) << page_size;
    }
}

TEST(CommBuffer, ListsCountTheirElementsBytesOnly) {
    ListInt const ints{1, -1};
    ListAString const texts{"a", ""};
    CommBuffer b;
    EXPECT_EQ(b.write(ints), 4);
    EXPECT_EQ(b.write(texts), 3);
    EXPECT_EQ(b.write(ListInt()), 0);
    EXPECT_EQ(hex(values(b)), "82 01 80 81 80 82 81 61 80 80");
    ListInt ints_back, empty{9};
    ListAString texts_back;
    EXPECT_GE(b.read(ints_back), 0);
    EXPECT_EQ(b.read(texts_back), 3);
    EXPECT_GE(b.read(empty), 0);
    EXPECT_EQ(ints_back, ints);
    EXPECT_EQ(texts_back, texts);
    EXPECT_TRUE(empty.is_empty());
}

TEST(CommBuffer, SymbolsCrossOncePerBufferThenAsNegativePosition) {
    CommBuffer b;
    for (char const* name : {"a", "b", "a", "", "c"}) b.write(Symbol(name));  // "" takes no position
    EXPECT_EQ(hex(values(b)), "01 80 61 01 80 62 81 80 00 80 01 80 63");
    CommBuffer got;
    ASSERT_GT(receive(wire(b), got), 0);
    std::string names;
    for (int i = 0; i < 5; ++i) {
        AString name("?");
        EXPECT_GE(got.read_using_dictionary(name), 0);
        names += std::string(name.c_str()) + ",";
    }
    EXPECT_EQ(names, "a,b,a,,c,");
    EXPECT_EQ(got.dictionary_size(), 3u);
}

TEST(CommBuffer, TupleBinaryFormSharesNamesAcrossTuples) {
    Tuple c("c"), with("c");
    with.set_int("x", 5);
    CommBuffer b;
    c.write(b);
    EXPECT_EQ(hex(values(b)), "01 80 63 01 80");
    c.write(b);
    with.write(b);
    EXPECT_EQ(hex(values(b)), "01 80 63 01 80 81 80 01 80 81 80 03 80 01 80 78 05 80 01 80");
    Tuple first, second, third;
    EXPECT_TRUE(first.read(b) > 0 && second.read(b) > 0 && third.read(b) > 0);
    EXPECT_EQ(second, c);
    EXPECT_EQ(third, with);
}

// --- round trips ------------------------------------------------------------------------------------------

TEST(CommBuffer, EveryKindRoundTripsAtEveryPageSize) {
    Tuple const t = all_kinds();
    unsigned int count = 0;
    TypeManager::all(count);
    std::set<int> kinds;
    for (Tuple::ConstValueIterator it(t); it; ++it) kinds.insert(it.get_type());
    EXPECT_EQ(kinds.size(), count);
    Tuple holder("holder");
    holder.set_tuple("one", t);
    holder.set_list_tuple("many", ListTuple{t, t});
    for (unsigned int page_size : {22u, 23u, 64u, 4096u}) {
        CommBuffer b(page_size);
        EXPECT_GT(b.write(holder), 0);
        Tuple direct;
        EXPECT_GT(b.read(direct), 0) << page_size;
        EXPECT_EQ(direct, holder) << page_size;
        EXPECT_EQ(b.remaining(), 0u);
        std::string const bytes = wire(b);
        for (unsigned int chunk : {1u, 0u}) {
            CommBuffer got;
            ASSERT_EQ(receive(bytes, got, chunk), static_cast<long>(bytes.size()));
            EXPECT_TRUE(got == b) << page_size << " " << chunk;
            Tuple back;
            EXPECT_GT(got.read(back), 0);
            EXPECT_EQ(back, holder) << page_size << " " << chunk;
        }
    }
}

TEST(CommBuffer, LargeValuesRoundTripThroughFilesAndSmallPages) {
    TempDir dir;
    std::string big(1 << 20, '\0');
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 % 251);
    Tuple blob("blob"), lists("lists");
    blob.set_blob("big", blob_of(big));
    blob.set_blob("empty", Blob());
    ListInt& ints = lists.set_list_int("ints");
    ListAString& texts = lists.set_list_astring("texts");
    ListTimePeriod& periods = lists.set_list_time_period("periods");
    ListTuple& tuples = lists.set_list_tuple("tuples");
    for (int i = 0; i < 10000; ++i) {
        ints.push_back(static_cast<int>(i * 2654435761u));
        texts.push_back(AString(static_cast<unsigned int>(i % 5), 'q'));
        periods.push_back(TimePeriod(std::int64_t{i} - 5000, i, false));
        tuples.push_back(Tuple("item")).set_int("n", i);
    }
    lists.set_tuple("deep", nested(50));
    for (auto [t, page_size] : {std::pair{&lists, 22u}, {&lists, 64u}, {&blob, 64u}, {&blob, 4096u}}) {
        CommBuffer b(page_size), got;
        b.write(*t);
        Path path(dir.file(("large" + std::to_string(page_size)).c_str()).c_str());
        EXPECT_EQ(b.write_file(path), static_cast<long>(b.size()));
        EXPECT_EQ(got.read_file(path), static_cast<long>(b.size()));
        EXPECT_TRUE(got == b);
        Tuple back;
        EXPECT_GT(got.read(back), 0);
        EXPECT_TRUE(back == *t) << page_size;
    }
}

TEST(CommBuffer, FilesThatCannotBeOpenedAreReported) {
    TempDir dir;
    std::string const missing = dir.file("missing.cb");
    CommBuffer b;
    b.write(1);
    std::vector<long> r;
    std::string out = printed([&] {
        r = {b.read_file(Path(missing.c_str())), b.write_file(Path(dir.path().c_str()))};  // a directory
    });
    EXPECT_EQ(r, std::vector<long>(2, -1));
    EXPECT_EQ(errors_in(out, "CANNOT OPEN INPUT FILE '" + missing + "'"), 1);
    EXPECT_EQ(errors_in(out, "CANNOT OPEN OUTPUT FILE '" + dir.path() + "'"), 1);
}

TEST(CommBuffer, StreamCarriesBuffersBackToBack) {
    CommBuffer first(22), second, got;
    first.write(AString("first buffer"));
    second.write(7);
    IBStream in;
    in.open(std::make_unique<ChunkedInput>(wire(first) + wire(second), 0));
    EXPECT_EQ(got.read(in), static_cast<long>(first.size()));
    EXPECT_TRUE(got == first);
    EXPECT_EQ(got.read(in), 23);
    EXPECT_TRUE(got == second);
    EXPECT_EQ(got.read(in), -1);  // nothing left
}

TEST(CommBuffer, ByteStreamsWriteAndReadValueBytes) {
    CommBuffer b(22);
    OBStream(b, false).put("hello world", 11);
    EXPECT_EQ(b.size(), 11u * 22u);
    EXPECT_EQ(values(b), "hello world");
    unsigned char h;
    b.read_byte(&h, 1);
    IBStream in(b);  // from the read position on
    EXPECT_EQ(in.peek(), 'e');
    char text[32] = {};
    EXPECT_EQ(in.get(text, sizeof text), 10);
    EXPECT_STREQ(text, "ello world");
    EXPECT_EQ(in.get(), -1);
}

// --- hostile input ----------------------------------------------------------------------------------------

TEST(CommBuffer, HugeAnnouncedPageCostsOnlyTheBytesThatArrive) {
    for (std::size_t body : {std::size_t{19}, std::size_t{1} << 20}) {
        CommBuffer b;
        auto owned = std::make_unique<ChunkedInput>("TVK01/xxxx1/fffffff0/" + std::string(body, 'z'), 0);
        ChunkedInput* input = owned.get();
        IBStream in;
        in.open(std::move(owned));
        EXPECT_EQ(b.read(in), -1);
        EXPECT_LE(input->largest_request, std::max<std::size_t>(2 * body, 64 * 1024));
        EXPECT_EQ(b.size(), 0u);
    }
}

TEST(CommBuffer, TruncatedStreamNeverYieldsABuffer) {
    CommBuffer b(64);
    b.write(all_kinds());
    std::string const bytes = wire(b);
    for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
        CommBuffer got;
        ASSERT_EQ(receive(bytes.substr(0, cut), got), -1) << cut;
    }
}

TEST(CommBuffer, StreamBeyondTheMaximumSizeIsRefusedAtThePageThatCrossesIt) {
    CommBuffer b(64);
    b.write(all_kinds());
    std::string const bytes = wire(b);
    auto const whole = static_cast<unsigned int>(bytes.size());
    for (unsigned int max : {whole, whole - 1, 64u, 20u}) {
        CommBuffer got;
        IBStream in;
        in.open(std::make_unique<ChunkedInput>(bytes, 0));
        StdoutCapture out;
        long const r = got.read(in, max);
        if (max == whole) {
            EXPECT_EQ(r, static_cast<long>(whole));
        } else {
            EXPECT_EQ(r, -1) << max;
            EXPECT_EQ(out.records_with("stream larger than " + std::to_string(max) + " bytes"), 1) << max;
            EXPECT_LE(got.size(), max);
        }
    }
}

TEST(CommBuffer, TruncatedTupleFailsOrComesBackIncomplete) {
    Tuple const t = all_kinds();
    CommBuffer whole(64);
    t.write(whole);
    std::string const bytes = values(whole);
    // Integer reads do not report truncation: the end mark cut after its first byte still ends the tuple.
    std::string whole_at;
    printed([&] {
        for (std::size_t cut = 0; cut + 1 < bytes.size(); ++cut) {
            Tuple back;
            if (back.read(raw(bytes.substr(0, cut), 64)) >= 0 && back == t) whole_at += std::to_string(cut);
        }
    });
    EXPECT_EQ(whole_at, "");
}

TEST(CommBuffer, DictionaryPositionOutOfRangeIsRefused) {
    CommBuffer b = raw(unhex("01 80 61 01 80 62 83 80"));  // a, b, then position 3
    AString name;
    std::vector<long> r;
    std::string out = printed([&] {
        r = {b.read_using_dictionary(name), b.read_using_dictionary(name), b.read_using_dictionary(name)};
    });
    EXPECT_EQ(r, (std::vector<long>{3, 3, -1}));
    EXPECT_EQ(name, "b");
    EXPECT_EQ(errors_in(out, "CommBuffer::read_using_dictionary: corrupted! (invalid pos -3)"), 1);
}

TEST(CommBuffer, LengthBeyondRemainingBytesIsRefused) {
    std::string const bytes = unhex("68 87 61 62");  // 1000, then two bytes
    AString a;
    String s;
    Blob bl;
    StringBuffer sb;
    ListAString list;
    ListInt ints;
    std::vector<long> r;
    std::string out = printed([&] {
        r = {raw(bytes).read(a),  raw(bytes).read(s),    raw(bytes).read(bl),
             raw(bytes).read(sb), raw(bytes).read(list), raw(bytes).read(ints)};
    });
    EXPECT_EQ(r, std::vector<long>(6, -1));
    EXPECT_EQ(errors_in(out, "CommBuffer::read: corrupted! (invalid length 1000, 2 bytes left)"), 6);
    out = printed([&] { r = {raw(unhex("7f 7f 7f 7f 7f 7f 7f 7f 7f 81")).read(bl)}; });
    EXPECT_EQ(r, std::vector<long>{-1});
    EXPECT_EQ(errors_in(out, "CommBuffer::read: corrupted! (invalid length 18446744073709551615, 0 bytes left)"),
              1);
    Symbol name("untouched");
    CommBuffer b = raw(unhex("7f 80 61 62"));  // a name of 127 bytes, then two bytes
    out = printed([&] { r = {b.read(name)}; });
    EXPECT_EQ(r, std::vector<long>{-1});
    EXPECT_EQ(name, Symbol("untouched"));
    EXPECT_EQ(b.dictionary_size(), 0u);
    EXPECT_EQ(errors_in(out, "CommBuffer::read_using_dictionary: corrupted! (invalid size 127)"), 1);
}

TEST(CommBuffer, UnknownTypeCodeInTupleIsRefused) {
    // Class c, int x = 5, then kind 33 (none) for y.
    CommBuffer b = raw(unhex("01 80 63 03 80 01 80 78 05 80 21 80 01 80 79 05 80 01 80"));
    Tuple t;
    long r = 0;
    std::string out = printed([&] { r = t.read(b); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(t.get_class_name(), Symbol("c"));
    EXPECT_EQ(t.get_int("x", 0), 5);  // what came before stays
    EXPECT_EQ(errors_in(out, "READ 33 INVALID TYPE IN COMM BUFFER"), 1);
}

TEST(CommBuffer, NestingDeeperThanTheLimitIsRefused) {
    CommBuffer ok, deep;
    nested(CommBuffer::kMaxDepth).write(ok);
    nested(CommBuffer::kMaxDepth + 2).write(deep);
    Tuple back;
    std::vector<long> r;
    std::string out = printed([&] { r = {back.read(deep), back.read(ok)}; });
    EXPECT_LT(r[0], 0);
    EXPECT_GT(r[1], 0);  // the failed read left no depth behind
    EXPECT_EQ(back, nested(CommBuffer::kMaxDepth));
    EXPECT_EQ(errors_in(out, "CommBuffer::read: corrupted! (nesting deeper than 128)"), 1);
}
