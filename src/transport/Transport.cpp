// Transport: the variables, time-outs, parameters, page reading and callback links every transport shares.
#include "transport/Transport.h"

#include <cstdlib>
#include <cstring>

#include "LogUnit.h"
#include "Memory.h"
#include "tarvik/CommBuffer.h"
#include "tarvik/Sender.h"
#include "tarvik/Tuple.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

constexpr unsigned int kHeaderSize = CommBuffer::kHeaderSize;

// The effective time-out: the forced value when forcing is on, else the endpoint's own one when set, else
// the default. A forced or default value below -1 counts as "no limit" (-1) rather than an odd negative.
int effective_ms(int force_switch, int forced_value, TimePeriod const& own, int default_ms) {
    if (force_switch != -1) return forced_value < -1 ? -1 : forced_value;
    if (!is_unset(own)) {
        std::int64_t ms = own.to_milliseconds();
        if (ms < 0) return 0;
        return ms > 0x7fffffff ? 0x7fffffff : static_cast<int>(ms);
    }
    return default_ms < -1 ? -1 : default_ms;
}

int hex_digit(unsigned char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The page length and last flag of a 21-byte page header, with the checks CommBuffer applies to its own
// pages: "TVK", two digits, "/", four flag characters, one digit, "/", eight hexadecimal digits, "/".
bool parse_page_header(unsigned char const* h, unsigned int& length, bool& last) {
    if (h[0] != 'T' || h[1] != 'V' || h[2] != 'K') return false;
    if (h[3] < '0' || h[3] > '9' || h[4] < '0' || h[4] > '9' || h[5] != '/') return false;
    if (h[10] < '0' || h[10] > '9' || h[11] != '/' || h[20] != '/') return false;
    unsigned int n = 0;
    for (int i = 12; i < 20; ++i) {
        int d = hex_digit(h[i]);
        if (d < 0) return false;
        n = n * 16 + static_cast<unsigned int>(d);
    }
    if (n < kHeaderSize) return false;
    length = n;
    last = h[10] == '1';
    return true;
}

}  // namespace

// --- TransportConfig ------------------------------------------------------------------------------------

TransportConfig::TransportConfig(char const* module, bool forced_connection_uses_comm)
    : module_(module),
      forced_connection_uses_comm_(forced_connection_uses_comm),
      comm_force_(module_, Symbol("COMM.FORCE_TIMEOUT"), -1),
      comm_default_(module_, Symbol("COMM.DEFAULT_TIMEOUT"), kDefaultTimeoutMs),
      connection_force_(module_, Symbol("CONNECTION.FORCE_TIMEOUT"), -1),
      connection_default_(module_, Symbol("CONNECTION.DEFAULT_TIMEOUT"), kDefaultTimeoutMs),
      format_(module_, Symbol("COMM.FORMAT"), 0),
      max_buffer_size_(module_, Symbol("COMM.MAX_BUFFER_SIZE"), static_cast<int>(kDefaultMaxBufferSize)) {}

int TransportConfig::comm_timeout_ms(TimePeriod const& own) const {
    int force = comm_force_.get();
    return effective_ms(force, force, own, comm_default_.get());
}

int TransportConfig::connection_timeout_ms(TimePeriod const& own) const {
    int force = connection_force_.get();
    // Shared memory keeps its historical rule: forcing the connection time-out forces it to the
    // communication value.
    int forced_value = forced_connection_uses_comm_ ? comm_force_.get() : force;
    return effective_ms(force, forced_value, own, connection_default_.get());
}

unsigned int TransportConfig::max_buffer_size() const {
    int v = max_buffer_size_.get();
    return v < static_cast<int>(kHeaderSize) ? kDefaultMaxBufferSize : static_cast<unsigned int>(v);
}

// The variables are process-lifetime objects made on first use; never destroyed, so a transport working
// during static destruction still reads them.
TransportConfig& tcpip_config() {
    static TransportConfig* const config = new TransportConfig("TVK.TCPIP", false);
    return *config;
}

TransportConfig& shm_config() {
    static TransportConfig* const config = new TransportConfig("TVK.SHM", true);
    return *config;
}

TransportConfig& inproc_config() {
    static TransportConfig* const config = new TransportConfig("TVK.INPROC", false);
    return *config;
}

// --- EndpointTimes ----------------------------------------------------------------------------------------

void EndpointTimes::set_param(Tuple const& param) {
    static Symbol const comm_name("comm_timeout");
    static Symbol const connection_name("connection_timeout");
    MutexHold hold(mutex_);
    if (TimePeriod const* t = param.get_ptime_period(comm_name)) comm_ = *t;
    if (TimePeriod const* t = param.get_ptime_period(connection_name)) connection_ = *t;
}

