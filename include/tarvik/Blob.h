// Blob.h: one contiguous byte array, owned or borrowed.
//
// A Blob is in one of three states:
//   empty      allocated 0, size 0, content null;
//   owning     allocated >= size, the array is the blob's own;
//   borrowing  allocated 0xFFFFFFFF (kBorrowed): the array belongs to someone else, who must keep it alive
//              as long as the blob refers to it; the blob never frees it.
// set(data, size, kBorrowed) wraps received data without copying. Every other mutating operation on a
// borrowing blob first drops the borrowed reference. Copying a blob copies its three fields through set():
// a copy of a borrowing blob borrows the same memory; a copy of an owning blob owns a copy of the bytes.
//
// set() with data, when the new size or requested capacity exceeds the current capacity, allocates a new
// array and does not free the previous one: that leak is the fixed behaviour of this version, kept
// deliberately (callers that grow a blob repeatedly use set_allocated_size() or set(size, allocated),
// which do free the old array).
//
// Comparison is deliberately reversed: when both sizes are equal and not zero the result is memcmp of
// the contents; otherwise it is the other's size minus this size. So a longer blob is less than a shorter
// one, and two empty blobs are equal.
//
// Text form (the XML form, and operator<< / operator>> on streams): standard base64 ("A"-"Z", "a"-"z",
// "0"-"9", "+", "/", padding "="), a line feed between lines of 76 characters (never at the end). Reading
// takes base64 characters, "=" and white space from the stream's current character on and stops, without
// consuming it, at the first other character; a count of characters that is not a non-zero multiple of 4,
// or any malformed group, clears the blob and yields 0. Limits: nothing nests; the text is gathered as it
// arrives and the blob is sized from the characters actually read (3 bytes per 4), never from a count.
//
// Files: write(path) creates or truncates the file and returns 1 + the bytes written, 1 when the file
// cannot be created (nothing is logged), -1 after a failed write. read(path) returns 1, or -1 when the
// file cannot be opened or read ("CANNOT OPEN(R) FILE '%0' [%1]", "CANNOT READ(R) FILE '%0'  [%1]").
// A list of blobs (BlobList) is written as the contents one after another, and read back split into
// blobs of at most 4096 bytes.
// Limit: a file is read only up to kMaxFileSize bytes (1 GiB), into a blob or a list alike. A larger file,
// or one whose bytes cannot be allocated, gives -1 and "CANNOT READ(R) FILE '%0': SIZE %1 OVER LIMIT %2",
// "CANNOT READ(R) FILE '%0': NO MEMORY FOR %1 BYTES", or for a list "LIST BLOB: FILE '%0' SIZE %1 OVER
// LIMIT %2" at ERR, with nothing read.
//
// Thread safety: a blob is used by one thread at a time.
#pragma once

#include "tarvik/List.h"
#include "tarvik/ListAllocator.h"
#include "tarvik/Types.h"

namespace tarvik {

class TARVIK_EXPORT Blob {
public:
    // The capacity marker of a borrowing blob.
    static constexpr unsigned int kBorrowed = 0xFFFFFFFFu;
    // The largest file read() takes (see the header comment).
    static constexpr unsigned int kMaxFileSize = 1u << 30;

    Blob() = default;
    // An owning blob of `size` bytes (not initialised) and a capacity of at least `allocated`.
    Blob(unsigned int size, unsigned int allocated);
    // set(data, size, allocated).
    Blob(char const* data, unsigned int size, unsigned int allocated);
    Blob(Blob const& other);
    Blob(Blob&& other) noexcept;
    Blob& operator=(Blob const& other);  // self-assignment does nothing
    Blob& operator=(Blob&& other) noexcept;
    ~Blob();

    char* get_content() { return content_; }
    char const* get_content() const { return content_; }
    unsigned int get_size() const { return size_; }
    unsigned int get_allocated_size() const { return allocated_; }
    bool is_borrowing() const { return allocated_ == kBorrowed; }

    // Each setter returns the content pointer. See the header comment for the rules.
    char* set(char const* data, unsigned int size, unsigned int allocated);
    char* set(unsigned int size, unsigned int allocated);
    char* set_allocated_size(unsigned int n);
    char* clear();
    char* splice(Blob& other);

    int compare(Blob const& other) const;
    friend bool operator==(Blob const& a, Blob const& b) { return a.compare(b) == 0; }
    friend bool operator<(Blob const& a, Blob const& b) { return a.compare(b) < 0; }
    friend bool operator>(Blob const& a, Blob const& b) { return a.compare(b) > 0; }

    // Base64: write_xml returns the characters written (line feeds included), 0 for an empty blob;
    // read_xml returns the decoded size, 0 on any malformed input (the blob is then cleared).
    long write_xml(OBStream& out) const;
    long read_xml(IBStream& in);
    // The write_xml text into `out` (replacing it); returns `out`.
    AString& to_string(AString& out) const;
    // read_xml from a text; true when the result is not negative.
    bool from_string(char const* text);

    long write(Path const& path) const;
    long read(Path const& path);

private:
    unsigned int allocated_ = 0;
    unsigned int size_ = 0;
    char* content_ = nullptr;
};

using BlobList = List<Blob, TvkListAllocator<Blob>>;

// A list of blobs as one file: the contents one after another. 1 + the bytes written; 1 when the file
// cannot be created; -1 after a failed write ("CANNOT WRITE(W) FILE '%0'").
TARVIK_EXPORT long write(BlobList const& blobs, Path const& path);
// Replaces the list by the file's bytes in blobs of at most 4096 bytes. 1, or -1 with "LIST BLOB: ..."
// records.
TARVIK_EXPORT long read(BlobList& blobs, Path const& path);

}  // namespace tarvik
