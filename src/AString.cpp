#include "tarvik/AString.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "AStringImpl.h"
#include "LogUnit.h"
#include "Memory.h"
#include "StringOps.h"
#include "Utf8.h"
#include "tarvik/IOBStream.h"
#include "tarvik/StringBuffer.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

// The shared empty block: capacity 0 marks it as never to be released.
alignas(RawAString) unsigned char nil_block[sizeof(RawAString) + 8] = {};

RawAString* nil_raw() { return reinterpret_cast<RawAString*>(nil_block); }

unsigned int text_length(char const* s) { return string_ops::length_of(s); }

}  // namespace

// --- block management ---------------------------------------------------------------------------------

// How an AString's blocks are made: capacity (n / 16 + 1) * 16, exactly the new length rounded up when
// growing (no geometric growth), the nil block never released.
struct AStringBlocks {
    static RawAString* allocate(unsigned int n) {
        unsigned long long capacity = (static_cast<unsigned long long>(n) / 16 + 1) * 16;
        auto* raw = static_cast<RawAString*>(memory::allocate_small(sizeof(RawAString) + capacity + 1));
        raw->length = 0;
        raw->capacity = static_cast<unsigned int>(capacity);
        raw->chars()[0] = '\0';
        return raw;
    }
    static void reallocate(RawAString*& raw, unsigned int n) {
        if (n <= raw->capacity) return;
        RawAString* fresh = allocate(n);
        if (raw->length != 0) {  // a fresh block already holds the empty string
            std::memcpy(fresh->chars(), raw->chars(), raw->length + 1);
            fresh->length = raw->length;
        }
        release(raw);
        raw = fresh;
    }
    static void release(RawAString* raw) {
        if (raw && raw != nil_raw() && raw->capacity != 0)
            memory::release_small(raw, sizeof(RawAString) + raw->capacity + 1);
    }
    static RawAString* nil() { return nil_raw(); }
};

struct AStringAccess {
    static string_ops::Editor<char, RawAString, AStringBlocks> edit(AString& s) {
        return string_ops::Editor<char, RawAString, AStringBlocks>(s.raw_, AStringBlocks{});
    }
};

namespace {

auto edit(AString& s) { return AStringAccess::edit(s); }

}  // namespace

char const* AString::nil_data() { return nil_raw()->chars(); }

void AString::init() { raw_ = nil_raw(); }

unsigned int AString::validate_range(unsigned int pos, unsigned int& count) const {
    count = string_ops::clamp_range(raw_->length, pos, count);
    return count;
}

// --- construction ---------------------------------------------------------------------------------

AString::AString() : raw_(nil_raw()) {}

AString::AString(AString const& other) : raw_(nil_raw()) { assign(other); }

AString::AString(AString&& other) noexcept : raw_(other.raw_) { other.raw_ = nil_raw(); }

AString::AString(AString const& other, unsigned int pos, unsigned int count) : raw_(nil_raw()) {
    assign(other, pos, count);
}

AString::AString(char const* text) : raw_(nil_raw()) { assign(text); }

AString::AString(char const* text, unsigned int count) : raw_(nil_raw()) { assign(text, count); }

AString::AString(unsigned int count, char c) : raw_(nil_raw()) { assign(count, c); }

namespace {

// Makes `out` hold the system-code-page form of `count` wide characters (terminator included), the
// converted terminator kept inside the length. `convert` is the platform conversion.
template <class WideChar, class Convert>
void assign_converted(AString& out, WideChar const* text, unsigned int count, Convert convert) {
    unsigned long long room = static_cast<unsigned long long>(count) * astring_impl::max_narrow_per_wide();
    if (room > AString::max_size()) room = AString::max_size();
    char* dest = out.set_buffer(static_cast<unsigned int>(room));
    int error = 0;
    long written = convert(text, count, dest, static_cast<unsigned int>(room), &error);
    if (written < 0) {
        out.clear();
        TVK_LOG(LEVEL_ERR, "cannot convert String to AString: err=%0") << error;
        return;
    }
    out.size(static_cast<unsigned int>(written));
}

}  // namespace

