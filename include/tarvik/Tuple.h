// Tuple.h: the library's dynamic record.
//
// A Tuple is a class name (a Symbol, "" by default) and a chain of attributes. Each attribute is a
// Tuple::Value: a name (a Symbol), a kind (TypeManager.h) and a payload. The chain is kept sorted by the
// *text* of the names (AString order), not by symbol number or insertion order. Two values of one name may
// stand side by side (decoders may produce them; the insertion logs "ALLREADY ATT n=%0 t=%1 r=%2" at ERR
// and keeps both); the one inserted last stands first, and lookups by name see the first one.
//
// A value owns its payload, or, when set by reference (set_ref_X / set_cref_X), refers to an object that
// the caller owns and keeps alive; the tuple never destroys a referenced object. A value set by const
// reference is never changed through the tuple: setting it again replaces it with an owned value.
//
// Setting an attribute (set_value and every set_X): the first value of the name is kept when it has the
// same kind, the same by-reference flag and is not const, and is then assigned the new content; otherwise
// it is removed (a referenced payload is left alone) and a new value takes its place in name order. So
// setting an attribute to another kind replaces it. A name must be a symbol whose number fits in 22 bits
// (below 4,194,304); another name is refused with "ATT NAME NUMBER %0 TOO LARGE FOR ATTRIBUTE '%1'" at ERR
// (a null symbol, which names nothing, with "ATT NAME IS NOT A SYMBOL") and the tuple is unchanged.
//
// Typed accessors. For each kind there is a group of members named by a suffix X: bool, int, long (64-bit),
// float, double, astring, string, blob, time_period, time_date, tuple, stringbuffer, symbol, array_int,
// array_long, array_float, array_double. With T the payload type and L its list type (ListInt, ...):
//   T&        set_X(name, T const& v)     owned copy of v; returns the stored payload
//   T&        set_X(name)                 the default value (false, 0, empty), replacing any content
//   T&        set_ref_X(name, T& v)       refers to the caller's v; returns v
//   T const&  set_cref_X(name, T const& v) refers to v, never changed through the tuple; returns v
//   T&        add_X(name, T const& v)     appends v to the list attribute of this kind (made when missing;
//                                         a list held by const reference becomes an owned copy; any other
//                                         kind is replaced by an empty list first); returns the new element
//   T*        get_pX(name)                the payload when the first value of the name has this kind, else
//                                         null (const and non-const); never converts between kinds
//   T         get_X(name, T def)          numbers (bool, int, long, float, double): the value, else def
//   T const&  get_X(name)                 other kinds: the payload, else the kind's shared empty instance
//   T         get_X(name, T const& def)   other kinds: a copy of the payload, else def
//   L&        set_list_X(name, L const& l), set_ref_list_X(name, L& l), set_cref_list_X(name, L const& l)
//   L&        set_list_X(name)            keeps a list of this kind as it is, else an empty owned list
//   L const&  get_list_X(name)            the list, else the shared empty list (never null)
//   L*        get_plist_X(name)           the list or null
// For the array kinds, add_array_int(name, ArrayInt const&) appends a whole array to the list-of-arrays
// attribute and returns the appended array. AString has two more: set_astring(name, char const*) and
// get_astring(name, char const* def), which returns the stored characters or def.
//
// Whole-tuple operations:
//   assign(t)        copies t's attributes (this class name stays); operator= copies the class name too
//   splice(t)        takes over t's class name and attributes without copying; t is left empty (class "")
//   merge(t)         every name that t holds is replaced here by (copies of) all of t's values of that name
//   merge_only(t, names) / merge_except(t, names)   the same, for the listed names only / all but them
//   diff(t)          removes every attribute that t holds with an equal value (same name, kind, content);
//                    what remains is what t lacks or holds differently
//   keep(names)      removes every attribute whose name is not listed
//   clear(name)      removes all values of the name; clear(names) each listed name; clear() everything
//   compare(t)       class names by text, then attribute by attribute: name text, kind number, content
//                    (the kind's order); a tuple that runs out first is less. equal(t) is compare(t) == 0
//   format(text)     text with "%0", "%1", ... replaced by the items of the list of strings held under the
//                    empty name "" (the layout of log records), by the placeholder rules of OBStreamFormat
//
// Text form (to_string / from_string), one line that reads back into an equal tuple for every kind:
//   tuple  := [name] "{" [attr {"," attr}] "}"           e.g.  order{id:i=7, tags:las=["a", "b"]}
//   attr   := name ":" code "=" value                    (code: the kind's text code)
//   name   := bare | quoted     bare: one or more of A-Z a-z 0-9 _ . $ -;  quoted: "..." (as below)
//   values: b true/false; i l decimal; f d the shortest decimal that reads back to the same number, or
//   inf, -inf, nan; as sb "..." with \" \\ \n \r \t and \xHH for other bytes below 32 and 127 (other bytes
//   as they are); s "..." with printable ASCII as it is and \uHHHH for every other 16-bit unit; bb <base64>;
//   tp [-]seconds.microseconds (six digits); td YYYY-MM-DDTHH:MM:SS.uuuuuu (a BC year with "-"), or
//   @seconds.microseconds since 1970-01-01 when the calendar form cannot hold the value; ss a name; t a
//   tuple; arrays and lists "[" [item {"," item}] "]" (lists of arrays hold "[...]" items, lists of tuples
//   tuples). White space is allowed between tokens. from_string replaces the tuple only when the whole
//   text is well formed (nesting at most 128 deep); otherwise it logs "TUPLE TEXT: %0 AT %1 IN '%2'" at
//   ERR and returns false.
//
// XML form (Tuple::write_xml / read_xml, and what an ASCII CommBuffer carries):
//   <t n="order">                               a tuple: class name in n
//       <i a="id">7</i>                         a value: element named by its kind's code, name in a
//       <las a="tags"><z>a</z><z/></las>        list and array items are z elements; <z/> an empty one
//       <lai a="grid"><z><z>1</z></z></lai>      a list of arrays: items holding items
//       <t a="owner" n="user">...</t>           a nested tuple: name in a, class in n
//       <lt a="people"><t n="user">...</t></lt> a list of tuples: t elements in lt
//   </t>
// Value texts: b true/false; i l decimal; f d the shortest decimal that reads back exactly, inf, -inf, nan;
// as sb ss the text; s the text in UTF-8; bb base64; tp the period's full-precision text, with "-" in front
// of a negative period's opposite; td "Y:MM:DDTHH:MM:SS.mmm", and when the date has microseconds that
// milliseconds cannot hold, the attribute us="microseconds" as well; a date the calendar text cannot hold
// (years beyond 16 bits) is "@" and its stored period since the start of Julian day 0. In texts and attribute values the
// characters & < > ' " are entities and line feed, carriage return, vertical tab and form feed are character
// references (so indentation never reaches inside a value); other characters below 32 except tab are
// dropped, as in every XML text of the library. Malformed input logs "CLASS NAME EXPECTED %0 %1" (a t
// without n), "ATT NAME EXPECTED %0 %1" (a value without a), "MARKUP %0 EXPECTED %1", or the parser's
// "XML: %0 AT LINE %1 COLUMN %2" (see Parser.h), and reading fails. Limits: the parser's (Parser.h): at
// most XmlParser::kMaxDepth (256) open elements (a tuple in a list takes two); a value text grows only as
// its characters arrive.
//
// Thread safety: a tuple is used by one thread at a time.
#pragma once

