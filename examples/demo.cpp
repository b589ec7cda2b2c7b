// demo.cpp: the library's values at work.
//
// Builds and searches strings, interns names as symbols, collects output in a paged StringBuffer, wraps
// bytes in blobs and writes them as base64 and to files, and reports a failure through a log record.
// Every step prints what it did.
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

}  // namespace

int main() {
    set_program_name("tarvik_demo");
    bcout() << "tarvik demonstration, program " << get_program_name() << ", process " << get_current_process_id()
            << bendl();
    strings();
    symbols();
    buffers();
    blobs();
    bcout() << bendl() << "done." << bendl();
    return 0;
}
