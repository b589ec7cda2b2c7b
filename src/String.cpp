#include "tarvik/String.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <vector>

#include "LogUnit.h"
#include "Memory.h"
#include "StringOps.h"
#include "Utf8.h"
#include "tarvik/AString.h"
#include "tarvik/IOBStream.h"
#include "tarvik/StringBuffer.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

alignas(RawString) unsigned char nil_storage[sizeof(RawString) + 8] = {};

unsigned int units_in(WChar const* s) { return string_ops::length_of(s); }
unsigned int bytes_in(char const* s) { return string_ops::length_of(s); }

}  // namespace

// --- allocators -----------------------------------------------------------------------------------------

String::Allocator::~Allocator() = default;

RawString* StringAllocator::allocate(unsigned int n) {
    std::size_t capacity = (static_cast<std::size_t>(n) / 16 + 1) * 16;
    auto* raw = static_cast<RawString*>(memory::allocate((capacity + 16) * sizeof(WChar)));
    raw->length = 0;
    raw->capacity = static_cast<unsigned int>(capacity);
    raw->chars()[0] = 0;
    return raw;
}

void StringAllocator::reallocate(RawString*& raw, unsigned int n) {
    if (n <= raw->capacity) return;
    RawString* fresh = allocate(n);
    std::memcpy(fresh->chars(), raw->chars(), (raw->length + 1) * sizeof(WChar));
    fresh->length = raw->length;
    if (raw->capacity != 0) release(raw);  // release() is never handed the shared empty block
    raw = fresh;
}

void StringAllocator::release(RawString* raw) {
    if (raw && raw != String::nil_block() && raw->capacity != 0) std::free(raw);
}

void StringAllocator::assign(RawString*& dest, RawString const* src) {
    if (dest == src) return;
    if (src->length == 0) {
        if (dest->capacity != 0) release(dest);
        dest = String::nil_block();
        return;
    }
    if (src->length > dest->capacity) {
        RawString* fresh = allocate(src->length);
        if (dest->capacity != 0) release(dest);
        dest = fresh;
    }
    std::memcpy(dest->chars(), src->chars(), (src->length + 1) * sizeof(WChar));
    dest->length = src->length;
}

String::Allocator* String::default_allocator() {
    static StringAllocator* const instance = memory::create<StringAllocator>();
    return instance;
}

RawString* String::nil_block() { return reinterpret_cast<RawString*>(nil_storage); }

// Block management of one String, through its allocator.
struct StringBlocks {
    String::Allocator* allocator;
    RawString* allocate(unsigned int n) const { return allocator->allocate(n); }
    void reallocate(RawString*& raw, unsigned int n) const { allocator->reallocate(raw, n); }
    void release(RawString* raw) const {
        // NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage): never null (String's constructors default it)
        if (raw->capacity != 0) allocator->release(raw);
    }
    static RawString* nil() { return String::nil_block(); }
};

struct StringAccess {
    static string_ops::Editor<WChar, RawString, StringBlocks> edit(String& s) {
        return string_ops::Editor<WChar, RawString, StringBlocks>(s.raw_, StringBlocks{s.allocator_});
    }
};

namespace {

auto edit(String& s) { return StringAccess::edit(s); }

// Widens narrow bytes (each byte the unit of the same value) into a temporary unit array.
struct Widened {
    Widened(char const* text, unsigned int n) : data(static_cast<WChar*>(memory::allocate((n + 1) * sizeof(WChar)))) {
        for (unsigned int i = 0; i < n; ++i) data[i] = static_cast<WChar>(static_cast<unsigned char>(text[i]));
        data[n] = 0;
        count = n;
    }
    ~Widened() { std::free(data); }
    Widened(Widened const&) = delete;
    Widened& operator=(Widened const&) = delete;
    WChar* data;
    unsigned int count;
};

#if !TARVIK_WCHAR_T_IS_WCHAR
// Converts UTF-32 wchar_t text to 16-bit units: characters above U+FFFF become surrogate pairs, values
// that are no character (surrogates, above U+10FFFF) become U+FFFD.
void append_utf32(String& out, wchar_t const* text, unsigned int n) {
    out.reserve(out.length() + n);
    for (unsigned int i = 0; i < n; ++i) {
        auto cp = static_cast<unsigned long>(static_cast<unsigned int>(text[i]));
        WChar units[2];
        out.append(units, utf8::to_units(utf8::is_character(cp) ? cp : 0xFFFD, units));
    }
}
#endif

}  // namespace

