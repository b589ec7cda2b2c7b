#include "tarvik/CommBuffer.h"

#include <cstdlib>
#include <cstring>

#include "LogUnit.h"
#include "Memory.h"
#include "tarvik/HMap.h"
#include "tarvik/Blob.h"
#include "tarvik/IOBStream.h"
#include "tarvik/String.h"
#include "tarvik/StringBuffer.h"
#include "tarvik/Symbol.h"
#include "tarvik/Time.h"
#include "tarvik/Tuple.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

int hex_digit(unsigned char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The fields of a page header, parsed strictly: "TVK", two digits, "/", four characters, one digit, "/",
// eight hexadecimal digits, "/".
struct Header {
    int version;
    char flags[4];
    int last;
    unsigned int length;
};

bool parse_header(unsigned char const* h, Header& out) {
    if (h[0] != 'T' || h[1] != 'V' || h[2] != 'K') return false;
    if (h[3] < '0' || h[3] > '9' || h[4] < '0' || h[4] > '9' || h[5] != '/') return false;
    out.version = (h[3] - '0') * 10 + (h[4] - '0');
    for (int i = 0; i < 4; ++i) out.flags[i] = static_cast<char>(h[6 + i]);
    if (h[10] < '0' || h[10] > '9' || h[11] != '/') return false;
    out.last = h[10] - '0';
    unsigned int length = 0;
    for (int i = 12; i < 20; ++i) {
        int d = hex_digit(h[i]);
        if (d < 0) return false;
        length = length * 16 + static_cast<unsigned int>(d);
    }
    if (h[20] != '/') return false;
    out.length = length;
    return true;
}

void log_invalid_header() { TVK_LOG(LEVEL_ERR, "CommBuffer::Page::update_from_header: INVALID HEADER!"); }

// memcpy for the short runs that names and small texts are, without a call: two overlapping moves of a
// fixed size cover any length up to twice that size.
void copy_bytes(unsigned char* to, unsigned char const* from, unsigned int n) {
    if (n >= 8 && n <= 16) {
        std::memcpy(to, from, 8);
        std::memcpy(to + n - 8, from + n - 8, 8);
    } else if (n >= 4 && n < 8) {
        std::memcpy(to, from, 4);
        std::memcpy(to + n - 4, from + n - 4, 4);
    } else if (n < 4) {
        for (unsigned int i = 0; i < n; ++i) to[i] = from[i];
    } else {
        std::memcpy(to, from, n);
    }
}

// Decodes one integer from the `left` bytes at p when it ends within them (and within 11 bytes: longer
// ones, legal but never written by this library, take the general reader); the bytes taken, or 0.
unsigned int decode_bounded(bool is_signed, unsigned char const* p, std::size_t left, unsigned long long& out) {
    if (left > 11) left = 11;
    unsigned int n = 0;
    unsigned long long v = 0;
    unsigned int shift = 0;
    bool negative = false;
    if (is_signed) {
        if (left < 2) return 0;
        negative = (p[0] & 0x80) != 0;
        v = p[0] & 0x7F;
        shift = 7;
        n = 1;
    }
    while (n < left) {
        unsigned char b = p[n++];
        if (shift < 64) v |= static_cast<unsigned long long>(b & 0x7F) << shift;
        shift += 7;
        if (b & 0x80) {
            out = negative ? 0ull - v : v;
            return n;
        }
    }
    return 0;
}

}  // namespace

// --- pages --------------------------------------------------------------------------------------------

void CommBuffer::Page::write_header() {
    unsigned char* h = data();
    if (capacity < kHeaderSize) return;
    std::memcpy(h, "TVK01/", 6);  // NOLINT(bugprone-not-null-terminated-result): header bytes, not a string
    for (int i = 0; i < 4; ++i) h[6 + i] = static_cast<unsigned char>(flags[i]);
    h[10] = last ? '1' : '0';
    h[11] = '/';
    for (int i = 0; i < 8; ++i) h[12 + i] = static_cast<unsigned char>(kHexDigits[(used >> (28 - 4 * i)) & 15]);
    h[20] = '/';
}

