// StringBuffer.h: an append-only byte buffer made of fixed-size pages.
//
// A StringBuffer collects output of unknown length without ever moving bytes: it is a chain of pages of
// `page size` payload bytes each (128 when 0 is asked for), filled in order. Pages are allocated
// zero-filled with two spare bytes, so every page's payload is NUL-terminated; they are never reallocated
// or moved, so pointers into a page stay valid until clear(). Only the last page may be partly filled
// (a buffer read from a CommBuffer may also end that way).
//
// Direct filling: append() with no argument returns a writable page (the last page when it holds no byte
// yet, otherwise a new one); the producer writes at most get_page_size() bytes there and declares them
// with add_size(n). add_size *sets* the last page's count to n when n fits in its free room, and
// otherwise logs "WRONG ADD SIZE %0 [%1/%2]" at ERR and changes nothing.
//
// Comparison is deliberately the reverse of the usual sense: at the first differing byte the result is
// the other's byte minus this one's (as unsigned 8-bit values); when one buffer is a prefix of the other,
// the one with bytes left compares as less (-1). So "abd".compare("abc") is -1 and operator< holds for
// "abcd" < "abc".
//
// Files are written and read in text mode: a line feed is stored as carriage return + line feed and
// carriage returns are skipped on reading, so a buffer written and read back is unchanged.
//
// Thread safety: a buffer is used by one thread at a time.
#pragma once

#include <concepts>
#include <iterator>
#include <type_traits>

#include "tarvik/Types.h"
#include "tarvik/detail/PageChain.h"

namespace tarvik {

class TARVIK_EXPORT StringBuffer {
public:
    // One page: its header, then page-size payload bytes and two spare NUL bytes.
    struct Page {
        StringBuffer* owner;
        unsigned int used;
        Page* next;
        char* data() { return reinterpret_cast<char*>(this + 1); }
        char const* data() const { return reinterpret_cast<char const*>(this + 1); }
    };

    template <bool Const>
    class BasicIterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = char;
        using difference_type = long;
        using pointer = std::conditional_t<Const, char const*, char*>;
        using reference = std::conditional_t<Const, char const&, char&>;
        using page_pointer = std::conditional_t<Const, Page const*, Page*>;

        BasicIterator() = default;
        explicit BasicIterator(page_pointer page) : page_(page) { skip_empty_(); }
        reference operator*() const { return page_->data()[index_]; }
        BasicIterator& operator++() {
            if (++index_ >= page_->used) {
                page_ = page_->next;
                index_ = 0;
                skip_empty_();
            }
            return *this;
        }
        BasicIterator operator++(int) {
            BasicIterator t = *this;
            ++*this;
            return t;
        }
        friend bool operator==(BasicIterator const& a, BasicIterator const& b) {
            return a.page_ == b.page_ && a.index_ == b.index_;
        }

    private:
        void skip_empty_() {
            while (page_ && page_->used == 0) page_ = page_->next;
        }
        page_pointer page_ = nullptr;
        unsigned int index_ = 0;
    };
    using Iterator = BasicIterator<false>;
    using ConstIterator = BasicIterator<true>;

    explicit StringBuffer(unsigned int page_size = 128);
    // Any integer is a page size: without this, StringBuffer(0) would be ambiguous between a page size
    // and a null text.
    template <std::integral I>
    explicit StringBuffer(I page_size) : StringBuffer(static_cast<unsigned int>(page_size)) {}
    explicit StringBuffer(char const* text, unsigned int page_size = 128);
    StringBuffer(StringBuffer const& other);
    StringBuffer(StringBuffer const& other, unsigned int page_size);
    // Takes the other's pages; the other is left empty with its page size.
    StringBuffer(StringBuffer&& other) noexcept;
    ~StringBuffer();
    StringBuffer& operator=(StringBuffer const& other);
    StringBuffer& operator=(StringBuffer&& other) noexcept;
    StringBuffer& operator=(char const* text);

    unsigned int size() const { return size_; }
    unsigned int get_size() const { return size_; }
    unsigned int get_page_size() const { return page_size_; }
    bool is_empty() const { return size_ == 0; }