#include <cstdint>

#include "tarvik/AString.h"
#include "tarvik/Blob.h"
#include "tarvik/String.h"
#include "tarvik/StringBuffer.h"
#include "tarvik/Symbol.h"
#include "tarvik/Time.h"
#include "tarvik/TypeManager.h"
#include "tarvik/Types.h"

namespace tarvik {

class TARVIK_EXPORT Tuple {
public:
    // One attribute: a packed 32-bit header (bits 0-7 kind, bit 8 by reference, bit 9 const, bits 10-31 the
    // name's symbol number), the link to the next value, then the payload inline (or, by reference, a
    // pointer to it).
    class TARVIK_EXPORT Value {
    public:
        static constexpr std::uint32_t kKindMask = 0xFFu;
        static constexpr std::uint32_t kRefBit = 1u << 8;
        static constexpr std::uint32_t kConstBit = 1u << 9;
        static constexpr unsigned int kSymbolShift = 10;
        static constexpr unsigned int kMaxSymbolNum = (1u << 22) - 1;

        Types get_type() const { return static_cast<Types>(header_ & kKindMask); }
        bool get_is_ref() const { return (header_ & kRefBit) != 0; }
        bool get_is_const() const { return (header_ & kConstBit) != 0; }
        unsigned int get_symbol_num() const { return header_ >> kSymbolShift; }
        Symbol get_symbol() const { return Symbol(header_ >> kSymbolShift); }
        std::uint32_t get_header() const { return header_; }