bool CommBuffer::Page::update_from_header() {
    owner->size_ -= used;
    Header header;
    if (used < kHeaderSize || !parse_header(data(), header) || header.length < kHeaderSize ||
        header.length > capacity) {
        used = 0;
        log_invalid_header();
        return false;
    }
    used = header.length;
    owner->size_ += used;
    last = header.last == 1;
    bool ascii = false;
    for (int i = 0; i < 4; ++i) {
        flags[i] = header.flags[i];
        ascii = ascii || flags[i] == 'a';
    }
    owner->ascii_ = ascii;
    return true;
}

CommBuffer::Page* CommBuffer::add_page_(unsigned int capacity, bool with_header) {
    // A page that cannot be allocated is left out without a record; the writer that asked for it stores
    // fewer bytes (and says so by its count), a filler gets null.
    auto* page = static_cast<Page*>(memory::try_allocate(sizeof(Page) + capacity));
    if (!page) return nullptr;
    page->last = false;
    page->marker = 1;
    std::memcpy(page->flags, ascii_ ? "axxx" : "xxxx", 4);
    page->owner = this;
    page->used = 0;
    page->capacity = capacity;
    if (with_header && capacity >= kHeaderSize) {
        page->used = kHeaderSize;
        page->write_header();  // so that the header bytes are never undefined
        size_ += kHeaderSize;
    }
    pages_.push_back(page);
    return page;
}

void CommBuffer::free_pages_() {
    pages_.release_all([](Page* p) { std::free(p); });
    size_ = 0;
}

// --- construction ---------------------------------------------------------------------------------------

CommBuffer::CommBuffer() : page_size_(kDefaultPageSize) {}

CommBuffer::CommBuffer(unsigned int page_size) : page_size_(page_size < kHeaderSize ? kHeaderSize + 1 : page_size) {}

CommBuffer::CommBuffer(CommBuffer const& other) : page_size_(other.page_size_) { copy_from_(other); }

CommBuffer::CommBuffer(CommBuffer&& other) noexcept : page_size_(other.page_size_) { splice(other); }

CommBuffer& CommBuffer::operator=(CommBuffer const& other) {
    if (this != &other) {
        clear();
        page_size_ = other.page_size_;
        copy_from_(other);
    }
    return *this;
}

CommBuffer& CommBuffer::operator=(CommBuffer&& other) noexcept {
    if (this != &other) splice(other);
    return *this;
}

CommBuffer::~CommBuffer() {
    free_pages_();
    drop_names_();
}

void CommBuffer::copy_from_(CommBuffer const& other) {
    drop_names_();
    for (SymbolEntry const* entry : other.dictionary_) add_name_(entry);
    ascii_ = other.ascii_;
    for (Page const* p = other.pages_.first(); p; p = p->next) {
        Page* copy = add_page_(p->capacity, false);
        if (!copy) break;
        std::memcpy(copy, p, sizeof(Page));
        std::memcpy(copy->data(), p->data(), p->used);
        copy->owner = this;
        copy->next = nullptr;  // the memcpy brought the source's link
    }
    size_ = other.size_;
    pos_ = Pos();
}

void CommBuffer::splice(CommBuffer& other) {
    if (this == &other) return;
    clear();
    page_size_ = other.page_size_;
    size_ = other.size_;
    pages_.append(other.pages_);
    ascii_ = other.ascii_;
    dictionary_ = static_cast<Array<SymbolEntry const*>&&>(other.dictionary_);
    name_index_ = std::move(other.name_index_);
    for (Page* p = pages_.first(); p; p = p->next) p->owner = this;
    other.size_ = 0;
    other.pos_ = Pos();
    pos_ = Pos();
}

void CommBuffer::clear() {
    free_pages_();
    drop_names_();
    pos_ = Pos();
}

bool CommBuffer::operator==(CommBuffer const& other) const {
    if (size_ != other.size_) return false;
    Page const* a = pages_.first();
    Page const* b = other.pages_.first();
    for (; a && b; a = a->next, b = b->next) {
        if (a->used != b->used || std::memcmp(a->data(), b->data(), a->used) != 0) return false;
    }
    return !a && !b;
}

