#include "tarvik/Parser.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "LogUnit.h"
#include "tarvik/IOBStream.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

bool is_space(int c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// Appends a character, doubling the capacity when full: a text read character by character would otherwise
// be reallocated every 16 characters.
inline void add_char(AString& s, char c) {
    if (s.length() == s.capacity()) s.reserve(s.capacity() * 2 + 32);
    s += c;
}

bool is_name_start(int c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || c == ':' || c >= 0x80;
}

bool is_name_char(int c) { return is_name_start(c) || (c >= '0' && c <= '9') || c == '-' || c == '.'; }

// Appends the UTF-8 form of a code point; false for one that is no character.
bool append_utf8(AString& out, unsigned long cp) {
    if (cp == 0 || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    char b[4];
    unsigned int n;
    if (cp < 0x80) {
        b[0] = static_cast<char>(cp);
        n = 1;
    } else if (cp < 0x800) {
        b[0] = static_cast<char>(0xC0 | (cp >> 6));
        b[1] = static_cast<char>(0x80 | (cp & 0x3F));
        n = 2;
    } else if (cp < 0x10000) {
        b[0] = static_cast<char>(0xE0 | (cp >> 12));
        b[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        b[2] = static_cast<char>(0x80 | (cp & 0x3F));
        n = 3;
    } else {
        b[0] = static_cast<char>(0xF0 | (cp >> 18));
        b[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        b[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        b[3] = static_cast<char>(0x80 | (cp & 0x3F));
        n = 4;
    }
    out.append(b, n);
    return true;
}

// Reads one character and keeps the 1-based line and column of the next one.
int get_counting(IBStream& in, unsigned int& line, unsigned int& column) {
    int c = in.get();
    if (c == '\n') {
        ++line;
        column = 1;
    } else if (c >= 0) {
        ++column;
    }
    return c;
}

}  // namespace

XmlParser::XmlParser(IBStream& in) : in_(in) {}

int XmlParser::get_() { return get_counting(in_, line_, column_); }

int XmlParser::peek_() { return in_.peek(); }

XmlParser::Event XmlParser::fail(char const* what) {
    if (!failed_) {
        failed_ = true;
        error_ = what;
        TVK_LOG(LEVEL_ERR, "XML: %0 AT LINE %1 COLUMN %2") << what << line_ << column_;
    }
    return kError;
}

bool XmlParser::expect_(char const* literal) {
    for (char const* p = literal; *p; ++p)
        if (get_() != static_cast<unsigned char>(*p)) return false;
    return true;
}

bool XmlParser::read_name_(AString& out) {
    out.clear();
    if (!is_name_start(peek_())) return false;
    while (is_name_char(peek_())) {
        add_char(out, static_cast<char>(get_()));
        if (out.length() > 1024) return false;
    }
    return true;
}

// After '&': a predefined entity or a character reference, up to its ';'.
bool XmlParser::read_reference_(AString& out) {
    AString ref;
    for (int c; (c = get_()) != ';';) {
        if (c < 0 || ref.length() > 12) return false;
        ref += static_cast<char>(c);
    }
    if (ref == "amp") return (out += '&', true);
    if (ref == "lt") return (out += '<', true);
    if (ref == "gt") return (out += '>', true);
    if (ref == "apos") return (out += '\'', true);
    if (ref == "quot") return (out += '"', true);
    if (ref.length() < 2 || ref[0] != '#') return false;
    bool hex = ref[1] == 'x';
    unsigned long cp = 0;
    unsigned int start = hex ? 2 : 1;
    if (start >= ref.length()) return false;
    for (unsigned int i = start; i < ref.length(); ++i) {
        char c = ref[i];
        int d = c >= '0' && c <= '9' ? c - '0'
                : hex && c >= 'a' && c <= 'f' ? c - 'a' + 10
                : hex && c >= 'A' && c <= 'F' ? c - 'A' + 10
                                              : -1;
        if (d < 0) return false;
        cp = cp * (hex ? 16 : 10) + static_cast<unsigned long>(d);
        if (cp > 0x10FFFF) return false;
    }
    return append_utf8(out, cp);
}

bool XmlParser::read_attribute_value_(AString& out) {
    int quote = get_();
    if (quote != '"' && quote != '\'') return false;
    out.clear();
    for (int c; (c = get_()) != quote;) {
        if (c < 0 || c == '<') return false;
        if (c == '&') {
            if (!read_reference_(out)) return false;
        } else {
            add_char(out, static_cast<char>(c));
        }
    }
    return true;
}

bool XmlParser::skip_declaration_or_pi_() {
    // After "<?": up to "?>".
    for (int prev = 0, c; (c = get_()) >= 0; prev = c)
        if (prev == '?' && c == '>') return true;
    return false;
}

bool XmlParser::skip_comment_() {
    // After "<!--": up to "-->".
    int a = 0, b = 0;
    for (int c; (c = get_()) >= 0; a = b, b = c)
        if (a == '-' && b == '-' && c == '>') return true;
    return false;
}

bool XmlParser::read_cdata_(AString& out) {
    // After "<![CDATA[": up to "]]>".
    for (int c; (c = get_()) >= 0;) {
        add_char(out, static_cast<char>(c));
        unsigned int n = out.length();
        if (n >= 3 && out[n - 3] == ']' && out[n - 2] == ']' && out[n - 1] == '>') {
            out.resize(n - 3);
            return true;
        }
    }
    return false;
}

XmlParser::Event XmlParser::start_tag_() {
    if (root_seen_ && depth_ == 0) return fail("TEXT AFTER THE ROOT ELEMENT");
    if (depth_ >= kMaxDepth) return fail("NESTING TOO DEEP");
    if (!read_name_(name_)) return fail("ELEMENT NAME EXPECTED");
    attributes_.clear();
    for (;;) {
        while (is_space(peek_())) get_();
        int c = peek_();
        if (c == '>' || c == '/') break;
        if (attributes_.size() >= kMaxAttributes) return fail("TOO MANY ATTRIBUTES");
        Attribute& a = attributes_.emplace_back();
        if (!read_name_(a.name)) return fail("ATTRIBUTE NAME EXPECTED");
        for (unsigned int i = 0; i + 1 < attributes_.size(); ++i)
            if (attributes_[i].name == a.name) return fail("ATTRIBUTE REPEATED");
        while (is_space(peek_())) get_();
        if (get_() != '=') return fail("'=' EXPECTED");
        while (is_space(peek_())) get_();
        if (!read_attribute_value_(a.value)) return fail("ATTRIBUTE VALUE EXPECTED");
    }
    if (get_() == '/') {
        if (get_() != '>') return fail("'>' EXPECTED");
        pending_end_ = true;
    }
    open_.push_back(name_);
    ++depth_;
    root_seen_ = true;
    return kStart;
}

XmlParser::Event XmlParser::end_tag_() {
    AString closing;
    if (!read_name_(closing)) return fail("ELEMENT NAME EXPECTED");
    while (is_space(peek_())) get_();
    if (get_() != '>') return fail("'>' EXPECTED");
    if (depth_ == 0 || open_.back() != closing) return fail("END TAG DOES NOT MATCH");
    name_.splice(closing);
    open_.pop_back();
    --depth_;
    return kEnd;
}

XmlParser::Event XmlParser::read_text_(int first) {
    text_.size(0);  // keeps the block for the next text
    for (int c = first;; c = peek_()) {
        if (c < 0 || c == '<') break;
        get_();
        if (c == '&') {
            if (!read_reference_(text_)) return fail("BAD REFERENCE");
        } else {
            add_char(text_, static_cast<char>(c));
        }
    }
    if (depth_ == 0) {
        for (unsigned int i = 0; i < text_.length(); ++i)
            if (!is_space(static_cast<unsigned char>(text_[i]))) return fail("TEXT OUTSIDE THE ROOT ELEMENT");
    }
    return kText;
}

XmlParser::Event XmlParser::next() {
    if (failed_) return kError;
    if (pending_end_) {
        pending_end_ = false;
        open_.pop_back();
        --depth_;
        return kEnd;
    }
    if (done_) return kDone;
    for (;;) {
        int c = peek_();
        if (c < 0) {
            if (depth_ > 0 || !root_seen_) return fail("UNEXPECTED END OF TEXT");
            done_ = true;
            return kDone;
        }
        if (c != '<') return read_text_(c);
        get_();
        c = peek_();
        if (c == '/') {
            get_();
            return end_tag_();
        }
        if (c == '?') {
            get_();
            if (!skip_declaration_or_pi_()) return fail("UNTERMINATED DECLARATION");
            continue;
        }
        if (c == '!') {
            get_();
            if (peek_() == '-') {
                if (!expect_("--")) return fail("BAD COMMENT");
                if (!skip_comment_()) return fail("UNTERMINATED COMMENT");
                continue;
            }
            if (peek_() == '[') {
                if (!expect_("[CDATA[")) return fail("BAD CDATA SECTION");
                if (depth_ == 0) return fail("TEXT OUTSIDE THE ROOT ELEMENT");
                text_.size(0);  // keeps the block for the next text
                if (!read_cdata_(text_)) return fail("UNTERMINATED CDATA SECTION");
                return kText;
            }
            return fail("DOCUMENT TYPE DECLARATIONS ARE NOT SUPPORTED");
        }
        return start_tag_();
    }
}

XmlParser::Event XmlParser::next_markup() {
    for (;;) {
        Event e = next();
        if (e != kText) return e;
        bool blank = true;
        for (unsigned int i = 0; i < text_.length() && blank; ++i) blank = is_space(static_cast<unsigned char>(text_[i]));
        if (!blank) return e;
    }
}

AString const* XmlParser::attribute(char const* name) const {
    for (Attribute const& a : attributes_)
        if (a.name == name) return &a.value;
    return nullptr;
}

// --- TokenParser ----------------------------------------------------------------------------------------

TokenParser::TokenParser(IBStream& in) : in_(in) {}

int TokenParser::get_() { return get_counting(in_, line_, column_); }

TokenParser::Kind TokenParser::fail_(char const* what) {
    if (kind_ != kError) {
        error_ = what;
        TVK_LOG(LEVEL_ERR, "TOKEN: %0 AT LINE %1 COLUMN %2") << what << line_ << column_;
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

// --- IniParser -------------------------------------------------------------------------------------------

IniParser::IniParser(IBStream& in) : in_(in) {}

IniParser::Event IniParser::fail_(char const* what, unsigned int column) {
    failed_ = true;
    error_ = what;
    TVK_LOG(LEVEL_ERR, "INI: %0 AT LINE %1 COLUMN %2") << what << line_ << column;
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