        void set_type(Types type) { header_ = (header_ & ~kKindMask) | (static_cast<std::uint32_t>(type) & kKindMask); }
        void set_is_ref(bool on) { header_ = on ? header_ | kRefBit : header_ & ~kRefBit; }
        void set_is_const(bool on) { header_ = on ? header_ | kConstBit : header_ & ~kConstBit; }
        // Merges the symbol number into bits 10-31 without clearing them: for a header whose name bits are
        // still zero (a fresh value gets its kind, name and flags in turn).
        void set_symbol(Symbol const& name) { header_ |= name.get_num() << kSymbolShift; }

        // The payload: the inline place, or the referenced object.
        void* get_pvalue() { return get_is_ref() ? *static_cast<void**>(place_()) : place_(); }
        void const* get_pvalue() const { return get_is_ref() ? *static_cast<void* const*>(place_()) : place_(); }
        Value* get_next() { return next_; }
        Value const* get_next() const { return next_; }

        // A new owned value with the same name and kind and a copy of the payload (null for an unknown kind).
        Value* clone() const;
        // Destroys an owned payload (a referenced one is left alone); the value itself stays allocated.
        void destroy();

        // A fresh value of a kind (zero header but for the kind), storage for an inline payload or a pointer.
        // The payload is not constructed. Freed with free().
        static Value* make(Types type, bool by_reference);
        static void free(Value* value);

// NOLINTBEGIN(bugprone-macro-parentheses): T is a type argument, which cannot be parenthesised.
#define TARVIK_VALUE_IS(X, T, K)                                                                           \
    T* is_##X() { return get_type() == K ? static_cast<T*>(get_pvalue()) : nullptr; }                      \
    T const* is_##X() const { return get_type() == K ? static_cast<T const*>(get_pvalue()) : nullptr; }
// NOLINTEND(bugprone-macro-parentheses)
        // is_X(): the payload when the value has that kind, else null; never converts.
        TARVIK_VALUE_IS(bool, bool, T_BOOL)
        TARVIK_VALUE_IS(int, int, T_INT)
        TARVIK_VALUE_IS(long, std::int64_t, T_LONG)
        TARVIK_VALUE_IS(float, float, T_FLOAT)
        TARVIK_VALUE_IS(double, double, T_DOUBLE)
        TARVIK_VALUE_IS(astring, AString, T_ASTRING)
        TARVIK_VALUE_IS(string, String, T_STRING)
        TARVIK_VALUE_IS(blob, Blob, T_BLOB)
        TARVIK_VALUE_IS(time_period, TimePeriod, T_TIME_PERIOD)
        TARVIK_VALUE_IS(time_date, TimeDate, T_TIME_DATE)
        TARVIK_VALUE_IS(tuple, Tuple, T_TUPLE)
        TARVIK_VALUE_IS(list_int, ListInt, T_LIST_INT)
        TARVIK_VALUE_IS(list_long, ListLong, T_LIST_LONG)
        TARVIK_VALUE_IS(list_float, ListFloat, T_LIST_FLOAT)
        TARVIK_VALUE_IS(list_double, ListDouble, T_LIST_DOUBLE)
        TARVIK_VALUE_IS(list_astring, ListAString, T_LIST_ASTRING)
        TARVIK_VALUE_IS(list_string, ListString, T_LIST_STRING)
        TARVIK_VALUE_IS(list_blob, ListBlob, T_LIST_BLOB)
        TARVIK_VALUE_IS(list_time_period, ListTimePeriod, T_LIST_TIME_PERIOD)
        TARVIK_VALUE_IS(list_time_date, ListTimeDate, T_LIST_TIME_DATE)
        TARVIK_VALUE_IS(list_tuple, ListTuple, T_LIST_TUPLE)
        TARVIK_VALUE_IS(stringbuffer, StringBuffer, T_STRINGBUFFER)
        TARVIK_VALUE_IS(symbol, Symbol, T_SYMBOL)
        TARVIK_VALUE_IS(list_stringbuffer, ListStringBuffer, T_LIST_STRINGBUFFER)
        TARVIK_VALUE_IS(list_symbol, ListSymbol, T_LIST_SYMBOL)
#undef TARVIK_VALUE_IS

