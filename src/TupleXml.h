// TupleXml.h: the XML form of tuples and of every value kind (see Tuple.h for the vocabulary).
//
// Writers write an element's content (the caller writes the element itself); readers read the content of
// the element whose start tag the parser just gave, up to and including its end tag, and fail the parser
// (through XmlParser::fail) on malformed content.
#pragma once

#include <cstdint>
#include <type_traits>

#include "tarvik/AString.h"
#include "tarvik/Array.h"
#include "tarvik/List.h"
#include "tarvik/Parser.h"
#include "tarvik/Time.h"
#include "tarvik/IOBStream.h"
#include "tarvik/Path.h"
#include "tarvik/TypeManager.h"
#include "tarvik/Types.h"

namespace tarvik::tuple_xml {

// Values whose content is text.
void write(OBStream& out, bool v);
void write(OBStream& out, int v);
void write(OBStream& out, std::int64_t v);
void write(OBStream& out, float v);
void write(OBStream& out, double v);
void write(OBStream& out, AString const& v);
void write(OBStream& out, String const& v);
void write(OBStream& out, Blob const& v);
void write(OBStream& out, TimePeriod const& v);
void write(OBStream& out, TimeDate const& v);
void write(OBStream& out, StringBuffer const& v);
void write(OBStream& out, Symbol const& v);
void write(OBStream& out, Tuple const& v);  // the tuple's attributes, one element each

bool read(XmlParser& in, bool& v);
bool read(XmlParser& in, int& v);
bool read(XmlParser& in, std::int64_t& v);
bool read(XmlParser& in, float& v);
bool read(XmlParser& in, double& v);
bool read(XmlParser& in, AString& v);
bool read(XmlParser& in, String& v);
bool read(XmlParser& in, Blob& v);
bool read(XmlParser& in, TimePeriod& v);
bool read(XmlParser& in, TimeDate& v);
bool read(XmlParser& in, StringBuffer& v);
bool read(XmlParser& in, Symbol& v);
bool read(XmlParser& in, Tuple& v);  // attributes up to the end tag

// A date is written in the calendar form "Y:MM:DDTHH:MM:SS.mmm"; one with microseconds that milliseconds
// cannot hold carries them in the attribute "us" as well. Writers of an element's start tag call
// date_attributes to add it. A date that the calendar form cannot hold (years far beyond its range) is
// written instead as "@" and its stored period since the start of Julian day 0, in the period's text, and
// has no attribute.
void date_attributes(OBStream& out, TimeDate const& v);
// The date with its microsecond of the second replaced (what the attribute "us" carries).
TimeDate with_microsecond(TimeDate const& date, int micro);

// The text of an element up to its end tag ("" for an empty element).
bool read_text(XmlParser& in, AString& out);

template <class T, class A>
void write(OBStream& out, Array<T, A> const& v);
template <class T, class A>
void write(OBStream& out, List<T, A> const& v);
template <class T, class A>
bool read(XmlParser& in, Array<T, A>& v);
template <class T, class A>
bool read(XmlParser& in, List<T, A>& v);
void write(OBStream& out, ListTuple const& v);
bool read(XmlParser& in, ListTuple& v);

// Whether an item writes no content (then it is the empty element <z/>).
template <class T>
bool empty_item(T const& v) {
    if constexpr (requires { v.is_empty(); }) {
        return v.is_empty();
    } else if constexpr (requires { v.get_size(); }) {
        return v.get_size() == 0;
    } else if constexpr (requires { v.get_name(); }) {
        return v.get_name().is_empty();
    } else {
        return false;
    }
}

// Items: <z>item</z>, an empty item as <z/>.
template <class C>
void write_items(OBStream& out, C const& items) {
    for (auto const& item : items) {
        if (empty_item(item)) {
            out.put("<z/>");
            continue;
        }
        if constexpr (std::is_same_v<std::decay_t<decltype(item)>, TimeDate>) {
            out.put("<z");
            date_attributes(out, item);
            out.put(">");
        } else {
            out.put("<z>");
        }
        write(out, item);
        out.put("</z>");
    }
}

// Fails the parser: an item was expected and something else found.
bool expected_item(XmlParser& in, XmlParser::Event found);
// Fails the parser with "MARKUP EXPECTED" (and logs what was found instead), unless it failed already.
bool wrong_markup(XmlParser& in, char const* expected, XmlParser::Event found);
// Reads the document's first markup, which must be the start tag `name`; otherwise fails the parser.
bool root_element(XmlParser& in, char const* name);

// A whole document file: the XML declaration, the root element `write_root` writes, a final line end.
// Returns what write_root returns, or kCannotOpenFile when the file cannot be created.
template <class WriteRoot>
long write_document(Path const& path, WriteRoot write_root) {
    OBStream out(path, false, true);
    if (!out.is_open()) return kCannotOpenFile;
    out.put("<?xml version=\"1.0\" encoding=\"utf-8\" standalone=\"yes\"?>\n");
    long n = write_root(out);
    out.put('\n');
    return n;
}

// Reads a document file through `read_root`; kCannotOpenFile when the file cannot be opened.
template <class ReadRoot>
long read_document(Path const& path, ReadRoot read_root) {
    IBStream in(path, true);
    if (!in.is_open()) return kCannotOpenFile;
    return read_root(in);
}

// Reads <z> items up to the end tag, each into a fresh element made by `add`.
template <class Add>
bool read_items(XmlParser& in, Add add) {
    for (;;) {
        XmlParser::Event e = in.next_markup();
        if (e == XmlParser::kEnd) return true;
        if (e != XmlParser::kStart || in.name() != "z") return expected_item(in, e);
        if (!read(in, add())) return false;
    }
}

template <class T, class A>
void write(OBStream& out, Array<T, A> const& v) {
    write_items(out, v);
}
template <class T, class A>
void write(OBStream& out, List<T, A> const& v) {
    write_items(out, v);
}
template <class T, class A>
bool read(XmlParser& in, Array<T, A>& v) {
    v.clear();
    return read_items(in, [&v]() -> T& { return v.emplace_back(); });
}
template <class T, class A>
bool read(XmlParser& in, List<T, A>& v) {
    v.clear();
    return read_items(in, [&v]() -> T& { return v.emplace_back(); });
}

}  // namespace tarvik::tuple_xml