void CommBuffer::update_ascii_flags() {
    for (Page* p = pages_.first(); p; p = p->next) {
        if (ascii_) {
            bool has = false;
            for (char f : p->flags) has = has || f == 'a';
            for (int i = 0; i < 4 && !has; ++i) {
                if (p->flags[i] == 'x') {
                    p->flags[i] = 'a';
                    has = true;
                }
            }
        } else {
            for (char& f : p->flags)
                if (f == 'a') f = 'x';
        }
    }
}

void CommBuffer::update_headers() {
    for (Page* p = pages_.first(); p; p = p->next) p->write_header();
}

// --- raw bytes ----------------------------------------------------------------------------------------

unsigned int CommBuffer::write_byte(unsigned char const* bytes, unsigned int n) {
    if (n == 0) return 0;  // an empty blob has no content at all: nothing to copy from
    if (pages_.last() && pages_.last()->capacity - pages_.last()->used >= n) {  // fits in the last page: the common case
        copy_bytes(pages_.last()->data() + pages_.last()->used, bytes, n);
        pages_.last()->used += n;
        size_ += n;
        return n;
    }
    unsigned int done = 0;
    while (done < n) {
        if (!pages_.last() || pages_.last()->used >= pages_.last()->capacity) {
            if (!add_page_(page_size_, true)) break;
            if (pages_.last()->used >= pages_.last()->capacity) break;  // pages of 21 bytes hold no values
        }
        unsigned int room = pages_.last()->capacity - pages_.last()->used;
        unsigned int k = n - done < room ? n - done : room;
        std::memcpy(pages_.last()->data() + pages_.last()->used, bytes + done, k);
        pages_.last()->used += k;
        size_ += k;
        done += k;
    }
    return done;
}

unsigned char* CommBuffer::allocate(unsigned int& room) {
    if ((!pages_.last() || pages_.last()->used >= pages_.last()->capacity) && !add_page_(page_size_, false)) {
        room = 0;
        return nullptr;
    }
    room = pages_.last()->capacity - pages_.last()->used;
    return pages_.last()->data() + pages_.last()->used;
}

unsigned char* CommBuffer::allocate_in_new_page(unsigned int capacity, bool with_header) {
    Page* page = add_page_(capacity, with_header);
    return page ? page->data() + page->used : nullptr;
}

unsigned int CommBuffer::add_size(unsigned int n) {
    if (!pages_.last() || n > pages_.last()->capacity - pages_.last()->used) {
        TVK_LOG(LEVEL_ERR, "WRONG ADD SIZE %0 [%1/%2]") << n << (pages_.last() ? pages_.last()->used : 0u)
                                                         << (pages_.last() ? pages_.last()->capacity : 0u);
        return size_;
    }
    pages_.last()->used += n;
    size_ += n;
    return size_;
}

void CommBuffer::rewind() const { pos_ = Pos(); }

namespace {

// Moves a read position to the next value byte (past headers and exhausted pages); stays on the last
// page at its end, so bytes appended later are still found. Returns whether a byte is there.
bool settle(CommBuffer::Pos& pos, CommBuffer::Page const* first) {
    if (pos.rewind_pending) {
        pos.page = first;
        pos.offset = CommBuffer::kHeaderSize;
        pos.rewind_pending = false;
    }
    while (pos.page && pos.offset >= pos.page->used && pos.page->next) {
        pos.page = pos.page->next;
        pos.offset = CommBuffer::kHeaderSize;
    }
    return pos.page && pos.offset < pos.page->used;
}

// Decodes one integer lying whole in the settled position's page, advancing past it; 0 when it does not
// lie there (then the caller goes byte by byte across pages).
unsigned int decode_in_page(bool is_signed, CommBuffer::Pos& pos, unsigned long long& out) {
    unsigned char const* p = pos.page->data() + pos.offset;
    unsigned int n = decode_bounded(is_signed, p, pos.page->used - pos.offset, out);
    pos.offset += n;
    return n;
}

}  // namespace

bool CommBuffer::next_byte_(unsigned char& byte) const {
    if (!settle(pos_, pages_.first())) return false;
    byte = pos_.page->data()[pos_.offset++];
    return true;
}

