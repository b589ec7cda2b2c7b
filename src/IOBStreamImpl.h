// IOBStreamImpl.h: the implementation families behind IBStream and OBStream.
//
// OBStream does the text-mode bookkeeping (indentation, columns) and hands each character, or in binary
// mode whole blocks, to its implementation. An implementation only stores bytes; a file implementation in
// text mode also turns line feeds into carriage return + line feed and drops carriage returns.
// Other families (CommBuffer) add their own implementations and open streams on them with
// IBStream::open(IBStreamImpl*) / OBStream::open(OBStreamImpl*).
#pragma once

#include "tarvik/AString.h"

namespace tarvik {

class OBStreamImpl {
public:
    explicit OBStreamImpl(bool text_mode) : text(text_mode) {}
    virtual ~OBStreamImpl() = default;
    OBStreamImpl(OBStreamImpl const&) = delete;
    OBStreamImpl& operator=(OBStreamImpl const&) = delete;

    virtual bool is_open() const { return true; }
    // Stores n bytes.
    virtual void write(char const* data, unsigned int n) = 0;
    virtual void flush() {}
    // Standard output: OBStream serialises every operation with the process-wide console lock.
    virtual bool is_shared() const { return false; }

    bool text;
    int indent_level = 0;
    int column = 0;
    int indent_width = 4;
    bool at_line_start = false;
};

class IBStreamImpl {
public:
    explicit IBStreamImpl(bool text_mode) : text(text_mode) {}
    virtual ~IBStreamImpl() = default;
    IBStreamImpl(IBStreamImpl const&) = delete;
    IBStreamImpl& operator=(IBStreamImpl const&) = delete;

    virtual bool is_open() const { return true; }
    // The next character (0..255) or -1, consumed / not consumed.
    virtual int get() = 0;
    virtual int peek() = 0;
    // Up to n bytes; the count (0 at the end).
    virtual unsigned int read(char* dest, unsigned int n) {
        unsigned int i = 0;
        for (int c; i < n && (c = get()) >= 0;) dest[i++] = static_cast<char>(c);
        return i;
    }
    // The remaining input for diagnostics.
    virtual AString dump() { return AString(); }

    bool text;
};

}  // namespace tarvik
