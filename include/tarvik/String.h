// String.h: the library's wide string, String, of 16-bit units.
//
// String is the 16-bit counterpart of AString: the same operations with the same rules for positions,
// counts (clamped, `npos` for "to the end"), comparison (the first differing unit decides, as unsigned
// 16-bit values; otherwise a length difference) and search, over WChar units. It differs in three ways:
//
//   * Its blocks come from a String::Allocator. The default one, StringAllocator, is made on first use and
//     shared by every string not given another; a copy uses the allocator of its source. Callers may pass
//     their own allocator (which must outlive every string that uses it).
//   * Narrow text widens byte by byte, no code page involved: the byte 233 becomes the unit 233.
//   * It converts to and from UTF-8 (EncodeToUTF8 / DecodeFromUTF8 below).
//
// Wide text given as `wchar_t const*` is UTF-16 on Windows and UTF-32 on Linux, where characters above
// U+FFFF become surrogate pairs. Growth follows the same rule as AString: capacity (n / 16 + 1) * 16,
// reallocated to exactly the new length rounded up, no geometric growth.
//
// Thread safety: a String is used by one thread at a time. The default allocator may be used by any
// number of threads at once.
#pragma once

#include <concepts>

#include "tarvik/Types.h"

namespace tarvik {

// The block behind a String: header followed by capacity + 1 units.
struct RawString {
    unsigned int length;
    unsigned int capacity;
    WChar* chars() { return reinterpret_cast<WChar*>(this + 1); }
    WChar const* chars() const { return reinterpret_cast<WChar const*>(this + 1); }
};

class TARVIK_EXPORT String {
public:
    // Where a String's blocks come from.
    class TARVIK_EXPORT Allocator {
    public:
        virtual ~Allocator();
        // A block for n units: length 0, first unit 0.
        virtual RawString* allocate(unsigned int n) = 0;
        // Grows the block to hold n units keeping its content; nothing when n fits.
        virtual void reallocate(RawString*& raw, unsigned int n) = 0;
        // Frees a block (never the shared empty block, whose capacity is 0).
        virtual void release(RawString* raw) = 0;
        // Makes dest hold a copy of src (an empty src leaves dest as the empty block).
        virtual void assign(RawString*& dest, RawString const* src) = 0;
    };

    // The shared default allocator.
    static Allocator* default_allocator();
    // The shared empty block.
    static RawString* nil_block();

    String();
    explicit String(Allocator* allocator);
    String(String const& other);
    String(String&& other) noexcept;
    String(String const& other, unsigned int pos, unsigned int count);
    String(WChar const* text);
    String(WChar const* text, unsigned int count);
    String(unsigned int count, WChar c);
#if !TARVIK_WCHAR_T_IS_WCHAR
    String(wchar_t const* text);
    String(wchar_t const* text, unsigned int count);
#endif
    // Narrow text, each byte widened to the unit of the same value.
    String(char const* text);
    String(char const* text, unsigned int count);
    ~String();

    String& operator=(String const& other);
    String& operator=(String&& other) noexcept;
    String& operator=(WChar const* text);
    String& operator=(char const* text);

    Allocator* get_allocator() const { return allocator_; }
    // Clamps a range to this string, as AString::validate_range does; returns the clamped count.
    unsigned int validate_range(unsigned int pos, unsigned int& count) const;

    // --- assign / append / insert / replace / erase -------------------------------------------------
    String& assign(String const& other);
    String& assign(String const& other, unsigned int pos, unsigned int count);
    String& assign(WChar const* text);
    String& assign(WChar const* text, unsigned int count);
    String& assign(unsigned int count, WChar c);
    String& assign(char const* text);  // widened
    String& assign(char const* text, unsigned int count);

    String& append(String const& other);
    String& append(String const& other, unsigned int pos, unsigned int count);
    String& append(WChar const* text);
    String& append(WChar const* text, unsigned int count);
    String& append(unsigned int count, WChar c);
    String& append(char const* text);  // widened
    String& operator+=(String const& other) { return append(other); }
    String& operator+=(WChar const* text) { return append(text); }
    String& operator+=(WChar c) { return append(1, c); }
    String& operator+=(char const* text) { return append(text); }