long CommBuffer::read_byte(unsigned char* dest, unsigned int n) const {
    if (!pages_.first()) return -1;
    unsigned int done = 0;
    while (done < n && settle(pos_, pages_.first())) {
        unsigned int left = pos_.page->used - pos_.offset;
        unsigned int k = n - done < left ? n - done : left;
        std::memcpy(dest + done, pos_.page->data() + pos_.offset, k);
        pos_.offset += k;
        done += k;
    }
    return done;
}

bool CommBuffer::read_exact_(void* dest, unsigned int n) const {
    if (n == 0) return true;
    return read_byte(static_cast<unsigned char*>(dest), n) == static_cast<long>(n);
}

unsigned int CommBuffer::remaining() const {
    Pos pos = pos_;
    if (!settle(pos, pages_.first())) return 0;
    unsigned long long left = pos.page->used - pos.offset;
    for (Page const* p = pos.page->next; p; p = p->next)
        if (p->used > kHeaderSize) left += p->used - kHeaderSize;
    return left > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<unsigned int>(left);
}

bool CommBuffer::remains(unsigned long long n) const {
    if (n == 0) return true;
    Pos pos = pos_;
    if (!settle(pos, pages_.first())) return false;
    unsigned long long left = pos.page->used - pos.offset;
    for (Page const* p = pos.page->next; p && left < n; p = p->next)
        if (p->used > kHeaderSize) left += p->used - kHeaderSize;
    return left >= n;
}

unsigned int CommBuffer::bytes_since(Pos const& before) const {
    if (pos_.rewind_pending) return 0;
    Pos from = before;
    if (from.rewind_pending) {
        from.page = pages_.first();
        from.offset = kHeaderSize;
    }
    unsigned long long n = 0;
    for (Page const* p = from.page; p; p = p->next) {
        unsigned int start = p == from.page ? from.offset : kHeaderSize;
        unsigned int end = p == pos_.page ? pos_.offset : p->used;
        if (end > start) n += end - start;
        if (p == pos_.page) break;
    }
    return n > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<unsigned int>(n);
}

// --- integers -----------------------------------------------------------------------------------------

// Integers are encoded straight into the last page when it has room for the longest form (11 bytes).
template <class T>
long CommBuffer::write_number_(T value) {
    if (pages_.last() && pages_.last()->capacity - pages_.last()->used >= 12) {
        unsigned int n = encode_item_(value, pages_.last()->data() + pages_.last()->used);
        pages_.last()->used += n;
        size_ += n;
        return n;
    }
    unsigned char bytes[12];
    return write_byte(bytes, encode_item_(value, bytes));
}

long CommBuffer::write_unsigned_(unsigned long long value) { return write_number_(value); }

long CommBuffer::write_signed_(long long value) { return write_number_(value); }

unsigned int CommBuffer::encode_unsigned_(unsigned long long v, unsigned char* out) {
    unsigned int n = 0;
    while (v >= 0x80) {
        out[n++] = static_cast<unsigned char>(v & 0x7F);
        v >>= 7;
    }
    out[n++] = static_cast<unsigned char>(v | 0x80);
    return n;
}

// The sign and the magnitude's low 7 bits in the first byte, then the rest of the magnitude in the unsigned
// form.
unsigned int CommBuffer::encode_signed_(long long v, unsigned char* out) {
    unsigned long long magnitude = v < 0 ? 0ull - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v);
    out[0] = static_cast<unsigned char>((magnitude & 0x7F) | (v < 0 ? 0x80 : 0));
    return 1 + encode_unsigned_(magnitude >> 7, out + 1);
}

bool CommBuffer::settle_() const { return settle(pos_, pages_.first()); }

unsigned int CommBuffer::read_unsigned_(unsigned long long& value) const {
    if (settle(pos_, pages_.first())) {
        if (unsigned int n = decode_in_page(false, pos_, value)) return n;
    }
    unsigned long long v = 0;
    unsigned int shift = 0;
    unsigned int n = 0;
    unsigned char b;
    while (next_byte_(b)) {
        ++n;
        if (shift < 64) v |= static_cast<unsigned long long>(b & 0x7F) << shift;
        shift += 7;
        if (b & 0x80) break;
    }
    value = v;
    return n;
}