    private:
        friend class Tuple;
        Value() = default;
        void* place_() { return reinterpret_cast<char*>(this) + sizeof(Value); }
        void const* place_() const { return reinterpret_cast<char const*>(this) + sizeof(Value); }

        std::uint32_t header_ = 0;
        Value* next_ = nullptr;
    };

    template <bool Const>
    class BasicValueIterator {
    public:
        using tuple_ref = std::conditional_t<Const, Tuple const&, Tuple&>;
        using value_ptr = std::conditional_t<Const, Value const*, Value*>;
        explicit BasicValueIterator(tuple_ref t) : at_(t.first_) {}
        bool more() const { return at_ != nullptr; }
        explicit operator bool() const { return more(); }
        // Advances; returns whether a value remains.
        bool next() {
            if (at_) at_ = at_->get_next();
            return more();
        }
        BasicValueIterator& operator++() {
            next();
            return *this;
        }
        BasicValueIterator operator++(int) {
            BasicValueIterator t = *this;
            next();
            return t;
        }
        value_ptr operator->() const { return at_; }
        value_ptr get() const { return at_; }
        Symbol get_name() const { return at_->get_symbol(); }
        Types get_type() const { return at_->get_type(); }

    private:
        value_ptr at_;
    };
    using ValueIterator = BasicValueIterator<false>;
    using ConstValueIterator = BasicValueIterator<true>;

    Tuple() = default;
    Tuple(char const* class_name) : class_name_(class_name) {}
    Tuple(Symbol const& class_name) : class_name_(class_name) {}
    Tuple(Tuple const& other);
    Tuple(Tuple&& other) noexcept;
    ~Tuple();
    Tuple& operator=(Tuple const& other);
    Tuple& operator=(Tuple&& other) noexcept;

    Symbol const& get_class_name() const { return class_name_; }
    void set_class_name(Symbol const& name) { class_name_ = name; }
    bool is_a(Symbol const& name) const { return class_name_ == name; }

    bool is_empty() const { return first_ == nullptr; }
    explicit operator bool() const { return first_ != nullptr; }
    // The number of values.
    unsigned int get_count() const;

    bool is_set(Symbol const& name) const { return get_value(name) != nullptr; }
    bool is_set(Symbol const& name, Types kind) const { return get_value(name, kind) != nullptr; }
    // The first value of the name, or null; with a kind, null also when that first value has another kind.
    Value* get_value(Symbol const& name);
    Value const* get_value(Symbol const& name) const;
    Value* get_value(Symbol const& name, Types kind);
    Value const* get_value(Symbol const& name, Types kind) const;
    Value* first() { return first_; }
    Value const* first() const { return first_; }

    // The central setter (see the header comment). `src` is copied into an owned payload, or referred to
    // when is_ref; a null `src` keeps a kept value as it is, reuses a replaced const value's content, or
    // default-constructs. Returns the value holding the attribute, or null when the kind has no manager or
    // the name cannot be held.
    Value* set_value(Symbol const& name, Types kind, void const* src, bool is_ref, bool is_const);
    // Sets an attribute from another value (its name, kind and payload), owned.
    Value* set_value(Value const* value);
    // Adds a new value of the name and kind even when the name is present (decoders use it); the payload
    // is default-constructed. Null when the kind has no manager or the name cannot be held. `hint`, the
    // value added last, makes names that arrive in order cost one comparison each.
    Value* add_value(Symbol const& name, Types kind, Value* hint = nullptr);

    Tuple& assign(Tuple const& other);
    Tuple& splice(Tuple& other);
    Tuple& merge(Tuple const& other);
    Tuple& merge_only(Tuple const& other, ListSymbol const& names);
    Tuple& merge_except(Tuple const& other, ListSymbol const& names);
    Tuple& diff(Tuple const& other);
    Tuple& keep(ListSymbol const& names);
    void clear();
    void clear(Symbol const& name);
    void clear(ListSymbol const& names);