    String& insert(unsigned int pos, String const& other);
    String& insert(unsigned int pos, String const& other, unsigned int opos, unsigned int count);
    String& insert(unsigned int pos, WChar const* text);
    String& insert(unsigned int pos, WChar const* text, unsigned int count);
    String& insert(unsigned int pos, unsigned int count, WChar c);

    String& replace(unsigned int pos, unsigned int count, String const& other);
    String& replace(unsigned int pos, unsigned int count, String const& other, unsigned int opos,
                    unsigned int ocount);
    String& replace(unsigned int pos, unsigned int count, WChar const* text);
    String& replace(unsigned int pos, unsigned int count, WChar const* text, unsigned int tcount);
    String& replace(unsigned int pos, unsigned int count, unsigned int ccount, WChar c);
    // Replaces every occurrence of `what` by `with` (see AString::Replace); returns the count.
    int Replace(WChar const* what, WChar const* with, bool match_case = true);
    int replace(WChar const* what, WChar const* with, bool match_case) { return Replace(what, with, match_case); }

    String& erase(unsigned int pos = 0, unsigned int count = npos);
    unsigned int Delete(unsigned int pos, unsigned int count = 1);
    void clear();

    // --- whole-string operations ----------------------------------------------------------------------
    String substr(unsigned int pos = 0, unsigned int count = npos) const;
    unsigned int copy(WChar* dest, unsigned int count, unsigned int pos = 0) const;
    void swap(String& other) noexcept;
    void splice(String& other) noexcept;
    void resize(unsigned int n, WChar c = 0);
    void reserve(unsigned int n);
    // Grows through the allocator to hold n units, keeping the content.
    void reallocate(unsigned int n);
    // Makes room for n units and returns them for the caller to fill; then size(unsigned int).
    WChar* allocate(unsigned int n);
    WChar* set_buffer(unsigned int n) { return allocate(n); }

    unsigned int capacity() const { return raw_->capacity; }
    unsigned int size() const { return raw_->length; }
    unsigned int length() const { return raw_->length; }
    void size(unsigned int n);
    static constexpr unsigned int max_size() { return (0xFFFFFFFEu - 64u) / 2; }
    bool is_empty() const { return raw_->length == 0; }
    WChar const* c_str() const { return raw_->chars(); }
    WChar const* data() const { return raw_->chars(); }
    operator WChar const*() const { return raw_->chars(); }

    template <std::integral I>
    WChar& operator[](I i) { return at_(static_cast<long long>(i)); }
    template <std::integral I>
    WChar operator[](I i) const { return get_at(static_cast<long long>(i)); }
    template <std::integral I>
    WChar& at(I i) { return at_(static_cast<long long>(i)); }
    template <std::integral I>
    WChar at(I i) const { return get_at(static_cast<long long>(i)); }
    WChar get_at(long long i) const;
    void put_at(long long i, WChar c);

    // --- comparison and search --------------------------------------------------------------------------
    int compare(String const& other) const;
    int compare(WChar const* other) const;
    int compare(unsigned int pos, unsigned int count, String const& other) const;
    int compare(unsigned int pos, unsigned int count, WChar const* other) const;
    int icompare(String const& other) const;
    int icompare(WChar const* other) const;
    int CompareNoCase(String const& other) const { return icompare(other); }
    int CompareNoCase(WChar const* other) const { return icompare(other); }
    // The per-unit tests of the comparisons: lt as unsigned 16-bit values, the i forms through towupper.
    static bool eq(WChar a, WChar b);
    static bool ne(WChar a, WChar b);
    static bool lt(WChar a, WChar b);
    static bool ieq(WChar a, WChar b);
    static bool ine(WChar a, WChar b);
    static bool ilt(WChar a, WChar b);

