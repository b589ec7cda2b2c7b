// Formatter.cpp: OBStreamFormat, the "%0" message formatter of IOBStream.h.
//
// Each argument is kept with its kind as it is added; the format text is expanded once, when the formatter
// goes out of scope (or through format_to), so that a placeholder may name its argument in any order.
#include "tarvik/IOBStream.h"

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "tarvik/String.h"
#include "tarvik/StringBuffer.h"
#include "tarvik/Time.h"

namespace tarvik {

OBStreamFormat::OBStreamFormat(OBStream* out, char const* format_text) : out_(out), format_(format_text) {}

OBStreamFormat::~OBStreamFormat() {
    if (!out_ || !format_) return;
    AString text;
    format_to(text, format_, args_);
    out_->put(text.c_str(), text.length());
}

OBStreamFormatArg& OBStreamFormat::next_(int type) const {
    OBStreamFormatArg& arg = args_.emplace_back();
    arg.position = args_.size() - 1;
    arg.type = type;
    return arg;
}

OBStreamFormat const& OBStreamFormat::add(bool value) const {
    next_(OBStreamFormatArg::T_BOOL).number = value ? 1 : 0;
    return *this;
}
OBStreamFormat const& OBStreamFormat::add(int value) const {
    next_(OBStreamFormatArg::T_INT).number = value;
    return *this;
}
OBStreamFormat const& OBStreamFormat::add(unsigned int value) const {
    next_(OBStreamFormatArg::T_UINT).number = value;
    return *this;
}
OBStreamFormat const& OBStreamFormat::add(long long value) const {
    next_(OBStreamFormatArg::T_INT64).number = value;
    return *this;
}
OBStreamFormat const& OBStreamFormat::add(char value) const {
    next_(OBStreamFormatArg::T_CHAR).number = static_cast<unsigned char>(value);
    return *this;
}
OBStreamFormat const& OBStreamFormat::add(wchar_t value) const {
    // NOLINTNEXTLINE(bugprone-signed-char-misuse): a wide character, whose value widening keeps
    next_(OBStreamFormatArg::T_WCHAR).number = static_cast<std::int64_t>(value);
    return *this;
}
OBStreamFormat const& OBStreamFormat::add(char const* text) const {
    next_(OBStreamFormatArg::T_TEXT).text = text;
    return *this;
}
OBStreamFormat const& OBStreamFormat::add(wchar_t const* text) const {
    AString utf8;
    EncodeToUTF8(text, utf8);
    next_(OBStreamFormatArg::T_WTEXT).text.splice(utf8);
    return *this;
}
OBStreamFormat const& OBStreamFormat::add(void const* pointer) const {
    next_(OBStreamFormatArg::T_POINTER).number = static_cast<std::int64_t>(reinterpret_cast<std::uintptr_t>(pointer));
    return *this;
}
OBStreamFormat const& OBStreamFormat::add(StringBuffer const& buffer) const {
    buffer.c_str(next_(OBStreamFormatArg::T_STRINGBUFFER).text);
    return *this;
}
OBStreamFormat const& OBStreamFormat::add(TimeDate const& date) const {
    AString text;
    OBStream out(text);
    out << date;
    out.close();
    return add_rendered(OBStreamFormatArg::T_TIME_DATE, text);
}
OBStreamFormat const& OBStreamFormat::add(TimePeriod const& period) const {
    AString text;
    OBStream out(text);
    out << period;
    out.close();
    return add_rendered(OBStreamFormatArg::T_TIME_PERIOD, text);
}
OBStreamFormat const& OBStreamFormat::add_rendered(int type, AString const& text) const {
    next_(type).text = text;
    return *this;
}
void OBStreamFormat::clear() const { args_.clear(); }

namespace {

// A printf spec from "%[...]" is taken only when it holds flags, then a width and a precision of at most
// three digits each; anything else (a length modifier, '*', a conversion, a huge width) is ignored, so that
// a format text can neither reach beyond its argument nor make one placeholder print megabytes.
bool spec_is_safe(AString const& spec) {
    char const* p = spec.c_str();
    while (*p && std::strchr("-+ #0", *p)) ++p;
    for (int part = 0; part < 2; ++part) {
        int digits = 0;
        while (std::isdigit(static_cast<unsigned char>(*p))) {
            ++p;
            ++digits;
        }
        if (digits > 3) return false;
        if (part == 0 && *p == '.') ++p;
    }
    return *p == '\0';
}

void render_arg(AString& out, OBStreamFormatArg const& arg, AString const& spec) {
    AString format("%");
    if (spec_is_safe(spec)) format += spec;
    char text[1024];  // room for the widest spec allowed (three digits)
    int n = -1;
    switch (arg.type) {
        case OBStreamFormatArg::T_BOOL: out += arg.number ? "true" : "false"; return;
        case OBStreamFormatArg::T_INT:
        case OBStreamFormatArg::T_UINT:
            format += "d";
            n = std::snprintf(text, sizeof text, format.c_str(), static_cast<int>(arg.number));
            break;
        case OBStreamFormatArg::T_INT64:
            format += "lld";
            n = std::snprintf(text, sizeof text, format.c_str(), static_cast<long long>(arg.number));
            break;
        case OBStreamFormatArg::T_POINTER:
            format += "lx";
            n = std::snprintf(text, sizeof text, format.c_str(), static_cast<unsigned long>(arg.number));
            break;
        case OBStreamFormatArg::T_CHAR:
        case OBStreamFormatArg::T_WCHAR: out.append(1, static_cast<char>(arg.number & 0xFF)); return;
        case OBStreamFormatArg::T_TEXT:
        case OBStreamFormatArg::T_WTEXT:
        case OBStreamFormatArg::T_STRINGBUFFER:
        case OBStreamFormatArg::T_TIME_PERIOD:
        case OBStreamFormatArg::T_TIME_DATE: out += arg.text; return;
        default: n = std::snprintf(text, sizeof text, "$$$%lx$$$", static_cast<unsigned long>(arg.number)); break;
    }
    if (n > 0) out.append(text, static_cast<unsigned int>(n < static_cast<int>(sizeof text) ? n : sizeof text - 1));
}

}  // namespace

void OBStreamFormat::format_to(AString& out, char const* format_text, Array<OBStreamFormatArg> const& args) {
    out.clear();
    if (!format_text) return;
    Array<OBStreamFormatArg> used(args);
    auto find = [&used](unsigned long long position) -> OBStreamFormatArg* {
        for (OBStreamFormatArg& a : used)
            if (a.position == position) return &a;
        return nullptr;
    };
    char const* p = format_text;
    while (*p) {
        if (*p != '%') {
            char const* run = p;
            while (*p && *p != '%') ++p;
            out.append(run, static_cast<unsigned int>(p - run));
            continue;
        }
        char const* start = p++;  // at '%'
        AString spec;
        if (*p == '[') {
            char const* close = std::strchr(p, ']');
            if (close) {
                spec.assign(p + 1, static_cast<unsigned int>(close - p - 1));
                p = close + 1;
            }
        }
        unsigned long long position = 0;
        if (*p == '{') {
            char const* q = p + 1;
            while (std::isdigit(static_cast<unsigned char>(*q)) && position < 0xFFFFFFFFull)
                position = position * 10 + static_cast<unsigned>(*q++ - '0');
            while (std::isdigit(static_cast<unsigned char>(*q))) ++q;
            if (*q != '}' || q == p + 1) {  // "%{12" without its brace: written as it stands
                out.append("%{");
                out.append(p + 1, static_cast<unsigned int>(q - p - 1));
                p = q;
                continue;
            }
            AString digits(p + 1, static_cast<unsigned int>(q - p - 1));
            p = q + 1;
            if (OBStreamFormatArg* arg = find(position)) {
                render_arg(out, *arg, spec);
                arg->used = true;
            } else {
                out.append("%{").append(digits).append("}");
            }
            continue;
        }
        if (std::isdigit(static_cast<unsigned char>(*p))) {
            position = static_cast<unsigned>(*p - '0');
            ++p;
            if (OBStreamFormatArg* arg = find(position)) {
                render_arg(out, *arg, spec);
                arg->used = true;
            } else {
                out.append(1, '%').append(1, static_cast<char>('0' + position));
            }
            continue;
        }
        // Neither a digit nor "{": the "%" (and a spec that came with it) stands as it is.
        out.append(start, static_cast<unsigned int>(p - start));
        if (*p) out.append(1, *p++);
    }
    for (OBStreamFormatArg const& arg : used)
        if (!arg.used) render_arg(out, arg, AString());
}

OBStreamFormat const& operator<<(OBStreamFormat const& f, char const* text) { return f.add(text); }
OBStreamFormat const& operator<<(OBStreamFormat const& f, char c) { return f.add(c); }
OBStreamFormat const& operator<<(OBStreamFormat const& f, int value) { return f.add(value); }
OBStreamFormat const& operator<<(OBStreamFormat const& f, unsigned int value) { return f.add(value); }
OBStreamFormat const& operator<<(OBStreamFormat const& f, long value) {
    if constexpr (sizeof(long) == sizeof(int)) return f.add(static_cast<int>(value));
    return f.add(static_cast<long long>(value));
}
OBStreamFormat const& operator<<(OBStreamFormat const& f, unsigned long value) {
    if constexpr (sizeof(long) == sizeof(int)) return f.add(static_cast<unsigned int>(value));
    return f.add(static_cast<long long>(value));
}
OBStreamFormat const& operator<<(OBStreamFormat const& f, long long value) { return f.add(value); }
OBStreamFormat const& operator<<(OBStreamFormat const& f, void const* pointer) { return f.add(pointer); }
OBStreamFormat const& operator<<(OBStreamFormat const& f, bool value) { return f.add(value); }
OBStreamFormat const& operator<<(OBStreamFormat const& f, StringBuffer const& buffer) { return f.add(buffer); }
OBStreamFormat const& operator<<(OBStreamFormat const& f, AString const& text) { return f.add(text.c_str()); }
OBStreamFormat const& operator<<(OBStreamFormat const& f, wchar_t const* text) { return f.add(text); }
OBStreamFormat const& operator<<(OBStreamFormat const& f, wchar_t c) { return f.add(c); }
OBStreamFormat const& operator<<(OBStreamFormat const& f, TimeDate const& date) { return f.add(date); }
OBStreamFormat const& operator<<(OBStreamFormat const& f, TimePeriod const& period) { return f.add(period); }

}  // namespace tarvik