    bool equal(Tuple const& other) const { return compare(other) == 0; }
    int compare(Tuple const& other) const;
    friend bool operator==(Tuple const& a, Tuple const& b) { return a.compare(b) == 0; }
    friend bool operator<(Tuple const& a, Tuple const& b) { return a.compare(b) < 0; }
    friend bool operator>(Tuple const& a, Tuple const& b) { return a.compare(b) > 0; }

    AString to_string() const;
    // Appends the text form to `out`.
    void to_string(AString& out) const;
    bool from_string(char const* text);
    AString format(char const* text) const;

    // XML form (see the header comment): write_xml writes the t element (a text-mode stream indents it) and
    // returns the number of attributes; read_xml reads one from the stream, replacing the tuple only when it
    // is well formed, and returns the number of attributes or -1. The Path forms write the file form (the
    // XML declaration, a line feed, the tuple) and read it back; -1000002 when the file cannot be opened.
    long write_xml(OBStream& out) const;
    long read_xml(IBStream& in);
    long write_xml(Path const& path) const;
    long read_xml(Path const& path);

    // Binary form in a CommBuffer: the class name, then per attribute its kind number (signed form), its
    // name and its value, then the end mark 1 (bytes 01 80); names go through the buffer's dictionary.
    // write returns the bytes written; read replaces the tuple from the read position and returns the bytes
    // read, or a negative value: a class name that cannot be read leaves the tuple untouched; an attribute
    // whose name cannot be read logs "READ INVALID ATT IN COMM BUFFER type=%0 r=%1 att=%2", an unknown kind
    // "READ %0 INVALID TYPE IN COMM BUFFER" (attributes read so far stay). Limits are the buffer's
    // (CommBuffer.h): nesting at most CommBuffer::kMaxDepth (128), and no length or count beyond the bytes left.
    // An ASCII buffer (CommBuffer::is_ascii()) carries the tuple's XML text instead, and the result is that of
    // the XML writing / reading; when the global variable "TVK.COMM" "REQUESTS.XML.SAVE" is not 0, each such
    // write and read also saves the buffer's text (headers included) to "./debug-req-NNNNN-write.txt" /
    // "./debug-req-NNNNN-read.txt", numbered by one process-wide counter from 00000.
    long write(CommBuffer& out) const;
    long read(CommBuffer const& in);

    // Pattern matching: reads the text against the pattern and, when the whole text fits, stores each
    // capture as an attribute (merged into this tuple) and returns true; otherwise changes nothing.
    //   %(name)      captures into `name` as a narrow string; %(name:s) the same, %(name:i) an integer
    //                (atoi), %(name:t) a tuple (from_string); any other type captures and stores nothing
    //   %s %i %d     anonymous captures into "0", "1", ... counted over the pattern's anonymous ones
    //   %x, and %( without its ")": an ordinary "%"
    //   a space      matches a run of white space (one space or more in the input)
    //   other        itself
    // A capture ends at the first input character equal to the pattern character after the placeholder (a
    // space there stops at any white space), or at the end of the input for a placeholder that ends the
    // pattern. With an escape character (backslash by default, 0 for none), an escape inside a capture is
    // dropped and the character after it taken literally; an escape that starts a capture is ordinary.
    // "SHM:%(address):%(size)" takes "SHM:name:65536" apart as "name" and "65536", so callers try their
    // longer patterns first. Limits: a capture grows only as the text's characters arrive; a tuple capture
    // has from_string's (nesting at most 128 deep).
    bool match(AString const& pattern, AString const& text);
    bool match(AString const& pattern, AString const& text, char escape);
    bool match(AString const& pattern, IBStream& in);
    bool match(AString const& pattern, IBStream& in, char escape);

