// AString.h: the library's 8-bit string.
//
// An AString is a counted, NUL-terminated byte string with value semantics. It holds one pointer to a raw
// block (length, capacity, then the characters and a NUL at index `length`); every AString owns its block
// alone: copying copies the characters, there is no sharing and no copy-on-write. The empty string points
// at a shared, never-freed nil block of capacity 0.
//
// Growth: a block for n characters has capacity (n / 16 + 1) * 16, always strictly more than n. A string
// that must grow beyond its capacity is reallocated to exactly the new length rounded up that way; there
// is no geometric growth, so appending one character at a time reallocates every 16 characters. This is
// the library's fixed rule; call reserve() first when a long string is built piece by piece.
//
// Positions and counts are unsigned 32-bit and never fail: a position beyond the length makes an
// operation do nothing, a count beyond the end is cut to the end, and `npos` (all bits set, also the
// result of a search that finds nothing) means "up to the end".
//
// Comparison is byte by byte as *signed* 8-bit values (bytes from 128 up sort before ASCII), and the
// result is a length difference when one string is a prefix of the other (callers test the sign only).
//
// Thread safety: an AString is used by one thread at a time; distinct strings are independent.
#pragma once

#include <compare>
#include <concepts>

#include "tarvik/Types.h"

namespace tarvik {

// The block behind an AString: header followed by capacity + 1 characters.
struct RawAString {
    unsigned int length;
    unsigned int capacity;
    char* chars() { return reinterpret_cast<char*>(this + 1); }
    char const* chars() const { return reinterpret_cast<char const*>(this + 1); }
};

class TARVIK_EXPORT AString {
public:
    AString();
    AString(AString const& other);
    AString(AString&& other) noexcept;
    AString(AString const& other, unsigned int pos, unsigned int count);
    AString(char const* text);  // null is the empty string
    AString(char const* text, unsigned int count);
    AString(unsigned int count, char c);
    // Wide text converted to the system's narrow code page (UTF-8 on Linux). The converted terminator is
    // kept inside the length: AString(L"ab").length() is 3. On failure the string is empty and
    // "cannot convert String to AString: err=%0" is logged at ERR.
    explicit AString(wchar_t const* text);
#if !TARVIK_WCHAR_T_IS_WCHAR
    // The same conversion from 16-bit units (a String's characters).
    explicit AString(WChar const* text);
#endif
    ~AString();

    AString& operator=(AString const& other);
    AString& operator=(AString&& other) noexcept;
    AString& operator=(char const* text);
    AString& operator=(char c);

    // --- assign / append / insert / replace / erase -------------------------------------------------
    AString& assign(AString const& other);
    AString& assign(AString const& other, unsigned int pos, unsigned int count);
    AString& assign(char const* text);
    AString& assign(char const* text, unsigned int count);
    AString& assign(unsigned int count, char c);

    AString& append(AString const& other);
    AString& append(AString const& other, unsigned int pos, unsigned int count);
    AString& append(char const* text);
    AString& append(char const* text, unsigned int count);
    AString& append(unsigned int count, char c);
    AString& operator+=(AString const& other) { return append(other); }
    AString& operator+=(char const* text) { return append(text); }
    AString& operator+=(char c) {
        if (raw_->length < raw_->capacity) {  // fits: no call, no growth decision to make
            char* chars = raw_->chars();
            chars[raw_->length++] = c;
            chars[raw_->length] = '\0';
            return *this;
        }
        return append(1, c);
    }

    AString& insert(unsigned int pos, AString const& other);
    AString& insert(unsigned int pos, AString const& other, unsigned int opos, unsigned int count);
    AString& insert(unsigned int pos, char const* text);
    AString& insert(unsigned int pos, char const* text, unsigned int count);
    AString& insert(unsigned int pos, unsigned int count, char c);

    // Replaces `count` characters at `pos` (clamped like every range) by the given text.
    AString& replace(unsigned int pos, unsigned int count, AString const& other);
    AString& replace(unsigned int pos, unsigned int count, AString const& other, unsigned int opos,
                     unsigned int ocount);
    AString& replace(unsigned int pos, unsigned int count, char const* text);
    AString& replace(unsigned int pos, unsigned int count, char const* text, unsigned int tcount);
    AString& replace(unsigned int pos, unsigned int count, unsigned int ccount, char c);

    // Replaces every occurrence of `what` by `with`, scanning on after each inserted replacement (inserted
    // text is never rescanned). With match_case false the comparison goes through toupper. Returns the
    // number of replacements; an empty `what` replaces nothing.
    int Replace(char const* what, char const* with, bool match_case = true);
    int replace(char const* what, char const* with, bool match_case) { return Replace(what, with, match_case); }