unsigned int CommBuffer::read_signed_(long long& value) const {
    if (settle(pos_, pages_.first())) {
        unsigned char const* p = pos_.page->data() + pos_.offset;
        if (pos_.page->used - pos_.offset >= 2 && p[1] == 0x80) {
            // A small number (type codes, dictionary positions): sign and 7 bits, then the end mark.
            auto magnitude = static_cast<long long>(p[0] & 0x7F);
            value = (p[0] & 0x80) ? -magnitude : magnitude;
            pos_.offset += 2;
            return 2;
        }
        unsigned long long v;
        if (unsigned int n = decode_in_page(true, pos_, v)) {
            value = static_cast<long long>(v);
            return n;
        }
    }
    unsigned char b;
    if (!next_byte_(b)) {
        value = 0;
        return 0;
    }
    bool negative = (b & 0x80) != 0;
    unsigned long long magnitude = b & 0x7F;
    unsigned int shift = 7;
    unsigned int n = 1;
    while (next_byte_(b)) {
        ++n;
        if (shift < 64) magnitude |= static_cast<unsigned long long>(b & 0x7F) << shift;
        shift += 7;
        if (b & 0x80) break;
    }
    value = static_cast<long long>(negative ? 0ull - magnitude : magnitude);
    return n;
}

long CommBuffer::write(bool v) {
    unsigned char b = v ? 1 : 0;
    return write_byte(&b, 1);
}
long CommBuffer::write(short v) { return write_signed_(v); }
long CommBuffer::write(int v) { return write_signed_(v); }
long CommBuffer::write(long v) { return write_signed_(v); }
long CommBuffer::write(long long v) { return write_signed_(v); }
long CommBuffer::write(unsigned short v) { return write_unsigned_(v); }
long CommBuffer::write(unsigned int v) { return write_unsigned_(v); }
long CommBuffer::write(unsigned long v) { return write_unsigned_(v); }
long CommBuffer::write(unsigned long long v) { return write_unsigned_(v); }

// Like the integer readers, a boolean read never fails: past the end the value stays as it was and
// no byte is counted.
long CommBuffer::read(bool& v) const {
    unsigned char b = 0;
    if (!next_byte_(b)) return 0;
    v = b != 0;
    return 1;
}

namespace {

template <class T>
T narrow(long long v) {
    return static_cast<T>(static_cast<unsigned long long>(v));  // keeps the low bits, as a wire integer does
}

}  // namespace

long CommBuffer::read(short& v) const {
    long long x;
    read_signed_(x);
    v = narrow<short>(x);
    return 0;
}
long CommBuffer::read(int& v) const {
    long long x;
    read_signed_(x);
    v = narrow<int>(x);
    return 0;
}
long CommBuffer::read(long& v) const {
    long long x;
    read_signed_(x);
    v = narrow<long>(x);
    return 0;
}
long CommBuffer::read(long long& v) const {
    read_signed_(v);
    return 0;
}
long CommBuffer::read(unsigned short& v) const {
    unsigned long long x;
    read_unsigned_(x);
    v = static_cast<unsigned short>(x);
    return 0;
}
long CommBuffer::read(unsigned int& v) const {
    unsigned long long x;
    read_unsigned_(x);
    v = static_cast<unsigned int>(x);
    return 0;
}
long CommBuffer::read(unsigned long& v) const {
    unsigned long long x;
    read_unsigned_(x);
    v = static_cast<unsigned long>(x);
    return 0;
}
long CommBuffer::read(unsigned long long& v) const {
    read_unsigned_(v);
    return 0;
}

// --- floating point -------------------------------------------------------------------------------------

namespace {

template <class Bits>
void little_endian(Bits bits, unsigned char* out) {
    for (unsigned int i = 0; i < sizeof(Bits); ++i) out[i] = static_cast<unsigned char>(bits >> (8 * i));
}

template <class Bits>
Bits from_little_endian(unsigned char const* in) {
    Bits bits = 0;
    for (unsigned int i = 0; i < sizeof(Bits); ++i) bits |= static_cast<Bits>(in[i]) << (8 * i);
    return bits;
}

}  // namespace

