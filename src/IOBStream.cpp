#include "tarvik/IOBStream.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Console.h"
#include "FileImpl.h"
#include "IOBStreamImpl.h"
#include "LogUnit.h"
#include "Memory.h"
#include "tarvik/Blob.h"
#include "tarvik/CommBuffer.h"
#include "tarvik/String.h"
#include "tarvik/StringBuffer.h"
#include "tarvik/Symbol.h"
#include "tarvik/System.h"
#include "tarvik/Time.h"

TARVIK_LOG_UNIT()

namespace tarvik {

CriticalSection& console_lock() {
    static CriticalSection* const lock = memory::create<CriticalSection>();
    return *lock;
}

namespace {

constexpr unsigned int kFileBuffer = 2048;

// --- output implementations ---------------------------------------------------------------------------

class OFBStreamImpl final : public OBStreamImpl {
public:
    OFBStreamImpl(Path const& path, bool append, bool text_mode) : OBStreamImpl(text_mode) {
        handle_ = path.is_empty() ? file_impl::standard(1) : file_impl::create_write(path.c_str(), append);
        crlf_ = text_mode && (!file_impl::is_standard(handle_) || file_impl::standard_output_uses_crlf());
    }
    ~OFBStreamImpl() override {
        flush();
        file_impl::close(handle_);
    }
    bool is_open() const override { return handle_ != file_impl::kInvalidHandle; }
    bool is_shared() const override { return file_impl::is_standard(handle_); }

    void write(char const* data, unsigned int n) override {
        if (!is_open()) return;
        if (!crlf_) {
            store_run_(data, n);
            return;
        }
        // Runs without line ends go in whole; a line feed becomes CR LF, a carriage return is dropped.
        unsigned int run = 0;
        for (unsigned int i = 0; i < n; ++i) {
            char c = data[i];
            if (c != '\r' && c != '\n') continue;
            store_run_(data + run, i - run);
            if (c == '\n') store_run_("\r\n", 2);
            run = i + 1;
        }
        store_run_(data + run, n - run);
    }

    void flush() override {
        unsigned int done = 0;
        while (done < fill_) {
            long w = file_impl::write(handle_, buffer_ + done, fill_ - done);
            if (w <= 0) break;  // the device refuses: drop what is left rather than spin
            done += static_cast<unsigned int>(w);
        }
        fill_ = 0;
    }

private:
    void store_run_(char const* data, unsigned int n) {
        while (n) {
            if (fill_ == kFileBuffer) flush();
            unsigned int k = n < kFileBuffer - fill_ ? n : kFileBuffer - fill_;
            std::memcpy(buffer_ + fill_, data, k);
            fill_ += k;
            data += k;
            n -= k;
        }
    }

    file_impl::Handle handle_;
    bool crlf_;
    unsigned int fill_ = 0;
    char buffer_[kFileBuffer];
};

class OStrBStreamImpl final : public OBStreamImpl {
public:
    OStrBStreamImpl(AString& target, bool text_mode) : OBStreamImpl(text_mode), target_(target) {}
    void write(char const* data, unsigned int n) override { target_.append(data, n); }

private:
    AString& target_;
};

class OStrBufBStreamImpl final : public OBStreamImpl {
public:
    OStrBufBStreamImpl(StringBuffer& target, bool text_mode) : OBStreamImpl(text_mode), target_(target) {}
    void write(char const* data, unsigned int n) override { target_.append(data, n); }

private:
    StringBuffer& target_;
};

// --- input implementations ----------------------------------------------------------------------------

class IFBStreamImpl final : public IBStreamImpl {
public:
    IFBStreamImpl(Path const& path, bool text_mode) : IBStreamImpl(text_mode) {
        handle_ = path.is_empty() ? file_impl::standard(0) : file_impl::open_read(path.c_str());
        if (handle_ == file_impl::kInvalidHandle) {
            TVK_LOG(LEVEL_DEBUG, "CANNOT OPEN FILE '%0' FOR READ [%1]") << path.get_text()
                                                                         << get_last_system_error_text();
        }
    }
    ~IFBStreamImpl() override { file_impl::close(handle_); }
    bool is_open() const override { return handle_ != file_impl::kInvalidHandle; }