    // --- typed accessors (see the header comment) ------------------------------------------------------

// NOLINTBEGIN(bugprone-macro-parentheses): T and L are type arguments, which cannot be parenthesised.
#define TARVIK_TUPLE_COMMON(X, T, K, L, LK)                                                                      \
    T& set_##X(Symbol const& name, T const& value) { return *typed_(set_value(name, K, &value, false, false), value); } \
    T& set_##X(Symbol const& name) { return *typed_(set_value(name, K, &default_of_<T>(), false, false), default_of_<T>()); } \
    T& set_ref_##X(Symbol const& name, T& value) {                                                              \
        set_value(name, K, &value, true, false);                                                               \
        return value;                                                                                          \
    }                                                                                                          \
    T const& set_cref_##X(Symbol const& name, T const& value) {                                                \
        set_value(name, K, &value, true, true);                                                                \
        return value;                                                                                          \
    }                                                                                                          \
    T& add_##X(Symbol const& name, T const& value) { return add_<L>(name, LK, value); }                         \
    T* get_p##X(Symbol const& name) { return payload_<T>(name, K); }                                           \
    T const* get_p##X(Symbol const& name) const { return payload_<T>(name, K); }                               \
    L& set_list_##X(Symbol const& name, L const& list) { return *typed_(set_value(name, LK, &list, false, false), list); } \
    L& set_list_##X(Symbol const& name) { return list_for_add_<L>(name, LK); }                                \
    L& set_ref_list_##X(Symbol const& name, L& list) {                                                         \
        set_value(name, LK, &list, true, false);                                                               \
        return list;                                                                                           \
    }                                                                                                          \
    L const& set_cref_list_##X(Symbol const& name, L const& list) {                                            \
        set_value(name, LK, &list, true, true);                                                                \
        return list;                                                                                           \
    }                                                                                                          \
    L const& get_list_##X(Symbol const& name) const { return or_empty_<L>(payload_<L>(name, LK), LK); }        \
    L* get_plist_##X(Symbol const& name) { return payload_<L>(name, LK); }                                     \
    L const* get_plist_##X(Symbol const& name) const { return payload_<L>(name, LK); }

#define TARVIK_TUPLE_NUMBER(X, T, K, L, LK)                                                                      \
    TARVIK_TUPLE_COMMON(X, T, K, L, LK)                                                                         \
    T get_##X(Symbol const& name, T def) const {                                                               \
        T const* p = payload_<T>(name, K);                                                                     \
        return p ? *p : def;                                                                                   \
    }

#define TARVIK_TUPLE_OBJECT(X, T, K, L, LK)                                                                      \
    TARVIK_TUPLE_COMMON(X, T, K, L, LK)                                                                         \
    T const& get_##X(Symbol const& name) const { return or_empty_<T>(payload_<T>(name, K), K); }              \
    T get_##X(Symbol const& name, T const& def) const {                                                        \
        T const* p = payload_<T>(name, K);                                                                     \
        return p ? *p : def;                                                                                   \
    }
// NOLINTEND(bugprone-macro-parentheses)

    TARVIK_TUPLE_NUMBER(bool, bool, T_BOOL, ListBool, T_LIST_BOOL)
    TARVIK_TUPLE_NUMBER(int, int, T_INT, ListInt, T_LIST_INT)
    TARVIK_TUPLE_NUMBER(long, std::int64_t, T_LONG, ListLong, T_LIST_LONG)
    TARVIK_TUPLE_NUMBER(float, float, T_FLOAT, ListFloat, T_LIST_FLOAT)
    TARVIK_TUPLE_NUMBER(double, double, T_DOUBLE, ListDouble, T_LIST_DOUBLE)
    TARVIK_TUPLE_OBJECT(astring, AString, T_ASTRING, ListAString, T_LIST_ASTRING)
    TARVIK_TUPLE_OBJECT(string, String, T_STRING, ListString, T_LIST_STRING)
    TARVIK_TUPLE_OBJECT(blob, Blob, T_BLOB, ListBlob, T_LIST_BLOB)
    TARVIK_TUPLE_OBJECT(time_period, TimePeriod, T_TIME_PERIOD, ListTimePeriod, T_LIST_TIME_PERIOD)
    TARVIK_TUPLE_OBJECT(time_date, TimeDate, T_TIME_DATE, ListTimeDate, T_LIST_TIME_DATE)
    TARVIK_TUPLE_OBJECT(tuple, Tuple, T_TUPLE, ListTuple, T_LIST_TUPLE)
    TARVIK_TUPLE_OBJECT(stringbuffer, StringBuffer, T_STRINGBUFFER, ListStringBuffer, T_LIST_STRINGBUFFER)
    TARVIK_TUPLE_OBJECT(symbol, Symbol, T_SYMBOL, ListSymbol, T_LIST_SYMBOL)
    TARVIK_TUPLE_OBJECT(array_int, ArrayInt, T_ARRAY_INT, ListArrayInt, T_LIST_ARRAY_INT)
    TARVIK_TUPLE_OBJECT(array_long, ArrayLong, T_ARRAY_LONG, ListArrayLong, T_LIST_ARRAY_LONG)
    TARVIK_TUPLE_OBJECT(array_float, ArrayFloat, T_ARRAY_FLOAT, ListArrayFloat, T_LIST_ARRAY_FLOAT)
    TARVIK_TUPLE_OBJECT(array_double, ArrayDouble, T_ARRAY_DOUBLE, ListArrayDouble, T_LIST_ARRAY_DOUBLE)
