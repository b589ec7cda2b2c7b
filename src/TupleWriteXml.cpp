// The XML writers of tuples and of every value kind.
#include "tarvik/Tuple.h"

#include <charconv>
#include <cmath>
#include <cstdio>

#include "LogUnit.h"
#include "TupleXml.h"
#include "tarvik/IOBStream.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace tuple_xml {

namespace {

// Writes text with the markup characters as entities. Line feeds, carriage returns, vertical tabs and form
// feeds become character references, so that a text-mode stream neither indents inside a value nor turns
// its line ends into CR LF; tabs stay; other characters below 32 are dropped, as in every XML text of the
// library.
void escaped(OBStream& out, char const* data, unsigned int n) {
    unsigned int run = 0;
    auto flush = [&](unsigned int i) {
        if (i > run) out.put(data + run, i - run);
        run = i + 1;
    };
    for (unsigned int i = 0; i < n; ++i) {
        auto c = static_cast<unsigned char>(data[i]);
        char const* entity = nullptr;
        switch (c) {
            case '&': entity = "&amp;"; break;
            case '<': entity = "&lt;"; break;
            case '>': entity = "&gt;"; break;
            case '\'': entity = "&apos;"; break;
            case '"': entity = "&quot;"; break;
            case '\n': entity = "&#10;"; break;
            case '\r': entity = "&#13;"; break;
            case '\v': entity = "&#11;"; break;
            case '\f': entity = "&#12;"; break;
            default:
                if (c >= 32 || c == '\t') continue;
                flush(i);  // dropped
                continue;
        }
        flush(i);
        out.put(entity);
    }
    flush(n);
}

void escaped(OBStream& out, AString const& text) { escaped(out, text.c_str(), text.length()); }

template <class F>
void floating(OBStream& out, F v) {
    if (std::isnan(v)) {
        out.put("nan");
    } else if (std::isinf(v)) {
        out.put(v < 0 ? "-inf" : "inf");
    } else {
        char text[64];
        auto r = std::to_chars(text, text + sizeof text, v);
        out.put(text, static_cast<unsigned int>(r.ptr - text));
    }
}

template <class I>
void integer(OBStream& out, I v) {
    char text[24];
    auto r = std::to_chars(text, text + sizeof text, v);
    out.put(text, static_cast<unsigned int>(r.ptr - text));
}

void start_value(OBStream& out, char const* code, AString const& name) {
    out.put('<');
    out.put(code);
    out.put(" a=\"");
    escaped(out, name);
    out.put('"');
}

void write_tuple_element(OBStream& out, Tuple const& t, AString const* name) {
    out.put("<t");
    if (name) {
        out.put(" a=\"");
        escaped(out, *name);
        out.put('"');
    }
    out.put(" n=\"");
    escaped(out, t.get_class_name().get_name());
    out.put("\">");
    if (t.is_empty()) {
        out.put("</t>");
        return;
    }
    out.indent(1);
    write(out, t);
    out.unindent(1);
    out.put("\n</t>");
}

}  // namespace

void write(OBStream& out, bool v) { out.put(v ? "true" : "false"); }
void write(OBStream& out, int v) { integer(out, v); }
void write(OBStream& out, std::int64_t v) { integer(out, v); }
void write(OBStream& out, float v) { floating(out, v); }
void write(OBStream& out, double v) { floating(out, v); }
void write(OBStream& out, AString const& v) { escaped(out, v); }

void write(OBStream& out, String const& v) {
    AString utf8;
    EncodeToUTF8(v, utf8);
    escaped(out, utf8);
}

void write(OBStream& out, Blob const& v) {
    // Base64 with a line feed after every 76 characters; the line feeds are character references like those
    // of any text, so that a text-mode stream does not indent inside the value.
    AString text;
    escaped(out, v.to_string(text));
}