AString::AString(wchar_t const* text) : raw_(nil_raw()) {
    if (!text) return;
    unsigned int n = 0;
    while (text[n]) ++n;
    assign_converted(*this, text, n + 1, astring_impl::wide_to_system);
}

#if !TARVIK_WCHAR_T_IS_WCHAR
AString::AString(WChar const* text) : raw_(nil_raw()) {
    if (!text) return;
    assign_converted(*this, text, string_ops::length_of(text) + 1, astring_impl::units_to_system);
}
#endif

AString::~AString() { AStringBlocks::release(raw_); }

AString& AString::operator=(AString const& other) {
    if (this != &other) assign(other);
    return *this;
}

AString& AString::operator=(AString&& other) noexcept {
    if (this != &other) {
        AStringBlocks::release(raw_);
        raw_ = other.raw_;
        other.raw_ = nil_raw();
    }
    return *this;
}

AString& AString::operator=(char const* text) { return assign(text); }

AString& AString::operator=(char c) { return assign(1, c); }

// --- assign / append / insert / replace / erase ----------------------------------------------------------

AString& AString::assign(char const* text, unsigned int count) {
    edit(*this).assign(text, count);
    return *this;
}

AString& AString::assign(AString const& other) {
    if (this != &other) edit(*this).assign(other.c_str(), other.length());
    return *this;
}

AString& AString::assign(AString const& other, unsigned int pos, unsigned int count) {
    other.validate_range(pos, count);
    return assign(other.c_str() + (pos > other.length() ? other.length() : pos), count);
}

AString& AString::assign(char const* text) { return assign(text, text_length(text)); }

AString& AString::assign(unsigned int count, char c) {
    auto e = edit(*this);
    if (count == 0 || count > max_size()) {  // a count that cannot be held leaves the string empty
        e.clear();
        return *this;
    }
    e.grow_nocopy(count);
    e.set_length(0);
    e.replace(0, 0, nullptr, count, c);
    return *this;
}

AString& AString::append(char const* text, unsigned int count) {
    if (text && count) edit(*this).replace(raw_->length, 0, text, count);
    return *this;
}

AString& AString::append(AString const& other) { return append(other.c_str(), other.length()); }

AString& AString::append(AString const& other, unsigned int pos, unsigned int count) {
    other.validate_range(pos, count);
    return count ? append(other.c_str() + pos, count) : *this;
}

AString& AString::append(char const* text) { return append(text, text_length(text)); }

AString& AString::append(unsigned int count, char c) {
    if (count) edit(*this).replace(raw_->length, 0, nullptr, count, c);
    return *this;
}

AString& AString::insert(unsigned int pos, char const* text, unsigned int count) {
    if (pos <= raw_->length && text && count) edit(*this).replace(pos, 0, text, count);
    return *this;
}

AString& AString::insert(unsigned int pos, AString const& other) { return insert(pos, other.c_str(), other.length()); }

AString& AString::insert(unsigned int pos, AString const& other, unsigned int opos, unsigned int count) {
    other.validate_range(opos, count);
    return count ? insert(pos, other.c_str() + opos, count) : *this;
}

AString& AString::insert(unsigned int pos, char const* text) { return insert(pos, text, text_length(text)); }

AString& AString::insert(unsigned int pos, unsigned int count, char c) {
    if (pos <= raw_->length && count) edit(*this).replace(pos, 0, nullptr, count, c);
    return *this;
}

AString& AString::replace(unsigned int pos, unsigned int count, char const* text, unsigned int tcount) {
    if (pos > raw_->length) return *this;
    validate_range(pos, count);
    edit(*this).replace(pos, count, text ? text : "", text ? tcount : 0);
    return *this;
}

AString& AString::replace(unsigned int pos, unsigned int count, AString const& other) {
    return replace(pos, count, other.c_str(), other.length());
}

AString& AString::replace(unsigned int pos, unsigned int count, AString const& other, unsigned int opos,
                          unsigned int ocount) {
    other.validate_range(opos, ocount);
    return replace(pos, count, other.c_str() + (opos > other.length() ? other.length() : opos), ocount);
}

AString& AString::replace(unsigned int pos, unsigned int count, char const* text) {
    return replace(pos, count, text, text_length(text));
}