long CommBuffer::write(float v) {
    std::uint32_t bits;
    std::memcpy(&bits, &v, 4);
    unsigned char bytes[4];
    little_endian(bits, bytes);
    return write_byte(bytes, 4);
}

long CommBuffer::write(double v) {
    std::uint64_t bits;
    std::memcpy(&bits, &v, 8);
    unsigned char bytes[8];
    little_endian(bits, bytes);
    return write_byte(bytes, 8);
}

long CommBuffer::read(float& v) const {
    unsigned char bytes[4];
    if (!read_exact_(bytes, 4)) return refuse_length_(4, 0);
    std::uint32_t bits = from_little_endian<std::uint32_t>(bytes);
    std::memcpy(&v, &bits, 4);
    return 4;
}

long CommBuffer::read(double& v) const {
    unsigned char bytes[8];
    if (!read_exact_(bytes, 8)) return refuse_length_(8, 0);
    std::uint64_t bits = from_little_endian<std::uint64_t>(bytes);
    std::memcpy(&v, &bits, 8);
    return 8;
}

// --- strings, buffers, blobs ------------------------------------------------------------------------

long CommBuffer::refuse_length_(unsigned long long length, unsigned int left) const {
    TVK_LOG(LEVEL_ERR, "CommBuffer::read: corrupted! (invalid length %0, %1 bytes left)")
        << length << left;
    return -1;
}

bool CommBuffer::enter_() const {
    if (depth_ >= kMaxDepth) {
        TVK_LOG(LEVEL_ERR, "CommBuffer::read: corrupted! (nesting deeper than %0)") << kMaxDepth;
        return false;
    }
    ++depth_;
    return true;
}

long CommBuffer::write(AString const& v) {
    long n = write_unsigned_(v.length());
    return n + write_byte(reinterpret_cast<unsigned char const*>(v.c_str()), v.length());
}

long CommBuffer::read(AString& v) const {
    unsigned long long length = 0;
    unsigned int n = read_unsigned_(length);
    if (length != 0 && settle(pos_, pages_.first()) && pos_.page->used - pos_.offset >= length) {
        // The whole text lies in this page: one copy from there.
        v.assign(reinterpret_cast<char const*>(pos_.page->data() + pos_.offset), static_cast<unsigned int>(length));
        pos_.offset += static_cast<unsigned int>(length);
        return n + static_cast<long>(length);
    }
    if (!remains(length)) return refuse_length_(length, remaining());
    v.clear();
    if (length == 0) return n;
    char* dest = v.set_buffer(static_cast<unsigned int>(length));
    read_exact_(dest, static_cast<unsigned int>(length));
    v.size(static_cast<unsigned int>(length));
    return n + static_cast<long>(length);
}

long CommBuffer::write(String const& v) {
    long n = write_unsigned_(v.length());
    for (unsigned int i = 0; i < v.length(); ++i) n += write_unsigned_(static_cast<unsigned int>(v.c_str()[i]) & 0xFFFFu);
    return n;
}

long CommBuffer::read(String& v) const {
    unsigned long long count = 0;
    long n = read_unsigned_(count);
    if (!remains(count)) return refuse_length_(count, remaining());
    String text(v.get_allocator());
    WChar* units = text.allocate(static_cast<unsigned int>(count));
    for (unsigned long long i = 0; i < count; ++i) {
        unsigned long long unit = 0;
        unsigned int k = read_unsigned_(unit);
        if (k == 0) return refuse_length_(count, 0);
        units[i] = static_cast<WChar>(unit);
        n += k;
    }
    text.size(static_cast<unsigned int>(count));
    v.splice(text);
    return n;
}

long CommBuffer::write(StringBuffer const& v) { return v.write(*this); }

long CommBuffer::write_counted(StringBuffer const& v) {
    long n = write_unsigned_(v.size());
    return n + v.write(*this);
}

long CommBuffer::read(StringBuffer& v) const { return v.read(*this); }

