// Parser.h: the library's text parsers: a pull XML parser, a token parser and an INI parser.
//
// Every parser reads an IBStream that outlives it, tracks the line and column (from 1) where it stands, and
// on malformed input logs one record at ERR with that position, returns its error event from then on, and
// tells what was wrong through error().
//
// XmlParser reads XML from an IBStream one event at a time: the start of an element (its name and
// attributes), text, and the end of an element (an empty element <x/> gives a start and an end). The
// declaration (<?xml version="1.0" ...?>), other processing instructions and comments are consumed;
// CDATA sections are text. Text and attribute values come decoded: the five predefined entities (&amp;
// &lt; &gt; &apos; &quot;) and numeric character references (&#233; &#xE9;, stored as UTF-8) are the only
// references; a document type declaration (<!DOCTYPE ...>) is refused, so no entity can expand. Nesting is
// limited to kMaxDepth elements and an element to kMaxAttributes attributes. Element and attribute names are
// checked, end tags must match their start tags, and the document must end after its root element.
// Limits: nesting kMaxDepth (256) elements, kMaxAttributes (64) attributes per element, names of at most
// 1024 characters, 12 characters between "&" and ";" of a reference. A text, CDATA section or attribute
// value has no limit of its own: it grows only as its characters arrive, so memory follows the input.
// Carriage returns are kept as they are (no line-end normalisation), so that the library's own texts read
// back unchanged.
//
// On malformed input the parser logs "XML: %0 AT LINE %1 COLUMN %2" once at ERR, returns kError from
// then on, and error() tells what was wrong.
//
// Thread safety: a parser is used by one thread at a time.
#pragma once

#include "tarvik/AString.h"
#include "tarvik/Array.h"
#include "tarvik/Types.h"

namespace tarvik {

class TARVIK_EXPORT XmlParser {
public:
    static constexpr int kMaxDepth = 256;
    static constexpr unsigned int kMaxAttributes = 64;

    enum Event { kStart, kEnd, kText, kDone, kError };

    // Reads from `in`, which must outlive the parser.
    explicit XmlParser(IBStream& in);

    // The next event. kDone once the root element has ended and only white space, comments and processing
    // instructions follow; kError after any malformed input.
    Event next();
    // The next event that is not white-space-only text.
    Event next_markup();

    // The current element's name (kStart and kEnd).
    AString const& name() const { return name_; }
    // The current text (kText).
    AString const& text() const { return text_; }
    // The value of an attribute of the current start tag, or null.
    AString const* attribute(char const* name) const;
    unsigned int attribute_count() const { return attributes_.size(); }
    AString const& attribute_name(unsigned int i) const { return attributes_[i].name; }
    AString const& attribute_value(unsigned int i) const { return attributes_[i].value; }
    // How many elements are open (the current start tag included).
    int depth() const { return depth_; }

    // Where the parser stands (line and column from 1), and the error once failed.
    unsigned int line() const { return line_; }
    unsigned int column() const { return column_; }
    bool failed() const { return failed_; }
    AString const& error() const { return error_; }
    // Fails the parse from outside (a reader that finds the wrong element): logs like a parse error.
    Event fail(char const* what);

private:
    struct Attribute {
        AString name;
        AString value;
    };
    int get_();
    int peek_();
    bool expect_(char const* literal);
    bool read_name_(AString& out);
    bool read_reference_(AString& out);
    bool read_attribute_value_(AString& out);
    Event start_tag_();
    Event end_tag_();
    Event read_text_(int first);
    bool skip_declaration_or_pi_();
    bool skip_comment_();
    bool read_cdata_(AString& out);

    IBStream& in_;
    AString name_;
    AString text_;
    Array<Attribute> attributes_;
    Array<AString> open_;  // the names of the open elements
    int depth_ = 0;
    bool pending_end_ = false;  // an empty element's end, given by the next call
    bool root_seen_ = false;
    bool done_ = false;
    bool failed_ = false;
    AString error_;
    unsigned int line_ = 1;
    unsigned int column_ = 1;
};

// TokenParser cuts text into tokens: identifiers (a letter or "_", then letters, digits, "_", "." and "-"),
// integers (decimal, with an optional sign directly in front), numbers (with a fraction or an exponent),
// strings ("..." or '...' with the escapes \" \' \\ \n \r \t and \xHH) and single punctuation
// characters. White space and comments ("#" or "//" to the end of the line) separate tokens. Malformed input
// (an unterminated string, a bad escape, an integer out of range, a control character) logs
// "TOKEN: %0 AT LINE %1 COLUMN %2". Limits: nothing nests; a token grows only as its characters arrive.
class TARVIK_EXPORT TokenParser {
public:
    enum Kind { kEnd, kIdentifier, kInteger, kNumber, kString, kPunctuation, kError };

    explicit TokenParser(IBStream& in);

    // Advances to the next token and returns its kind.
    Kind next();
    Kind kind() const { return kind_; }
    // The token's text (a string's decoded content; an integer's or number's digits; the punctuation).
    AString const& text() const { return text_; }
    long long integer() const { return integer_; }
    double number() const { return number_; }
    char punctuation() const { return text_.get_at(0); }
    // Where the current token started.
    unsigned int line() const { return token_line_; }
    unsigned int column() const { return token_column_; }
    bool failed() const { return kind_ == kError; }
    AString const& error() const { return error_; }

private:
    int get_();
    Kind fail_(char const* what);
    Kind word_();
    Kind number_token_();
    Kind string_(int quote);

    IBStream& in_;
    Kind kind_ = kEnd;
    AString text_;
    long long integer_ = 0;
    double number_ = 0;
    AString error_;
    unsigned int line_ = 1;
    unsigned int column_ = 1;
    unsigned int token_line_ = 1;
    unsigned int token_column_ = 1;
};

// IniParser reads INI text line by line: "[section]" headers, "key = value" entries (key and value trimmed;
// a value in double quotes loses them), and comments on lines of their own starting with ";" or "#".
// Entries before any section belong to the section "". A header without its "]" or with an empty name, or a
// line that is neither, logs "INI: %0 AT LINE %1 COLUMN %2". Limits: nothing nests; a line grows only as
// its characters arrive.
class TARVIK_EXPORT IniParser {
public:
    enum Event { kSection, kEntry, kDone, kError };

    explicit IniParser(IBStream& in);

    Event next();
    AString const& section() const { return section_; }
    AString const& key() const { return key_; }
    AString const& value() const { return value_; }
    // The line of the current header or entry.
    unsigned int line() const { return line_; }
    bool failed() const { return failed_; }
    AString const& error() const { return error_; }

private:
    Event fail_(char const* what, unsigned int column);

    IBStream& in_;
    AString section_;
    AString key_;
    AString value_;
    unsigned int line_ = 0;
    bool failed_ = false;
    AString error_;
};

}  // namespace tarvik
