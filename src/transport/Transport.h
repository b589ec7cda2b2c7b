// Transport.h: what every transport provides, and the pieces they all share.
//
// A transport is one folder under src/transport/ ("inproc", "tcp", "tls", "shm") holding:
//   * a Listener and a Sender (Listener.h, Sender.h) derived class, internal to the library, named
//     <KIND>Listener / <KIND>Sender, whose get_param writes the class name "tarvik.<KIND>Listener" /
//     "tarvik.<KIND>Sender";
//   * a listener factory and a sender factory (RefFactory, factory names Listener::factory_name() and
//     Sender::factory_name()) that match the address with the tuple pattern matcher, most specific pattern
//     first, log "TRY CREATE '%0'" before matching and "OK CREATE '%0'" (or, for shared memory,
//     "CREATE ok='%0'") with the object made, both at LOG when the transport's log level is above 1, and
//     return a null reference for an address that is not theirs;
//   * a register_<kind>_factories() function, called once by init(), that makes the factories and binds the
//     transport's global variables (TransportConfig below), so a host can list them from the start;
//   * -linux / -win halves for whatever needs the operating system, behind a private header of its own.
//
// What a transport must do, whatever carries the bytes:
//   Wire      A request is one Tuple written into a CommBuffer, in the binary form, or in the text form
//             when the module's "COMM.FORMAT" is 1; it travels as the buffer's pages, each exactly as long
//             as its header says, until the page marked last. The answer travels the same way, in the form
//             the request came in. Nothing else crosses (no framing of our own), so replies match requests
//             by order on one connection.
//   Reading   What a peer sends is hostile. Pages are taken apart with PageStreamReader (sizes checked
//             against the module's "COMM.MAX_BUFFER_SIZE" before anything is allocated, malformed headers
//             refused), then decoded with decode_tuple(); a failure is an "ERR" record, a failed call for
//             the sender (Sender::CALL_PROTOCOL_ERROR / CALL_TOO_LARGE) and a dropped request for the
//             listener (its State::failed counted), never a crash.
//   Time-outs Every exchange is bounded by TransportConfig::comm_timeout_ms(), every connection attempt by
//             connection_timeout_ms(), both computed from the variables at each use through a Deadline.
//   Listener  Calls Listener::Callback::on_request() from its worker threads, possibly several at once,
//             only while a callback is linked (CallbackSlot does the bookkeeping); counts in its State;
//             stop() refuses new requests, lets delivered ones finish within the communication time-out
//             and fails the rest; the destructor stops and unlinks; no thread or connection outlives it
//             except a worker stuck in a callback that never returns (reported at ERR).
//   Sender    call() from several threads at once, each answer to its own caller; results are
//             Sender::CallResult values with an "ERR" record naming the address; a connection that failed
//             or timed out is never reused.
//
// Thread safety: TransportConfig and the free functions may be used from any thread; EndpointTimes and
// CallbackSlot lock internally; a PageStreamReader belongs to one thread.
#pragma once

#include <cstdint>

#include "../AnnotatedMutex.h"  // relative, so that tests reach it without the private include path
#include "tarvik/AString.h"
#include "tarvik/GlobVar.h"
#include "tarvik/Listener.h"
#include "tarvik/Time.h"
#include "tarvik/Types.h"

namespace tarvik {

class CommBuffer;
class Tuple;

// The global variables of one transport module ("TVK.TCPIP", "TVK.SHM", "TVK.INPROC"):
//   COMM.FORCE_TIMEOUT          -1     ms for every exchange when not -1, whatever the endpoint says
//   COMM.DEFAULT_TIMEOUT        10000  ms when not forced and the endpoint's own comm_timeout is unset
//   CONNECTION.FORCE_TIMEOUT    -1     as above, for making a connection
//   CONNECTION.DEFAULT_TIMEOUT  10000  as above, for making a connection
//   COMM.FORMAT                 0      1: requests go in the text form of CommBuffer
//   COMM.MAX_BUFFER_SIZE        64 MiB the largest request or answer a peer may send (bytes, headers
//                                      included); larger ones are refused before they are stored
class TARVIK_EXPORT TransportConfig {
public:
    // `forced_connection_uses_comm`: the shared-memory module's rule that a forced connection time-out
    // takes the value of COMM.FORCE_TIMEOUT (CONNECTION.FORCE_TIMEOUT only switches forcing on).
    TransportConfig(char const* module, bool forced_connection_uses_comm);
    TransportConfig(TransportConfig const&) = delete;
    TransportConfig& operator=(TransportConfig const&) = delete;