long CommBuffer::write(Blob const& v) {
    unsigned int size = v.get_content() ? v.get_size() : 0;
    long n = write_unsigned_(size);
    return n + write_byte(reinterpret_cast<unsigned char const*>(v.get_content()), size);
}

long CommBuffer::read(Blob& v) const {
    unsigned long long size = 0;
    unsigned int n = read_unsigned_(size);
    if (!remains(size)) return refuse_length_(size, remaining());
    v.clear();
    if (size == 0) return n;
    char* dest = v.set(static_cast<unsigned int>(size), static_cast<unsigned int>(size));
    read_exact_(dest, static_cast<unsigned int>(size));
    return n + static_cast<long>(size);
}

// --- the dictionary ---------------------------------------------------------------------------------

unsigned int CommBuffer::find_name_(SymbolEntry const* entry) const {
    if (name_index_) {
        unsigned int const* pos = name_index_->find(entry);
        return pos ? *pos : 0;
    }
    SymbolEntry const* const* names = dictionary_.data();
    unsigned int const count = dictionary_.size();
    for (unsigned int i = 0; i < count; ++i)
        if (names[i] == entry) return i + 1;
    return 0;
}

void CommBuffer::add_name_(SymbolEntry const* entry) const {
    if (dictionary_.is_empty()) dictionary_.reserve(kScannedNames);  // one allocation for most buffers
    dictionary_.push_back(entry);
    if (!name_index_ && dictionary_.size() > kScannedNames) {
        // Past a few names a scan per lookup would make a buffer of many names quadratic.
        name_index_ = memory::make_unique<HMap<SymbolEntry const*, unsigned int>>(64, 0.75f);
        for (unsigned int i = 0; i < dictionary_.size(); ++i) name_index_->insert(dictionary_[i], i + 1);
    } else if (name_index_) {
        name_index_->insert(entry, dictionary_.size());
    }
}

void CommBuffer::drop_names_() {
    dictionary_.clear();
    name_index_.reset();
}

long CommBuffer::write(Symbol const& v) {
    SymbolEntry const* entry = v.is_null() ? Symbol().get_entry() : v.get_entry();  // a null symbol writes as ""
    if (unsigned int pos = find_name_(entry)) return write_signed_(-static_cast<long long>(pos));
    AString const& name = entry->name;
    long n = write_signed_(name.length());
    n += write_byte(reinterpret_cast<unsigned char const*>(name.c_str()), name.length());
    if (!name.is_empty()) add_name_(entry);
    return n;
}

long CommBuffer::write_using_dictionary(AString const& name) { return write(Symbol(name)); }

long CommBuffer::read(Symbol& v) const {
    long long n = 0;
    long consumed = read_signed_(n);
    if (n < 0) {
        if (0ull - static_cast<unsigned long long>(n) > dictionary_.size()) {
            TVK_LOG(LEVEL_ERR, "CommBuffer::read_using_dictionary: corrupted! (invalid pos %0)") << n;
            return -1;
        }
        v = Symbol(dictionary_[static_cast<unsigned int>(-n - 1)]);
        return consumed;
    }
    if (n == 0) {
        v = Symbol();
        return consumed;
    }
    if (static_cast<unsigned long long>(n) > size_ || !remains(static_cast<unsigned long long>(n))) {
        TVK_LOG(LEVEL_ERR, "CommBuffer::read_using_dictionary: corrupted! (invalid size %0)") << n;
        return -1;
    }
    auto length = static_cast<unsigned int>(n);
    SymbolBudget* budget = SymbolBudget::current();
    if (settle(pos_, pages_.first()) && pos_.page->used - pos_.offset >= length) {
        // The whole name lies in this page: intern it from there, without a copy.
        char const* text = reinterpret_cast<char const*>(pos_.page->data() + pos_.offset);
        if (budget && !budget->intern(text, length, v)) return -1;
        if (!budget) v = Symbol(text, length);
        pos_.offset += length;
    } else {
        AString text;
        char* dest = text.set_buffer(length);
        read_exact_(dest, length);
        text.size(length);
        if (budget && !budget->intern(text.c_str(), length, v)) return -1;
        if (!budget) v = Symbol(text);
    }
    if (!find_name_(v.get_entry())) add_name_(v.get_entry());
    return consumed + length;
}