// --- construction -------------------------------------------------------------------------------------

String::String() : raw_(nil_block()), allocator_(default_allocator()) {}
String::String(Allocator* allocator) : raw_(nil_block()), allocator_(allocator ? allocator : default_allocator()) {}
String::String(String const& other) : raw_(nil_block()), allocator_(other.allocator_) { assign(other); }
String::String(String&& other) noexcept : raw_(other.raw_), allocator_(other.allocator_) {
    other.raw_ = nil_block();
}
String::String(String const& other, unsigned int pos, unsigned int count)
    : raw_(nil_block()), allocator_(other.allocator_) {
    assign(other, pos, count);
}
String::String(WChar const* text) : String() { assign(text); }
String::String(WChar const* text, unsigned int count) : String() { assign(text, count); }
String::String(unsigned int count, WChar c) : String() { assign(count, c); }
#if !TARVIK_WCHAR_T_IS_WCHAR
String::String(wchar_t const* text) : String() {
    unsigned int n = 0;
    while (text && text[n]) ++n;
    append_utf32(*this, text, n);
}
String::String(wchar_t const* text, unsigned int count) : String() {
    if (text) append_utf32(*this, text, count);
}
#endif
String::String(char const* text) : String() { assign(text); }
String::String(char const* text, unsigned int count) : String() { assign(text, count); }

String::~String() { StringBlocks{allocator_}.release(raw_); }

String& String::operator=(String const& other) {
    if (this != &other) allocator_->assign(raw_, other.raw_);
    return *this;
}

String& String::operator=(String&& other) noexcept {
    if (this != &other) {
        StringBlocks{allocator_}.release(raw_);
        raw_ = other.raw_;
        allocator_ = other.allocator_;
        other.raw_ = nil_block();
    }
    return *this;
}

String& String::operator=(WChar const* text) { return assign(text); }
String& String::operator=(char const* text) { return assign(text); }

// --- assign / append / insert / replace / erase ----------------------------------------------------------

String& String::assign(String const& other) {
    if (this != &other) allocator_->assign(raw_, other.raw_);
    return *this;
}
String& String::assign(String const& other, unsigned int pos, unsigned int count) {
    count = string_ops::clamp_range(other.length(), pos, count);
    return assign(other.c_str() + (pos > other.length() ? other.length() : pos), count);
}
String& String::assign(WChar const* text) { return assign(text, units_in(text)); }
String& String::assign(WChar const* text, unsigned int count) {
    edit(*this).assign(text, count);
    return *this;
}
String& String::assign(unsigned int count, WChar c) {
    auto e = edit(*this);
    e.clear();
    if (count && count <= max_size()) e.replace(0, 0, nullptr, count, c);
    return *this;
}
String& String::assign(char const* text) { return assign(text, bytes_in(text)); }
String& String::assign(char const* text, unsigned int count) {
    if (!text || count == 0) {
        clear();
        return *this;
    }
    Widened wide(text, count);
    return assign(wide.data, wide.count);
}