    // The effective time-outs in milliseconds for an endpoint whose own setting is `own` (unset_time() when
    // the endpoint has none), read from the variables now.
    int comm_timeout_ms(TimePeriod const& own) const;
    int connection_timeout_ms(TimePeriod const& own) const;
    // Whether outgoing requests use the text form.
    bool text_requests() const { return format_.get() == 1; }
    // The largest buffer a peer may send; a value below one page header counts as the default.
    unsigned int max_buffer_size() const;
    Symbol const& module() const { return module_; }

    static constexpr int kDefaultTimeoutMs = 10000;
    static constexpr unsigned int kDefaultMaxBufferSize = 64u * 1024 * 1024;

private:
    Symbol module_;
    bool forced_connection_uses_comm_;
    GlobVarInt comm_force_;
    GlobVarInt comm_default_;
    GlobVarInt connection_force_;
    GlobVarInt connection_default_;
    GlobVarInt format_;
    GlobVarInt max_buffer_size_;
};

// The limits on names a peer may add to the process's name registry (SymbolBudget, Symbol.h), for every
// transport, in the module "TVK.COMM":
//   NAMES.MAX_NEW_PER_BUFFER  10000    new names one decoded request or answer may intern
//   NAMES.MAX_TOTAL           1000000  names the registry may hold before buffers with new names are refused
// A buffer over either limit is refused whole, with an "ERR" record naming the peer (CALL_PROTOCOL_ERROR
// for a sender, a dropped request for a listener); the names it had interned before that stay.
class TARVIK_EXPORT NameLimits {
public:
    NameLimits();
    unsigned int max_new() const;
    unsigned int max_total() const;
    static constexpr int kDefaultMaxNew = 10000;
    static constexpr int kDefaultMaxTotal = 1000000;

private:
    GlobVarInt max_new_;
    GlobVarInt max_total_;
};
TARVIK_EXPORT NameLimits& name_limits();

// The modules of the transports; each made on first use (init() makes them all).
TARVIK_EXPORT TransportConfig& tcpip_config();
TARVIK_EXPORT TransportConfig& shm_config();
TARVIK_EXPORT TransportConfig& inproc_config();

// The "not set" value of an endpoint's own time-out: -1 second and 0 microseconds.
inline TimePeriod unset_time() { return TimePeriod(std::int64_t{-1}, 0, false); }
inline bool is_unset(TimePeriod const& t) { return t.get_seconds() == -1 && t.get_microseconds() == 0; }

// An endpoint's own time-outs, and the parameter attributes every endpoint reads and writes.
class TARVIK_EXPORT EndpointTimes {
public:
    // Takes "comm_timeout" / "connection_timeout" (TimePeriod) from `param`; absent ones change nothing.
    void set_param(Tuple const& param) TARVIK_EXCLUDES(mutex_);
    // Writes "comm_timeout" (and "connection_timeout" when `with_connection`) as they stand, unset ones as
    // the unset value.
    void put(Tuple& param, bool with_connection) const TARVIK_EXCLUDES(mutex_);
    TimePeriod comm() const TARVIK_EXCLUDES(mutex_);
    TimePeriod connection() const TARVIK_EXCLUDES(mutex_);

private:
    // A leaf lock: nothing else is taken while it is held.
    mutable AnnotatedMutex mutex_;
    TimePeriod comm_ TARVIK_GUARDED_BY(mutex_) = unset_time();
    TimePeriod connection_ TARVIK_GUARDED_BY(mutex_) = unset_time();
};

// Writes the listener's State counters into `param` ("requests", "failed", "connections", "bytes_in",
// "bytes_out" as longs, "last_error" as an int).
TARVIK_EXPORT void put_state(Listener::State const& state, Tuple& param);

// Cuts a stream of bytes back into a CommBuffer, page by page, bounded. Bytes may arrive in pieces of any
// size; feed() stops at the end of the page marked last and reports how much it took, so the bytes of the
// next buffer on the same stream stay with the caller. A header that is malformed ("CommBuffer::Page::
// update_from_header: INVALID HEADER!"), or that would take the buffer past `max_size` ("BUFFER OF MORE
// THAN %0 BYTES REFUSED (%1)" naming the peer) ends the read with an error before anything is allocated
// for that page.
class TARVIK_EXPORT PageStreamReader {
public:
    enum Status { MORE = 0, DONE = 1, BAD_HEADER = -1, TOO_LARGE = -2 };

