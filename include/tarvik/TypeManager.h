// TypeManager.h: the value kinds of tuples, and the manager that handles each kind's payload.
//
// Every attribute of a Tuple holds a value of one kind. Kinds have fixed numbers (Types) and short text
// codes: both are part of the wire and file formats and never change. The numbering is not dense: 0, 1,
// 32..40, 43..46 and 49 carry no kind (1 is the end mark of a tuple in the binary form).
//
//   2 "b"  bool            12 "ai" ArrayInt         22 "las" ListAString       31 "lt"  ListTuple
//   3 "i"  int             13 "al" ArrayLong        23 "ls"  ListString        41 "sb"  StringBuffer
//   4 "l"  std::int64_t    14 "af" ArrayFloat       24 "lb"  ListBlob          42 "ss"  Symbol
//   5 "f"  float           15 "ad" ArrayDouble      25 "ltp" ListTimePeriod    47 "lsb" ListStringBuffer
//   6 "d"  double          16 "t"  Tuple            26 "ltd" ListTimeDate      48 "lss" ListSymbol
//   7 "as" AString         17 "lbo" ListBool        27 "lai" ListArrayInt
//   8 "s"  String          18 "li" ListInt          28 "lal" ListArrayLong
//   9 "bb" Blob            19 "ll" ListLong         29 "laf" ListArrayFloat
//  10 "tp" TimePeriod      20 "lf" ListFloat        30 "lad" ListArrayDouble
//  11 "td" TimeDate        21 "ld" ListDouble
//
// A TypeManager knows its kind's payload: size, construction (a copy, or the default value), assignment,
// destruction, ordering, the shared empty instance, and the kind's text form inside a tuple's text. Three
// flags describe the kind: plain (fixed-size data: numbers, times and arrays or lists of them), collection
// (arrays and lists) and record (the nested tuple). Managers are made once, on the first lookup, in the
// fixed registration order, and live for the whole process.
//
// Lookups: by number (a table of 50 slots; a number in range without a kind logs "INVALID TYPE %0" at ERR
// and gives null; a number outside 0..49 is a programming error, asserted in debug builds and answered
// with null and the same record otherwise), and by text code (50 buckets; the bucket of a code is the sum
// over its characters of (character % 127) times a weight that starts at 1 and is multiplied by 127 after
// each character, in unsigned 32-bit arithmetic, modulo 50).
//
// Thread safety: lookups and every manager operation may run in any thread (managers have no state).
#pragma once

#include <cstdint>

#include "tarvik/AString.h"
#include "tarvik/Array.h"
#include "tarvik/List.h"
#include "tarvik/ListAllocator.h"
#include "tarvik/Types.h"

