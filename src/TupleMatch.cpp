// TupleMatch.cpp: Tuple::match, which reads "%(name)" patterns into attributes (see Tuple.h).
#include "tarvik/Tuple.h"

#include <cstdlib>

#include "tarvik/IOBStream.h"
#include "tarvik/StringBuffer.h"

namespace tarvik {

namespace {

bool is_white(int c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

// One placeholder of a pattern: where it ends, the attribute it fills and how.
struct Placeholder {
    enum Kind { kText, kInt, kTuple, kNone };
    unsigned int end;  // index after the placeholder
    AString name;
    Kind kind;
};

// Parses a placeholder at pattern[at] (a "%"); false when the "%" is an ordinary character there.
bool parse_placeholder(AString const& pattern, unsigned int at, unsigned int& anonymous, Placeholder& out) {
    char next = pattern.get_at(at + 1);
    if (next == 's' || next == 'i' || next == 'd') {
        out.end = at + 2;
        out.name.Format("%u", anonymous++);
        out.kind = next == 's' ? Placeholder::kText : Placeholder::kInt;
        return true;
    }
    if (next != '(') return false;
    unsigned int close = pattern.find(')', at + 2);
    if (close == npos) return false;
    AString inside = pattern.substr(at + 2, close - at - 2);
    unsigned int colon = inside.find(':');
    AString type = colon == npos ? AString() : inside.substr(colon + 1);
    out.name = colon == npos ? inside : inside.substr(0, colon);
    out.kind = type.is_empty() || type == "s" ? Placeholder::kText
               : type == "i"                  ? Placeholder::kInt
               : type == "t"                  ? Placeholder::kTuple
                                              : Placeholder::kNone;
    out.end = close + 1;
    return true;
}

void store_capture(Tuple& scratch, Placeholder const& p, StringBuffer const& capture) {
    AString text;
    capture.c_str(text);
    switch (p.kind) {
        case Placeholder::kText: scratch.set_astring(Symbol(p.name), text); break;
        case Placeholder::kInt: scratch.set_int(Symbol(p.name), std::atoi(text.c_str())); break;
        case Placeholder::kTuple: {
            Tuple nested;
            nested.from_string(text.c_str());
            scratch.set_tuple(Symbol(p.name), nested);
            break;
        }
        case Placeholder::kNone: break;
    }
}

}  // namespace

bool Tuple::match(AString const& pattern, AString const& text) { return match(pattern, text, '\\'); }

bool Tuple::match(AString const& pattern, AString const& text, char escape) {
    IBStream in(text.c_str());
    return match(pattern, in, escape);
}

bool Tuple::match(AString const& pattern, IBStream& in) { return match(pattern, in, '\\'); }

bool Tuple::match(AString const& pattern, IBStream& in, char escape) {
    Tuple scratch(class_name_);
    unsigned int p = 0;
    unsigned int anonymous = 0;
    int c = in.peek();
    bool mismatch = false;
    while (p < pattern.length() && !mismatch) {
        Placeholder placeholder;
        if (pattern[p] == '%' && parse_placeholder(pattern, p, anonymous, placeholder)) {
            p = placeholder.end;
            bool at_end = p >= pattern.length();
            char stop = at_end ? '\0' : pattern[p];
            StringBuffer capture(128);
            while (c >= 0 && (at_end || c != static_cast<unsigned char>(stop)) && !(stop == ' ' && !at_end && is_white(c))) {
                capture.append(static_cast<char>(c));
                in.get();
                c = in.peek();
                while (escape && c == static_cast<unsigned char>(escape)) {
                    in.get();  // the escape is dropped; the character after it is taken as it is
                    c = in.peek();
                    if (c < 0) break;
                    capture.append(static_cast<char>(c));
                    in.get();
                    c = in.peek();
                }
            }
            store_capture(scratch, placeholder, capture);
            continue;
        }
        char pc = pattern[p];
        if (pc == ' ' ? !is_white(c) : c != static_cast<unsigned char>(pc)) {
            mismatch = true;
            break;
        }
        in.get();
        c = in.peek();
        if (pc == ' ' && pattern.get_at(p + 1) != ' ') {
            while (c >= 0 && is_white(c)) {
                in.get();
                c = in.peek();
            }
        }
        ++p;
    }
    if (mismatch || p < pattern.length() || c >= 0) return false;
    merge(scratch);
    return true;
}

}  // namespace tarvik