AString& AString::replace(unsigned int pos, unsigned int count, unsigned int ccount, char c) {
    if (pos > raw_->length) return *this;
    validate_range(pos, count);
    edit(*this).replace(pos, count, nullptr, ccount, c);
    return *this;
}

int AString::Replace(char const* what, char const* with, bool match_case) {
    unsigned int wlen = text_length(what);
    if (wlen == 0 || raw_->length < wlen) return 0;
    unsigned int rlen = text_length(with);
    StringBuffer result(128);
    int replaced = 0;
    char const* s = raw_->chars();
    unsigned int len = raw_->length;
    char first = string_ops::CharRules<char>::upper(what[0]);
    for (unsigned int i = 0; i < len;) {
        bool hit = i + wlen <= len && string_ops::CharRules<char>::upper(s[i]) == first &&
                   string_ops::compare(s + i, wlen, what, wlen, !match_case) == 0;
        if (hit) {
            result.append(with, rlen);
            i += wlen;
            ++replaced;
        } else {
            result.append(s[i]);
            ++i;
        }
    }
    if (replaced) result.c_str(*this);
    return replaced;
}

AString& AString::erase(unsigned int pos, unsigned int count) {
    if (pos > raw_->length) return *this;
    validate_range(pos, count);
    if (count) edit(*this).replace(pos, count, "", 0);
    return *this;
}

unsigned int AString::Delete(unsigned int pos, unsigned int count) {
    erase(pos, count);
    return raw_->length;
}

void AString::clear() { edit(*this).clear(); }

// --- whole-string operations --------------------------------------------------------------------------

AString AString::substr(unsigned int pos, unsigned int count) const { return AString(*this, pos, count); }

unsigned int AString::copy(char* dest, unsigned int count, unsigned int pos) const {
    if (!dest) return 0;
    validate_range(pos, count);
    if (count) std::memcpy(dest, raw_->chars() + pos, count);
    return count;
}

void AString::swap(AString& other) noexcept {
    RawAString* t = raw_;
    raw_ = other.raw_;
    other.raw_ = t;
}

void AString::splice(AString& other) noexcept {
    if (this == &other) return;
    AStringBlocks::release(raw_);
    raw_ = other.raw_;
    other.raw_ = nil_raw();
}

void AString::resize(unsigned int n, char c) { edit(*this).resize(n, c); }

void AString::reserve(unsigned int n) {
    if (n <= max_size()) AStringBlocks::reallocate(raw_, n);
}

char* AString::set_buffer(unsigned int n) {
    AStringBlocks::reallocate(raw_, n <= max_size() ? n : max_size());
    if (raw_->capacity == 0) AStringBlocks::reallocate(raw_, 1);  // the caller writes at least a terminator
    return raw_->chars();
}

void AString::size(unsigned int n) {
    if (n <= raw_->capacity) edit(*this).set_length(n);
}

char AString::get_at(long long i) const {
    if (i < 0 || i >= static_cast<long long>(raw_->length)) return '\0';
    return raw_->chars()[i];
}

void AString::put_at(long long i, char c) {
    if (i < 0 || i >= static_cast<long long>(raw_->length)) return;
    raw_->chars()[i] = c;
}

char& AString::at_(long long i) {
    if (i < 0 || i >= static_cast<long long>(raw_->length)) {
        thread_local char scratch;
        scratch = '\0';
        return scratch;
    }
    return raw_->chars()[i];
}

// --- comparison ---------------------------------------------------------------------------------------

int AString::compare_helper_(unsigned int pos, unsigned int count, char const* other, unsigned int olen,
                             bool no_case) const {
    validate_range(pos, count);
    char const* mine = raw_->chars() + (pos > raw_->length ? raw_->length : pos);
    return string_ops::compare(mine, count, other ? other : "", olen, no_case);
}

bool AString::equal_(char const* text, unsigned int n) const {
    return raw_->length == n && std::memcmp(raw_->chars(), text, n) == 0;
}

int AString::compare(AString const& other) const {
    return compare_helper_(0, npos, other.c_str(), other.length(), false);
}

int AString::compare(char const* other) const { return compare_helper_(0, npos, other, text_length(other), false); }