namespace tarvik {

class Tuple;
class TimePeriod;
class TimeDate;
class TupleTextReader;
class XmlParser;

enum Types : int {
    T_NONE = 0,
    T_END = 1,
    T_BOOL = 2,
    T_INT = 3,
    T_LONG = 4,
    T_FLOAT = 5,
    T_DOUBLE = 6,
    T_ASTRING = 7,
    T_STRING = 8,
    T_BLOB = 9,
    T_TIME_PERIOD = 10,
    T_TIME_DATE = 11,
    T_ARRAY_INT = 12,
    T_ARRAY_LONG = 13,
    T_ARRAY_FLOAT = 14,
    T_ARRAY_DOUBLE = 15,
    T_TUPLE = 16,
    T_LIST_BOOL = 17,
    T_LIST_INT = 18,
    T_LIST_LONG = 19,
    T_LIST_FLOAT = 20,
    T_LIST_DOUBLE = 21,
    T_LIST_ASTRING = 22,
    T_LIST_STRING = 23,
    T_LIST_BLOB = 24,
    T_LIST_TIME_PERIOD = 25,
    T_LIST_TIME_DATE = 26,
    T_LIST_ARRAY_INT = 27,
    T_LIST_ARRAY_LONG = 28,
    T_LIST_ARRAY_FLOAT = 29,
    T_LIST_ARRAY_DOUBLE = 30,
    T_LIST_TUPLE = 31,
    T_STRINGBUFFER = 41,
    T_SYMBOL = 42,
    T_LIST_STRINGBUFFER = 47,
    T_LIST_SYMBOL = 48,
    T_LAST_TYPE_NUM = 50,
};

// The payload types of the collection kinds.
using ArrayInt = Array<int, TvkScalarListAllocator<int>>;
using ArrayLong = Array<std::int64_t, TvkScalarListAllocator<std::int64_t>>;
using ArrayFloat = Array<float, TvkScalarListAllocator<float>>;
using ArrayDouble = Array<double, TvkScalarListAllocator<double>>;
using ListBool = List<bool, TvkScalarListAllocator<bool>>;
using ListInt = List<int, TvkScalarListAllocator<int>>;
using ListLong = List<std::int64_t, TvkScalarListAllocator<std::int64_t>>;
using ListFloat = List<float, TvkScalarListAllocator<float>>;
using ListDouble = List<double, TvkScalarListAllocator<double>>;
using ListAString = List<AString, TvkListAllocator<AString>>;
using ListString = List<String, TvkListAllocator<String>>;
using ListBlob = List<Blob, TvkListAllocator<Blob>>;
using ListTimePeriod = List<TimePeriod, TvkListAllocator<TimePeriod>>;
using ListTimeDate = List<TimeDate, TvkListAllocator<TimeDate>>;
using ListArrayInt = List<ArrayInt, TvkListAllocator<ArrayInt>>;
using ListArrayLong = List<ArrayLong, TvkListAllocator<ArrayLong>>;
using ListArrayFloat = List<ArrayFloat, TvkListAllocator<ArrayFloat>>;
using ListArrayDouble = List<ArrayDouble, TvkListAllocator<ArrayDouble>>;
using ListTuple = List<Tuple, TvkListAllocator<Tuple>>;
using ListStringBuffer = List<StringBuffer, TvkListAllocator<StringBuffer>>;
using ListSymbol = List<Symbol, TvkListAllocator<Symbol>>;

class TARVIK_EXPORT TypeManager {
public:
    TypeManager(Types type, char const* code, unsigned int size, bool plain, bool collection, bool record);
    virtual ~TypeManager();
    TypeManager(TypeManager const&) = delete;
    TypeManager& operator=(TypeManager const&) = delete;

    Types get_type() const { return type_; }
    char const* get_code() const { return code_; }
    unsigned int get_size() const { return size_; }
    bool is_plain() const { return plain_; }
    bool is_collection() const { return collection_; }
    bool is_record() const { return record_; }

    // Constructs a payload at `where`: a copy of `from`, or the default value when `from` is null.
    virtual void construct(void* where, void const* from) const = 0;
    virtual void assign(void* where, void const* from) const = 0;
    virtual void destroy(void* where) const = 0;
    // The shared empty (default) instance of the kind.
    virtual void const* get_empty() const = 0;
    // Negative, 0 or positive.
    virtual int compare(void const* a, void const* b) const = 0;

    // The kind's binary form in a CommBuffer: the bytes written; the bytes read or a negative value.
    virtual long write(CommBuffer& out, void const* value) const = 0;
    virtual long read(CommBuffer const& in, void* value) const = 0;

    // The kind's XML form: the content of its element (the caller writes the element), and reading that
    // content up to the element's end tag (false after failing the parser).
    virtual void write_xml(OBStream& out, void const* value) const = 0;
    virtual bool read_xml(XmlParser& in, void* value) const = 0;

    // The kind's form inside a tuple's text (Tuple::to_string / from_string).
    virtual void write_text(AString& out, void const* value) const = 0;
    virtual bool read_text(TupleTextReader& in, void* value) const = 0;

    // The manager of a kind number, or null (see the header comment).
    static TypeManager const* get(int type);
    // The manager of any number, or null, without a record: for decoders, which report unknown kinds
    // themselves.
    static TypeManager const* find(int type);
    // The manager of a text code, or null (nothing is logged).
    static TypeManager const* get(char const* code);
    // The bucket of a code in the code table.
    static unsigned int code_bucket(char const* code);
    // Every manager, in registration order.
    static TypeManager const* const* all(unsigned int& count);

private:
    Types type_;
    char const* code_;
    unsigned int size_;
    bool plain_;
    bool collection_;
    bool record_;
};

}  // namespace tarvik
