// Log.h: log records.
//
// Every message of the library, and of programs that use it, is written by building a Log on the stack,
// streaming its arguments into it, and letting it go out of scope:
//
//     Log("CANNOT OPEN(R) FILE '%0' [%1]", LEVEL_ERR, "TVK", "BLOB", __LINE__) << path << error_text;
//
// The key is the message text with numbered placeholders "%0", "%1", ...; each operator<< appends exactly
// one argument (converted to text at once), whatever its kind, and argument i fills placeholder i. The
// destructor turns what was collected into a record, a Tuple, and hands it to the registered log hooks
// (LogHook.h); without any hook the record is printed on standard output as one line:
//
//     14:25:01.123<TAB>ERR|TVK|BLOB|118|1a2b||CANNOT OPEN(R) FILE 'x' [#2.No such file or directory]
//
// that is: the time of day (UTC) with milliseconds and a tab, the level name, module, unit, line, thread
// id (hexadecimal), context (empty) and the message with its placeholders filled, each after a "|". A
// line feed inside the message continues on the next line, indented to the column after the time, and a
// line that reaches column 130 (the line width of 132 less 2) wraps the same way; a carriage return prints
// as "\r" and a backslash as "\\".
//
// The key, module and unit are not copied: they must outlive the Log (in practice they are literals or
// symbol names). A null module or unit and a zero line are simply left out of the record.
//
// Thread safety: any thread may log. Building a record takes no lock; printing takes the process-wide
// console lock, so lines from several threads never interleave.
#pragma once

#include <concepts>
#include <memory>

#include "tarvik/AString.h"
#include "tarvik/Types.h"

namespace tarvik {

// Levels; their numbers are part of the record format. The underlying type is int so that a record can
// carry any number (one outside 0..6 prints as "???").
enum LOG_LEVEL : int {
    LEVEL_OK = 0,
    LEVEL_FATAL = 1,
    LEVEL_ERR = 2,
    LEVEL_WARN = 3,
    LEVEL_INFO = 4,
    LEVEL_LOG = 5,
    LEVEL_DEBUG = 6,
};

// "OK", "FATAL", "ERR", "WARN", "INFO", "LOG", "DEBUG", and "???" for any other number.
TARVIK_EXPORT char const* level_name(int level);

class TimeDate;
class TimePeriod;
class Tuple;
template <class T, class A>
class List;
template <class T, class A>
class Array;

class TARVIK_EXPORT Log {
public:
    Log(char const* key, LOG_LEVEL level, char const* module = nullptr, char const* unit = nullptr, int line = 0);
    ~Log();
    Log(Log const&) = delete;
    Log& operator=(Log const&) = delete;

    // Append one argument each. Pointers print as "%lx", int as "%d", bool as "true"/"false", double as "%f".
    Log& add(char const* text);
    Log& add(void const* pointer);
    Log& add(int value);
    Log& add(bool value);
    Log& add(double value);

    // Text converters: each writes into `out` and returns it.
    static AString& toString(double value, AString& out);
    static AString& toString(float value, AString& out);
    static AString& toString(std::int64_t value, AString& out);
    static AString& toString(int value, AString& out);
    static AString& toString(bool value, AString& out);

    Log& operator<<(char const* text) { return add(text); }
    Log& operator<<(unsigned char const* text) { return add(reinterpret_cast<char const*>(text)); }
    Log& operator<<(void const* pointer) { return add(pointer); }
    Log& operator<<(bool value) { return add(value); }
    Log& operator<<(char c);
    Log& operator<<(unsigned char c) { return *this << static_cast<char>(c); }
    Log& operator<<(short value) { return add(static_cast<int>(value)); }
    Log& operator<<(unsigned short value) { return add(static_cast<int>(value)); }
    Log& operator<<(int value) { return add(value); }
    Log& operator<<(unsigned int value);
    Log& operator<<(long value);
    Log& operator<<(unsigned long value);
    Log& operator<<(long long value);
    Log& operator<<(unsigned long long value);
    Log& operator<<(float value) { return add(static_cast<double>(value)); }
    Log& operator<<(double value) { return add(value); }
    Log& operator<<(AString const& text);
    Log& operator<<(Symbol const& symbol);
    Log& operator<<(String const& text);  // as UTF-8
    Log& operator<<(StringBuffer const& buffer);
    Log& operator<<(Blob const& blob);  // "Blob#" and the size in bytes
    Log& operator<<(Path const& path);
    Log& operator<<(TimeDate const& date);      // "%Y-%m-%d %H:%M:%S.%Q"
    Log& operator<<(TimePeriod const& period);  // its to_string()
    Log& operator<<(Tuple const& tuple);        // its text form

    // A container is one argument: its elements as text, separated by ",".
    template <class T, class A>
    Log& operator<<(List<T, A> const& list) {
        return add_joined_(list);
    }
    template <class T, class A>
    Log& operator<<(Array<T, A> const& array) {
        return add_joined_(array);
    }

    // The text one argument of this kind becomes (what operator<< appends), for composing container texts.
    static void append_text(AString& out, char const* text);
    static void append_text(AString& out, bool value);
    static void append_text(AString& out, int value);
    static void append_text(AString& out, long long value);
    static void append_text(AString& out, double value);
    static void append_text(AString& out, AString const& text);
    static void append_text(AString& out, Symbol const& symbol);
    static void append_text(AString& out, String const& text);
    static void append_text(AString& out, StringBuffer const& buffer);
    static void append_text(AString& out, Blob const& blob);
    static void append_text(AString& out, TimeDate const& date);
    static void append_text(AString& out, TimePeriod const& period);
    static void append_text(AString& out, Tuple const& tuple);
    template <class T, class A>
    static void append_text(AString& out, List<T, A> const& list) {
        append_joined_(out, list);
    }
    template <class T, class A>
    static void append_text(AString& out, Array<T, A> const& array) {
        append_joined_(out, array);
    }
    template <std::integral I>
        requires(!std::same_as<I, bool> && !std::same_as<I, char>)
    static void append_text(AString& out, I value) {
        append_text(out, static_cast<long long>(value));
    }
    static void append_text(AString& out, float value) { append_text(out, static_cast<double>(value)); }

private:
    struct Arg {
        AString text;
        std::unique_ptr<Arg> next;
    };

    Log& push_(AString&& text);
    template <class C>
    static void append_joined_(AString& out, C const& items) {
        bool first = true;
        for (auto const& item : items) {
            if (!first) out.append(1, ',');
            first = false;
            append_text(out, item);
        }
    }
    template <class C>
    Log& add_joined_(C const& items) {
        AString text;
        append_joined_(text, items);
        return push_(static_cast<AString&&>(text));
    }

    LOG_LEVEL level_;
    char const* key_;
    char const* module_;
    char const* unit_;
    int line_;
    std::unique_ptr<Arg> head_;
    Arg* tail_ = nullptr;  // the last of head_'s chain
};

}  // namespace tarvik