#undef TARVIK_TUPLE_NUMBER
#undef TARVIK_TUPLE_OBJECT
#undef TARVIK_TUPLE_COMMON

    AString& set_astring(Symbol const& name, char const* text) { return set_astring(name, AString(text)); }
    char const* get_astring(Symbol const& name, char const* def) const {
        AString const* p = payload_<AString>(name, T_ASTRING);
        return p ? p->c_str() : def;
    }

private:
    template <class T>
    static T const& default_of_() {
        static T const value{};
        return value;
    }
    // The payload of a value that set_value just returned; when the value could not be made (the name
    // cannot be held), a scratch copy of `fallback`, so that a reference can still be returned.
    template <class T>
    static T* typed_(Value* v, T const& fallback) {
        if (v) return static_cast<T*>(v->get_pvalue());
        thread_local T scratch;
        scratch = fallback;
        return &scratch;
    }
    template <class T>
    T* payload_(Symbol const& name, Types kind) const {
        Value const* v = get_value(name, kind);
        return v ? const_cast<T*>(static_cast<T const*>(v->get_pvalue())) : nullptr;
    }
    template <class T>
    static T const& or_empty_(T const* p, Types kind) {
        return p ? *p : *static_cast<T const*>(empty_of_(kind));
    }
    template <class L>
    L& list_for_add_(Symbol const& name, Types list_kind) {
        return *typed_(set_value(name, list_kind, nullptr, false, false), default_of_<L>());
    }
    // Appends to the owned list of the name, made first when the attribute is something else. Making it
    // replaces (frees) the old value, and `value` may live inside it, so it is copied first then.
    template <class L, class T>
    T& add_(Symbol const& name, Types list_kind, T const& value) {
        Value* v = get_value(name, list_kind);
        if (v && !v->get_is_ref()) return static_cast<L*>(v->get_pvalue())->push_back(value);
        T copy(value);  // NOLINT(performance-unnecessary-copy-initialization): value may die with the old one
        return list_for_add_<L>(name, list_kind).push_back(copy);
    }
    static void const* empty_of_(Types kind);
    // Links a value in name order, searching from `hint` when the hint's name sorts before the value's
    // (decoders pass the value they linked last, so names that arrive in order cost one comparison).
    // `name_text`, when given, is the value's name (saves looking it up).
    // `hint_text`, when given, is the hint's name.
    void insert_(Value* value, Value* hint = nullptr, AString const* name_text = nullptr,
                 AString const* hint_text = nullptr);
    // add_value for a name already checked, with the kind's manager already found (a decoder has both) and
    // the hint's name when known.
    Value* add_value_(Symbol const& name, TypeManager const* manager, Value* hint, AString const* hint_text);
    // Unlinks and frees the value that follows `prev` (the first value when prev is null).
    void remove_after_(Value* prev);
    // Copies in other's values of every name (all names, or those listed / not listed), each run of one name
    // replacing this tuple's values of that name.
    Tuple& merge_filtered_(Tuple const& other, ListSymbol const* names, bool listed);

    Symbol class_name_;
    Value* first_ = nullptr;
};

// The text form (Tuple::to_string) on a stream.
TARVIK_EXPORT OBStream& operator<<(OBStream& out, Tuple const& tuple);

}  // namespace tarvik