int AString::compare(unsigned int pos, unsigned int count, AString const& other) const {
    return compare_helper_(pos, count, other.c_str(), other.length(), false);
}

int AString::compare(unsigned int pos, unsigned int count, char const* other) const {
    return compare_helper_(pos, count, other, text_length(other), false);
}

int AString::icompare(AString const& other) const {
    return compare_helper_(0, npos, other.c_str(), other.length(), true);
}

int AString::icompare(char const* other) const { return compare_helper_(0, npos, other, text_length(other), true); }

bool AString::eq(char a, char b) { return a == b; }
bool AString::ne(char a, char b) { return a != b; }
bool AString::lt(char a, char b) { return static_cast<signed char>(a) < static_cast<signed char>(b); }
bool AString::ieq(char a, char b) {
    return string_ops::CharRules<char>::upper(a) == string_ops::CharRules<char>::upper(b);
}
bool AString::ine(char a, char b) { return !ieq(a, b); }
bool AString::ilt(char a, char b) {
    return lt(string_ops::CharRules<char>::upper(a), string_ops::CharRules<char>::upper(b));
}

// --- search -------------------------------------------------------------------------------------------

unsigned int AString::find(char const* s, unsigned int pos) const {
    return string_ops::find(c_str(), length(), s ? s : "", text_length(s), pos);
}
unsigned int AString::find(AString const& s, unsigned int pos) const {
    return string_ops::find(c_str(), length(), s.c_str(), s.length(), pos);
}
unsigned int AString::find(char c, unsigned int pos) const { return string_ops::find(c_str(), length(), &c, 1, pos); }

unsigned int AString::rfind(char const* s, unsigned int pos) const {
    return string_ops::rfind(c_str(), length(), s ? s : "", text_length(s), pos);
}
unsigned int AString::rfind(AString const& s, unsigned int pos) const {
    return string_ops::rfind(c_str(), length(), s.c_str(), s.length(), pos);
}
unsigned int AString::rfind(char c, unsigned int pos) const { return string_ops::rfind(c_str(), length(), &c, 1, pos); }

unsigned int AString::find_first_of(char const* set, unsigned int pos) const {
    return string_ops::find_first(c_str(), length(), set, text_length(set), pos, true);
}
unsigned int AString::find_first_of(AString const& set, unsigned int pos) const {
    return string_ops::find_first(c_str(), length(), set.c_str(), set.length(), pos, true);
}
unsigned int AString::find_first_of(char c, unsigned int pos) const {
    return string_ops::find_first(c_str(), length(), &c, 1, pos, true);
}
unsigned int AString::find_first_not_of(char const* set, unsigned int pos) const {
    return string_ops::find_first(c_str(), length(), set, text_length(set), pos, false);
}
unsigned int AString::find_first_not_of(AString const& set, unsigned int pos) const {
    return string_ops::find_first(c_str(), length(), set.c_str(), set.length(), pos, false);
}
unsigned int AString::find_first_not_of(char c, unsigned int pos) const {
    return string_ops::find_first(c_str(), length(), &c, 1, pos, false);
}
unsigned int AString::find_last_of(char const* set, unsigned int pos) const {
    return string_ops::find_last(c_str(), length(), set, text_length(set), pos, true);
}
unsigned int AString::find_last_of(AString const& set, unsigned int pos) const {
    return string_ops::find_last(c_str(), length(), set.c_str(), set.length(), pos, true);
}
unsigned int AString::find_last_of(char c, unsigned int pos) const {
    return string_ops::find_last(c_str(), length(), &c, 1, pos, true);
}
unsigned int AString::find_last_not_of(char const* set, unsigned int pos) const {
    return string_ops::find_last(c_str(), length(), set, text_length(set), pos, false);
}
unsigned int AString::find_last_not_of(AString const& set, unsigned int pos) const {
    return string_ops::find_last(c_str(), length(), set.c_str(), set.length(), pos, false);
}
unsigned int AString::find_last_not_of(char c, unsigned int pos) const {
    return string_ops::find_last(c_str(), length(), &c, 1, pos, false);
}

// --- case ---------------------------------------------------------------------------------------------

