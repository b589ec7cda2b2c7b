// The XML readers of tuples and of every value kind.
#include "tarvik/Tuple.h"

#include <charconv>
#include <limits>

#include "LogUnit.h"
#include "TupleXml.h"
#include "tarvik/IOBStream.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace tuple_xml {

namespace {

AString where(XmlParser const& in) {
    AString text;
    text.Format("line %u column %u", in.line(), in.column());
    return text;
}

bool missing_class(XmlParser& in) {
    TVK_LOG(LEVEL_ERR, "CLASS NAME EXPECTED %0 %1") << in.name() << where(in);
    in.fail("CLASS NAME EXPECTED");
    return false;
}

bool missing_name(XmlParser& in) {
    TVK_LOG(LEVEL_ERR, "ATT NAME EXPECTED %0 %1") << in.name() << where(in);
    in.fail("ATT NAME EXPECTED");
    return false;
}


bool bad_value(XmlParser& in, char const* what) {
    in.fail(what);
    return false;
}

template <class I>
bool integer(XmlParser& in, I& v) {
    AString text;
    if (!read_text(in, text)) return false;
    char const* end = text.c_str() + text.length();
    auto r = std::from_chars(text.c_str(), end, v);
    return (r.ec == std::errc() && r.ptr == end) || bad_value(in, "BAD NUMBER");
}

template <class F>
bool floating(XmlParser& in, F& v) {
    AString text;
    if (!read_text(in, text)) return false;
    if (text == "nan") return (v = std::numeric_limits<F>::quiet_NaN(), true);
    if (text == "inf") return (v = std::numeric_limits<F>::infinity(), true);
    if (text == "-inf") return (v = -std::numeric_limits<F>::infinity(), true);
    char const* end = text.c_str() + text.length();
    auto r = std::from_chars(text.c_str(), end, v);
    return (r.ec == std::errc() && r.ptr == end) || bad_value(in, "BAD NUMBER");
}

// A period's text: [-] one to four numbers separated by ":", right-aligned onto days, hours, minutes and
// seconds ("1:30" is 90 s), then optionally "." and one to six digits of fraction ("2.5" is 2.5 s). The
// magnitude is summed in unsigned arithmetic and refused when it does not fit, so that no text can overflow
// the period, while the most negative period still reads back.
bool parse_period(char const* p, TimePeriod& v) {
    auto digit = [](char c) { return c >= '0' && c <= '9'; };
    bool negative = *p == '-';
    if (negative) ++p;
    std::uint64_t const limit = negative ? std::uint64_t{1} << 63 : (std::uint64_t{1} << 63) - 1;
    std::uint64_t fields[4] = {};
    int given = 0;
    for (;;) {
        if (given == 4 || !digit(*p)) return false;
        std::uint64_t f = 0;
        for (; digit(*p); ++p) {
            if (f > (limit - static_cast<unsigned>(*p - '0')) / 10) return false;
            f = f * 10 + static_cast<unsigned>(*p - '0');
        }
        fields[given++] = f;
        if (*p != ':') break;
        ++p;
    }
    long micro = 0;
    if (*p == '.') {
        int digits = 0;
        for (++p; digit(*p) && digits < 6; ++p, ++digits) micro = micro * 10 + (*p - '0');
        if (digits == 0) return false;
        for (; digits < 6; ++digits) micro *= 10;
    }
    if (*p) return false;
    static constexpr std::uint64_t kUnit[4] = {86400, 3600, 60, 1};
    std::uint64_t seconds = 0;
    for (int i = 0; i < given; ++i) {
        std::uint64_t unit = kUnit[4 - given + i];
        if (fields[i] > (limit - seconds) / unit) return false;
        seconds += fields[i] * unit;
    }
    if (negative) {
        v = TimePeriod(static_cast<std::int64_t>(0 - seconds), -micro, false);
    } else {
        v = TimePeriod(static_cast<std::int64_t>(seconds), micro, false);
    }
    return true;
}

// A tuple element (<t n="...">) whose start tag was just read: its class name and attributes.
bool tuple_element(XmlParser& in, Tuple& t) {
    AString const* class_name = in.attribute("n");
    if (!class_name) return missing_class(in);
    t.clear();
    t.set_class_name(Symbol(*class_name));
    return read(in, t);
}

}  // namespace

bool wrong_markup(XmlParser& in, char const* expected, XmlParser::Event found) {
    AString what = found == XmlParser::kStart ? in.name()
                   : found == XmlParser::kEnd ? AString("/") + in.name()
                   : found == XmlParser::kText ? AString("text")
                                               : AString("end of text");
    if (found != XmlParser::kError) {
        TVK_LOG(LEVEL_ERR, "MARKUP %0 EXPECTED %1") << expected << what;
        in.fail("MARKUP EXPECTED");
    }
    return false;
}

bool root_element(XmlParser& in, char const* name) {
    XmlParser::Event e = in.next_markup();
    if (e == XmlParser::kStart && in.name() == name) return true;
    return wrong_markup(in, name, e);
}

bool read_text(XmlParser& in, AString& out) {
    out.clear();
    for (;;) {
        XmlParser::Event e = in.next();
        if (e == XmlParser::kEnd) return true;
        if (e != XmlParser::kText) return wrong_markup(in, "text", e);
        out += in.text();
    }
}

