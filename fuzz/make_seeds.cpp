// make_seeds: writes the seed corpora of the harnesses, fuzz/corpus/<harness>/<seed>, from real values
// written with the library's own writers, plus hand-made damaged, truncated, deeply nested (10,000 levels)
// and huge-length (4 GiB) inputs. Run it from the source directory after a change of a wire or text form:
//     build/fuzz/fuzz/make_seeds fuzz/corpus
// It only writes files; the committed corpus is what it wrote, kept small (tens of files per harness).
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>

#include "tarvik/tarvik.h"

using namespace tarvik;

namespace {

std::filesystem::path g_root;
constexpr int kDeep = 10000;

void seed(char const* harness, char const* name, std::string const& bytes) {
    std::filesystem::create_directories(g_root / harness);
    std::ofstream(g_root / harness / name, std::ios::binary) << bytes;
}

std::string repeat(std::string const& unit, int n) {
    std::string out;
    out.reserve(unit.size() * n);
    for (int i = 0; i < n; ++i) out += unit;
    return out;
}

std::string str(AString const& a) { return std::string(a.c_str(), a.length()); }

// The value bytes of a buffer (headers left out).
std::string values(CommBuffer const& b) {
    std::string out(b.remaining(), '\0');
    b.rewind();
    b.read_byte(reinterpret_cast<unsigned char*>(out.data()), static_cast<unsigned int>(out.size()));
    b.rewind();
    return out;
}

// The pages of a buffer as a stream carries them.
std::string wire(CommBuffer const& b) {
    StringBuffer sb(4096);
    OBStream out(sb);
    b.write(out);
    out.flush();
    std::string bytes;
    for (char c : sb) bytes += c;
    return bytes;
}

Tuple all_kinds() {
    static WChar const units[] = {0x41, 0xE9, 0x20AC, 0xD83D, 0xDE00, 0xFFFF, 0};
    Blob blob;
    blob.from_string("AAH/");
    StringBuffer sb("string buffer bytes");
    Tuple inner("inner");
    inner.set_int("x", -1);
    inner.set_astring("y", "");
    Tuple t("all.kinds");
    t.set_bool("b", true);
    t.set_int("i", std::numeric_limits<int>::min() + 1);
    t.set_long("l", std::numeric_limits<std::int64_t>::max());
    t.set_float("f", -1.5e-30f);
    t.set_double("d", 6.02214076e23);
    t.set_astring("as", "text with \"quotes\" & <markup>\n");
    t.set_string("s", String(units));
    t.set_blob("bb", blob);
    t.set_time_period("tp", TimePeriod(std::int64_t{-5}, 250000, false));
    t.set_time_date("td", TimeDate(2024, 2, 29, 23, 59, 58, 999999, false));
    t.set_array_int("ai", ArrayInt{0, -200, 1 << 30});
    t.set_array_long("al", ArrayLong{std::numeric_limits<std::int64_t>::min() + 1});
    t.set_array_float("af", ArrayFloat{0.25f});
    t.set_array_double("ad", ArrayDouble{-0.5, 1e300});
    t.set_symbol("ss", Symbol("cb.symbol"));
    t.set_tuple("t", inner);
    t.set_stringbuffer("sb", sb);
    t.set_list_bool("lbo", ListBool{false, true});
    t.set_list_int("li", ListInt{128, -1});
    t.set_list_long("ll", ListLong{-1});
    t.set_list_float("lf", ListFloat{3.0f});
    t.set_list_double("ld", ListDouble{-3.0});
    t.set_list_astring("las", ListAString{"", "two"});
    t.set_list_string("ls", ListString{String(units)});
    t.set_list_stringbuffer("lsb", ListStringBuffer{sb, StringBuffer()});
    t.set_list_time_period("ltp", ListTimePeriod{TimePeriod(std::int64_t{86400}, 1, false)});
    t.set_list_time_date("ltd", ListTimeDate{TimeDate(1969, 12, 31, 0, 0, 0, 0, false)});
    t.set_list_array_int("lai", ListArrayInt{ArrayInt{1, 2}});
    t.set_list_array_long("lal", ListArrayLong{ArrayLong()});
    t.set_list_array_float("laf", ListArrayFloat{ArrayFloat{-0.0f}});
    t.set_list_array_double("lad", ListArrayDouble{ArrayDouble{2.5}});
    t.set_list_blob("lb", ListBlob{Blob(), blob});
    t.set_list_symbol("lss", ListSymbol{Symbol("cb.symbol"), Symbol("inner")});
    t.set_list_tuple("lt", ListTuple{inner, Tuple()});
    return t;
}

// A binary tuple nested kDeep levels: class "", then per level a tuple attribute named "" holding the
// next (the empty name takes no dictionary position, so every level is the same bytes), then the ends.
std::string deep_binary_tuple() {
    Tuple outer;
    outer.set_tuple("", Tuple());
    CommBuffer b;
    outer.write(b);
    std::string const one = values(b);                  // 00 80 | kind 00 80 00 80 | 01 80 | 01 80
    std::string const level = one.substr(2, one.size() - 6);  // kind, name "", class ""
    return one.substr(0, 2) + repeat(level, kDeep) + repeat(one.substr(one.size() - 2), kDeep + 1);
}

void pages(Tuple const& t) {
    for (unsigned int page_size : {64u, 4096u}) {
        CommBuffer b(page_size);
        t.write(b);
        seed("pages", page_size == 64 ? "tuple-small-pages" : "tuple", wire(b));
    }
    CommBuffer list;
    list.write(ListTuple{t, Tuple("second")});
    seed("pages", "list", wire(list));
    CommBuffer ascii;
    ascii.set_is_ascii(true);
    t.write(ascii);
    seed("pages", "ascii", wire(ascii));
    CommBuffer two(64);
    Tuple("a").write(two);
    seed("pages", "two-buffers", wire(two) + wire(two));
    std::string const whole = wire(list);
    seed("pages", "truncated", whole.substr(0, whole.size() / 2));
    seed("pages", "bad-magic", "XVK" + whole.substr(3));
    seed("pages", "bad-length-digit", whole.substr(0, 12) + "0000001g" + whole.substr(20));
    seed("pages", "length-below-header", "TVK01/xxxx1/00000014/");
    seed("pages", "huge-length", "TVK01/xxxx1/ffffffff/" + whole.substr(21));
    seed("pages", "huge-length-not-last", "TVK01/xxxx0/ffffffff/" + std::string(64, 'z'));
    CommBuffer deep;
    deep.write_raw(reinterpret_cast<unsigned char const*>(deep_binary_tuple().data()),
                   static_cast<unsigned int>(deep_binary_tuple().size()));
    seed("pages", "deep", wire(deep));
}

void values_seeds(Tuple const& t) {
    auto put = [](char const* name, int kind, int page, std::string const& bytes) {
        seed("values", name, std::string(1, static_cast<char>(kind)) + static_cast<char>(page) + bytes);
    };
    CommBuffer b;
    t.write(b);
    put("tuple", 0, 255, values(b));
    put("tuple-small-pages", 0, 3, values(b));
    std::string const tuple = values(b);
    put("tuple-truncated", 0, 40, tuple.substr(0, tuple.size() * 2 / 3));
    CommBuffer l;
    l.write(ListTuple{t, Tuple("x")});
    put("list-tuple", 1, 255, values(l));
    CommBuffer s;
    s.write(AString("hello"));
    s.write(t.get_string("s"));
    s.write(Symbol("name"));
    s.write(Symbol("name"));
    put("astring", 2, 255, values(s));
    put("string", 3, 255, values(s).substr(6));
    put("symbols", 6, 255, values(s).substr(6 + 1 + 2 * t.get_string("s").length()));
    CommBuffer n;
    n.write(ListInt{0, 1, -1, 127, 128, -200, std::numeric_limits<int>::min()});
    put("list-int", 8, 2, values(n));
    put("array-int", 10, 255, values(n));
    CommBuffer ll;
    ll.write(ListLong{std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max()});
    put("list-long", 9, 255, values(ll));
    CommBuffer td;
    td.write(TimeDate(2024, 2, 29, 23, 59, 58, 999999, false));
    put("time-date", 7, 255, values(td));
    CommBuffer las;
    las.write(ListAString{"a", "", "bc"});
    put("list-astring", 11, 255, values(las));
    CommBuffer lss;
    lss.write(ListSymbol{Symbol("a"), Symbol("b"), Symbol("a")});
    put("list-symbol", 13, 255, values(lss));
    CommBuffer ld;
    ld.write(ListDouble{0.5, -1e300});
    put("list-double", 14, 255, values(ld));
    // 4 GiB (2^32: groups 0 0 0 0 16) and 2^64 - 1 as lengths and counts.
    std::string const four_gib("\x00\x00\x00\x00\x90", 5);
    std::string const max64 = std::string(9, '\x7f') + "\x81";
    put("huge-astring", 2, 255, four_gib + "abc");
    put("huge-blob", 4, 255, four_gib + "abc");
    put("huge-string", 3, 255, max64 + "abc");
    put("huge-list", 1, 255, four_gib);
    put("huge-list-int", 8, 255, four_gib + "\x81\x82");
    put("huge-symbol", 6, 255, std::string("\x7f\x7f\x7f\x7f\x0f\x80", 6) + "ab");
    put("bad-dictionary-position", 6, 255, std::string("\x01\x80" "a\x85\x80", 5));
    put("deep-tuple", 0, 255, deep_binary_tuple());
    put("deep-tuple-small-pages", 0, 9, deep_binary_tuple());
}

void xml_seeds(Tuple const& t) {
    AString text;
    OBStream out(text, true);
    t.write_xml(out);
    out.flush();
    std::string const xml = str(text);
    seed("tuple_xml", "tuple", xml);
    seed("tuple_xml", "truncated", xml.substr(0, xml.size() / 2));
    seed("tuple_xml", "no-class", "<t><i a=\"x\">1</i></t>");
    seed("tuple_xml", "no-att-name", "<t n=\"c\"><i>1</i></t>");
    seed("tuple_xml", "bad-values", "<t n=\"c\"><i a=\"x\">12x</i><td a=\"d\">99999:99:99T99:99:99.999</td>"
                                    "<bb a=\"b\">!!!</bb><tp a=\"p\">-1:2:3:4:5</tp></t>");
    std::string const deep = "<t n=\"c\">" + repeat("<t a=\"x\" n=\"c\">", kDeep);
    seed("tuple_xml", "deep", deep + repeat("</t>", kDeep + 1));
    seed("tuple_xml", "deep-lists", "<t n=\"c\">" + repeat("<lt a=\"l\"><t n=\"c\">", kDeep));

    CommBuffer ascii;
    ascii.set_is_ascii(true);
    t.write(ascii);
    std::string const carried = values(ascii);
    seed("ascii", "tuple", carried);
    seed("ascii", "truncated", carried.substr(0, carried.size() / 3));
    seed("ascii", "deep", deep);
    seed("ascii", "not-xml", "TVK01/xxxx1/00000015/");

    Table table(Symbol("orders"));
    table.add_column(Symbol("id"));
    table.add_column(Symbol("price"));
    Tuple line;
    line.set_int("id", 7);
    line.set_double("price", 9.5);
    table.add_line(line);
    table.add_line(t);
    AString tt;
    OBStream tout(tt, true);
    table.write_xml(tout);
    tout.flush();
    std::string const tx = str(tt);
    seed("table_xml", "table", tx);
    seed("table_xml", "truncated", tx.substr(0, tx.size() / 2));
    seed("table_xml", "deep-line", "<tbl n=\"x\"><l>" + repeat("<t a=\"x\" n=\"c\">", kDeep));
    seed("table_xml", "many-columns", "<tbl n=\"x\">" + repeat("<c>a</c>", 2000) + "</tbl>");
    seed("table_xml", "wrong-root", "<t n=\"x\"></t>");

    seed("xml", "tuple", xml);
    seed("xml", "table", tx);
    seed("xml", "prolog", "<?xml version=\"1.0\"?>\n<!-- c --><?pi x?><a b='1' c=\"&amp;&lt;&#233;&#xE9;\">"
                          "t<![CDATA[<x>]]><e/></a>\n<!-- after -->");
    seed("xml", "doctype", "<!DOCTYPE a [<!ENTITY x \"y\">]><a>&x;</a>");
    seed("xml", "references", "<a>&#x110000;&#0;&#99999999999;&#x;&unknown;&amp</a>");
    seed("xml", "deep", repeat("<a>", kDeep) + repeat("</a>", kDeep));
    std::string attrs;
    for (int i = 0; i < 100; ++i) attrs += " a" + std::to_string(i) + "=\"v\"";
    seed("xml", "many-attributes", "<a" + attrs + "/>");
    seed("xml", "mismatch", "<a><b></a></b>");
    seed("xml", "two-roots", "<a/><b/>");
    seed("xml", "truncated", xml.substr(0, xml.size() / 3));
}

void text_seeds(Tuple const& t) {
    std::string const one = str(t.to_string());
    seed("tuple_text", "tuple", one);
    seed("tuple_text", "truncated", one.substr(0, one.size() / 2));
    seed("tuple_text", "deep", repeat("c{x:t=c{", kDeep / 2));
    seed("tuple_text", "deep-lists", "c{x:lt=[" + repeat("c{y:lt=[", kDeep));
    seed("tuple_text", "bad-values", "c{i:i=99999999999999999999, f:d=1e99999, s:s=\"\\uD800\\uZZZZ\", "
                                     "b:bb=@@@@, td:td=99999-99-99T99:99:99.9999999, tp:tp=-.5}");
    seed("tuple_text", "odd-names", "\"\\x00\"{\"\":i=1, \"a\\\"b\":as=\"\\xZZ\"}");
    seed("tuple_text", "huge-number", "c{x:l=" + std::string(4096, '9') + "}");

    seed("token", "tokens", "ident _x.y-z 42 -17 +3 1.5e10 .5 \"str\\n\\x41\" 'q\\'' {}[](),;:= # c\n// c\n");
    seed("token", "tuple", one);
    seed("token", "bad", "\"unterminated \\q 99999999999999999999999 \x01 'x");
    seed("token", "huge-number", std::string(100000, '9'));
    seed("token", "long-string", "\"" + std::string(70000, 'a') + "\"");

    seed("ini", "ini", "; comment\n# comment\nglobal = 1\n[section]\nkey = value\nquoted = \"a b\"\n[other]\nx=\n");
    seed("ini", "bad", "[unterminated\n[]\nno equals sign\n");
    seed("ini", "crlf", "[s]\r\nk = v\r\n");
    seed("ini", "long-line", "[s]\nk = " + std::string(100000, 'v') + "\n");

    seed("match", "address", "\\SHM:%(address):%(size)\nSHM:name:65536");
    seed("match", "typed", "\\%(n:i) %(s:s) %(t:t) %(x:q)\n42   word c{a:i=1}");
    seed("match", "anonymous", "\\%s-%i-%d %x %(open\na-1-2 % %(open");
    seed("match", "escape", "\\%(a),%(b)\nx\\,y,z\\");
    seed("match", "no-escape", std::string(1, '\0') + "%(a)\\%(b)\nx\\y");
    seed("match", "deep-tuple", "\\%(t:t)\n" + repeat("c{x:t=", kDeep));
    seed("match", "many-anonymous", "\\" + repeat("%s,", 100) + "\n" + repeat("a,", 100));

    seed("time", "xml", "%Y:%m:%dT%H:%M:%S.%Q\n2024:02:29T23:59:58.999");
    seed("time", "period", "%c %x %X %r %D %T\n1:02:03:04.5");
    seed("time", "formats", "%-5Y %05m %e %k %I %l %C %y %s %f %q %n %t %%\n-4713:01:01T12:00:00");
    seed("time", "huge-width", "%0999999999Y %-4294967295d\n1970:01:01T00:00:00");
    seed("time", "huge-values", "%Y\n99999999999999999999:99:99T99:99:99.99999999999");
    seed("time", "period-huge", "\n" + std::string(40, '9') + ":" + std::string(40, '9') + "." + std::string(40, '9'));
    seed("time", "negative", "%Y\n-1:-1:-1T-1:-1:-1.-1");
    seed("time", "full-precision", "\n" + str(TimePeriod(std::int64_t{-90061}, 1, false).to_string_full_precision()));
    seed("time", "empty-format", "\n2024:02:29T23:59:58");
}

void coding_seeds() {
    std::string bytes;
    for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
    for (std::size_t n : {std::size_t{1}, std::size_t{2}, std::size_t{3}, std::size_t{57}, std::size_t{256}}) {
        Blob b;
        b.set(bytes.data(), static_cast<unsigned int>(n), static_cast<unsigned int>(n));
        AString text;
        b.to_string(text);
        seed("base64", ("blob-" + std::to_string(n)).c_str(), str(text));
    }
    seed("base64", "bad-group", "QUJD=EFG");
    seed("base64", "padding-only", "====");
    seed("base64", "not-multiple", "QUJDR");
    seed("base64", "white-space", " QU\nJD\tRA== x");
    seed("base64", "long-line", std::string(100000, 'A'));

    static WChar const units[] = {0x41, 0xE9, 0x7FF, 0x800, 0x20AC, 0xD83D, 0xDE00, 0xFFFF, 0};
    AString utf8;
    EncodeToUTF8(String(units), utf8);
    seed("utf8", "encoded", str(utf8));
    seed("utf8", "four-bytes", "\xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf \xf4\x90\x80\x80");
    seed("utf8", "five-six-bytes", "\xf8\x88\x80\x80\x80 \xfc\x84\x80\x80\x80\x80");
    seed("utf8", "stray", "\x80\xbf\xfe\xff abc \xc0\xaf \xe0\x80\xaf");
    seed("utf8", "truncated", "abc\xe2\x82");
    seed("utf8", "surrogates", "\xed\xa0\xbd\xed\xb8\x80");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_seeds <corpus directory>\n");
        return 2;
    }
    g_root = argv[1];
    Tuple const t = all_kinds();
    pages(t);
    values_seeds(t);
    xml_seeds(t);
    text_seeds(t);
    coding_seeds();
    return 0;
}