void write(OBStream& out, TimePeriod const& v) {
    // The period's full-precision text (D:HH:MM:SS.uuuuuu from one day up, HH:MM:SS.uuuuuu from one hour,
    // MM:SS.uuuuuu from one minute, else S.uuuuuu), which has no sign: a negative period is "-" and its
    // opposite. The opposite is taken in unsigned arithmetic, since that of the most negative period does not
    // fit the period's own fields.
    bool negative = v < TimePeriod();
    auto s = static_cast<std::uint64_t>(v.get_seconds());
    if (negative) s = 0 - s;
    std::int32_t micro = v.get_microseconds();
    auto us = static_cast<unsigned long>(micro < 0 ? -static_cast<long>(micro) : micro);
    auto days = static_cast<unsigned long long>(s / 86400);
    auto h = static_cast<unsigned long>(s / 3600 % 24), m = static_cast<unsigned long>(s / 60 % 60);
    auto sec = static_cast<unsigned long>(s % 60);
    char const* sign = negative ? "-" : "";
    char text[64];
    int n;
    if (days > 0)
        n = std::snprintf(text, sizeof text, "%s%llu:%02lu:%02lu:%02lu.%06lu", sign, days, h, m, sec, us);
    else if (h > 0)
        n = std::snprintf(text, sizeof text, "%s%02lu:%02lu:%02lu.%06lu", sign, h, m, sec, us);
    else if (m > 0)
        n = std::snprintf(text, sizeof text, "%s%02lu:%02lu.%06lu", sign, m, sec, us);
    else
        n = std::snprintf(text, sizeof text, "%s%lu.%06lu", sign, sec, us);
    out.put(text, static_cast<unsigned int>(n));
}

TimeDate with_microsecond(TimeDate const& date, int micro) {
    return date - TimePeriod(0, date.get_microsecond(), false) + TimePeriod(0, micro, false);
}

namespace {

// The calendar text of a date, or false when that text (with the attribute "us") does not read back into
// exactly this date.
bool calendar_text(TimeDate const& v, AString& text) {
    {
        OBStream stream(text);
        v.write_xml(stream);
    }
    IBStream in(text.c_str());
    TimeDate back;
    return back.read_xml(in) == 1 && in.eof() && with_microsecond(back, v.get_microsecond()) == v;
}

}  // namespace

void write(OBStream& out, TimeDate const& v) {
    AString text;
    if (calendar_text(v, text)) {
        out.put(text.c_str(), text.length());
        return;
    }
    out.put('@');
    write(out, v.get_period());
}

void date_attributes(OBStream& out, TimeDate const& v) {
    int micro = v.get_microsecond();
    if (micro % 1000 == 0) return;
    AString text;
    if (!calendar_text(v, text)) return;
    out.put(" us=\"");
    integer(out, micro);
    out.put('"');
}

void write(OBStream& out, StringBuffer const& v) {
    AString bytes;
    v.c_str(bytes);
    escaped(out, bytes);
}

void write(OBStream& out, Symbol const& v) { escaped(out, v.get_name()); }

void write(OBStream& out, Tuple const& t) {
    for (Tuple::Value const* v = t.first(); v; v = v->get_next()) {
        TypeManager const* manager = TypeManager::find(v->get_type());
        if (!manager) continue;
        AString const& name = v->get_symbol().get_name();
        out.put('\n');
        if (v->get_type() == T_TUPLE) {
            write_tuple_element(out, *static_cast<Tuple const*>(v->get_pvalue()), &name);
            continue;
        }
        start_value(out, manager->get_code(), name);
        if (v->get_type() == T_TIME_DATE) date_attributes(out, *static_cast<TimeDate const*>(v->get_pvalue()));
        out.put('>');
        manager->write_xml(out, v->get_pvalue());
        out.put("</");
        out.put(manager->get_code());
        out.put('>');
    }
}

void write(OBStream& out, ListTuple const& v) {
    out.indent(1);
    for (Tuple const& t : v) {
        out.put('\n');
        write_tuple_element(out, t, nullptr);
    }
    out.unindent(1);
    if (!v.is_empty()) out.put('\n');
}

}  // namespace tuple_xml

long Tuple::write_xml(OBStream& out) const {
    tuple_xml::write_tuple_element(out, *this, nullptr);
    return get_count();
}

long Tuple::write_xml(Path const& path) const {
    return tuple_xml::write_document(path, [this](OBStream& out) { return write_xml(out); });
}

}  // namespace tarvik
