// CommBuffer.h: the library's wire and file format.
//
// A CommBuffer is a chain of pages. Each page starts with a 21-character header, then carries value bytes:
//
//     TVK01/xxxx1/00000017/      "TVK", version (two digits, always 01), "/", four flag characters
//     0         1         2      ("x" unused, "a" in any of them: an ASCII buffer), last-page digit (1 on
//     012345678901234567890      the final page), "/", the page's length in bytes, header included, as
//                                eight lower-case hexadecimal digits, "/"
//
// A buffer on the wire or in a file is its pages one after another, each exactly as long as its header
// says; there is no overall length. A reader takes 21 bytes, parses them, takes the rest of the page, and
// repeats until a page whose last-page digit is 1. Pages are never moved or grown once made.
//
// Values are written one after another in a compact binary form:
//   integers      two variable-length forms of 7-bit groups, lowest first. Unsigned: bit 7 set on the last
//                 byte only (0 is 80, 127 is FF, 128 is 00 81). Signed: the magnitude's groups, at least two
//                 bytes; bit 7 of the first byte is the sign, bit 7 of a later byte ends the value (0 is
//                 00 80, 5 is 05 80, -5 is 85 80, 200 is 48 81, -1 is 81 80). Integer reads return 0
//                 whatever happens: a value cut short by the end of the buffer keeps what was read.
//   bool          one byte; like an integer read, a boolean read past the end never fails: it keeps the
//                 value and counts no byte. A list of integers cut short reads its missing elements as 0
//   float, double 4 / 8 bytes IEEE 754, little-endian
//   AString, Blob length (unsigned form) then the bytes; String: unit count then each unit (unsigned form)
//   StringBuffer  written as its bytes only (a writer that wants it read back writes the length first);
//                 read as length then bytes
//   Symbol        its name through the buffer's dictionary: a name's first occurrence is its length (signed
//                 form) and bytes, and it takes the next position (from 1); a repeat is -position. So each
//                 distinct name crosses the wire once per buffer. The empty name is length 0 and takes no
//                 position.
//   TimePeriod    seconds (64-bit signed form), microseconds (32-bit signed form); TimeDate: the period
//                 since 1970-01-01 00:00:00
//   Tuple         its class name, then per attribute: kind number (signed form), name, value; then 1
//   lists, arrays the element count (unsigned form), then each element; the result counts the elements'
//                 bytes only
// Writers return the bytes written (fewer when a page could not be allocated: such a page is left out
// without a record, and the bytes it would have held are not stored). Readers return the bytes read, or a negative value when the input is
// malformed, with an ERR record: a dictionary position out of range ("CommBuffer::read_using_dictionary:
// corrupted! (invalid pos %0)"), a name longer than the buffer ("... (invalid size %0)"), a length or
// count that cannot fit in the bytes left ("CommBuffer::read: corrupted! (invalid length %0, %1 bytes
// left)"), or nesting deeper than kMaxDepth ("CommBuffer::read: corrupted! (nesting deeper than %0)").
// Nothing is allocated beyond what the bytes present can fill.
//
// Receiving: read(IBStream&) cuts a byte stream back into pages (a stream that delivers one byte at a time
// gives the same buffer); a header whose magic, digits or hexadecimal length is malformed, or whose
// length is below 21, logs "CommBuffer::Page::update_from_header: INVALID HEADER!" and ends the read with
// -1. A page's storage grows as its bytes arrive, so a header that announces 4 GiB costs only what
// actually comes; the pages together may hold at most `max_size` bytes (headers included, at most
// kMaxStreamSize, the most a buffer's 32-bit size can count): a stream that would carry more logs
// "CommBuffer::read: stream larger than %0 bytes" and ends the read with -1 before that page is kept. When
// a page cannot grow to its announced length, the read ends with -1 and "CommBuffer::read: NO MEMORY FOR
// A PAGE OF %0 BYTES" (the announced length) at ERR. Transports fill pages in place with
// allocate()/add_size() or allocate_in_new_page().
//
// Thread safety: none. One thread uses a buffer at a time; the read position changes in const reads, so
// a const buffer is not shareable between reading threads either.
#pragma once

#include <cstdint>
#include <memory>
#include <type_traits>

#include "tarvik/AString.h"
#include "tarvik/Array.h"
#include "tarvik/HMap.h"
#include "tarvik/List.h"
#include "tarvik/Path.h"
#include "tarvik/Types.h"
#include "tarvik/detail/PageChain.h"

namespace tarvik {

class TimePeriod;
class TimeDate;
class Tuple;
struct SymbolEntry;

class TARVIK_EXPORT CommBuffer {
public:
    static constexpr unsigned int kHeaderSize = 21;
    static constexpr unsigned int kDefaultPageSize = 4096;
    static constexpr int kMaxDepth = 128;