    AString& erase(unsigned int pos = 0, unsigned int count = npos);
    // Removes `count` characters at `pos`; returns the new length.
    unsigned int Delete(unsigned int pos, unsigned int count = 1);
    void clear();

    // --- whole-string operations ----------------------------------------------------------------------
    AString substr(unsigned int pos = 0, unsigned int count = npos) const;
    // Copies up to `count` characters from `pos` into dest (no terminator); returns how many.
    unsigned int copy(char* dest, unsigned int count, unsigned int pos = 0) const;
    void swap(AString& other) noexcept;
    // Takes over the other's block; the other becomes empty.
    void splice(AString& other) noexcept;
    void resize(unsigned int n, char c = '\0');
    void reserve(unsigned int n);
    // Makes room for n characters and returns them for the caller to fill; the caller then sets the
    // length with size(unsigned int). The current content is kept.
    char* set_buffer(unsigned int n);

    unsigned int capacity() const { return raw_->capacity; }
    unsigned int size() const { return raw_->length; }
    unsigned int length() const { return raw_->length; }
    // Sets the length (a NUL is written after it); a length above the capacity is ignored.
    void size(unsigned int n);
    static constexpr unsigned int max_size() { return 0xFFFFFFFEu - 64u; }
    bool is_empty() const { return raw_->length == 0; }
    char const* c_str() const { return raw_->chars(); }
    char const* data() const { return raw_->chars(); }
    operator char const*() const { return raw_->chars(); }

    // Element access. An index at or beyond the length reads as NUL; writing through it lands in a
    // scratch character, never outside the string.
    template <std::integral I>
    char& operator[](I i) { return at_(static_cast<long long>(i)); }
    template <std::integral I>
    char operator[](I i) const { return get_at(static_cast<long long>(i)); }
    template <std::integral I>
    char& at(I i) { return at_(static_cast<long long>(i)); }
    template <std::integral I>
    char at(I i) const { return get_at(static_cast<long long>(i)); }
    char get_at(long long i) const;
    void put_at(long long i, char c);

    // --- comparison -----------------------------------------------------------------------------------
    int compare(AString const& other) const;
    int compare(char const* other) const;
    int compare(unsigned int pos, unsigned int count, AString const& other) const;
    int compare(unsigned int pos, unsigned int count, char const* other) const;
    int icompare(AString const& other) const;
    int icompare(char const* other) const;
    int CompareNoCase(AString const& other) const { return icompare(other); }
    int CompareNoCase(char const* other) const { return icompare(other); }

    // Per-character tests used by the comparisons (`lt` signed; the `i` forms through toupper).
    static bool eq(char a, char b);
    static bool ne(char a, char b);
    static bool lt(char a, char b);
    static bool ieq(char a, char b);
    static bool ine(char a, char b);
    static bool ilt(char a, char b);

    // --- search (npos when nothing is found or pos is at or beyond the length) -------------------------
    unsigned int find(AString const& s, unsigned int pos = 0) const;
    unsigned int find(char const* s, unsigned int pos = 0) const;
    unsigned int find(char c, unsigned int pos = 0) const;
    unsigned int rfind(AString const& s, unsigned int pos = npos) const;
    unsigned int rfind(char const* s, unsigned int pos = npos) const;
    unsigned int rfind(char c, unsigned int pos = npos) const;
    unsigned int find_first_of(AString const& set, unsigned int pos = 0) const;
    unsigned int find_first_of(char const* set, unsigned int pos = 0) const;
    unsigned int find_first_of(char c, unsigned int pos = 0) const;
    unsigned int find_first_not_of(AString const& set, unsigned int pos = 0) const;
    unsigned int find_first_not_of(char const* set, unsigned int pos = 0) const;
    unsigned int find_first_not_of(char c, unsigned int pos = 0) const;
    unsigned int find_last_of(AString const& set, unsigned int pos = npos) const;
    unsigned int find_last_of(char const* set, unsigned int pos = npos) const;
    unsigned int find_last_of(char c, unsigned int pos = npos) const;
    unsigned int find_last_not_of(AString const& set, unsigned int pos = npos) const;
    unsigned int find_last_not_of(char const* set, unsigned int pos = npos) const;
    unsigned int find_last_not_of(char c, unsigned int pos = npos) const;

    // --- case -------------------------------------------------------------------------------------------
    AString& make_upper();
    AString& make_lower();
    AString& MakeUpper() { return make_upper(); }
    AString& MakeLower() { return make_lower(); }

    // --- formatting and matching ------------------------------------------------------------------------
    // Replaces the content by printf-style formatted text (the C library's conversions, checked by the
    // compiler). Returns *this.
    AString& Format(char const* format, ...) TARVIK_PRINTF_FORMAT(2, 3);