String& String::append(String const& other) { return append(other.c_str(), other.length()); }
String& String::append(String const& other, unsigned int pos, unsigned int count) {
    count = string_ops::clamp_range(other.length(), pos, count);
    return count ? append(other.c_str() + pos, count) : *this;
}
String& String::append(WChar const* text) { return append(text, units_in(text)); }
String& String::append(WChar const* text, unsigned int count) {
    if (text && count) edit(*this).replace(raw_->length, 0, text, count);
    return *this;
}
String& String::append(unsigned int count, WChar c) {
    if (count) edit(*this).replace(raw_->length, 0, nullptr, count, c);
    return *this;
}
String& String::append(char const* text) {
    unsigned int n = bytes_in(text);
    if (n == 0) return *this;
    Widened wide(text, n);
    return append(wide.data, wide.count);
}

String& String::insert(unsigned int pos, String const& other) { return insert(pos, other.c_str(), other.length()); }
String& String::insert(unsigned int pos, String const& other, unsigned int opos, unsigned int count) {
    count = string_ops::clamp_range(other.length(), opos, count);
    return count ? insert(pos, other.c_str() + opos, count) : *this;
}
String& String::insert(unsigned int pos, WChar const* text) { return insert(pos, text, units_in(text)); }
String& String::insert(unsigned int pos, WChar const* text, unsigned int count) {
    if (pos <= raw_->length && text && count) edit(*this).replace(pos, 0, text, count);
    return *this;
}
String& String::insert(unsigned int pos, unsigned int count, WChar c) {
    if (pos <= raw_->length && count) edit(*this).replace(pos, 0, nullptr, count, c);
    return *this;
}

String& String::replace(unsigned int pos, unsigned int count, WChar const* text, unsigned int tcount) {
    if (pos > raw_->length) return *this;
    count = string_ops::clamp_range(raw_->length, pos, count);
    static constexpr WChar kEmpty[1] = {0};
    edit(*this).replace(pos, count, text ? text : kEmpty, text ? tcount : 0);
    return *this;
}
String& String::replace(unsigned int pos, unsigned int count, String const& other) {
    return replace(pos, count, other.c_str(), other.length());
}
String& String::replace(unsigned int pos, unsigned int count, String const& other, unsigned int opos,
                        unsigned int ocount) {
    ocount = string_ops::clamp_range(other.length(), opos, ocount);
    return replace(pos, count, other.c_str() + (opos > other.length() ? other.length() : opos), ocount);
}
String& String::replace(unsigned int pos, unsigned int count, WChar const* text) {
    return replace(pos, count, text, units_in(text));
}
String& String::replace(unsigned int pos, unsigned int count, unsigned int ccount, WChar c) {
    if (pos > raw_->length) return *this;
    count = string_ops::clamp_range(raw_->length, pos, count);
    edit(*this).replace(pos, count, nullptr, ccount, c);
    return *this;
}

int String::Replace(WChar const* what, WChar const* with, bool match_case) {
    unsigned int wlen = units_in(what);
    if (wlen == 0 || raw_->length < wlen) return 0;
    unsigned int rlen = units_in(with);
    String result(allocator_);
    int replaced = 0;
    WChar const* s = raw_->chars();
    unsigned int len = raw_->length;
    WChar first = string_ops::CharRules<WChar>::upper(what[0]);
    for (unsigned int i = 0; i < len;) {
        bool hit = i + wlen <= len && string_ops::CharRules<WChar>::upper(s[i]) == first &&
                   string_ops::compare(s + i, wlen, what, wlen, !match_case) == 0;
        if (hit) {
            result.append(with, rlen);
            i += wlen;
            ++replaced;
        } else {
            result.append(1, s[i]);
            ++i;
        }
    }
    if (replaced) splice(result);
    return replaced;
}

String& String::erase(unsigned int pos, unsigned int count) {
    if (pos > raw_->length) return *this;
    count = string_ops::clamp_range(raw_->length, pos, count);
    static constexpr WChar kEmpty[1] = {0};
    if (count) edit(*this).replace(pos, count, kEmpty, 0);
    return *this;
}

unsigned int String::Delete(unsigned int pos, unsigned int count) {
    erase(pos, count);
    return raw_->length;
}