    class TARVIK_EXPORT Page {
    public:
        bool last;              // true only on the final page of a complete buffer
        std::uint32_t marker;   // set to 1 when the page is made; identifies a page in a memory dump
        char flags[4];          // "x" unused; "a" marks an ASCII buffer
        CommBuffer* owner;
        unsigned int used;      // bytes filled, header included
        unsigned int capacity;  // bytes of the data area
        Page* next;

        unsigned char* data() { return reinterpret_cast<unsigned char*>(this + 1); }
        unsigned char const* data() const { return reinterpret_cast<unsigned char const*>(this + 1); }
        // Writes the header text from the fields (version 01) into the first 21 data bytes.
        void write_header();
        // Takes the fields from the header text (see the header comment). On a malformed header the used
        // count becomes 0, the record is logged and false returned.
        bool update_from_header();
    };

    // A read position: the page, the offset in its data, and whether a rewind is pending.
    struct Pos {
        Page const* page = nullptr;
        unsigned int offset = 0;
        bool rewind_pending = true;
    };

    class PageIterator {
    public:
        explicit PageIterator(CommBuffer const& buffer) : at_(buffer.pages_.first()) {}
        bool hasNext() const { return at_ != nullptr; }
        // The page, then advances.
        Page* next() {
            Page* p = at_;
            if (at_) at_ = at_->next;
            return p;
        }

    private:
        Page* at_;
    };

    CommBuffer();
    // A page size below 21 becomes 22 (21 itself is kept: such pages hold no values).
    explicit CommBuffer(unsigned int page_size);
    CommBuffer(CommBuffer const& other);
    CommBuffer(CommBuffer&& other) noexcept;
    CommBuffer& operator=(CommBuffer const& other);
    CommBuffer& operator=(CommBuffer&& other) noexcept;
    ~CommBuffer();

    // Takes over the other's pages, dictionary and size without copying; the other is left empty.
    void splice(CommBuffer& other);
    // Frees every page, empties the dictionary, rewinds; the page size and the ASCII flag stay.
    void clear();
    // Equal sizes, and page for page equal lengths and bytes (headers included).
    bool operator==(CommBuffer const& other) const;

    unsigned int size() const { return size_; }
    void set_size(unsigned int size) { size_ = size; }
    unsigned int get_page_size() const { return page_size_; }
    bool is_ascii() const { return ascii_; }
    void set_is_ascii(bool ascii) { ascii_ = ascii; }
    // Copies the buffer's ASCII flag into every page's flags.
    void update_ascii_flags();
    // Rewrites every page's header from its fields.
    void update_headers();
    Page* get_last() const { return pages_.last(); }
    Page* get_first() const { return pages_.first(); }

    // --- raw bytes ----------------------------------------------------------------------------------
    // Copies n bytes into the last page, adding pages (with header room) as needed. Returns n.
    unsigned int write_byte(unsigned char const* bytes, unsigned int n);
    unsigned int write_raw(unsigned char const* bytes, unsigned int n) { return write_byte(bytes, n); }
    // The free space of the last page (a page without header room is added when there is none or it is
    // full); `room` receives its size. Null and a room of 0 when a needed page cannot be allocated.
    unsigned char* allocate(unsigned int& room);
    // A new page of the given capacity (with 21 bytes of header room when asked); its free space. Null,
    // and no page added, when the page cannot be allocated.
    unsigned char* allocate_in_new_page(unsigned int capacity, bool with_header);
    // Declares n bytes written into the last page's free space; "WRONG ADD SIZE %0 [%1/%2]" when they do
    // not fit. Returns the size.
    unsigned int add_size(unsigned int n);
    // Copies up to n value bytes from the read position (headers skipped); the count, or -1 without pages.
    long read_byte(unsigned char* dest, unsigned int n) const;
    // The next read starts at the first page.
    void rewind() const;
    Pos get_pos() const { return pos_; }
    void set_pos(Pos const& pos) const { pos_ = pos; }
    // Value bytes left after the read position. Walks every page after it: readers use remains().
    unsigned int remaining() const;
    // Whether at least n value bytes are left after the read position; walks only the pages those bytes
    // span, so checking a length costs no more than reading the value it announces.
    bool remains(unsigned long long n) const;
    // Value bytes read since `before`, a position taken earlier with get_pos().
    unsigned int bytes_since(Pos const& before) const;

    // --- typed values (see the header comment) ------------------------------------------------------
    long write(bool v);
    long write(short v);
    long write(int v);
    long write(long v);
    long write(long long v);
    long write(unsigned short v);
    long write(unsigned int v);
    long write(unsigned long v);
    long write(unsigned long long v);
    long write(float v);
    long write(double v);
    long write(AString const& v);
    long write(String const& v);
    long write(StringBuffer const& v);
    long write(Blob const& v);
    long write(Symbol const& v);
    long write(TimePeriod const& v);
    long write(TimeDate const& v);
    long write(Tuple const& v);
    template <class T, class A>
    long write(List<T, A> const& items) {
        return write_items_(items, items.size());
    }
    template <class T, class A>
    long write(Array<T, A> const& items) {
        return write_items_(items, items.size());
    }

