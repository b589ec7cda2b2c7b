// TokenParser.cpp: TokenParser, which cuts text into words, numbers, strings and punctuation (see Parser.h).
#include "tarvik/Parser.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>

#include "ParserInput.h"
#include "tarvik/IOBStream.h"

namespace tarvik {

using parser_input::add_char;
using parser_input::is_space;

TokenParser::TokenParser(IBStream& in) : in_(in) {}

int TokenParser::get_() { return parser_input::get_counting(in_, line_, column_); }

TokenParser::Kind TokenParser::fail_(char const* what) {
    if (kind_ != kError) {
        error_ = what;
        parser_input::report_failure("TOKEN", what, line_, column_);
    }
    return kind_ = kError;
}

TokenParser::Kind TokenParser::next() {
    if (kind_ == kError) return kError;
    text_.size(0);  // keeps the block for the next text
    for (;;) {
        int c = in_.peek();
        if (c >= 0 && is_space(c)) {
            get_();
            continue;
        }
        token_line_ = line_;
        token_column_ = column_;
        if (c == '/') {  // "//" starts a comment; a lone "/" is punctuation
            get_();
            if (in_.peek() != '/') {
                text_.append(1, '/');
                return kind_ = kPunctuation;
            }
            c = '#';
        }
        if (c == '#') {
            while ((c = in_.peek()) >= 0 && c != '\n') get_();
            continue;
        }
        if (c < 0) return kind_ = kEnd;
        if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_') return word_();
        if ((c >= '0' && c <= '9') || c == '-' || c == '+') return number_token_();
        if (c == '"' || c == '\'') return string_(get_());
        if (c < 32 || c == 127) return fail_("CONTROL CHARACTER");
        add_char(text_, static_cast<char>(get_()));
        return kind_ = kPunctuation;
    }
}

TokenParser::Kind TokenParser::word_() {
    for (int c; (c = in_.peek()) >= 0 && (std::isalnum(c) || c == '_' || c == '.' || c == '-');)
        add_char(text_, static_cast<char>(get_()));
    return kind_ = kIdentifier;
}

TokenParser::Kind TokenParser::number_token_() {
    int c = in_.peek();
    if (c == '-' || c == '+') {
        add_char(text_, static_cast<char>(get_()));
        if (!std::isdigit(in_.peek())) return kind_ = kPunctuation;  // a lone sign
    }
    bool floating = false;
    for (; (c = in_.peek()) >= 0;) {
        bool exponent_sign = (c == '-' || c == '+') && text_.length() > 0 &&
                             (text_[text_.length() - 1] == 'e' || text_[text_.length() - 1] == 'E');
        if (std::isdigit(c) || exponent_sign) {
        } else if (c == '.' || c == 'e' || c == 'E') {
            floating = true;
        } else {
            break;
        }
        add_char(text_, static_cast<char>(get_()));
    }
    char* end = nullptr;
    if (floating) {
        number_ = std::strtod(text_.c_str(), &end);
        if (end != text_.c_str() + text_.length()) return fail_("BAD NUMBER");
        return kind_ = kNumber;
    }
    errno = 0;
    integer_ = std::strtoll(text_.c_str(), &end, 10);
    if (errno == ERANGE) return fail_("INTEGER OUT OF RANGE");
    number_ = static_cast<double>(integer_);
    return kind_ = kInteger;
}

TokenParser::Kind TokenParser::string_(int quote) {
    for (;;) {
        int c = get_();
        if (c < 0 || c == '\n') return fail_("UNTERMINATED STRING");
        if (c == quote) return kind_ = kString;
        if (c != '\\') {
            add_char(text_, static_cast<char>(c));
            continue;
        }
        c = get_();
        switch (c) {
            case '"': case '\'': case '\\': add_char(text_, static_cast<char>(c)); break;
            case 'n': text_.append(1, '\n'); break;
            case 'r': text_.append(1, '\r'); break;
            case 't': text_.append(1, '\t'); break;
            case 'x': {
                int hi = get_(), lo = get_();
                int v = 0;
                for (int d : {hi, lo}) {
                    int n = d >= '0' && d <= '9' ? d - '0' : d >= 'a' && d <= 'f' ? d - 'a' + 10 : d >= 'A' && d <= 'F' ? d - 'A' + 10 : -1;
                    if (n < 0) return fail_("BAD ESCAPE");
                    v = v * 16 + n;
                }
                add_char(text_, static_cast<char>(v));
                break;
            }
            default: return fail_("BAD ESCAPE");
        }
    }
}

}  // namespace tarvik