bool expected_item(XmlParser& in, XmlParser::Event found) { return wrong_markup(in, "z", found); }

bool read(XmlParser& in, bool& v) {
    AString text;
    if (!read_text(in, text)) return false;
    if (text == "true" || text == "1") return (v = true, true);
    if (text == "false" || text == "0") return (v = false, true);
    return bad_value(in, "BAD BOOLEAN");
}

bool read(XmlParser& in, int& v) { return integer(in, v); }
bool read(XmlParser& in, std::int64_t& v) { return integer(in, v); }
bool read(XmlParser& in, float& v) { return floating(in, v); }
bool read(XmlParser& in, double& v) { return floating(in, v); }
bool read(XmlParser& in, AString& v) { return read_text(in, v); }

bool read(XmlParser& in, String& v) {
    AString utf8;
    if (!read_text(in, utf8)) return false;
    DecodeFromUTF8(utf8, v);
    return true;
}

bool read(XmlParser& in, Blob& v) {
    AString text;
    if (!read_text(in, text)) return false;
    v.clear();
    if (text.find_first_not_of(" \t\r\n") == npos) return true;
    IBStream stream(text.c_str());
    if (v.read_xml(stream) <= 0) return bad_value(in, "BAD BASE64");
    stream.eatwhite();
    return stream.eof() || bad_value(in, "BAD BASE64");
}

bool read(XmlParser& in, TimePeriod& v) {
    AString text;
    if (!read_text(in, text)) return false;
    return parse_period(text.c_str(), v) || bad_value(in, "BAD TIME PERIOD");
}

bool read(XmlParser& in, TimeDate& v) {
    int micro = -1;
    if (AString const* us = in.attribute("us")) {
        auto r = std::from_chars(us->c_str(), us->c_str() + us->length(), micro);
        if (r.ec != std::errc() || micro < 0 || micro > 999999) return bad_value(in, "BAD TIME DATE");
    }
    AString text;
    if (!read_text(in, text)) return false;
    if (text.get_at(0) == '@') {  // a date beyond the calendar form: its stored period
        TimePeriod since_day_zero;
        if (micro >= 0 || !parse_period(text.c_str() + 1, since_day_zero)) return bad_value(in, "BAD TIME DATE");
        v = TimeDate(since_day_zero);
        return true;
    }
    IBStream stream(text.c_str());
    TimeDate date;
    if (date.read_xml(stream) != 1) return bad_value(in, "BAD TIME DATE");
    stream.eatwhite();
    if (!stream.eof()) return bad_value(in, "BAD TIME DATE");
    v = micro >= 0 ? with_microsecond(date, micro) : date;
    return true;
}

bool read(XmlParser& in, StringBuffer& v) {
    AString bytes;
    if (!read_text(in, bytes)) return false;
    v.clear();
    v.append(bytes.c_str(), bytes.length());
    return true;
}

bool read(XmlParser& in, Symbol& v) {
    AString name;
    if (!read_text(in, name)) return false;
    v = Symbol(name);
    return true;
}

bool read(XmlParser& in, ListTuple& v) {
    v.clear();
    for (;;) {
        XmlParser::Event e = in.next_markup();
        if (e == XmlParser::kEnd) return true;
        if (e != XmlParser::kStart || in.name() != "t") return wrong_markup(in, "t", e);
        if (!tuple_element(in, v.emplace_back())) return false;
    }
}

bool read(XmlParser& in, Tuple& t) {
    Tuple::Value* last = nullptr;
    for (;;) {
        XmlParser::Event e = in.next_markup();
        if (e == XmlParser::kEnd) return true;
        if (e != XmlParser::kStart) return wrong_markup(in, "value element", e);
        AString const* name = in.attribute("a");
        if (!name) return missing_name(in);
        Symbol symbol(*name);
        if (in.name() == "t") {
            Tuple::Value* value = t.add_value(symbol, T_TUPLE, last);
            if (!value || !tuple_element(in, *static_cast<Tuple*>(value->get_pvalue()))) return false;
            last = value;
            continue;
        }
        TypeManager const* manager = TypeManager::get(in.name().c_str());
        if (!manager) {
            AString message("UNKNOWN KIND ");
            message += in.name();
            return bad_value(in, message.c_str());
        }
        Tuple::Value* value = t.add_value(symbol, manager->get_type(), last);
        if (!value || !manager->read_xml(in, value->get_pvalue())) return false;
        last = value;
    }
}

}  // namespace tuple_xml

long Tuple::read_xml(IBStream& in) {
    XmlParser parser(in);
    if (!tuple_xml::root_element(parser, "t")) return -1;
    Tuple parsed;
    if (!tuple_xml::tuple_element(parser, parsed)) return -1;
    // The document ends with the tuple: anything but white space, comments and processing instructions
    // after it fails the parse (a second element or stray text is malformed input, not ignored).
    if (parser.next_markup() != XmlParser::kDone) return -1;
    splice(parsed);
    return get_count();
}

long Tuple::read_xml(Path const& path) {
    return tuple_xml::read_document(path, [this](IBStream& in) { return read_xml(in); });
}

}  // namespace tarvik