AString& AString::make_upper() {
    char* s = raw_->chars();
    for (unsigned int i = 0; i < raw_->length; ++i) s[i] = string_ops::CharRules<char>::upper(s[i]);
    return *this;
}

AString& AString::make_lower() {
    char* s = raw_->chars();
    for (unsigned int i = 0; i < raw_->length; ++i) s[i] = string_ops::CharRules<char>::lower(s[i]);
    return *this;
}

// --- formatting and matching --------------------------------------------------------------------------

AString& AString::Format(char const* format, ...) {
    if (!format) {
        clear();
        return *this;
    }
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    int n = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    if (n <= 0 || static_cast<unsigned int>(n) > max_size()) {
        va_end(again);
        clear();
        return *this;
    }
    // Formatted into a block of its own: an argument may be this string's own text (s.Format("%s!", s.c_str())),
    // which must stay readable until the formatting is done.
    AString result;
    edit(result).grow_nocopy(static_cast<unsigned int>(n));
    std::vsnprintf(result.raw_->chars(), static_cast<size_t>(n) + 1, format, again);
    va_end(again);
    edit(result).set_length(static_cast<unsigned int>(n));
    splice(result);
    return *this;
}

bool AString::match(char const* pattern, AString* out1, AString* out2, AString* out3, AString* out4,
                    AString* out5, AString* out6, AString* out7, AString* out8, AString* out9) const {
    constexpr unsigned int kCaptures = 9;
    unsigned int begin[kCaptures] = {};
    unsigned int end[kCaptures] = {};
    if (!string_ops::glob_match(pattern ? pattern : "", c_str(), length(), begin, end, kCaptures)) return false;
    AString* outs[kCaptures] = {out1, out2, out3, out4, out5, out6, out7, out8, out9};
    for (unsigned int i = 0; i < kCaptures; ++i) {
        if (outs[i]) outs[i]->assign(c_str() + begin[i], end[i] - begin[i]);
    }
    return true;
}

namespace string_ops {

namespace {

// Matches one pattern element (not a star) at text character c. Advances *p past the element.
template <class C>
bool element_matches(C const*& p, C c) {
    using Unit = std::make_unsigned_t<C>;
    if (*p == '?') {
        ++p;
        return true;
    }
    if (*p == '\\' && p[1]) {
        ++p;
        return *p++ == c;
    }
    if (*p == '[') {
        C const* q = p + 1;
        bool negate = *q == '!' || *q == '^';
        if (negate) ++q;
        bool found = false;
        bool first = true;
        while (*q && (first || *q != ']')) {
            C lo = *q;
            C hi = lo;
            if (q[1] == '-' && q[2] && q[2] != ']') {
                hi = q[2];
                q += 3;
            } else {
                ++q;
            }
            auto uc = static_cast<Unit>(c);
            if (uc >= static_cast<Unit>(lo) && uc <= static_cast<Unit>(hi)) found = true;
            first = false;
        }
        if (*q != ']') {  // no closing bracket: the '[' is an ordinary character
            ++p;
            return c == '[';
        }
        p = q + 1;
        return found != negate;
    }
    return *p++ == c;
}

}  // namespace

template <class C>
bool glob_match(C const* pattern, C const* text, unsigned int tlen, unsigned int* cap_begin,
                unsigned int* cap_end, unsigned int max_caps) {
    C const* p = pattern;
    unsigned int t = 0;
    unsigned int star_index = 0;  // captures opened so far
    C const* resume_p = nullptr;
    unsigned int resume_t = 0;
    unsigned int resume_star = 0;
    for (;;) {
        if (*p == '*') {
            while (*p == '*') {  // consecutive stars: all but the last capture nothing
                if (star_index < max_caps) cap_begin[star_index] = cap_end[star_index] = t;
                ++star_index;
                ++p;
            }
            resume_p = p;
            resume_t = t;
            resume_star = star_index - 1;
            continue;
        }
        if (t < tlen && *p) {
            C const* q = p;
            if (element_matches(q, text[t])) {
                p = q;
                ++t;
                continue;
            }
        } else if (t == tlen && !*p) {
            return true;
        }
        if (!resume_p || resume_t >= tlen) return false;
        // Let the last star take one more character and try again from there.
        ++resume_t;
        if (resume_star < max_caps) cap_end[resume_star] = resume_t;
        star_index = resume_star + 1;
        p = resume_p;
        t = resume_t;
    }
}

template bool glob_match<char>(char const*, char const*, unsigned int, unsigned int*, unsigned int*,
                               unsigned int);
template bool glob_match<WChar>(WChar const*, WChar const*, unsigned int, unsigned int*, unsigned int*,
                                unsigned int);

}  // namespace string_ops