    // Fills `into` (cleared now). `peer` names the other end in records; it must outlive the reader.
    PageStreamReader(CommBuffer& into, unsigned int max_size, char const* peer);
    // Takes up to n bytes; `taken` receives how many were used. MORE until the last page is complete,
    // then DONE; an error status is final.
    Status feed(unsigned char const* bytes, unsigned int n, unsigned int& taken);
    // Bytes of the buffer so far, headers included.
    unsigned int size() const { return total_; }

private:
    Status start_page_();

    CommBuffer& into_;
    unsigned int max_size_;
    char const* peer_;
    unsigned char header_[21];
    unsigned int header_got_ = 0;
    unsigned char* page_ = nullptr;      // the page being filled (its data, header first), null between pages
    unsigned int page_length_ = 0;
    unsigned int page_got_ = 0;
    unsigned int total_ = 0;
    Status status_ = MORE;
};

// Encodes `t` into `out` (cleared now) in the text form when `text`, and marks it complete: the final
// page flagged last, every header written. The bytes written, negative on failure.
TARVIK_EXPORT long encode_tuple(Tuple const& t, CommBuffer& out, bool text);
// Reads every page of `in` through a PageStreamReader into a buffer of its own (as a socket reader would
// take them) and decodes the tuple. Returns 0, or Sender::CALL_PROTOCOL_ERROR / CALL_TOO_LARGE with an
// "ERR" record naming `peer`. `was_text` (when not null) receives whether the request came in the text
// form.
TARVIK_EXPORT int receive_tuple(CommBuffer const& in, Tuple& out, unsigned int max_size, char const* peer,
                                bool* was_text);

// Decodes the tuple of a buffer that a PageStreamReader completed (DONE). Returns 0, or
// Sender::CALL_PROTOCOL_ERROR with a "DAMAGED TUPLE FROM %0" record naming `peer`; `was_text` (when not
// null) receives whether the buffer is in the text form.
TARVIK_EXPORT int decode_received(CommBuffer& buffer, Tuple& out, char const* peer, bool* was_text);

// The links of Listener::Callback to a concrete listener's workers: the callback they call, and how many
// calls are in progress, so that unlinking waits for them (after reset() no worker calls the old callback).
class TARVIK_EXPORT CallbackSlot {
public:
    void set(Listener::Callback* callback) TARVIK_EXCLUDES(mutex_);
    // Unlinks and waits until no call into the old callback is in progress.
    void reset() TARVIK_EXCLUDES(mutex_);
    // Calls the linked callback with the request, without the lock (the callback may take any lock,
    // including this slot's through reset()); false (reply untouched) when none is linked.
    bool deliver(Tuple const& request, Tuple& reply) TARVIK_EXCLUDES(mutex_);

private:
    // A leaf lock: held only to read or count, never across the callback.
    AnnotatedMutex mutex_;
    CondVar idle_;                                // signalled when active_ drops to 0 or 1
    Listener::Callback* callback_ TARVIK_GUARDED_BY(mutex_) = nullptr;
    int active_ TARVIK_GUARDED_BY(mutex_) = 0;
};

// Address parsing of the factories, exposed so that the parsed parts can be checked on their own.
// "TCPIP:%(address)" / "STCPIP:%(address)" (no escape character): the address after the prefix.
TARVIK_EXPORT bool match_tcpip_address(char const* text, AString& address, bool& secure);
// "SHM:%(address):%(size)" then "SHM:%(address)": the name and the size (atoi of the text; 0 when none
// is given or the text is no number, meaning the default size).
TARVIK_EXPORT bool match_shm_address(char const* text, AString& name, int& size);
// "INPROC:%(address)".
TARVIK_EXPORT bool match_inproc_address(char const* text, AString& name);

// Called once by init().
void register_tcpip_factories();
void register_shm_factories();
void register_inproc_factories();

}  // namespace tarvik