    long read(bool& v) const;
    long read(short& v) const;
    long read(int& v) const;
    long read(long& v) const;
    long read(long long& v) const;
    long read(unsigned short& v) const;
    long read(unsigned int& v) const;
    long read(unsigned long& v) const;
    long read(unsigned long long& v) const;
    long read(float& v) const;
    long read(double& v) const;
    long read(AString& v) const;
    long read(String& v) const;
    long read(StringBuffer& v) const;
    long read(Blob& v) const;
    long read(Symbol& v) const;
    long read(TimePeriod& v) const;
    long read(TimeDate& v) const;
    long read(Tuple& v) const;
    template <class T, class A>
    long read(List<T, A>& items) const {
        items.clear();
        return read_items_(items, [&items]() -> T& { return items.emplace_back(); });
    }
    template <class T, class A>
    long read(Array<T, A>& items) const {
        items.clear();
        return read_items_(items, [&items]() -> T& { return items.emplace_back(); });
    }

    // A StringBuffer with its length in front, as read(StringBuffer&) expects it.
    long write_counted(StringBuffer const& v);

    long write_using_dictionary(AString const& name);
    long read_using_dictionary(AString& name) const;
    // The names in the dictionary, in position order.
    unsigned int dictionary_size() const { return dictionary_.size(); }

    // --- streams and files ------------------------------------------------------------------------
    // Marks the final page, rewrites every header and puts every page on the stream; the byte count.
    long write(OBStream& out) const;
    // The most bytes read(IBStream&) takes into one buffer.
    static constexpr unsigned int kMaxStreamSize = 0xFFFFFFFFu;
    // Replaces the buffer by the pages read from the stream (see the header comment); bytes read or -1.
    long read(IBStream& in, unsigned int max_size = kMaxStreamSize);
    // -1 and "CANNOT OPEN OUTPUT FILE '%0'" / "CANNOT OPEN INPUT FILE '%0'" when the file cannot be opened.
    long write_file(Path const& path) const;
    long read_file(Path const& path);
    // An ASCII buffer's whole text, headers included; for a binary buffer the text
    // "string format supported only for ascii CommBuffer!".
    AString to_string() const;

    // Nesting guard for readers of nested values (tuples in lists in tuples ...).
    bool enter_() const;
    void leave_() const { --depth_; }
    // Fails a read: logs "CommBuffer::read: corrupted! (invalid length %0, %1 bytes left)"; returns -1.
    long refuse_length_(unsigned long long length, unsigned int left) const;

private:
    Page* add_page_(unsigned int capacity, bool with_header);
    void free_pages_();
    void copy_from_(CommBuffer const& other);
    // The next value byte, advancing; false at the end.
    bool next_byte_(unsigned char& byte) const;
    unsigned int read_unsigned_(unsigned long long& value) const;
    unsigned int read_signed_(long long& value) const;
    long write_unsigned_(unsigned long long value);
    long write_signed_(long long value);
    template <class T>
    long write_number_(T value);
    // --- runs of integers (lists and arrays of numbers): see detail/CommBufferCodec.h ------------------
    static unsigned int encode_signed_(long long v, unsigned char* out);
    static unsigned int encode_unsigned_(unsigned long long v, unsigned char* out);
    // The read position settled on a page with bytes left (after a pending rewind or at a page end);
    // false at the end of the buffer.
    bool settle_() const;
    template <class Item>
    static unsigned int encode_item_(Item v, unsigned char* out);
    template <class C>
    long write_integer_items_(C const& items);
    template <class C, class Item = typename C::value_type>
    long read_integer_items_(C& items, unsigned long long count) const;
    // Reads n bytes into dest; false (nothing promised about dest) when fewer remain.
    bool read_exact_(void* dest, unsigned int n) const;
    // The dictionary position of a name (from 1), or 0.
    unsigned int find_name_(SymbolEntry const* entry) const;
    void add_name_(SymbolEntry const* entry) const;
    void drop_names_();

    template <class C>
    long write_items_(C const& items, unsigned int count);
    // Reads the count, refuses one that the bytes left cannot hold (each element takes a byte at least),
    // then each element.
    template <class C, class Add>
    long read_items_(C& items, Add add) const;

    static constexpr unsigned int kScannedNames = 16;
    // The names written to or read from this buffer: position p (from 1) is element p - 1. Past
    // kScannedNames names, a hash index finds a name's position.
    mutable Array<SymbolEntry const*> dictionary_;
    mutable std::unique_ptr<HMap<SymbolEntry const*, unsigned int>> name_index_;
    unsigned int page_size_;
    unsigned int size_ = 0;
    detail::PageChain<Page> pages_;
    mutable Pos pos_;
    bool ascii_ = false;
    mutable int depth_ = 0;
};

}  // namespace tarvik

// The templates above are defined here, out of the way of the interface.
#include "tarvik/detail/CommBufferCodec.h"
