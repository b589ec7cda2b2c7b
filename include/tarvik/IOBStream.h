// IOBStream.h: the library's byte streams and its "%0" message formatter.
//
// IBStream reads and OBStream writes bytes from and to files, the console, C strings, AStrings and
// StringBuffers (and CommBuffers, through CommBuffer.h). Each stream owns one implementation object;
// opening a stream replaces (and deletes) the previous one, and a closed stream ignores output and reads
// as end of input (get() and peek() return -1).
//
// Text mode (OBStream). Per character other than line feed: at the start of a line the stream first writes
// indent level x indent width (4) spaces; then a tab moves the column to the next multiple of 8 and any
// other character advances it by one. A line feed marks the start of a line and sets the column to -1 (so
// the first character of the next line is column 0; the very first line of a stream starts at column 0 and
// is not indented). Files opened in text mode also store a line feed as carriage return + line feed and
// drop carriage returns, on every platform, so a file written by the library is the same bytes everywhere;
// standard output keeps the platform's own line ends (plain line feeds on Linux). Files read in text mode
// skip carriage returns.
//
// Files: an output file is created (truncated) or, with append, opened or created and written at its end;
// an input file must exist. The empty path is standard input or output. File streams buffer 2048 bytes
// each way; output reaches the file when the buffer fills, on flush() and on close(). A file that cannot
// be opened for reading logs "CANNOT OPEN FILE '%0' FOR READ [%1]" at DEBUG; is_open() reports it.
//
// OBStreamFormat: `out.format("A %1 B %0") << 5 << "x"` writes "A x B 5" when the full expression ends.
//   "%0".."%9"     the argument at that position (positions count the << calls from 0)
//   "%{n}"         a position of any length; "%{12" without its "}" is written as it stands
//   "%[fmt]n"      printf flags, width and precision for numbers: "%[04]0" of 7 is "0007"; the bracket is
//                  ignored for other kinds and must consist of "-+ #0" and digits and "." (else ignored)
//   a position without an argument is written back as it stands ("%7", or "%{12}"); "%" before anything
//   else is written unchanged, so "%%" stays "%%" (there is no escape); a final "%" is written as "%".
//   Arguments never used by a placeholder are appended after the text, in position order, with nothing
//   between them.
// Argument texts: bool "true"/"false"; int and unsigned int with printf "d" (so 4294967295 prints -1);
// 64-bit integers in decimal; pointers with printf "lx"; char and wchar_t as one character (wchar_t cut to
// 8 bits); strings as they are; wide strings as UTF-8; StringBuffer whole. String arguments are copied
// when added, so temporaries are safe to pass.
//
// Thread safety: a stream is used by one thread at a time, except the process-wide standard output
// (bcout() and every stream opened on the empty path), whose writes are serialised by one lock around each
// operation, so texts written by several threads do not interleave within one put().
#pragma once

#include <cstdint>
#include <memory>

#include "tarvik/AString.h"
#include "tarvik/Array.h"
#include "tarvik/Path.h"
#include "tarvik/Types.h"

namespace tarvik {

class IBStreamImpl;
class OBStreamImpl;
class TimeDate;
class TimePeriod;
class OBStreamFormat;

class TARVIK_EXPORT IBStream {
public:
    IBStream();
    // A file (the empty path: standard input), in text mode when `text`.
    IBStream(Path const& path, bool text);
    // The characters of a C string, up to its NUL (the string must outlive the stream).
    explicit IBStream(char const* text);
    // The bytes of a StringBuffer (which must outlive the stream and not change meanwhile).
    explicit IBStream(StringBuffer const& buffer);
    // The value bytes of a CommBuffer from its read position on (headers skipped); reading advances it.
    explicit IBStream(CommBuffer const& buffer);
    ~IBStream();
    IBStream(IBStream const&) = delete;
    IBStream& operator=(IBStream const&) = delete;

    bool open(Path const& path, bool text);
    bool open(char const* text);
    bool open(StringBuffer const& buffer);
    bool open(CommBuffer const& buffer);
    // Takes over an implementation made by another family of the library.
    bool open(std::unique_ptr<IBStreamImpl> impl);
    void close();
    bool is_open() const;
    bool is_text() const;