long CommBuffer::read_using_dictionary(AString& name) const {
    Symbol s;
    long r = read(s);
    if (r >= 0) name = s.get_name();
    return r;
}

// --- time values and tuples -------------------------------------------------------------------------

long CommBuffer::write(TimePeriod const& v) { return v.write(*this); }
long CommBuffer::read(TimePeriod& v) const { return v.read(*this); }
long CommBuffer::write(TimeDate const& v) { return v.write(*this); }
long CommBuffer::read(TimeDate& v) const { return v.read(*this); }
long CommBuffer::write(Tuple const& v) { return v.write(*this); }
long CommBuffer::read(Tuple& v) const { return v.read(*this); }

// --- streams and files ----------------------------------------------------------------------------------

long CommBuffer::write(OBStream& out) const {
    long total = 0;
    for (Page* p = pages_.first(); p; p = p->next) {
        p->last = p->next == nullptr;
        p->write_header();
        out.put(reinterpret_cast<char const*>(p->data()), p->used);
        total += p->used;
    }
    return total;
}

long CommBuffer::read(IBStream& in, unsigned int max_size) {
    clear();
    constexpr unsigned int kFirstRoom = 64 * 1024;
    long total = 0;
    for (;;) {
        unsigned char raw[kHeaderSize];
        unsigned int got = 0;
        while (got < kHeaderSize) {
            int r = in.get(reinterpret_cast<char*>(raw) + got, kHeaderSize - got);
            if (r <= 0) return -1;  // the stream ended before the last page
            got += static_cast<unsigned int>(r);
        }
        Header header;
        if (!parse_header(raw, header) || header.length < kHeaderSize) {
            log_invalid_header();
            return -1;
        }
        if (header.length > max_size - size_) {
            TVK_LOG(LEVEL_ERR, "CommBuffer::read: stream larger than %0 bytes") << max_size;
            return -1;
        }
        // The page grows as its bytes arrive: a header may announce more than will ever come.
        unsigned int room = header.length < kFirstRoom ? header.length : kFirstRoom;
        auto* page = static_cast<Page*>(memory::allocate(sizeof(Page) + room));
        std::memcpy(page->data(), raw, kHeaderSize);
        unsigned int filled = kHeaderSize;
        while (filled < header.length) {
            if (filled == room) {
                room = header.length - room < room ? header.length : room * 2;
                // A size from input (the length the header announces): its failure fails the read only.
                void* grown = std::realloc(page, sizeof(Page) + room);
                if (!grown) {
                    std::free(page);
                    TVK_LOG(LEVEL_ERR, "CommBuffer::read: NO MEMORY FOR A PAGE OF %0 BYTES") << header.length;
                    return -1;
                }
                page = static_cast<Page*>(grown);
            }
            int r = in.get(reinterpret_cast<char*>(page->data()) + filled, room - filled);
            if (r <= 0) {
                std::free(page);
                return -1;
            }
            filled += static_cast<unsigned int>(r);
        }
        page->last = false;
        page->marker = 1;
        std::memcpy(page->flags, "xxxx", 4);
        page->owner = this;
        page->used = filled;
        page->capacity = room;
        pages_.push_back(page);
        size_ += filled;
        if (!page->update_from_header()) return -1;
        total += filled;
        if (page->last) return total;
    }
}

long CommBuffer::write_file(Path const& path) const {
    OBStream out(path, false, false);
    if (!out.is_open()) {
        TVK_LOG(LEVEL_ERR, "CANNOT OPEN OUTPUT FILE '%0'") << path.get_text();
        return -1;
    }
    return write(out);
}

long CommBuffer::read_file(Path const& path) {
    IBStream in(path, false);
    if (!in.is_open()) {
        TVK_LOG(LEVEL_ERR, "CANNOT OPEN INPUT FILE '%0'") << path.get_text();
        return -1;
    }
    return read(in);
}

AString CommBuffer::to_string() const {
    if (!ascii_) return AString("string format supported only for ascii CommBuffer!");
    AString text;
    OBStream out(text);
    write(out);
    out.close();
    return text;
}

}  // namespace tarvik
