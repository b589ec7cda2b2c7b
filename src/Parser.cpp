// Parser.cpp: what the token, XML and INI parsers share beyond their character helpers: the record of a
// parse failure, so that every parser reports under the one log unit "PARSER".
#include "ParserInput.h"

#include "LogUnit.h"

TARVIK_LOG_UNIT()

namespace tarvik::parser_input {

void report_failure(char const* kind, char const* what, unsigned int line, unsigned int column) {
    AString key(kind);
    key += ": %0 AT LINE %1 COLUMN %2";
    TVK_LOG(LEVEL_ERR, key.c_str()) << what << line << column;
}

}  // namespace tarvik::parser_input
