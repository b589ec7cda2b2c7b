#include "tarvik/Log.h"

#include <cinttypes>
#include <cstdio>

#include "LogUnit.h"
#include "tarvik/Blob.h"
#include "tarvik/IOBStream.h"
#include "tarvik/LogHook.h"
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

// --- building ---------------------------------------------------------------------------------------------

Log::Log(char const* key, LOG_LEVEL level, char const* module, char const* unit, int line)
    : level_(level), key_(key), module_(module), unit_(unit), line_(line) {}

Log::~Log() {
    // Never destroyed, so that records can be written during static destruction.
    // NOLINTNEXTLINE(bugprone-unhandled-exception-at-new): a destructor writes the record by design
    static Symbol const* const names = new Symbol[8]{Symbol("key"),    Symbol("level"), Symbol(""),
                                                     Symbol("time"),   Symbol("module"), Symbol("unit"),
                                                     Symbol("line"),   Symbol("thread")};
    Tuple record;
    record.set_astring(names[0], key_ ? key_ : "");
    record.set_int(names[1], level_);
    ListAString& args = record.set_list_astring(names[2]);
    record.set_time_date(names[3], TimeDate::now());
    if (module_) record.set_astring(names[4], module_);
    if (unit_) record.set_astring(names[5], unit_);
    if (line_ != 0) record.set_int(names[6], line_);
    record.set_long(names[7], static_cast<std::int64_t>(get_current_thread_id()));
    for (Arg* a = head_; a;) {
        args.emplace_back().splice(a->text);
        Arg* next = a->next;
        delete a;
        a = next;
    }
    head_ = tail_ = nullptr;
    LogHook::dispatch(record);
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