void EndpointTimes::put(Tuple& param, bool with_connection) const {
    static Symbol const comm_name("comm_timeout");
    static Symbol const connection_name("connection_timeout");
    MutexHold hold(mutex_);
    param.set_time_period(comm_name, comm_);
    if (with_connection) param.set_time_period(connection_name, connection_);
}

TimePeriod EndpointTimes::comm() const {
    MutexHold hold(mutex_);
    return comm_;
}

TimePeriod EndpointTimes::connection() const {
    MutexHold hold(mutex_);
    return connection_;
}

void put_state(Listener::State const& state, Tuple& param) {
    param.set_long(Symbol("requests"), state.requests.load());
    param.set_long(Symbol("failed"), state.failed.load());
    param.set_long(Symbol("connections"), state.connections.load());
    param.set_long(Symbol("bytes_in"), state.bytes_in.load());
    param.set_long(Symbol("bytes_out"), state.bytes_out.load());
    param.set_int(Symbol("last_error"), state.last_error.load());
}

// --- PageStreamReader -------------------------------------------------------------------------------------

PageStreamReader::PageStreamReader(CommBuffer& into, unsigned int max_size, char const* peer)
    : into_(into), max_size_(max_size), peer_(peer ? peer : "") {
    into_.clear();
    into_.set_is_ascii(false);
}

PageStreamReader::Status PageStreamReader::start_page_() {
    bool last = false;
    if (!parse_page_header(header_, page_length_, last)) {
        TVK_LOG(LEVEL_ERR, "CommBuffer::Page::update_from_header: INVALID HEADER!");
        return status_ = BAD_HEADER;
    }
    if (page_length_ > max_size_ - total_ || total_ > max_size_) {
        TVK_LOG(LEVEL_ERR, "BUFFER OF MORE THAN %0 BYTES REFUSED (%1)") << static_cast<int>(max_size_) << peer_;
        return status_ = TOO_LARGE;
    }
    page_ = into_.allocate_in_new_page(page_length_, false);
    if (!page_) {
        TVK_LOG(LEVEL_ERR, "NO MEMORY FOR A PAGE OF %0 BYTES (%1)") << page_length_ << peer_;
        return status_ = TOO_LARGE;
    }
    std::memcpy(page_, header_, kHeaderSize);
    page_got_ = kHeaderSize;
    return MORE;
}

PageStreamReader::Status PageStreamReader::feed(unsigned char const* bytes, unsigned int n, unsigned int& taken) {
    taken = 0;
    while (status_ == MORE && taken < n) {
        if (!page_) {
            unsigned int k = kHeaderSize - header_got_;
            if (k > n - taken) k = n - taken;
            std::memcpy(header_ + header_got_, bytes + taken, k);
            header_got_ += k;
            taken += k;
            if (header_got_ < kHeaderSize) break;
            header_got_ = 0;
            if (start_page_() != MORE) break;
        }
        unsigned int k = page_length_ - page_got_;
        if (k > n - taken) k = n - taken;
        std::memcpy(page_ + page_got_, bytes + taken, k);
        page_got_ += k;
        taken += k;
        if (page_got_ < page_length_) break;
        // The page is complete: it takes its fields from its own header, as a page read from a file does.
        into_.add_size(page_length_);
        CommBuffer::Page* page = into_.get_last();
        page_ = nullptr;
        total_ += page_length_;
        if (!page->update_from_header()) return status_ = BAD_HEADER;
        if (page->last) {
            into_.rewind();
            status_ = DONE;
        }
    }
    return status_;
}

// --- whole buffers -----------------------------------------------------------------------------------------

long encode_tuple(Tuple const& t, CommBuffer& out, bool text) {
    out.clear();
    out.set_is_ascii(text);
    long r = t.write(out);
    if (r < 0) return r;
    CommBuffer::Page* last = out.get_last();
    if (!last) return -1;
    last->last = true;
    out.update_headers();
    return static_cast<long>(out.size());
}

int receive_tuple(CommBuffer const& in, Tuple& out, unsigned int max_size, char const* peer, bool* was_text) {
    CommBuffer buffer;
    PageStreamReader reader(buffer, max_size, peer);
    PageStreamReader::Status status = PageStreamReader::MORE;
    CommBuffer::PageIterator pages(in);
    while (pages.hasNext() && status == PageStreamReader::MORE) {
        CommBuffer::Page const* page = pages.next();
        unsigned int taken = 0;
        status = reader.feed(page->data(), page->used, taken);
        if (status == PageStreamReader::DONE && (taken != page->used || pages.hasNext())) {
            TVK_LOG(LEVEL_ERR, "BYTES AFTER THE LAST PAGE FROM %0") << peer;
            return Sender::CALL_PROTOCOL_ERROR;
        }
    }
    if (status == PageStreamReader::TOO_LARGE) return Sender::CALL_TOO_LARGE;
    if (status != PageStreamReader::DONE) {
        if (status == PageStreamReader::MORE) TVK_LOG(LEVEL_ERR, "BUFFER FROM %0 ENDS BEFORE ITS LAST PAGE") << peer;
        return Sender::CALL_PROTOCOL_ERROR;
    }
    return decode_received(buffer, out, peer, was_text);
}

