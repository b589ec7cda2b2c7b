// demo.cpp: the library's values at work.
//
// Builds and searches strings, interns names as symbols, collects output in a paged StringBuffer, wraps
// bytes in blobs and writes them as base64 and to files; builds a tuple, sends it through a CommBuffer (the
// wire and file format) and its XML form; runs actions on the thread pool; and catches log records with a
// hook. Every step prints what it did.
#include <atomic>
#include <cstdio>

#include "tarvik/tarvik.h"

using namespace tarvik;

namespace {

void section(char const* title) { bcout() << "\n== " << title << " ==" << bendl(); }

void strings() {
    section("strings");
    AString greeting("hello, tarvik");
    greeting.make_upper();
    bcout() << "upper-cased:          " << greeting << bendl();
    bcout() << "find(\"TARVIK\"):       " << greeting.find("TARVIK") << bendl();

    AString spec("svc:orders@TCPIP:127.0.0.1:5000");
    AString kind, name, address;
    if (spec.match("*:*@*", &kind, &name, &address))
        bcout() << "matched *:*@*:        kind=" << kind << " name=" << name << " address=" << address << bendl();

    AString text("one two one");
    int n = text.Replace("one", "three");
    bcout() << "Replace one->three:   " << text << " (" << n << " replacements)" << bendl();

    String wide(L"gr\u00fc\u00df dich \u20ac");
    AString utf8;
    EncodeToUTF8(wide, utf8);
    bcout() << "wide text as UTF-8:   " << utf8 << " (" << wide.length() << " units, " << utf8.length()
            << " bytes)" << bendl();
}

void symbols() {
    section("symbols");
    Symbol empty;
    Symbol price("price");
    Symbol again("price");
    Symbol qty("qty");
    bcout() << "\"\" is number          " << empty.get_num() << bendl();
    bcout() << "\"price\" is number     " << price.get_num() << ", interned again: " << again.get_num()
            << (price == again ? " (same symbol)" : " (different!)") << bendl();
    bcout() << "number " << qty.get_num() << " looks up    \"" << Symbol(qty.get_num()) << "\"" << bendl();
    SymbolList names{Symbol("zeta"), Symbol("alpha"), Symbol("mid")};
    names.sort();
    bcout() << "sorted by text:       ";
    for (Symbol const& s : names) bcout() << s << ' ';
    bcout() << bendl();
}

void buffers() {
    section("string buffers");
    StringBuffer out(16);
    for (int i = 0; i < 5; ++i) {
        AString line;
        line.Format("line %d\n", i);
        out.append(line.c_str());
    }
    int pages = 0;
    for (StringBuffer::Page const* p = out.first_page(); p; p = p->next) ++pages;
    bcout() << "collected " << out.size() << " bytes in " << pages << " pages of " << out.get_page_size()
            << bendl();

    char* page = out.append();  // fill a page in place
    int n = std::snprintf(page, out.get_page_size() + 1, "direct fill!");
    out.add_size(static_cast<unsigned int>(n));
    AString all;
    out.c_str(all);
    bcout() << "after a direct fill:  " << out.size() << " bytes, ends with \""
            << all.substr(all.length() - 12) << "\"" << bendl();
    StringBuffer other("abc");
    bcout() << "\"abd\" compared with \"abc\": " << StringBuffer("abd").compare(other)
            << " (buffers compare in reverse)" << bendl();
}

void blobs() {
    section("blobs");
    char bytes[58];
    for (int i = 0; i < 58; ++i) bytes[i] = static_cast<char>(i * 7);
    Blob blob(bytes, sizeof bytes, 0);
    AString base64;
    blob.to_string(base64);
    bcout() << "58 bytes as base64 (" << base64.length() << " characters):" << bendl() << base64 << bendl();

    Blob back;
    back.from_string(base64.c_str());
    bcout() << "read back:            " << back.get_size() << " bytes, "
            << (back == blob ? "equal" : "DIFFERENT") << bendl();

    Blob borrowed(bytes, sizeof bytes, Blob::kBorrowed);
    bcout() << "borrowing blob:       " << (borrowed.get_content() == bytes ? "refers to the caller's bytes" : "copied")
            << bendl();

    AString path(get_working_dir());
    path += "/tarvik-demo.bin";
    long written = blob.write(Path(path));
    Blob from_file;
    long read = from_file.read(Path(path));
    bcout() << "file round trip:      write=" << written << " read=" << read << " size=" << from_file.get_size()
            << bendl();
    std::remove(path.c_str());

    bcout() << "reading a missing file reports through the log:" << bendl();
    Blob missing;
    missing.read(Path("/nonexistent/tarvik-demo.bin"));
}

void tuples() {
    section("tuples and the wire format");
    Tuple order("demo.order");
    order.set_int("id", 7);
    order.set_double("price", 99.95);
    order.set_astring("symbol", "ACME");
    for (int i = 0; i < 3; ++i) order.add_int("fills", 100 * (i + 1));
    Tuple owner("demo.user");
    owner.set_astring("name", "alice");
    order.set_tuple("owner", owner);
    bcout() << "text form:            " << order << bendl();

    CommBuffer wire;
    long written = order.write(wire);
    AString bytes;
    {
        OBStream out(bytes);
        wire.write(out);
    }
    bcout() << "binary CommBuffer:    " << written << " value bytes, " << wire.size() << " on the wire, header "
            << bytes.substr(0, CommBuffer::kHeaderSize) << bendl();
    Tuple back;
    back.read(wire);
    bcout() << "read back:            " << (back == order ? "equal" : "DIFFERENT") << bendl();

    AString xml;
    {
        OBStream out(xml, true);
        order.write_xml(out);
    }
    bcout() << "XML form (" << xml.length() << " characters):" << bendl() << xml << bendl();

    Tuple spec;
    spec.match("%(class):%(name)@%(address)", "orders:main@TCPIP:127.0.0.1:5000");
    bcout() << "a specification taken apart: " << spec << bendl();
}

struct Square : Action {
    int n;
    std::atomic<int>* sum;
    Square(int value, std::atomic<int>* total) : n(value), sum(total) {}
    void run() override { sum->fetch_add(n * n); }
};

void actions() {
    section("the thread pool");
    std::atomic<int> sum{0};
    Processor pool(4);
    for (int i = 1; i <= 100; ++i) pool.submit(AutoRef<Action>(new Square(i, &sum)));
    pool.waitIdle();
    bcout() << "sum of squares 1..100 on " << pool.get_thread_count() << " worker threads: " << sum.load() << bendl();
}

void logging() {
    section("log records and hooks");
    CatcherLogHook catcher(true);
    Log("DEMO ORDER %0 FILLED AT %1", LEVEL_INFO, "DEMO", "MAIN", __LINE__) << 7 << 99.95;
    Blob().read(Path("/nonexistent/demo.bin"));  // the library reports its own failures the same way
    ListTuple records;
    catcher.deactivate(records);
    bcout() << "caught " << records.size() << " records:" << bendl();
    for (Tuple const& r : records)
        bcout() << "  " << level_name(r.get_int("level", -1)) << " " << r.format(r.get_astring("key").c_str()) << bendl();
}

}  // namespace

int main() {
    set_program_name("tarvik_demo");
    bcout() << "tarvik demonstration, program " << get_program_name() << ", process " << get_current_process_id()
            << bendl();
    strings();
    symbols();
    buffers();
    blobs();
    tuples();
    actions();
    logging();
    bcout() << bendl() << "done." << bendl();
    return 0;
}