    // True when no character is left.
    bool eof();
    // The next character as 0..255, or -1 at the end.
    int get();
    // Up to n bytes into dest; returns how many (less than 1 at the end).
    int get(char* dest, unsigned int n);
    // The next character without consuming it, or -1 at the end.
    int peek();
    // Consumes white space (isspace).
    void eatwhite();
    // The remaining input, shown for diagnostics (not consumed for files: at most what is buffered).
    AString dump();

private:
    std::unique_ptr<IBStreamImpl> impl_;
    bool open_ = false;  // impl_ is set and open: asked once, not per character
};

// Line end and flush manipulators for operator<<.
struct BEndl {};
struct BFlush {};
TARVIK_EXPORT BEndl bendl();
TARVIK_EXPORT BFlush bflush();

class TARVIK_EXPORT OBStream {
public:
    OBStream();
    // A file (the empty path: standard output); `append` writes at the end of an existing file.
    OBStream(Path const& path, bool append, bool text);
    // Appends to an AString / a StringBuffer (which must outlive the stream).
    explicit OBStream(AString& target, bool text = false);
    explicit OBStream(StringBuffer& target, bool text = false);
    // Appends value bytes to a CommBuffer (pages with header room are added as needed).
    OBStream(CommBuffer& target, bool text);
    // Flushes and closes.
    ~OBStream();
    OBStream(OBStream const&) = delete;
    OBStream& operator=(OBStream const&) = delete;

    bool open(Path const& path, bool append, bool text);
    bool open(AString& target, bool text = false);
    bool open(StringBuffer& target, bool text = false);
    bool open(CommBuffer& target, bool text);
    // Takes over an implementation made by another family of the library.
    bool open(std::unique_ptr<OBStreamImpl> impl);
    void close();
    bool is_open() const;
    bool is_text() const;

    void put(int c);
    void put(char const* text);
    void put(char const* data, unsigned int n);
    void flush();

    void indent(int n = 1);
    void unindent(int n = 1);
    int get_indent() const;
    int get_current_col() const;

    // A formatter bound to this stream; the text is written when the formatter is destroyed.
    OBStreamFormat format(char const* format_text);
    OBStreamFormat operator()(char const* format_text);

private:
    void put_text_char_(char c);
    std::unique_ptr<OBStreamImpl> impl_;
};

// The process-wide standard streams, made on first use (standard output in text mode).
TARVIK_EXPORT OBStream& bcout();
TARVIK_EXPORT IBStream& bcin();

TARVIK_EXPORT OBStream& operator<<(OBStream& out, char c);
TARVIK_EXPORT OBStream& operator<<(OBStream& out, char const* text);
TARVIK_EXPORT OBStream& operator<<(OBStream& out, wchar_t const* text);  // as UTF-8
#if !TARVIK_WCHAR_T_IS_WCHAR
TARVIK_EXPORT OBStream& operator<<(OBStream& out, WChar const* text);  // as UTF-8
#endif
TARVIK_EXPORT OBStream& operator<<(OBStream& out, bool value);  // "true" / "false"
TARVIK_EXPORT OBStream& operator<<(OBStream& out, int value);
TARVIK_EXPORT OBStream& operator<<(OBStream& out, unsigned int value);
TARVIK_EXPORT OBStream& operator<<(OBStream& out, long value);
TARVIK_EXPORT OBStream& operator<<(OBStream& out, unsigned long value);
TARVIK_EXPORT OBStream& operator<<(OBStream& out, long long value);
TARVIK_EXPORT OBStream& operator<<(OBStream& out, unsigned long long value);
TARVIK_EXPORT OBStream& operator<<(OBStream& out, double value);  // "%g"
TARVIK_EXPORT OBStream& operator<<(OBStream& out, void const* pointer);  // "%lx"
TARVIK_EXPORT OBStream& operator<<(OBStream& out, AString const& text);
TARVIK_EXPORT OBStream& operator<<(OBStream& out, String const& text);  // as UTF-8
TARVIK_EXPORT OBStream& operator<<(OBStream& out, Symbol const& symbol);
TARVIK_EXPORT OBStream& operator<<(OBStream& out, StringBuffer const& buffer);
TARVIK_EXPORT OBStream& operator<<(OBStream& out, Blob const& blob);  // base64, the XML form
TARVIK_EXPORT OBStream& operator<<(OBStream& out, BEndl);                // "\n" and flush
TARVIK_EXPORT OBStream& operator<<(OBStream& out, BFlush);

// Readers: numbers and words skip leading white space; a word ends at white space. A failed read leaves
// the value as it was.
TARVIK_EXPORT IBStream& operator>>(IBStream& in, char& c);
TARVIK_EXPORT IBStream& operator>>(IBStream& in, int& value);
TARVIK_EXPORT IBStream& operator>>(IBStream& in, unsigned int& value);
TARVIK_EXPORT IBStream& operator>>(IBStream& in, long& value);
TARVIK_EXPORT IBStream& operator>>(IBStream& in, long long& value);
TARVIK_EXPORT IBStream& operator>>(IBStream& in, double& value);
TARVIK_EXPORT IBStream& operator>>(IBStream& in, AString& word);
TARVIK_EXPORT IBStream& operator>>(IBStream& in, String& word);  // a UTF-8 word
TARVIK_EXPORT IBStream& operator>>(IBStream& in, StringBuffer& rest);  // everything left
TARVIK_EXPORT IBStream& operator>>(IBStream& in, Blob& blob);  // base64, the XML form

// One argument of an OBStreamFormat. The type codes are the formatter's own.
struct OBStreamFormatArg {
    enum Type {
        T_BOOL = 2,
        T_INT = 3,
        T_INT64 = 4,
        T_TEXT = 7,
        T_WTEXT = 8,
        T_TIME_PERIOD = 10,
        T_TIME_DATE = 11,
        T_CHAR = 35,
        T_WCHAR = 36,
        T_UINT = 37,
        T_STRINGBUFFER = 41,
        T_POINTER = 49,
    };
    unsigned int position = 0;
    int type = 0;
    std::int64_t number = 0;    // bool, int, 64-bit, char, wide char, unsigned, pointer bits
    AString text;               // texts, copied; kinds rendered by their stream operator
    bool used = false;
};

class TARVIK_EXPORT OBStreamFormat {
public:
    OBStreamFormat(OBStream* out, char const* format_text);
    // Writes the formatted text (only when both a stream and a format are set).
    ~OBStreamFormat();
    OBStreamFormat(OBStreamFormat const&) = delete;
    OBStreamFormat& operator=(OBStreamFormat const&) = delete;