    // Matches the whole string against a glob pattern and hands out up to nine captures:
    //   *      any run of characters (possibly empty); each '*' captures its run into the next output
    //   ?      exactly one character (not captured)
    //   [set]  one character of the set: single characters and ranges a-z; [!set] or [^set] negates;
    //          a ']' first in the set is taken literally
    //   \c     the character c itself ('\' last in the pattern matches a '\')
    //   other  itself, case-sensitive
    // Earlier stars take as little as they can and the last star as much as the rest needs, so
    // "key=*,*" on "key=a,b,c" captures "a" and "b,c". Returns true when the whole string matches; the
    // outputs (null ones are skipped, a tenth and later star captures nothing) are written only then.
    // Runs in O(pattern x text) time.
    bool match(char const* pattern, AString* out1 = nullptr, AString* out2 = nullptr, AString* out3 = nullptr,
               AString* out4 = nullptr, AString* out5 = nullptr, AString* out6 = nullptr,
               AString* out7 = nullptr, AString* out8 = nullptr, AString* out9 = nullptr) const;

    // --- XML text ---------------------------------------------------------------------------------------
    // Writes the text with & < > ' " escaped as entities; characters below 32 other than tab, line feed,
    // vertical tab, form feed and carriage return are dropped; everything else (bytes >= 128 included)
    // goes out unchanged. Returns 0.
    long write_xml(OBStream& out) const;
    // Reading a string from XML is done by the XML reader; this does nothing and returns 0.
    long read_xml(IBStream& in);

    // --- raw block ----------------------------------------------------------------------------------
    // The characters of the shared nil block: an empty text.
    static char const* nil_data();
    // Points the string at the nil block without releasing what it held (for raw construction only).
    void init();
    // Clamps a range to this string: count becomes 0 when pos is beyond the length, and is cut to the
    // characters left after pos. Returns the clamped count.
    unsigned int validate_range(unsigned int pos, unsigned int& count) const;

    friend bool operator==(AString const& a, AString const& b) { return a.equal_(b.c_str(), b.length()); }
    friend bool operator==(AString const& a, char const* b) { return a.compare(b) == 0; }
    friend bool operator<(AString const& a, AString const& b) { return a.compare(b) < 0; }
    friend bool operator<(AString const& a, char const* b) { return a.compare(b) < 0; }
    friend bool operator<(char const* a, AString const& b) { return b.compare(a) > 0; }
    friend bool operator>(AString const& a, AString const& b) { return a.compare(b) > 0; }
    friend bool operator>(AString const& a, char const* b) { return a.compare(b) > 0; }
    friend bool operator>(char const* a, AString const& b) { return b.compare(a) < 0; }
    friend bool operator<=(AString const& a, AString const& b) { return a.compare(b) <= 0; }
    friend bool operator>=(AString const& a, AString const& b) { return a.compare(b) >= 0; }

private:
    friend struct AStringAccess;
    char& at_(long long i);
    bool equal_(char const* text, unsigned int n) const;
    int compare_helper_(unsigned int pos, unsigned int count, char const* other, unsigned int olen,
                        bool no_case) const;

    RawAString* raw_;
};

TARVIK_EXPORT AString operator+(AString const& a, AString const& b);
TARVIK_EXPORT AString operator+(AString const& a, char const* b);
TARVIK_EXPORT AString operator+(char const* a, AString const& b);
TARVIK_EXPORT AString operator+(AString const& a, char b);
TARVIK_EXPORT AString operator+(char a, AString const& b);

// The XML writer of AString as a free function (same as the member).
TARVIK_EXPORT long write_xml(AString const& text, OBStream& out);

// Folds UTF-8 into 8-bit characters: a byte below 128 is copied; a lead byte 192-223 takes one
// continuation byte, 224-239 two, 240-247 three, 248-251 four, 252-253 five, each adding its low 6
// bits. A code point below 65536 becomes one character (its low 8 bits); a larger one becomes two: the
// code point / 65535 and the code point % 65535, each as its low 8 bits (65535, not 65536: a fixed rule of
// this form). Other bytes (stray continuations, 254, 255) are copied as they are; a sequence cut short by
// the end of the text is dropped. `out` is replaced. Limits: nothing nests, and `out` is never longer
// than the input.
TARVIK_EXPORT void DecodeFromUTF8(AString const& utf8, AString& out);
// Converts UTF-8 to the system's narrow code page through wide text, as AString(wchar_t const*) does,
// trailing NUL included. On Linux the system code page is UTF-8, so the bytes come back (with the NUL
// appended) when the input is valid UTF-8; invalid input is logged and leaves `out` empty.
TARVIK_EXPORT void DecodeFromUTF8(char const* utf8, AString& out);

}  // namespace tarvik