    // Appenders return the number of bytes appended. A null text appends nothing and returns 0; a text
    // stops at its NUL, which is not stored.
    unsigned int append(char c) {
        Page* last = pages_.last();
        if (last && last->used < page_size_) {  // room in the last page: no call, no page to add
            last->data()[last->used++] = c;
            ++size_;
            return 1;
        }
        return append_in_new_page_(c);
    }
    unsigned int append(char const* text);
    unsigned int append(char const* data, unsigned int n);
    unsigned int append(StringBuffer const& other);
    StringBuffer& operator+=(char c) { return (append(c), *this); }
    StringBuffer& operator+=(char const* text) { return (append(text), *this); }
    StringBuffer& operator+=(StringBuffer const& other) { return (append(other), *this); }
    StringBuffer& operator+=(StringBuffer const* other) { return (other ? append(*other) : 0u, *this); }
    StringBuffer& operator<<(char c) { return *this += c; }
    StringBuffer& operator<<(char const* text) { return *this += text; }
    StringBuffer& operator<<(StringBuffer const& other) { return *this += other; }
    StringBuffer& operator<<(StringBuffer const* other) { return *this += other; }

    // A writable page with no bytes yet (see the header comment); then add_size(n).
    char* append();
    // Sets the last page's count to n when it fits; otherwise logs and changes nothing. Returns the size.
    unsigned int add_size(unsigned int n);

    void clear();
    // Takes over the other's page size, size and pages; the other is left empty with its page size.
    void splice(StringBuffer& other);

    Iterator begin() { return Iterator(pages_.first()); }
    Iterator end() { return Iterator(); }
    ConstIterator begin() const { return ConstIterator(pages_.first()); }
    ConstIterator end() const { return ConstIterator(); }
    ConstIterator cbegin() const { return begin(); }
    ConstIterator cend() const { return end(); }
    Page* first_page() { return pages_.first(); }
    Page const* first_page() const { return pages_.first(); }
    Page* last_page() { return pages_.last(); }

    int compare(StringBuffer const& other) const;
    int compare(char const* other) const;
    friend bool operator<(StringBuffer const& a, StringBuffer const& b) { return a.compare(b) < 0; }
    friend bool operator<(StringBuffer const& a, char const* b) { return a.compare(b) < 0; }
    friend bool operator>(StringBuffer const& a, StringBuffer const& b) { return a.compare(b) > 0; }
    friend bool operator>(StringBuffer const& a, char const* b) { return a.compare(b) > 0; }
    friend bool operator==(StringBuffer const& a, StringBuffer const& b) { return a.compare(b) == 0; }
    friend bool operator==(StringBuffer const& a, char const* b) { return a.compare(b) == 0; }

    // Copies at most max bytes into dest and writes a NUL after them (dest holds max + 1 bytes).
    char* c_str(char* dest, unsigned int max) const;
    // Makes `out` hold every byte; returns its characters.
    char const* c_str(AString& out) const;

    // Streams. write: every byte, returns the count. write with quote: each byte equal to quote[0] is
    // preceded by a backslash; returns the characters written. read: appends every byte to the end of the
    // stream; returns the count. read with quote: skips to the first quote[0], then appends up to the next
    // unescaped quote[0] (not consumed), dropping each backslash and keeping the byte after it; a null or
    // empty quote is read(in). write_xml: "&", "<", ">" as entities, bytes below 32 other than white
    // space dropped; returns the source bytes processed. read_xml is read(in).
    long write(OBStream& out) const;
    long write(OBStream& out, char const* quote) const;
    long read(IBStream& in);
    long read(IBStream& in, char const* quote);
    long write_xml(OBStream& out) const;
    long read_xml(IBStream& in);

    // Files (text mode). write: with only_if_changed, a file that already holds the same bytes is left
    // alone and 2 is returned; otherwise the count of bytes written, or -1000002 when the file cannot be
    // opened. read: appends the file's bytes; the count, or -1000002.
    long write(Path const& path, bool only_if_changed) const;
    long read(Path const& path);

    // CommBuffer. write: every page's bytes as raw bytes, no length in front (whoever writes a buffer for
    // read() to take back writes its length first: CommBuffer::write_counted); returns the bytes written.
    // read: replaces the content by a length (the CommBuffer's unsigned integer form) and that many bytes,
    // a page at a time; returns the bytes read, or -1 (with an ERR record) when the length exceeds the
    // bytes left.
    long write(CommBuffer& out) const;
    long read(CommBuffer const& in);

private:
    Page* add_page_();
    unsigned int append_in_new_page_(char c);
    void free_pages_();

    unsigned int page_size_;
    unsigned int size_ = 0;
    detail::PageChain<Page> pages_;
};

}  // namespace tarvik