    int get() override {
        int c = peek();
        if (c >= 0) ++index_;
        return c;
    }
    int peek() override {
        for (;;) {
            if (index_ == fill_ && !refill_()) return -1;
            auto c = static_cast<unsigned char>(buffer_[index_]);
            if (text && c == '\r') {
                ++index_;
                continue;
            }
            return c;
        }
    }
    unsigned int read(char* dest, unsigned int n) override {
        if (text) return IBStreamImpl::read(dest, n);
        unsigned int got = 0;
        while (got < n) {
            if (index_ == fill_ && !refill_()) break;
            unsigned int k = n - got < fill_ - index_ ? n - got : fill_ - index_;
            std::memcpy(dest + got, buffer_ + index_, k);
            index_ += k;
            got += k;
        }
        return got;
    }
    AString dump() override { return AString(buffer_ + index_, fill_ - index_); }

private:
    bool refill_() {
        if (eof_ || !is_open()) return false;
        long r = file_impl::read(handle_, buffer_, kFileBuffer);
        index_ = 0;
        fill_ = r > 0 ? static_cast<unsigned int>(r) : 0;
        if (r <= 0) eof_ = true;
        return fill_ > 0;
    }

    file_impl::Handle handle_;
    unsigned int fill_ = 0;
    unsigned int index_ = 0;
    bool eof_ = false;
    char buffer_[kFileBuffer];
};

class IStrBStreamImpl final : public IBStreamImpl {
public:
    explicit IStrBStreamImpl(char const* text_in) : IBStreamImpl(false), at_(text_in ? text_in : "") {}
    int get() override { return *at_ ? static_cast<unsigned char>(*at_++) : -1; }
    int peek() override { return *at_ ? static_cast<unsigned char>(*at_) : -1; }
    AString dump() override { return AString(at_); }

private:
    char const* at_;
};

class IStrBufBStreamImpl final : public IBStreamImpl {
public:
    explicit IStrBufBStreamImpl(StringBuffer const& buffer) : IBStreamImpl(false), page_(buffer.first_page()) {
        settle_();
    }
    int get() override {
        if (!page_) return -1;
        auto c = static_cast<unsigned char>(page_->data()[index_++]);
        settle_();
        return c;
    }
    int peek() override { return page_ ? static_cast<unsigned char>(page_->data()[index_]) : -1; }
    unsigned int read(char* dest, unsigned int n) override {
        unsigned int got = 0;
        while (page_ && got < n) {
            unsigned int k = n - got < page_->used - index_ ? n - got : page_->used - index_;
            std::memcpy(dest + got, page_->data() + index_, k);
            index_ += k;
            got += k;
            settle_();
        }
        return got;
    }
    AString dump() override {
        AString rest;
        for (StringBuffer::Page const* p = page_; p; p = p->next) {
            unsigned int from = p == page_ ? index_ : 0;
            rest.append(p->data() + from, p->used - from);
        }
        return rest;
    }

private:
    // Moves past exhausted and empty pages.
    void settle_() {
        while (page_ && index_ >= page_->used) {
            page_ = page_->next;
            index_ = 0;
        }
    }
    StringBuffer::Page const* page_;
    unsigned int index_ = 0;
};

class OCommBufBStreamImpl final : public OBStreamImpl {
public:
    OCommBufBStreamImpl(CommBuffer& target, bool text_mode) : OBStreamImpl(text_mode), target_(target) {}
    void write(char const* data, unsigned int n) override {
        target_.write_raw(reinterpret_cast<unsigned char const*>(data), n);
    }

private:
    CommBuffer& target_;
};

class ICommBufBStreamImpl final : public IBStreamImpl {
public:
    explicit ICommBufBStreamImpl(CommBuffer const& source) : IBStreamImpl(false), source_(source) {}
    int get() override {
        unsigned char c;
        return source_.read_byte(&c, 1) == 1 ? c : -1;
    }
    int peek() override {
        CommBuffer::Pos at = source_.get_pos();
        int c = get();
        source_.set_pos(at);
        return c;
    }
    unsigned int read(char* dest, unsigned int n) override {
        long got = source_.read_byte(reinterpret_cast<unsigned char*>(dest), n);
        return got > 0 ? static_cast<unsigned int>(got) : 0;
    }
    AString dump() override {
        CommBuffer::Pos at = source_.get_pos();
        AString rest;
        char chunk[256];
        for (long got; (got = source_.read_byte(reinterpret_cast<unsigned char*>(chunk), sizeof chunk)) > 0;)
            rest.append(chunk, static_cast<unsigned int>(got));
        source_.set_pos(at);
        return rest;
    }

private:
    CommBuffer const& source_;
};

// Holds the console lock for the duration of one operation on a shared (standard output) stream. The lock is
// taken only for a shared stream, a condition the locking analysis cannot follow; what it guards is the
// process's standard output, not a member it could check.
class SharedGuard {
public:
    explicit SharedGuard(OBStreamImpl* impl) TARVIK_NO_THREAD_SAFETY_ANALYSIS
        : lock_(impl && impl->is_shared() ? &console_lock() : nullptr) {
        if (lock_) lock_->enter();
    }
    ~SharedGuard() TARVIK_NO_THREAD_SAFETY_ANALYSIS {
        if (lock_) lock_->leave();
    }
    SharedGuard(SharedGuard const&) = delete;
    SharedGuard& operator=(SharedGuard const&) = delete;

private:
    CriticalSection* lock_;
};

}  // namespace

// --- IBStream -------------------------------------------------------------------------------------------

IBStream::IBStream() = default;
IBStream::IBStream(Path const& path, bool text) { open(path, text); }
IBStream::IBStream(char const* text) { open(text); }
IBStream::IBStream(StringBuffer const& buffer) { open(buffer); }
IBStream::IBStream(CommBuffer const& buffer) { open(buffer); }
IBStream::~IBStream() { close(); }

bool IBStream::open(std::unique_ptr<IBStreamImpl> impl) {
    close();
    impl_ = std::move(impl);
    open_ = impl_ && impl_->is_open();
    return open_;
}
bool IBStream::open(Path const& path, bool text) {
    return open(memory::make_unique<IFBStreamImpl>(path, text));
}
bool IBStream::open(char const* text) { return open(memory::make_unique<IStrBStreamImpl>(text)); }
bool IBStream::open(StringBuffer const& buffer) {
    return open(memory::make_unique<IStrBufBStreamImpl>(buffer));
}
bool IBStream::open(CommBuffer const& buffer) {
    return open(memory::make_unique<ICommBufBStreamImpl>(buffer));
}

void IBStream::close() {
    impl_.reset();
    open_ = false;
}

bool IBStream::is_open() const { return open_; }
bool IBStream::is_text() const { return impl_ && impl_->text; }
bool IBStream::eof() { return peek() < 0; }
int IBStream::get() { return is_open() ? impl_->get() : -1; }
int IBStream::peek() { return is_open() ? impl_->peek() : -1; }

int IBStream::get(char* dest, unsigned int n) {
    if (!is_open() || !dest) return -1;
    unsigned int got = impl_->read(dest, n);
    return got ? static_cast<int>(got) : -1;
}

void IBStream::eatwhite() {
    for (int c; (c = peek()) >= 0 && std::isspace(c);) get();
}

AString IBStream::dump() { return is_open() ? impl_->dump() : AString(); }

// --- OBStream -----------------------------------------------------------------------------------------

OBStream::OBStream() = default;
OBStream::OBStream(Path const& path, bool append, bool text) { open(path, append, text); }
OBStream::OBStream(AString& target, bool text) { open(target, text); }
OBStream::OBStream(StringBuffer& target, bool text) { open(target, text); }
OBStream::OBStream(CommBuffer& target, bool text) { open(target, text); }
OBStream::~OBStream() { close(); }

bool OBStream::open(std::unique_ptr<OBStreamImpl> impl) {
    close();
    impl_ = std::move(impl);
    return is_open();
}
bool OBStream::open(Path const& path, bool append, bool text) {
    return open(memory::make_unique<OFBStreamImpl>(path, append, text));
}
bool OBStream::open(AString& target, bool text) {
    return open(memory::make_unique<OStrBStreamImpl>(target, text));
}
bool OBStream::open(StringBuffer& target, bool text) {
    return open(memory::make_unique<OStrBufBStreamImpl>(target, text));
}
bool OBStream::open(CommBuffer& target, bool text) {
    return open(memory::make_unique<OCommBufBStreamImpl>(target, text));
}

void OBStream::close() {
    if (!impl_) return;
    {
        SharedGuard guard(impl_.get());
        impl_->flush();
    }
    impl_.reset();
}

bool OBStream::is_open() const { return impl_ && impl_->is_open(); }
bool OBStream::is_text() const { return impl_ && impl_->text; }

void OBStream::put_text_char_(char c) {
    if (c != '\n') {
        if (impl_->at_line_start) {
            for (int i = impl_->indent_level * impl_->indent_width; i > 0; --i) {
                impl_->write(" ", 1);
                ++impl_->column;
            }
            impl_->at_line_start = false;
        }
        if (c == '\t') {
            impl_->column = (impl_->column / 8 + 1) * 8;
        } else {
            ++impl_->column;
        }
    } else {
        impl_->at_line_start = true;
        impl_->column = -1;
    }
    impl_->write(&c, 1);
}

void OBStream::put(int c) {
    if (!is_open()) return;
    SharedGuard guard(impl_.get());
    char ch = static_cast<char>(c);
    if (impl_->text) {
        put_text_char_(ch);
    } else {
        impl_->write(&ch, 1);
    }
}

void OBStream::put(char const* text) {
    if (text) put(text, static_cast<unsigned int>(std::strlen(text)));
}

void OBStream::put(char const* data, unsigned int n) {
    if (!is_open() || !data || n == 0) return;
    SharedGuard guard(impl_.get());
    if (!impl_->text) {
        impl_->write(data, n);
        return;
    }
    // Runs of ordinary characters (no line feed, no tab) after the start of a line move the column by their
    // length and go out whole; the others take the character path.
    unsigned int i = 0;
    while (i < n) {
        if (data[i] == '\n' || data[i] == '\t' || impl_->at_line_start) {
            put_text_char_(data[i++]);
            continue;
        }
        unsigned int run = i;
        while (i < n && data[i] != '\n' && data[i] != '\t') ++i;
        impl_->column += static_cast<int>(i - run);
        impl_->write(data + run, i - run);
    }
}

void OBStream::flush() {
    if (!is_open()) return;
    SharedGuard guard(impl_.get());
    impl_->flush();
}

void OBStream::indent(int n) {
    if (impl_) impl_->indent_level += n;
}
void OBStream::unindent(int n) {
    if (impl_) impl_->indent_level -= n;
}
int OBStream::get_indent() const { return impl_ ? impl_->indent_level : 0; }
int OBStream::get_current_col() const { return impl_ ? impl_->column : 0; }

OBStreamFormat OBStream::format(char const* format_text) { return OBStreamFormat(this, format_text); }
OBStreamFormat OBStream::operator()(char const* format_text) { return OBStreamFormat(this, format_text); }

// --- process-wide streams -------------------------------------------------------------------------------

namespace {

void flush_standard_output_at_exit() { bcout().flush(); }

}  // namespace

OBStream& bcout() {
    // Never destroyed, so that code running during static destruction can still print; what is buffered
    // is written out when the process exits.
    static OBStream* const out = [] {
        auto* stream = memory::create<OBStream>(Path(""), false, true);
        std::atexit(flush_standard_output_at_exit);
        return stream;
    }();
    return *out;
}

IBStream& bcin() {
    static IBStream* const in = memory::create<IBStream>(Path(""), true);
    return *in;
}

BEndl bendl() { return BEndl{}; }
BFlush bflush() { return BFlush{}; }

// --- operator<< -----------------------------------------------------------------------------------------

namespace {

template <class... A>
OBStream& print(OBStream& out, char const* format, A... args) {
    char text[64];
    int n = std::snprintf(text, sizeof text, format, args...);
    if (n > 0) out.put(text, static_cast<unsigned int>(n < static_cast<int>(sizeof text) ? n : sizeof text - 1));
    return out;
}

}  // namespace

OBStream& operator<<(OBStream& out, char c) {
    out.put(c);
    return out;
}
OBStream& operator<<(OBStream& out, char const* text) {
    out.put(text);
    return out;
}
OBStream& operator<<(OBStream& out, wchar_t const* text) { return out << String(text); }
#if !TARVIK_WCHAR_T_IS_WCHAR
OBStream& operator<<(OBStream& out, WChar const* text) { return out << String(text); }
#endif
OBStream& operator<<(OBStream& out, bool value) { return out << (value ? "true" : "false"); }
OBStream& operator<<(OBStream& out, int value) { return print(out, "%d", value); }
OBStream& operator<<(OBStream& out, unsigned int value) { return print(out, "%u", value); }
OBStream& operator<<(OBStream& out, long value) { return print(out, "%ld", value); }
OBStream& operator<<(OBStream& out, unsigned long value) { return print(out, "%lu", value); }
OBStream& operator<<(OBStream& out, long long value) { return print(out, "%lld", value); }
OBStream& operator<<(OBStream& out, unsigned long long value) { return print(out, "%llu", value); }
OBStream& operator<<(OBStream& out, double value) { return print(out, "%g", value); }
OBStream& operator<<(OBStream& out, void const* pointer) {
    return print(out, "%lx", static_cast<unsigned long>(reinterpret_cast<std::uintptr_t>(pointer)));
}
OBStream& operator<<(OBStream& out, AString const& text) {
    out.put(text.c_str(), text.length());
    return out;
}
OBStream& operator<<(OBStream& out, String const& text) {
    AString utf8;
    EncodeToUTF8(text, utf8);
    return out << utf8;
}
OBStream& operator<<(OBStream& out, Symbol const& symbol) { return out << symbol.get_name(); }
OBStream& operator<<(OBStream& out, StringBuffer const& buffer) {
    buffer.write(out);
    return out;
}
OBStream& operator<<(OBStream& out, Blob const& blob) {
    blob.write_xml(out);
    return out;
}
OBStream& operator<<(OBStream& out, BEndl) {
    out.put('\n');
    out.flush();
    return out;
}
OBStream& operator<<(OBStream& out, BFlush) {
    out.flush();
    return out;
}

// --- operator>> -----------------------------------------------------------------------------------------

namespace {

// The next white-space-delimited word, after skipping white space.
AString read_word(IBStream& in) {
    in.eatwhite();
    AString word;
    for (int c; (c = in.peek()) >= 0 && !std::isspace(c);) word.append(1, static_cast<char>(in.get()));
    return word;
}

// A number: optional sign and the characters a number may hold, so that "12abc" reads 12 and leaves "abc".
AString read_number_text(IBStream& in, bool floating) {
    in.eatwhite();
    AString text;
    int c = in.peek();
    if (c == '-' || c == '+') text.append(1, static_cast<char>(in.get()));
    while ((c = in.peek()) >= 0) {
        bool ok = std::isdigit(c) || (floating && (c == '.' || c == 'e' || c == 'E' ||
                                                   ((c == '-' || c == '+') && text.length() &&
                                                    (text[text.length() - 1] == 'e' || text[text.length() - 1] == 'E'))));
        if (!ok) break;
        text.append(1, static_cast<char>(in.get()));
    }
    return text;
}

template <class T>
IBStream& read_integer(IBStream& in, T& value) {
    AString text = read_number_text(in, false);
    if (text.is_empty()) return in;
    char* end = nullptr;
    long long v = std::strtoll(text.c_str(), &end, 10);
    if (end != text.c_str()) value = static_cast<T>(v);
    return in;
}

}  // namespace

IBStream& operator>>(IBStream& in, char& c) {
    int v = in.get();
    if (v >= 0) c = static_cast<char>(v);
    return in;
}
IBStream& operator>>(IBStream& in, int& value) { return read_integer(in, value); }
IBStream& operator>>(IBStream& in, unsigned int& value) { return read_integer(in, value); }
IBStream& operator>>(IBStream& in, long& value) { return read_integer(in, value); }
IBStream& operator>>(IBStream& in, long long& value) { return read_integer(in, value); }
IBStream& operator>>(IBStream& in, double& value) {
    AString text = read_number_text(in, true);
    char* end = nullptr;
    double v = std::strtod(text.c_str(), &end);
    if (end != text.c_str()) value = v;
    return in;
}
IBStream& operator>>(IBStream& in, AString& word) {
    AString w = read_word(in);
    if (!w.is_empty()) word.splice(w);
    return in;
}
IBStream& operator>>(IBStream& in, String& word) {
    AString w = read_word(in);
    if (!w.is_empty()) DecodeFromUTF8(w, word);
    return in;
}
IBStream& operator>>(IBStream& in, StringBuffer& rest) {
    rest.read(in);
    return in;
}
IBStream& operator>>(IBStream& in, Blob& blob) {
    blob.read_xml(in);
    return in;
}

}  // namespace tarvik