NameLimits::NameLimits()
    : max_new_(Symbol("TVK.COMM"), Symbol("NAMES.MAX_NEW_PER_BUFFER"), kDefaultMaxNew),
      max_total_(Symbol("TVK.COMM"), Symbol("NAMES.MAX_TOTAL"), kDefaultMaxTotal) {}

unsigned int NameLimits::max_new() const { return max_new_.get() < 0 ? 0u : static_cast<unsigned int>(max_new_.get()); }
unsigned int NameLimits::max_total() const {
    return max_total_.get() < 0 ? 0u : static_cast<unsigned int>(max_total_.get());
}

NameLimits& name_limits() {
    static NameLimits* const limits = memory::create<NameLimits>();
    return *limits;
}

int decode_received(CommBuffer& buffer, Tuple& out, char const* peer, bool* was_text) {
    if (was_text) *was_text = buffer.is_ascii();
    NameLimits const& limits = name_limits();
    SymbolBudget budget(limits.max_new(), limits.max_total());
    if (out.read(buffer) < 0) {
        if (budget.exceeded() == SymbolBudget::TOO_MANY_NEW)
            TVK_LOG(LEVEL_ERR, "BUFFER FROM %0 REFUSED: MORE THAN %1 NEW NAMES") << peer << budget.max_new();
        else if (budget.exceeded() == SymbolBudget::REGISTRY_FULL)
            TVK_LOG(LEVEL_ERR, "BUFFER FROM %0 REFUSED: THE NAME REGISTRY HOLDS %1 NAMES, ITS LIMIT")
                << peer << Symbol::count();
        else
            TVK_LOG(LEVEL_ERR, "DAMAGED TUPLE FROM %0") << peer;
        out.clear();
        return Sender::CALL_PROTOCOL_ERROR;
    }
    return 0;
}

// --- CallbackSlot -----------------------------------------------------------------------------------------

namespace {
// The slot whose callback this thread is running, so that a callback unlinking itself from inside its own
// on_request() does not wait for its own call to end.
thread_local CallbackSlot const* tls_delivering = nullptr;
}  // namespace

void CallbackSlot::set(Listener::Callback* callback) {
    MutexHold hold(mutex_);
    callback_ = callback;
}

void CallbackSlot::reset() {
    MutexHold hold(mutex_);
    callback_ = nullptr;
    int const own = tls_delivering == this ? 1 : 0;
    while (active_ > own) idle_.wait(hold);
}

bool CallbackSlot::deliver(Tuple const& request, Tuple& reply) {
    Listener::Callback* callback;
    {
        MutexHold hold(mutex_);
        callback = callback_;
        if (!callback) return false;
        ++active_;
    }
    CallbackSlot const* outer = tls_delivering;
    tls_delivering = this;
    callback->on_request(request, reply);
    tls_delivering = outer;
    MutexHold hold(mutex_);
    if (--active_ <= 1) idle_.notify_all();
    return true;
}

// --- addresses ------------------------------------------------------------------------------------------

bool match_tcpip_address(char const* text, AString& address, bool& secure) {
    static Symbol const address_name("address");
    static AString const plain("TCPIP:%(address)");
    static AString const encrypted("STCPIP:%(address)");
    Tuple parts;
    AString input(text ? text : "");
    // No escape character: a backslash in an address is an ordinary character.
    if (parts.match(plain, input, 0)) {
        secure = false;
    } else if (parts.match(encrypted, input, 0)) {
        secure = true;
    } else {
        return false;
    }
    address = parts.get_astring(address_name);
    return true;
}

bool match_shm_address(char const* text, AString& name, int& size) {
    static Symbol const address_name("address");
    static Symbol const size_name("size");
    static AString const sized("SHM:%(address):%(size)");
    static AString const unsized("SHM:%(address)");
    Tuple parts;
    AString input(text ? text : "");
    if (parts.match(sized, input)) {
        size = std::atoi(parts.get_astring(size_name).c_str());
    } else if (parts.match(unsized, input)) {
        size = 0;
    } else {
        return false;
    }
    name = parts.get_astring(address_name);
    return true;
}

bool match_inproc_address(char const* text, AString& name) {
    static Symbol const address_name("address");
    static AString const pattern("INPROC:%(address)");
    Tuple parts;
    if (!parts.match(pattern, AString(text ? text : ""), 0)) return false;
    name = parts.get_astring(address_name);
    return true;
}

}  // namespace tarvik
