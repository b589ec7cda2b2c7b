// IniParser.cpp: IniParser, which reads INI text as sections and entries (see Parser.h).
#include "tarvik/Parser.h"

#include "ParserInput.h"
#include "tarvik/IOBStream.h"

namespace tarvik {

using parser_input::add_char;

IniParser::IniParser(IBStream& in) : in_(in) {}

IniParser::Event IniParser::fail_(char const* what, unsigned int column) {
    failed_ = true;
    error_ = what;
    parser_input::report_failure("INI", what, line_, column);
    return kError;
}

namespace {

// Trims spaces and tabs at both ends; `first` receives the column (from 1) of the first kept character.
AString trimmed(AString const& text, unsigned int from, unsigned int to, unsigned int* first = nullptr) {
    while (from < to && (text[from] == ' ' || text[from] == '\t')) ++from;
    while (to > from && (text[to - 1] == ' ' || text[to - 1] == '\t')) --to;
    if (first) *first = from + 1;
    return text.substr(from, to - from);
}

}  // namespace

IniParser::Event IniParser::next() {
    if (failed_) return kError;
    for (;;) {
        if (in_.eof()) return kDone;
        AString line;
        for (int c; (c = in_.get()) >= 0 && c != '\n';)
            if (c != '\r') add_char(line, static_cast<char>(c));
        ++line_;
        unsigned int at = 0;
        while (at < line.length() && (line[at] == ' ' || line[at] == '\t')) ++at;
        if (at == line.length() || line[at] == ';' || line[at] == '#') continue;
        if (line[at] == '[') {
            unsigned int close = line.find(']', at);
            if (close == npos) return fail_("']' EXPECTED", line.length() + 1);
            AString name = trimmed(line, at + 1, close);
            if (name.is_empty()) return fail_("SECTION NAME EXPECTED", at + 2);
            if (trimmed(line, close + 1, line.length()).length() > 0) return fail_("TEXT AFTER THE SECTION", close + 2);
            section_.splice(name);
            return kSection;
        }
        unsigned int eq = line.find('=', at);
        if (eq == npos) return fail_("'=' EXPECTED", line.length() + 1);
        key_ = trimmed(line, at, eq);
        if (key_.is_empty()) return fail_("KEY EXPECTED", at + 1);
        value_ = trimmed(line, eq + 1, line.length());
        if (value_.length() >= 2 && value_[0] == '"' && value_[value_.length() - 1] == '"')
            value_ = value_.substr(1, value_.length() - 2);
        return kEntry;
    }
}

}  // namespace tarvik
