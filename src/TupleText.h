// TupleText.h: the reader and writers of the tuple text form (see Tuple.h for the grammar).
//
// Each kind's manager writes and reads its values through the overloads here; lists and arrays are
// templates over their element's overloads. The reader stops at the first error, remembering its message
// and position, and refuses nesting deeper than kMaxDepth.
#pragma once

#include <cstdint>

#include "tarvik/AString.h"
#include "tarvik/Array.h"
#include "tarvik/List.h"
#include "tarvik/TypeManager.h"

namespace tarvik {

class TupleTextReader {
public:
    static constexpr int kMaxDepth = 128;

    TupleTextReader(char const* text, unsigned int length) : begin_(text), at_(text), end_(text + length) {}

    void skip_space();
    // After white space: the next character (-1 at the end), not consumed.
    int peek();
    // Consumes c after white space, or fails.
    bool expect(char c);
    // Consumes c after white space when it is there.
    bool accept(char c);
    bool at_end();

    bool read_name(AString& out);               // bare or quoted
    bool read_quoted(AString& out);             // "..." of bytes
    bool read_quoted_units(String& out);        // "..." of 16-bit units
    // A run of characters that can belong to a number, a time or a word: letters, digits, + - . : @ _
    bool read_token(AString& out);
    // The characters up to `close` (not consumed), for base64.
    bool read_until(char close, AString& out);

    // Records the first error; always returns false.
    bool fail(char const* message);
    bool failed() const { return error_ != nullptr; }
    char const* error() const { return error_; }
    unsigned int error_position() const { return error_pos_; }

    // Nesting guard around a nested tuple or list.
    bool enter();
    void leave() { --depth_; }

private:
    char const* begin_;
    char const* at_;
    char const* end_;
    char const* error_ = nullptr;
    unsigned int error_pos_ = 0;
    int depth_ = 0;
};

namespace tuple_text {

// Whether a name can be written bare.
bool is_bare_name(AString const& name);
void write_name(AString& out, AString const& name);
void write_quoted(AString& out, char const* data, unsigned int n);

void write(AString& out, bool v);
void write(AString& out, int v);
void write(AString& out, std::int64_t v);
void write(AString& out, float v);
void write(AString& out, double v);
void write(AString& out, AString const& v);
void write(AString& out, String const& v);
void write(AString& out, Blob const& v);
void write(AString& out, TimePeriod const& v);
void write(AString& out, TimeDate const& v);
void write(AString& out, Tuple const& v);
void write(AString& out, StringBuffer const& v);
void write(AString& out, Symbol const& v);

bool read(TupleTextReader& in, bool& v);
bool read(TupleTextReader& in, int& v);
bool read(TupleTextReader& in, std::int64_t& v);
bool read(TupleTextReader& in, float& v);
bool read(TupleTextReader& in, double& v);
bool read(TupleTextReader& in, AString& v);
bool read(TupleTextReader& in, String& v);
bool read(TupleTextReader& in, Blob& v);
bool read(TupleTextReader& in, TimePeriod& v);
bool read(TupleTextReader& in, TimeDate& v);
bool read(TupleTextReader& in, Tuple& v);
bool read(TupleTextReader& in, StringBuffer& v);
bool read(TupleTextReader& in, Symbol& v);

// Containers (declared first so that containers of containers find each other).
template <class T, class A>
void write(AString& out, Array<T, A> const& v);
template <class T, class A>
void write(AString& out, List<T, A> const& v);
template <class T, class A>
bool read(TupleTextReader& in, Array<T, A>& v);
template <class T, class A>
bool read(TupleTextReader& in, List<T, A>& v);

template <class C>
void write_items(AString& out, C const& items) {
    out += '[';
    bool first = true;
    for (auto const& item : items) {
        if (!first) out += ", ";
        first = false;
        write(out, item);
    }
    out += ']';
}

template <class T, class A>
void write(AString& out, Array<T, A> const& v) {
    write_items(out, v);
}

template <class T, class A>
void write(AString& out, List<T, A> const& v) {
    write_items(out, v);
}

// "[" [item {"," item}] "]", each item read into a fresh element made by `add`.
template <class Add>
bool read_items(TupleTextReader& in, Add add) {
    if (!in.expect('[')) return false;
    if (!in.enter()) return false;
    bool ok = true;
    if (!in.accept(']')) {
        do {
            if (!add()) {
                ok = false;
                break;
            }
        } while (in.accept(','));
        ok = ok && in.expect(']');
    }
    in.leave();
    return ok;
}

template <class T, class A>
bool read(TupleTextReader& in, Array<T, A>& v) {
    v.clear();
    return read_items(in, [&] { return read(in, v.emplace_back()); });
}

template <class T, class A>
bool read(TupleTextReader& in, List<T, A>& v) {
    v.clear();
    return read_items(in, [&] { return read(in, v.emplace_back()); });
}

// Parses a whole tuple (class name, attributes) into `t`, which must be empty.
bool read_tuple(TupleTextReader& in, Tuple& t);

}  // namespace tuple_text

}  // namespace tarvik