// --- XML ------------------------------------------------------------------------------------------------

long write_xml(AString const& text, OBStream& out) {
    char const* s = text.c_str();
    for (unsigned int i = 0; i < text.length(); ++i) {
        char c = s[i];
        switch (c) {
            case '&': out.put("&amp;"); break;
            case '<': out.put("&lt;"); break;
            case '>': out.put("&gt;"); break;
            case '\'': out.put("&apos;"); break;
            case '"': out.put("&quot;"); break;
            default:
                if (static_cast<unsigned char>(c) < 32 && c != '\t' && c != '\n' && c != '\v' && c != '\f' &&
                    c != '\r')
                    break;
                out.put(c);
        }
    }
    return 0;
}

long AString::write_xml(OBStream& out) const { return tarvik::write_xml(*this, out); }

long AString::read_xml(IBStream&) { return 0; }

// --- free operators -------------------------------------------------------------------------------------

AString operator+(AString const& a, AString const& b) {
    AString r;
    r.reserve(a.length() + b.length());
    return std::move(r.append(a).append(b));
}

AString operator+(AString const& a, char const* b) {
    AString r;
    r.reserve(a.length() + string_ops::length_of(b));
    return std::move(r.append(a).append(b));
}

AString operator+(char const* a, AString const& b) {
    AString r;
    r.reserve(string_ops::length_of(a) + b.length());
    return std::move(r.append(a).append(b));
}

AString operator+(AString const& a, char b) {
    AString r;
    r.reserve(a.length() + 1);
    return std::move(r.append(a).append(1, b));
}

AString operator+(char a, AString const& b) {
    AString r;
    r.reserve(b.length() + 1);
    return std::move(r.append(1, a).append(b));
}

// --- UTF-8 ----------------------------------------------------------------------------------------------

void DecodeFromUTF8(AString const& utf8, AString& out) {
    AString result;
    result.reserve(utf8.length());
    auto const* s = reinterpret_cast<unsigned char const*>(utf8.c_str());
    unsigned int n = utf8.length();
    for (unsigned int i = 0; i < n;) {
        utf8::Sequence seq = utf8::decode(s + i, n - i);
        if (seq.length == 0) break;  // cut short by the end of the text
        i += seq.length;
        if (seq.code < 65536) {
            result.append(1, static_cast<char>(seq.code & 0xFF));
        } else {
            result.append(1, static_cast<char>((seq.code / 65535) & 0xFF));
            result.append(1, static_cast<char>((seq.code % 65535) & 0xFF));
        }
    }
    out.splice(result);
}

void DecodeFromUTF8(char const* utf8, AString& out) {
    unsigned int len = string_ops::length_of(utf8);
    if (len > AString::max_size() / sizeof(WChar) - 8) {
        out.clear();
        return;
    }
    // Room for (length + 4) units, as every UTF-8 text fits in as many units as it has bytes.
    unsigned int room = len + 4;
    std::unique_ptr<WChar[], memory::Free> block(static_cast<WChar*>(memory::allocate(room * sizeof(WChar))));
    WChar* units = block.get();
    int error = 0;
    long n = astring_impl::utf8_to_units(utf8 ? utf8 : "", len, units, room, &error);
    if (n < 0) {
        out.clear();
        TVK_LOG(LEVEL_ERR, "cannot convert String to AString: err=%0") << error;
        return;
    }
    units[n] = 0;
    AString result;
#if TARVIK_WCHAR_T_IS_WCHAR
    assign_converted(result, units, static_cast<unsigned int>(n) + 1, astring_impl::wide_to_system);
#else
    assign_converted(result, units, static_cast<unsigned int>(n) + 1, astring_impl::units_to_system);
#endif
    out.splice(result);
}

}  // namespace tarvik
