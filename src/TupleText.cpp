#include "TupleText.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include "LogUnit.h"
#include "tarvik/Blob.h"
#include "tarvik/IOBStream.h"
#include "tarvik/String.h"
#include "tarvik/StringBuffer.h"
#include "tarvik/Symbol.h"
#include "tarvik/Time.h"
#include "tarvik/Tuple.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

bool is_space(int c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

bool is_bare_char(int c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '.' ||
           c == '$' || c == '-';
}

bool is_token_char(int c) { return is_bare_char(c) || c == '+' || c == ':' || c == '@'; }

int hex_value(int c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

constexpr char kHex[] = "0123456789ABCDEF";

}  // namespace

// --- reader -------------------------------------------------------------------------------------------

void TupleTextReader::skip_space() {
    while (at_ < end_ && is_space(static_cast<unsigned char>(*at_))) ++at_;
}

int TupleTextReader::peek() {
    skip_space();
    return at_ < end_ ? static_cast<unsigned char>(*at_) : -1;
}

bool TupleTextReader::at_end() { return peek() < 0; }

bool TupleTextReader::accept(char c) {
    if (failed() || peek() != static_cast<unsigned char>(c)) return false;
    ++at_;
    return true;
}

bool TupleTextReader::expect(char c) {
    if (accept(c)) return true;
    return fail(c == '{' ? "EXPECTED '{'" : c == '}' ? "EXPECTED '}'" : c == '[' ? "EXPECTED '['"
                : c == ']' ? "EXPECTED ']'" : c == ':' ? "EXPECTED ':'" : c == '=' ? "EXPECTED '='"
                : c == ',' ? "EXPECTED ','" : c == '"' ? "EXPECTED '\"'" : c == '<' ? "EXPECTED '<'"
                : "EXPECTED '>'");
}

bool TupleTextReader::fail(char const* message) {
    if (!error_) {
        error_ = message;
        error_pos_ = static_cast<unsigned int>(at_ - begin_);
    }
    return false;
}

bool TupleTextReader::enter() {
    if (++depth_ > kMaxDepth) {
        --depth_;
        return fail("NESTING TOO DEEP");
    }
    return true;
}

bool TupleTextReader::read_name(AString& out) {
    int c = peek();
    if (c == '"') return read_quoted(out);
    char const* start = at_;
    while (at_ < end_ && is_bare_char(static_cast<unsigned char>(*at_))) ++at_;
    if (at_ == start) return fail("NAME EXPECTED");
    out.assign(start, static_cast<unsigned int>(at_ - start));
    return true;
}

bool TupleTextReader::read_token(AString& out) {
    skip_space();
    char const* start = at_;
    while (at_ < end_ && is_token_char(static_cast<unsigned char>(*at_))) ++at_;
    if (at_ == start) return fail("VALUE EXPECTED");
    out.assign(start, static_cast<unsigned int>(at_ - start));
    return true;
}

bool TupleTextReader::read_until(char close, AString& out) {
    char const* start = at_;
    while (at_ < end_ && *at_ != close) ++at_;
    if (at_ == end_) return fail("UNTERMINATED VALUE");
    out.assign(start, static_cast<unsigned int>(at_ - start));
    return true;
}

namespace {

// One escape after a backslash: the unit value, or -1. `at` points after the backslash.
long read_escape(char const*& at, char const* end, bool units) {
    if (at >= end) return -1;
    char c = *at++;
    switch (c) {
        case '"': return '"';
        case '\\': return '\\';
        case 'n': return '\n';
        case 'r': return '\r';
        case 't': return '\t';
        case 'x':
        case 'u': {
            int digits = c == 'x' ? 2 : 4;
            if ((c == 'u') != units || end - at < digits) return -1;
            long v = 0;
            for (int i = 0; i < digits; ++i) {
                int h = hex_value(static_cast<unsigned char>(*at++));
                if (h < 0) return -1;
                v = v * 16 + h;
            }
            return v;
        }
        default: return -1;
    }
}

}  // namespace

bool TupleTextReader::read_quoted(AString& out) {
    if (!expect('"')) return false;
    AString text;
    while (at_ < end_ && *at_ != '"') {
        if (*at_ != '\\') {
            char const* run = at_;
            while (at_ < end_ && *at_ != '"' && *at_ != '\\') ++at_;
            text.append(run, static_cast<unsigned int>(at_ - run));
            continue;
        }
        ++at_;
        long v = read_escape(at_, end_, false);
        if (v < 0) return fail("BAD ESCAPE");
        text.append(1, static_cast<char>(v));
    }
    if (at_ == end_) return fail("UNTERMINATED STRING");
    ++at_;
    out.splice(text);
    return true;
}

bool TupleTextReader::read_quoted_units(String& out) {
    if (!expect('"')) return false;
    String text;
    while (at_ < end_ && *at_ != '"') {
        long v;
        if (*at_ == '\\') {
            ++at_;
            v = read_escape(at_, end_, true);
            if (v < 0) return fail("BAD ESCAPE");
        } else {
            v = static_cast<unsigned char>(*at_++);
        }
        text.append(1, static_cast<WChar>(v));
    }
    if (at_ == end_) return fail("UNTERMINATED STRING");
    ++at_;
    out.splice(text);
    return true;
}

namespace tuple_text {

// --- writers --------------------------------------------------------------------------------------------

bool is_bare_name(AString const& name) {
    if (name.is_empty()) return false;
    for (unsigned int i = 0; i < name.length(); ++i)
        if (!is_bare_char(static_cast<unsigned char>(name.c_str()[i]))) return false;
    return true;
}

void write_quoted(AString& out, char const* data, unsigned int n) {
    out += '"';
    for (unsigned int i = 0; i < n; ++i) {
        auto c = static_cast<unsigned char>(data[i]);
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 32 || c == 127) {
                    char esc[4] = {'\\', 'x', kHex[c >> 4], kHex[c & 15]};
                    out.append(esc, 4);
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    out += '"';
}

void write_name(AString& out, AString const& name) {
    if (is_bare_name(name)) {
        out += name;
    } else {
        write_quoted(out, name.c_str(), name.length());
    }
}

void write(AString& out, bool v) { out += v ? "true" : "false"; }

void write(AString& out, int v) {
    char text[16];
    auto r = std::to_chars(text, text + sizeof text, v);
    out.append(text, static_cast<unsigned int>(r.ptr - text));
}

void write(AString& out, std::int64_t v) {
    char text[24];
    auto r = std::to_chars(text, text + sizeof text, v);
    out.append(text, static_cast<unsigned int>(r.ptr - text));
}

namespace {

template <class F>
void write_floating(AString& out, F v) {
    if (std::isnan(v)) {
        out += "nan";
    } else if (std::isinf(v)) {
        out += v < 0 ? "-inf" : "inf";
    } else {
        char text[64];
        auto r = std::to_chars(text, text + sizeof text, v);  // the shortest text that reads back exactly
        out.append(text, static_cast<unsigned int>(r.ptr - text));
    }
}

template <class F>
bool read_floating(TupleTextReader& in, F& v) {
    AString token;
    if (!in.read_token(token)) return false;
    if (token == "nan") {
        v = std::numeric_limits<F>::quiet_NaN();
    } else if (token == "inf") {
        v = std::numeric_limits<F>::infinity();
    } else if (token == "-inf") {
        v = -std::numeric_limits<F>::infinity();
    } else {
        char const* end = token.c_str() + token.length();
        auto r = std::from_chars(token.c_str(), end, v);
        if (r.ec != std::errc() || r.ptr != end) return in.fail("BAD NUMBER");
    }
    return true;
}

template <class I>
bool read_integer(TupleTextReader& in, I& v) {
    AString token;
    if (!in.read_token(token)) return false;
    char const* end = token.c_str() + token.length();
    auto r = std::from_chars(token.c_str(), end, v);
    if (r.ec != std::errc() || r.ptr != end) return in.fail("BAD NUMBER");
    return true;
}

}  // namespace

void write(AString& out, float v) { write_floating(out, v); }
void write(AString& out, double v) { write_floating(out, v); }

void write(AString& out, AString const& v) { write_quoted(out, v.c_str(), v.length()); }

void write(AString& out, String const& v) {
    out += '"';
    for (unsigned int i = 0; i < v.length(); ++i) {
        unsigned int u = static_cast<unsigned int>(v.c_str()[i]) & 0xFFFFu;
        if (u >= 32 && u < 127 && u != '"' && u != '\\') {
            out += static_cast<char>(u);
        } else {
            char esc[6] = {'\\', 'u', kHex[u >> 12], kHex[(u >> 8) & 15], kHex[(u >> 4) & 15], kHex[u & 15]};
            out.append(esc, 6);
        }
    }
    out += '"';
}

void write(AString& out, Blob const& v) {
    // The base64 of the XML form, without its line feeds: a tuple's text is one line.
    AString base64;
    {
        OBStream stream(base64);
        v.write_xml(stream);
    }
    out += '<';
    char const* text = base64.c_str();
    unsigned int start = 0;
    for (unsigned int i = 0; i <= base64.length(); ++i) {
        if (i < base64.length() && text[i] != '\n') continue;
        out.append(text + start, i - start);
        start = i + 1;
    }
    out += '>';
}

void write(AString& out, TimePeriod const& v) {
    std::int64_t s = v.get_seconds();
    std::int32_t u = v.get_microseconds();
    bool negative = s < 0 || u < 0;
    // The magnitude as unsigned, so that the most negative second count is written too.
    auto magnitude = static_cast<unsigned long long>(s);
    if (negative) magnitude = 0 - magnitude;
    AString text;
    text.Format("%s%llu.%06d", negative ? "-" : "", magnitude, static_cast<int>(u < 0 ? -u : u));
    out += text;
}

namespace {

bool parse_period(char const* p, TimePeriod& v) {
    bool negative = *p == '-';
    if (negative) ++p;
    char const* dot = std::strchr(p, '.');
    if (!dot || std::strlen(dot + 1) != 6) return false;
    unsigned long long s = 0;
    auto r1 = std::from_chars(p, dot, s);
    int u = 0;
    auto r2 = std::from_chars(dot + 1, dot + 7, u);
    if (r1.ec != std::errc() || r1.ptr != dot || r2.ec != std::errc() || r2.ptr != dot + 7) return false;
    if (s > (negative ? 0x8000000000000000ull : 0x7FFFFFFFFFFFFFFFull)) return false;
    auto seconds = static_cast<std::int64_t>(negative ? 0 - s : s);
    v = TimePeriod(seconds, negative ? -u : u, false);
    return true;
}

// "Y-MM-DDTHH:MM:SS.uuuuuu" (Y may carry a "-").
bool parse_calendar(char const* p, TimeDate& v) {
    int f[7] = {};
    bool negative = *p == '-';
    if (negative) ++p;
    static char const separators[] = "--T::.";
    for (int i = 0; i < 7; ++i) {
        if (i > 0 && *p++ != separators[i - 1]) return false;
        char const* start = p;
        while (*p >= '0' && *p <= '9') ++p;
        if (p == start || p - start > 9 || (i == 6 && p - start != 6)) return false;  // six fraction digits
        std::from_chars(start, p, f[i]);
    }
    if (*p) return false;
    v = TimeDate(negative ? -f[0] : f[0], f[1], f[2], f[3], f[4], f[5], f[6], false);
    return true;
}

}  // namespace

void write(AString& out, TimeDate const& v) {
    AString text = v.to_string("%Y-%m-%dT%H:%M:%S.%q");
    TimeDate back;
    if (parse_calendar(text.c_str(), back) && back == v) {
        out += text;
        return;
    }
    out += '@';
    write(out, v - TimeDate::epoch());
}

void write(AString& out, Tuple const& v) { v.to_string(out); }

void write(AString& out, StringBuffer const& v) {
    AString bytes;
    v.c_str(bytes);
    write_quoted(out, bytes.c_str(), bytes.length());
}

void write(AString& out, Symbol const& v) { write_name(out, v.get_name()); }

// --- readers --------------------------------------------------------------------------------------------

bool read(TupleTextReader& in, bool& v) {
    AString token;
    if (!in.read_token(token)) return false;
    if (token == "true") {
        v = true;
    } else if (token == "false") {
        v = false;
    } else {
        return in.fail("BAD BOOLEAN");
    }
    return true;
}

bool read(TupleTextReader& in, int& v) { return read_integer(in, v); }
bool read(TupleTextReader& in, std::int64_t& v) { return read_integer(in, v); }
bool read(TupleTextReader& in, float& v) { return read_floating(in, v); }
bool read(TupleTextReader& in, double& v) { return read_floating(in, v); }
bool read(TupleTextReader& in, AString& v) { return in.read_quoted(v); }
bool read(TupleTextReader& in, String& v) { return in.read_quoted_units(v); }

bool read(TupleTextReader& in, Blob& v) {
    AString text;
    if (!in.expect('<') || !in.read_until('>', text) || !in.expect('>')) return false;
    v.clear();
    if (text.find_first_not_of(" \t\r\n") == npos) return true;  // an empty blob writes nothing
    IBStream stream(text.c_str());
    if (v.read_xml(stream) <= 0 || !stream.eof()) return in.fail("BAD BASE64");
    return true;
}

bool read(TupleTextReader& in, TimePeriod& v) {
    AString token;
    if (!in.read_token(token)) return false;
    return parse_period(token.c_str(), v) || in.fail("BAD TIME PERIOD");
}

bool read(TupleTextReader& in, TimeDate& v) {
    AString token;
    if (!in.read_token(token)) return false;
    if (token[0] == '@') {
        TimePeriod since;
        if (!parse_period(token.c_str() + 1, since)) return in.fail("BAD TIME DATE");
        v = TimeDate::epoch() + since;
        return true;
    }
    return parse_calendar(token.c_str(), v) || in.fail("BAD TIME DATE");
}

bool read(TupleTextReader& in, Tuple& v) {
    Tuple t;
    if (!read_tuple(in, t)) return false;
    v.splice(t);
    return true;
}

bool read(TupleTextReader& in, StringBuffer& v) {
    AString bytes;
    if (!in.read_quoted(bytes)) return false;
    v.clear();
    v.append(bytes.c_str(), bytes.length());
    return true;
}

bool read(TupleTextReader& in, Symbol& v) {
    AString name;
    if (!in.read_name(name)) return false;
    v = Symbol(name);
    return true;
}

bool read_tuple(TupleTextReader& in, Tuple& t) {
    if (!in.enter()) return false;
    bool ok = true;
    AString class_name;
    if (in.peek() != '{') ok = in.read_name(class_name);
    ok = ok && in.expect('{');
    if (ok) t.set_class_name(Symbol(class_name));
    Tuple::Value* last = nullptr;
    if (ok && !in.accept('}')) {
        do {
            AString name;
            AString code;
            if (!in.read_name(name) || !in.expect(':') || !in.read_name(code) || !in.expect('=')) {
                ok = false;
                break;
            }
            TypeManager const* manager = TypeManager::get(code.c_str());
            if (!manager) {
                ok = in.fail("UNKNOWN KIND CODE");
                break;
            }
            Symbol symbol(name);
            if (symbol.get_num() > Tuple::Value::kMaxSymbolNum) {
                ok = in.fail("NAME NUMBER TOO LARGE");
                break;
            }
            Tuple::Value* value = t.add_value(symbol, manager->get_type(), last);
            last = value;
            if (!value || !manager->read_text(in, value->get_pvalue())) {
                ok = false;
                break;
            }
        } while (in.accept(','));
        ok = ok && in.expect('}');
    }
    in.leave();
    return ok;
}

}  // namespace tuple_text

}  // namespace tarvik