void String::clear() { edit(*this).clear(); }

// --- whole-string operations --------------------------------------------------------------------------

String String::substr(unsigned int pos, unsigned int count) const { return String(*this, pos, count); }

unsigned int String::copy(WChar* dest, unsigned int count, unsigned int pos) const {
    if (!dest) return 0;
    count = string_ops::clamp_range(raw_->length, pos, count);
    if (count) std::memcpy(dest, raw_->chars() + pos, count * sizeof(WChar));
    return count;
}

void String::swap(String& other) noexcept {
    RawString* r = raw_;
    raw_ = other.raw_;
    other.raw_ = r;
    Allocator* a = allocator_;
    allocator_ = other.allocator_;
    other.allocator_ = a;
}

void String::splice(String& other) noexcept {
    if (this == &other) return;
    StringBlocks{allocator_}.release(raw_);
    raw_ = other.raw_;
    allocator_ = other.allocator_;
    other.raw_ = nil_block();
}

void String::resize(unsigned int n, WChar c) {
    if (n <= max_size()) edit(*this).resize(n, c);
}

void String::reserve(unsigned int n) { reallocate(n); }

void String::reallocate(unsigned int n) {
    if (n <= max_size()) allocator_->reallocate(raw_, n);
}

WChar* String::allocate(unsigned int n) {
    reallocate(n);
    if (raw_->capacity == 0) allocator_->reallocate(raw_, 1);
    return raw_->chars();
}

void String::size(unsigned int n) {
    if (n <= raw_->capacity) edit(*this).set_length(n);
}

WChar String::get_at(long long i) const {
    if (i < 0 || i >= static_cast<long long>(raw_->length)) return 0;
    return raw_->chars()[i];
}

void String::put_at(long long i, WChar c) {
    if (i >= 0 && i < static_cast<long long>(raw_->length)) raw_->chars()[i] = c;
}

WChar& String::at_(long long i) {
    if (i < 0 || i >= static_cast<long long>(raw_->length)) {
        thread_local WChar scratch;
        scratch = 0;
        return scratch;
    }
    return raw_->chars()[i];
}

// --- comparison and search --------------------------------------------------------------------------------

int String::compare(String const& other) const {
    return string_ops::compare(c_str(), length(), other.c_str(), other.length(), false);
}
int String::compare(WChar const* other) const {
    static constexpr WChar kEmpty[1] = {0};
    return string_ops::compare(c_str(), length(), other ? other : kEmpty, other ? units_in(other) : 0, false);
}
int String::compare(unsigned int pos, unsigned int count, String const& other) const {
    count = string_ops::clamp_range(length(), pos, count);
    return string_ops::compare(c_str() + (pos > length() ? length() : pos), count, other.c_str(), other.length(),
                               false);
}
int String::compare(unsigned int pos, unsigned int count, WChar const* other) const {
    static constexpr WChar kEmpty[1] = {0};
    count = string_ops::clamp_range(length(), pos, count);
    return string_ops::compare(c_str() + (pos > length() ? length() : pos), count, other ? other : kEmpty,
                               other ? units_in(other) : 0, false);
}
unsigned int String::validate_range(unsigned int pos, unsigned int& count) const {
    count = string_ops::clamp_range(length(), pos, count);
    return count;
}
int String::icompare(String const& other) const {
    return string_ops::compare(c_str(), length(), other.c_str(), other.length(), true);
}
int String::icompare(WChar const* other) const {
    static constexpr WChar kEmpty[1] = {0};
    return string_ops::compare(c_str(), length(), other ? other : kEmpty, other ? units_in(other) : 0, true);
}

