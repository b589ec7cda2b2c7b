// ParserInput.h: the character helpers the token, XML and INI parsers share, and their one error record.
#pragma once

#include "tarvik/AString.h"
#include "tarvik/IOBStream.h"

namespace tarvik::parser_input {

inline bool is_space(int c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// Appends a character, doubling the capacity when full: a text read character by character would otherwise
// be reallocated every 16 characters.
inline void add_char(AString& s, char c) {
    if (s.length() == s.capacity()) s.reserve(s.capacity() * 2 + 32);
    s += c;
}

// Reads one character and keeps the 1-based line and column of the next one.
inline int get_counting(IBStream& in, unsigned int& line, unsigned int& column) {
    int c = in.get();
    if (c == '\n') {
        ++line;
        column = 1;
    } else if (c >= 0) {
        ++column;
    }
    return c;
}

// Writes the "ERR" record of a parse failure, "<kind>: <what> AT LINE <line> COLUMN <column>", under the
// parsers' common log unit "PARSER" (src/Parser.cpp), whichever of the three parsers failed.
void report_failure(char const* kind, char const* what, unsigned int line, unsigned int column);

}  // namespace tarvik::parser_input
