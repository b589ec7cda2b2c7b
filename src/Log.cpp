#include "tarvik/Log.h"

#include <chrono>
#include <cinttypes>
#include <cstdio>

#include "Console.h"
#include "LogUnit.h"
#include "tarvik/Blob.h"
#include "tarvik/IOBStream.h"
#include "tarvik/Path.h"
#include "tarvik/String.h"
#include "tarvik/StringBuffer.h"
#include "tarvik/Symbol.h"
#include "tarvik/System.h"
#include "tarvik/Time.h"
#include "tarvik/Tuple.h"

TARVIK_LOG_UNIT()

namespace tarvik {

char const* level_name(int level) {
    static char const* const names[] = {"OK", "FATAL", "ERR", "WARN", "INFO", "LOG", "DEBUG"};
    return level >= 0 && level <= 6 ? names[level] : "???";
}

namespace {

constexpr int kLineWidth = 132;

// The time of day, UTC, as "HH:MM:SS.mmm".
AString time_of_day() {
    using namespace std::chrono;
    auto now = time_point_cast<milliseconds>(system_clock::now()).time_since_epoch().count();
    long long ms_of_day = now % 86400000LL;
    if (ms_of_day < 0) ms_of_day += 86400000LL;
    AString text;
    text.Format("%02lld:%02lld:%02lld.%03lld", ms_of_day / 3600000, ms_of_day / 60000 % 60, ms_of_day / 1000 % 60,
                ms_of_day % 1000);
    return text;
}

// Writes text with the log line's escapes: a line feed continues on a new line indented by `indent`
// spaces, a carriage return prints as "\r", a backslash as "\\", and a line reaching the width wraps.
void write_escaped(OBStream& out, AString const& text, int indent) {
    auto new_line = [&] {
        out.put('\n');
        for (int i = 0; i < indent; ++i) out.put(' ');
    };
    for (unsigned int i = 0; i < text.length(); ++i) {
        char c = text.c_str()[i];
        if (out.get_current_col() >= kLineWidth - 2) new_line();
        switch (c) {
            case '\n': new_line(); break;
            case '\r': out.put("\\r"); break;
            case '\\': out.put("\\\\"); break;
            default: out.put(c);
        }
    }
}

}  // namespace

// --- building ---------------------------------------------------------------------------------------------

Log::Log(char const* key, LOG_LEVEL level, char const* module, char const* unit, int line)
    : level_(level), key_(key), module_(module), unit_(unit), line_(line) {}

Log::~Log() {
    Array<OBStreamFormatArg> args;
    for (Arg* a = head_; a;) {
        OBStreamFormatArg& arg = args.emplace_back();
        arg.position = args.size() - 1;
        arg.type = OBStreamFormatArg::T_TEXT;
        arg.text.splice(a->text);
        Arg* next = a->next;
        delete a;
        a = next;
    }
    head_ = tail_ = nullptr;
    AString message;
    OBStreamFormat::format_to(message, key_ ? key_ : "", args);

    AString line;
    {
        OBStream out(line, true);
        out << time_of_day() << '\t';
        int indent = out.get_current_col();
        out << level_name(level_) << '|' << (module_ ? module_ : "") << '|' << (unit_ ? unit_ : "") << '|' << line_
            << '|' << reinterpret_cast<void const*>(static_cast<std::uintptr_t>(get_current_thread_id())) << "||";
        write_escaped(out, message, indent);
        out << '\n';
    }
    CriticalSectionHolder hold(console_lock());
    OBStream& console = bcout();
    console.put(line.c_str(), line.length());
    console.flush();
}

Log& Log::push_(AString&& text) {
    Arg* a = new Arg{static_cast<AString&&>(text), nullptr};
    if (tail_) {
        tail_->next = a;
    } else {
        head_ = a;
    }
    tail_ = a;
    return *this;
}

Log& Log::add(char const* text) { return push_(AString(text ? text : "")); }

Log& Log::add(void const* pointer) {
    AString text;
    text.Format("%lx", static_cast<unsigned long>(reinterpret_cast<std::uintptr_t>(pointer)));
    return push_(static_cast<AString&&>(text));
}

Log& Log::add(int value) {
    AString text;
    return push_(static_cast<AString&&>(toString(value, text)));
}

Log& Log::add(bool value) { return push_(AString(value ? "true" : "false")); }

Log& Log::add(double value) {
    AString text;
    return push_(static_cast<AString&&>(toString(value, text)));
}

AString& Log::toString(double value, AString& out) { return out.Format("%f", value); }
AString& Log::toString(float value, AString& out) { return out.Format("%f", static_cast<double>(value)); }
AString& Log::toString(std::int64_t value, AString& out) { return out.Format("%" PRId64, value); }
AString& Log::toString(int value, AString& out) { return out.Format("%d", value); }
AString& Log::toString(bool value, AString& out) { return out.assign(value ? "true" : "false"); }

// --- operator<< -------------------------------------------------------------------------------------------

Log& Log::operator<<(char c) { return push_(AString(1, c)); }

Log& Log::operator<<(unsigned int value) {
    AString text;
    return push_(static_cast<AString&&>(text.Format("%u", value)));
}

Log& Log::operator<<(long value) {
    AString text;
    return push_(static_cast<AString&&>(text.Format("%ld", value)));
}

Log& Log::operator<<(unsigned long value) {
    AString text;
    return push_(static_cast<AString&&>(text.Format("%lu", value)));
}

Log& Log::operator<<(long long value) {
    AString text;
    return push_(static_cast<AString&&>(text.Format("%lld", value)));
}

Log& Log::operator<<(unsigned long long value) {
    AString text;
    return push_(static_cast<AString&&>(text.Format("%llu", value)));
}

Log& Log::operator<<(AString const& text) { return push_(AString(text)); }
Log& Log::operator<<(Symbol const& symbol) { return push_(AString(symbol.get_name())); }
Log& Log::operator<<(Path const& path) { return push_(AString(path.get_text())); }

Log& Log::operator<<(String const& text) {
    AString utf8;
    EncodeToUTF8(text, utf8);
    return push_(static_cast<AString&&>(utf8));
}

Log& Log::operator<<(StringBuffer const& buffer) {
    AString text;
    buffer.c_str(text);
    return push_(static_cast<AString&&>(text));
}

Log& Log::operator<<(Blob const& blob) {
    AString text;
    append_text(text, blob);
    return push_(static_cast<AString&&>(text));
}

Log& Log::operator<<(TimeDate const& date) { return push_(date.to_string()); }
Log& Log::operator<<(TimePeriod const& period) { return push_(period.to_string()); }
Log& Log::operator<<(Tuple const& tuple) { return push_(tuple.to_string()); }

// --- argument texts for containers ------------------------------------------------------------------------

void Log::append_text(AString& out, char const* text) { out += text ? text : ""; }
void Log::append_text(AString& out, bool value) { out += value ? "true" : "false"; }
void Log::append_text(AString& out, int value) {
    AString t;
    out += toString(value, t);
}
void Log::append_text(AString& out, long long value) {
    AString t;
    out += t.Format("%lld", value);
}
void Log::append_text(AString& out, double value) {
    AString t;
    out += toString(value, t);
}
void Log::append_text(AString& out, AString const& text) { out += text; }
void Log::append_text(AString& out, Symbol const& symbol) { out += symbol.get_name(); }
void Log::append_text(AString& out, String const& text) {
    AString utf8;
    EncodeToUTF8(text, utf8);
    out += utf8;
}
void Log::append_text(AString& out, StringBuffer const& buffer) {
    AString t;
    out += buffer.c_str(t);
}
void Log::append_text(AString& out, TimeDate const& date) { out += date.to_string(); }
void Log::append_text(AString& out, TimePeriod const& period) { out += period.to_string(); }
void Log::append_text(AString& out, Tuple const& tuple) { tuple.to_string(out); }
void Log::append_text(AString& out, Blob const& blob) {
    AString t;
    out += t.Format("Blob#%u", blob.get_size());
}

}  // namespace tarvik