unsigned int String::find(String const& s, unsigned int pos) const {
    return string_ops::find(c_str(), length(), s.c_str(), s.length(), pos);
}
unsigned int String::find(WChar const* s, unsigned int pos) const { return find(String(s), pos); }
unsigned int String::find(WChar c, unsigned int pos) const { return string_ops::find(c_str(), length(), &c, 1, pos); }
unsigned int String::rfind(String const& s, unsigned int pos) const {
    return string_ops::rfind(c_str(), length(), s.c_str(), s.length(), pos);
}
unsigned int String::rfind(WChar const* s, unsigned int pos) const { return rfind(String(s), pos); }
unsigned int String::rfind(WChar c, unsigned int pos) const { return string_ops::rfind(c_str(), length(), &c, 1, pos); }
unsigned int String::find_first_of(String const& set, unsigned int pos) const {
    return string_ops::find_first(c_str(), length(), set.c_str(), set.length(), pos, true);
}
unsigned int String::find_first_of(WChar const* set, unsigned int pos) const { return find_first_of(String(set), pos); }
unsigned int String::find_first_of(WChar c, unsigned int pos) const {
    return string_ops::find_first(c_str(), length(), &c, 1, pos, true);
}
unsigned int String::find_first_not_of(String const& set, unsigned int pos) const {
    return string_ops::find_first(c_str(), length(), set.c_str(), set.length(), pos, false);
}
unsigned int String::find_first_not_of(WChar const* set, unsigned int pos) const {
    return find_first_not_of(String(set), pos);
}
unsigned int String::find_first_not_of(WChar c, unsigned int pos) const {
    return string_ops::find_first(c_str(), length(), &c, 1, pos, false);
}
unsigned int String::find_last_of(String const& set, unsigned int pos) const {
    return string_ops::find_last(c_str(), length(), set.c_str(), set.length(), pos, true);
}
unsigned int String::find_last_of(WChar const* set, unsigned int pos) const { return find_last_of(String(set), pos); }
unsigned int String::find_last_of(WChar c, unsigned int pos) const {
    return string_ops::find_last(c_str(), length(), &c, 1, pos, true);
}
unsigned int String::find_last_not_of(String const& set, unsigned int pos) const {
    return string_ops::find_last(c_str(), length(), set.c_str(), set.length(), pos, false);
}
unsigned int String::find_last_not_of(WChar const* set, unsigned int pos) const {
    return find_last_not_of(String(set), pos);
}
unsigned int String::find_last_not_of(WChar c, unsigned int pos) const {
    return string_ops::find_last(c_str(), length(), &c, 1, pos, false);
}

String& String::make_upper() {
    for (unsigned int i = 0; i < raw_->length; ++i) raw_->chars()[i] = string_ops::CharRules<WChar>::upper(raw_->chars()[i]);
    return *this;
}

String& String::make_lower() {
    for (unsigned int i = 0; i < raw_->length; ++i) raw_->chars()[i] = string_ops::CharRules<WChar>::lower(raw_->chars()[i]);
    return *this;
}

bool String::eq(WChar a, WChar b) { return a == b; }
bool String::ne(WChar a, WChar b) { return a != b; }
bool String::lt(WChar a, WChar b) {
    return string_ops::CharRules<WChar>::value(a) < string_ops::CharRules<WChar>::value(b);
}
bool String::ieq(WChar a, WChar b) {
    return string_ops::CharRules<WChar>::upper(a) == string_ops::CharRules<WChar>::upper(b);
}
bool String::ine(WChar a, WChar b) { return !ieq(a, b); }
bool String::ilt(WChar a, WChar b) {
    return lt(string_ops::CharRules<WChar>::upper(a), string_ops::CharRules<WChar>::upper(b));
}

// --- formatting and matching --------------------------------------------------------------------------