    // Each adds one argument at the next position.
    OBStreamFormat const& add(bool value) const;
    OBStreamFormat const& add(int value) const;
    OBStreamFormat const& add(unsigned int value) const;
    OBStreamFormat const& add(long long value) const;
    OBStreamFormat const& add(char value) const;
    OBStreamFormat const& add(wchar_t value) const;
    OBStreamFormat const& add(char const* text) const;
    OBStreamFormat const& add(wchar_t const* text) const;
    OBStreamFormat const& add(void const* pointer) const;
    OBStreamFormat const& add(StringBuffer const& buffer) const;
    OBStreamFormat const& add(TimeDate const& date) const;      // as the stream writes it
    OBStreamFormat const& add(TimePeriod const& period) const;  // as the stream writes it
    // An argument of another kind, already rendered to text by its stream operator (time values use it).
    OBStreamFormat const& add_rendered(int type, AString const& text) const;
    // Drops every argument added so far.
    void clear() const;

    // Formats into `out` (replacing it) instead of a stream: the same rules, for callers that need a text.
    static void format_to(AString& out, char const* format_text, Array<OBStreamFormatArg> const& args);

private:
    OBStreamFormatArg& next_(int type) const;
    OBStream* out_;
    char const* format_;
    mutable Array<OBStreamFormatArg> args_;
};

TARVIK_EXPORT OBStreamFormat const& operator<<(OBStreamFormat const& f, char const* text);
TARVIK_EXPORT OBStreamFormat const& operator<<(OBStreamFormat const& f, char c);
TARVIK_EXPORT OBStreamFormat const& operator<<(OBStreamFormat const& f, int value);
TARVIK_EXPORT OBStreamFormat const& operator<<(OBStreamFormat const& f, unsigned int value);
// `long` is taken as an int where it is 32 bits wide and as a 64-bit integer where it is 64 bits wide (it is
// std::int64_t on Linux); `unsigned long` likewise as unsigned int or as the 64-bit integer of its bits.
TARVIK_EXPORT OBStreamFormat const& operator<<(OBStreamFormat const& f, long value);
TARVIK_EXPORT OBStreamFormat const& operator<<(OBStreamFormat const& f, unsigned long value);
TARVIK_EXPORT OBStreamFormat const& operator<<(OBStreamFormat const& f, long long value);      // 64-bit
TARVIK_EXPORT OBStreamFormat const& operator<<(OBStreamFormat const& f, void const* pointer);
TARVIK_EXPORT OBStreamFormat const& operator<<(OBStreamFormat const& f, bool value);
TARVIK_EXPORT OBStreamFormat const& operator<<(OBStreamFormat const& f, StringBuffer const& buffer);
TARVIK_EXPORT OBStreamFormat const& operator<<(OBStreamFormat const& f, AString const& text);
TARVIK_EXPORT OBStreamFormat const& operator<<(OBStreamFormat const& f, wchar_t const* text);
TARVIK_EXPORT OBStreamFormat const& operator<<(OBStreamFormat const& f, wchar_t c);
TARVIK_EXPORT OBStreamFormat const& operator<<(OBStreamFormat const& f, TimeDate const& date);
TARVIK_EXPORT OBStreamFormat const& operator<<(OBStreamFormat const& f, TimePeriod const& period);

}  // namespace tarvik
