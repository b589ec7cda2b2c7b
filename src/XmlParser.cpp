// XmlParser.cpp: XmlParser, the pull parser of XML text (see Parser.h).
#include "tarvik/Parser.h"

#include "ParserInput.h"
#include "Utf8.h"
#include "tarvik/IOBStream.h"

namespace tarvik {

using parser_input::add_char;
using parser_input::is_space;

namespace {

bool is_name_start(int c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || c == ':' || c >= 0x80;
}

bool is_name_char(int c) { return is_name_start(c) || (c >= '0' && c <= '9') || c == '-' || c == '.'; }

}  // namespace

XmlParser::XmlParser(IBStream& in) : in_(in) {}

int XmlParser::get_() { return parser_input::get_counting(in_, line_, column_); }

int XmlParser::peek_() { return in_.peek(); }

XmlParser::Event XmlParser::fail(char const* what) {
    if (!failed_) {
        failed_ = true;
        error_ = what;
        parser_input::report_failure("XML", what, line_, column_);
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
    if (cp == 0 || !utf8::is_character(cp)) return false;
    char bytes[4];
    out.append(bytes, utf8::encode(cp, bytes));
    return true;
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

}  // namespace tarvik