String& String::Format(wchar_t const* format, ...) {
    // vswprintf cannot say how long its text would be: it fails when the room is short, so the room
    // doubles until the text fits or passes the limit.
    std::vector<wchar_t> room;
    int n = -1;
    for (std::size_t units = 128; format && n < 0 && units <= kMaxFormatted + 1; units *= 2) {
        room.resize(units);
        va_list args;
        va_start(args, format);
        n = std::vswprintf(room.data(), room.size(), format, args);
        va_end(args);
    }
    if (n <= 0) {
        clear();
        return *this;
    }
    String formatted(room.data(), static_cast<unsigned int>(n));
    assign(formatted);
    return *this;
}

bool String::match(String const& pattern, String* out1, String* out2, String* out3, String* out4,
                   String* out5, String* out6, String* out7, String* out8, String* out9) const {
    constexpr unsigned int kCaptures = 9;
    unsigned int begin[kCaptures] = {};
    unsigned int end[kCaptures] = {};
    if (!string_ops::glob_match(pattern.c_str(), c_str(), length(), begin, end, kCaptures)) return false;
    String* outs[kCaptures] = {out1, out2, out3, out4, out5, out6, out7, out8, out9};
    for (unsigned int i = 0; i < kCaptures; ++i) {
        if (outs[i]) outs[i]->assign(c_str() + begin[i], end[i] - begin[i]);
    }
    return true;
}

String operator+(String const& a, String const& b) {
    String r(a.get_allocator());
    r.reserve(a.length() + b.length());
    r.append(a).append(b);
    return r;
}

// --- UTF-8 --------------------------------------------------------------------------------------------

namespace {

// One 16-bit unit as UTF-8, on its own: a surrogate takes the 3 bytes of its value.
void append_unit_utf8(AString& out, unsigned int c) {
    char bytes[4];
    out.append(bytes, utf8::encode(c, bytes));
}

void encode_units(WChar const* units, unsigned int n, AString& out) {
    AString result;
    result.reserve(n);
    for (unsigned int i = 0; i < n; ++i) append_unit_utf8(result, static_cast<unsigned int>(units[i]) & 0xFFFFu);
    out.splice(result);
}

}  // namespace

void EncodeToUTF8(String const& text, AString& out) { encode_units(text.c_str(), text.length(), out); }

void EncodeToUTF8(wchar_t const* text, AString& out) {
    String units(text);
    encode_units(units.c_str(), units.length(), out);
}

#if !TARVIK_WCHAR_T_IS_WCHAR
void EncodeToUTF8(WChar const* text, AString& out) { encode_units(text ? text : u"", units_in(text), out); }
#endif

void DecodeFromUTF8(AString const& utf8, String& out) {
    String result(out.get_allocator());  // out keeps its own allocator
    result.reserve(utf8.length());
    auto const* s = reinterpret_cast<unsigned char const*>(utf8.c_str());
    unsigned int n = utf8.length();
    for (unsigned int i = 0; i < n;) {
        utf8::Sequence seq = utf8::decode(s + i, n - i);
        if (seq.length == 0) break;  // cut short by the end of the text
        i += seq.length;
        WChar units[2];
        result.append(units, utf8::to_units(seq.code > 0x10FFFF ? 0xFFFD : seq.code, units));
    }
    out.splice(result);
}

// --- XML ------------------------------------------------------------------------------------------------

long String::write_xml(OBStream& out) const {
    AString utf8;
    for (unsigned int i = 0; i < raw_->length; ++i) {
        unsigned int c = static_cast<unsigned int>(raw_->chars()[i]) & 0xFFFFu;
        switch (c) {
            case '&': utf8 += "&amp;"; break;
            case '<': utf8 += "&lt;"; break;
            case '>': utf8 += "&gt;"; break;
            case '\'': utf8 += "&apos;"; break;
            case '"': utf8 += "&quot;"; break;
            default:
                if (c < 32 && c != '\t' && c != '\n' && c != '\v' && c != '\f' && c != '\r') break;
                append_unit_utf8(utf8, c);
        }
    }
    out.put(utf8.c_str(), utf8.length());
    return 0;
}

long String::read_xml(IBStream&) { return 0; }

}  // namespace tarvik
