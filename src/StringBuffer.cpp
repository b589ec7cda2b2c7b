#include "tarvik/StringBuffer.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "LogUnit.h"
#include "Memory.h"
#include "tarvik/AString.h"
#include "tarvik/CommBuffer.h"
#include "tarvik/IOBStream.h"
#include "tarvik/Path.h"

TARVIK_LOG_UNIT()

namespace tarvik {

// --- pages --------------------------------------------------------------------------------------------

StringBuffer::Page* StringBuffer::add_page_() {
    // Zero-filled with two spare bytes, so the payload is always NUL-terminated.
    auto* page = static_cast<Page*>(memory::allocate_zeroed(sizeof(Page) + page_size_ + 2));
    page->owner = this;
    page->used = 0;
    pages_.push_back(page);
    return page;
}

void StringBuffer::free_pages_() {
    pages_.release_all([](Page* p) { std::free(p); });  // the buffer owns its pages as raw blocks by design
    size_ = 0;
}

// --- construction -------------------------------------------------------------------------------------

StringBuffer::StringBuffer(unsigned int page_size) : page_size_(page_size ? page_size : 128) {}

StringBuffer::StringBuffer(char const* text, unsigned int page_size) : StringBuffer(page_size) { append(text); }

StringBuffer::StringBuffer(StringBuffer const& other) : StringBuffer(other.page_size_) { append(other); }

StringBuffer::StringBuffer(StringBuffer const& other, unsigned int page_size) : StringBuffer(page_size) {
    append(other);
}

StringBuffer::StringBuffer(StringBuffer&& other) noexcept : page_size_(other.page_size_) { splice(other); }

StringBuffer::~StringBuffer() { free_pages_(); }

StringBuffer& StringBuffer::operator=(StringBuffer const& other) {
    if (this != &other) {
        clear();
        append(other);
    }
    return *this;
}

StringBuffer& StringBuffer::operator=(StringBuffer&& other) noexcept {
    if (this != &other) splice(other);
    return *this;
}

StringBuffer& StringBuffer::operator=(char const* text) {
    clear();
    append(text);
    return *this;
}

// --- appending ----------------------------------------------------------------------------------------

unsigned int StringBuffer::append_in_new_page_(char c) {
    Page* page = add_page_();
    page->data()[page->used++] = c;
    ++size_;
    return 1;
}

unsigned int StringBuffer::append(char const* data, unsigned int n) {
    if (!data) return 0;
    unsigned int done = 0;
    while (done < n) {
        Page* last = pages_.last();
        if (!last || last->used == page_size_) last = add_page_();
        unsigned int room = page_size_ - last->used;
        unsigned int k = n - done < room ? n - done : room;
        std::memcpy(last->data() + last->used, data + done, k);
        last->used += k;
        size_ += k;
        done += k;
    }
    return n;
}

unsigned int StringBuffer::append(char const* text) {
    return text ? append(text, static_cast<unsigned int>(std::strlen(text))) : 0;
}

unsigned int StringBuffer::append(StringBuffer const& other) {
    if (&other == this) {
        // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): `other` grows while it is appended
        StringBuffer copy(other);
        return append(copy);
    }
    for (Page const* p = other.pages_.first(); p; p = p->next) append(p->data(), p->used);
    return other.size_;
}

char* StringBuffer::append() {
    if (pages_.last() && pages_.last()->used == 0) return pages_.last()->data();
    return add_page_()->data();
}

unsigned int StringBuffer::add_size(unsigned int n) {
    Page* last = pages_.last();
    if (!last || n > page_size_ - last->used) {
        TVK_LOG(LEVEL_ERR, "WRONG ADD SIZE %0 [%1/%2]") << n << (last ? last->used : 0u) << page_size_;
        return size_;
    }
    size_ += n - last->used;
    last->used = n;
    return size_;
}

void StringBuffer::clear() { free_pages_(); }

void StringBuffer::splice(StringBuffer& other) {
    if (&other == this) return;
    free_pages_();
    page_size_ = other.page_size_;
    size_ = other.size_;
    pages_.append(other.pages_);
    for (Page* p = pages_.first(); p; p = p->next) p->owner = this;
    other.size_ = 0;
}

// --- comparison ---------------------------------------------------------------------------------------

namespace {

// Walks two byte sequences together; the result follows the buffer comparison rule (reversed sense).
template <class A, class B>
int reversed_compare(A a, A a_end, B b, B b_end) {
    while (a != a_end && b != b_end && *a == *b) {
        ++a;
        ++b;
    }
    if (a != a_end && b != b_end)
        return static_cast<int>(static_cast<unsigned char>(*b)) - static_cast<int>(static_cast<unsigned char>(*a));
    if (a != a_end) return -1;
    if (b != b_end) return 1;
    return 0;
}

}  // namespace

int StringBuffer::compare(StringBuffer const& other) const {
    return reversed_compare(begin(), end(), other.begin(), other.end());
}

int StringBuffer::compare(char const* other) const {
    char const* o = other ? other : "";
    return reversed_compare(begin(), end(), o, o + std::strlen(o));
}

// --- text export ------------------------------------------------------------------------------------

char* StringBuffer::c_str(char* dest, unsigned int max) const {
    if (!dest) return dest;
    unsigned int at = 0;
    for (Page const* p = pages_.first(); p && at < max; p = p->next) {
        unsigned int k = p->used < max - at ? p->used : max - at;
        std::memcpy(dest + at, p->data(), k);
        at += k;
    }
    dest[at] = '\0';
    return dest;
}

char const* StringBuffer::c_str(AString& out) const {
    AString text;
    text.reserve(size_ + 1);
    for (Page const* p = pages_.first(); p; p = p->next) text.append(p->data(), p->used);
    out.splice(text);
    return out.c_str();
}

// --- streams --------------------------------------------------------------------------------------------

long StringBuffer::write(OBStream& out) const {
    for (Page const* p = pages_.first(); p; p = p->next) out.put(p->data(), p->used);
    return size_;
}

long StringBuffer::write(OBStream& out, char const* quote) const {
    if (!quote || !*quote) return write(out);
    long written = 0;
    for (char c : *this) {
        if (c == quote[0]) {
            out.put('\\');
            ++written;
        }
        out.put(c);
        ++written;
    }
    return written;
}

long StringBuffer::read(IBStream& in) {
    long count = 0;
    char chunk[512];
    for (int n; (n = in.get(chunk, sizeof chunk)) > 0;) {
        append(chunk, static_cast<unsigned int>(n));
        count += n;
    }
    return count;
}

long StringBuffer::read(IBStream& in, char const* quote) {
    if (!quote || !*quote) return read(in);
    int q = static_cast<unsigned char>(quote[0]);
    int c;
    while ((c = in.peek()) >= 0 && c != q) in.get();
    if (c == q) in.get();
    long count = 0;
    while ((c = in.peek()) >= 0 && c != q) {
        in.get();
        if (c == '\\') {
            c = in.get();
            if (c < 0) break;
        }
        append(static_cast<char>(c));
        ++count;
    }
    return count;
}

long StringBuffer::write_xml(OBStream& out) const {
    long processed = 0;
    for (char c : *this) {
        ++processed;
        switch (c) {
            case '&': out.put("&amp;"); break;
            case '<': out.put("&lt;"); break;
            case '>': out.put("&gt;"); break;
            default:
                if (static_cast<unsigned char>(c) < 32 && !std::isspace(static_cast<unsigned char>(c))) break;
                out.put(c);
        }
    }
    return processed;
}

long StringBuffer::read_xml(IBStream& in) { return read(in); }

// --- files ----------------------------------------------------------------------------------------------

long StringBuffer::write(Path const& path, bool only_if_changed) const {
    if (only_if_changed) {
        StringBuffer current(128);
        if (current.read(path) >= 0 && current.compare(*this) == 0) return 2;
    }
    OBStream out(path, false, true);
    if (!out.is_open()) return kCannotOpenFile;
    return write(out);
}

long StringBuffer::read(Path const& path) {
    IBStream in(path, true);
    if (!in.is_open()) return kCannotOpenFile;
    return read(in);
}

// --- CommBuffer -----------------------------------------------------------------------------------------

long StringBuffer::write(CommBuffer& out) const {
    long total = 0;
    for (Page const* p = pages_.first(); p; p = p->next)
        total += out.write_raw(reinterpret_cast<unsigned char const*>(p->data()), p->used);
    return total;
}

long StringBuffer::read(CommBuffer const& in) {
    clear();
    unsigned int length = 0;
    long r = in.read(length);
    if (r < 0) return r;
    if (!in.remains(length)) return in.refuse_length_(length, in.remaining());
    long total = 0;
    while (length > 0) {
        unsigned int want = length < page_size_ ? length : page_size_;
        Page* page = add_page_();
        long got = in.read_byte(reinterpret_cast<unsigned char*>(page->data()), want);
        if (got < 0) return got;
        page->used = static_cast<unsigned int>(got);
        size_ += page->used;
        total += got;
        if (static_cast<unsigned int>(got) < want) return in.refuse_length_(length, 0);
        length -= want;
    }
    return total;
}

}  // namespace tarvik