    unsigned int find(String const& s, unsigned int pos = 0) const;
    unsigned int find(WChar const* s, unsigned int pos = 0) const;
    unsigned int find(WChar c, unsigned int pos = 0) const;
    unsigned int rfind(String const& s, unsigned int pos = npos) const;
    unsigned int rfind(WChar const* s, unsigned int pos = npos) const;
    unsigned int rfind(WChar c, unsigned int pos = npos) const;
    unsigned int find_first_of(String const& set, unsigned int pos = 0) const;
    unsigned int find_first_of(WChar const* set, unsigned int pos = 0) const;
    unsigned int find_first_of(WChar c, unsigned int pos = 0) const;
    unsigned int find_first_not_of(String const& set, unsigned int pos = 0) const;
    unsigned int find_first_not_of(WChar const* set, unsigned int pos = 0) const;
    unsigned int find_first_not_of(WChar c, unsigned int pos = 0) const;
    unsigned int find_last_of(String const& set, unsigned int pos = npos) const;
    unsigned int find_last_of(WChar const* set, unsigned int pos = npos) const;
    unsigned int find_last_of(WChar c, unsigned int pos = npos) const;
    unsigned int find_last_not_of(String const& set, unsigned int pos = npos) const;
    unsigned int find_last_not_of(WChar const* set, unsigned int pos = npos) const;
    unsigned int find_last_not_of(WChar c, unsigned int pos = npos) const;

    String& make_upper();
    String& make_lower();
    String& MakeUpper() { return make_upper(); }
    String& MakeLower() { return make_lower(); }

    // --- formatting and matching ------------------------------------------------------------------------
    // Replaces the content by swprintf-style formatted wide text (wide arguments with %ls, which are
    // wchar_t text, not a String's units: pass AString/narrow text with %s). Text longer than
    // kMaxFormatted units, or an argument the C library cannot convert, leaves the string empty.
    // Returns *this.
    static constexpr unsigned int kMaxFormatted = 1u << 20;
    String& Format(wchar_t const* format, ...);
    // AString::match over 16-bit units: the same glob pattern (*, ?, [set], \c), whole-string match, up
    // to nine captures, outputs written only on success.
    bool match(String const& pattern, String* out1 = nullptr, String* out2 = nullptr, String* out3 = nullptr,
               String* out4 = nullptr, String* out5 = nullptr, String* out6 = nullptr, String* out7 = nullptr,
               String* out8 = nullptr, String* out9 = nullptr) const;

    // Writes the text as UTF-8 with & < > ' " escaped as entities and units below 32 other than white space
    // dropped. Returns 0.
    long write_xml(OBStream& out) const;
    // Reading is done by the XML reader; this does nothing and returns 0.
    long read_xml(IBStream& in);

    friend bool operator==(String const& a, String const& b) { return a.compare(b) == 0; }
    friend bool operator==(String const& a, WChar const* b) { return a.compare(b) == 0; }
    friend bool operator<(String const& a, String const& b) { return a.compare(b) < 0; }
    friend bool operator>(String const& a, String const& b) { return a.compare(b) > 0; }

private:
    friend struct StringAccess;
    WChar& at_(long long i);

    RawString* raw_;
    Allocator* allocator_;
};

// The default allocator: capacity (n / 16 + 1) * 16 units, with room for 16 more units for the header
// and the terminator; growth reallocates to exactly the new length rounded up.
class TARVIK_EXPORT StringAllocator : public String::Allocator {
public:
    RawString* allocate(unsigned int n) override;
    void reallocate(RawString*& raw, unsigned int n) override;
    void release(RawString* raw) override;
    void assign(RawString*& dest, RawString const* src) override;
};

TARVIK_EXPORT String operator+(String const& a, String const& b);

// UTF-8. EncodeToUTF8 replaces `out` by the UTF-8 form, each 16-bit unit on its own (surrogate pairs are
// not combined): below 128 one byte; up to 2047 two bytes; above, three bytes.
TARVIK_EXPORT void EncodeToUTF8(String const& text, AString& out);
TARVIK_EXPORT void EncodeToUTF8(wchar_t const* text, AString& out);
#if !TARVIK_WCHAR_T_IS_WCHAR
TARVIK_EXPORT void EncodeToUTF8(WChar const* text, AString& out);
#endif
// The inverse, with AString's lead-byte rules (DecodeFromUTF8(AString const&, AString&)): each decoded
// code point below 65536 is one unit, one above is a surrogate pair (above U+10FFFF: U+FFFD); stray
// bytes are taken as the unit of the same value; a sequence cut short by the end is dropped. Limits:
// nothing nests, and the result never has more units than the input has bytes.
TARVIK_EXPORT void DecodeFromUTF8(AString const& utf8, String& out);

}  // namespace tarvik
