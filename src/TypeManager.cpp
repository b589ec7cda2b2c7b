#include "tarvik/TypeManager.h"

#include <cassert>
#include <cmath>
#include <type_traits>
#include <new>

#include "LogUnit.h"
#include "Memory.h"
#include "TupleText.h"
#include "TupleXml.h"
#include "tarvik/Blob.h"
#include "tarvik/CommBuffer.h"
#include "tarvik/String.h"
#include "tarvik/StringBuffer.h"
#include "tarvik/Symbol.h"
#include "tarvik/Time.h"
#include "tarvik/Tuple.h"

TARVIK_LOG_UNIT()

namespace tarvik {

TypeManager::TypeManager(Types type, char const* code, unsigned int size, bool plain, bool collection, bool record)
    : type_(type), code_(code), size_(size), plain_(plain), collection_(collection), record_(record) {}

TypeManager::~TypeManager() = default;

namespace {

template <class T>
int order(T const& a, T const& b) {
    if constexpr (std::is_floating_point_v<T>) {
        // A total order: NaN equals NaN and sorts after every number, so that it never equals a number.
        bool const na = std::isnan(a), nb = std::isnan(b);
        if (na || nb) return na == nb ? 0 : (na ? 1 : -1);
        return a < b ? -1 : (b < a ? 1 : 0);
    } else if constexpr (requires { a.compare(b); }) {
        int r = a.compare(b);
        return r < 0 ? -1 : (r > 0 ? 1 : 0);
    } else {
        return a < b ? -1 : (b < a ? 1 : 0);
    }
}

// The manager of one kind, generated from its payload type: every kind is handled by this one template
// and the text overloads of TupleText.h.
template <class T>
class KindManager final : public TypeManager {
public:
    KindManager(Types type, char const* code, bool plain, bool collection, bool record)
        : TypeManager(type, code, sizeof(T), plain, collection, record) {}

    void construct(void* where, void const* from) const override {
        if (from) {
            new (where) T(*static_cast<T const*>(from));
        } else {
            new (where) T();
        }
    }
    void assign(void* where, void const* from) const override {
        if (where != from) *static_cast<T*>(where) = *static_cast<T const*>(from);
    }
    void destroy(void* where) const override { static_cast<T*>(where)->~T(); }
    void const* get_empty() const override {
        static T const* const empty = memory::create<T>();  // never destroyed: valid during static destruction too
        return empty;
    }
    int compare(void const* a, void const* b) const override {
        return order(*static_cast<T const*>(a), *static_cast<T const*>(b));
    }
    long write(CommBuffer& out, void const* value) const override {
        T const& v = *static_cast<T const*>(value);
        // A StringBuffer attribute carries its length, so that it can be read back.
        if constexpr (std::is_same_v<T, StringBuffer>) {
            return out.write_counted(v);
        } else {
            return out.write(v);
        }
    }
    long read(CommBuffer const& in, void* value) const override { return in.read(*static_cast<T*>(value)); }
    void write_xml(OBStream& out, void const* value) const override {
        tuple_xml::write(out, *static_cast<T const*>(value));
    }
    bool read_xml(XmlParser& in, void* value) const override { return tuple_xml::read(in, *static_cast<T*>(value)); }
    void write_text(AString& out, void const* value) const override {
        tuple_text::write(out, *static_cast<T const*>(value));
    }
    bool read_text(TupleTextReader& in, void* value) const override {
        return tuple_text::read(in, *static_cast<T*>(value));
    }
};

constexpr unsigned int kBuckets = 50;

// The table by number and the buckets by code, built once on first use, in the fixed registration order.
class Registry {
public:
    Registry() {
        add<bool>(T_BOOL, "b", true, false, false);
        add<int>(T_INT, "i", true, false, false);
        add<std::int64_t>(T_LONG, "l", true, false, false);
        add<float>(T_FLOAT, "f", true, false, false);
        add<double>(T_DOUBLE, "d", true, false, false);
        add<AString>(T_ASTRING, "as", false, false, false);
        add<String>(T_STRING, "s", false, false, false);
        add<StringBuffer>(T_STRINGBUFFER, "sb", false, false, false);
        add<Blob>(T_BLOB, "bb", false, false, false);
        add<TimePeriod>(T_TIME_PERIOD, "tp", true, false, false);
        add<TimeDate>(T_TIME_DATE, "td", true, false, false);
        add<ArrayInt>(T_ARRAY_INT, "ai", true, true, false);
        add<ArrayLong>(T_ARRAY_LONG, "al", true, true, false);
        add<ArrayFloat>(T_ARRAY_FLOAT, "af", true, true, false);
        add<ArrayDouble>(T_ARRAY_DOUBLE, "ad", true, true, false);
        add<Symbol>(T_SYMBOL, "ss", false, false, false);
        add<Tuple>(T_TUPLE, "t", false, false, true);
        add<ListBool>(T_LIST_BOOL, "lbo", true, true, false);
        add<ListInt>(T_LIST_INT, "li", true, true, false);
        add<ListLong>(T_LIST_LONG, "ll", true, true, false);
        add<ListFloat>(T_LIST_FLOAT, "lf", true, true, false);
        add<ListDouble>(T_LIST_DOUBLE, "ld", true, true, false);
        add<ListAString>(T_LIST_ASTRING, "las", false, true, false);
        add<ListString>(T_LIST_STRING, "ls", false, true, false);
        add<ListStringBuffer>(T_LIST_STRINGBUFFER, "lsb", false, true, false);
        add<ListTimePeriod>(T_LIST_TIME_PERIOD, "ltp", true, true, false);
        add<ListTimeDate>(T_LIST_TIME_DATE, "ltd", true, true, false);
        add<ListArrayInt>(T_LIST_ARRAY_INT, "lai", true, true, false);
        add<ListArrayLong>(T_LIST_ARRAY_LONG, "lal", true, true, false);
        add<ListArrayFloat>(T_LIST_ARRAY_FLOAT, "laf", true, true, false);
        add<ListArrayDouble>(T_LIST_ARRAY_DOUBLE, "lad", true, true, false);
        add<ListBlob>(T_LIST_BLOB, "lb", false, true, false);
        add<ListSymbol>(T_LIST_SYMBOL, "lss", false, true, false);
        add<ListTuple>(T_LIST_TUPLE, "lt", false, true, false);
    }

    TypeManager const* by_number[T_LAST_TYPE_NUM] = {};
    List<TypeManager const*> by_code[kBuckets];
    TypeManager const* in_order[T_LAST_TYPE_NUM] = {};
    unsigned int count = 0;

private:
    template <class T>
    void add(Types type, char const* code, bool plain, bool collection, bool record) {
        auto* manager = memory::create<KindManager<T>>(type, code, plain, collection, record);  // never freed
        by_number[type] = manager;
        by_code[TypeManager::code_bucket(code)].push_back(manager);
        in_order[count++] = manager;
    }
};

Registry& registry() {
    static Registry* const instance = memory::create<Registry>();
    return *instance;
}

}  // namespace

unsigned int TypeManager::code_bucket(char const* code) {
    std::uint32_t sum = 0;
    std::uint32_t weight = 1;
    for (char const* p = code ? code : ""; *p; ++p) {
        // NOLINTNEXTLINE(bugprone-signed-char-misuse): the bucket hash is defined on signed bytes
        int c = static_cast<signed char>(*p);
        sum += static_cast<std::uint32_t>(c % 127) * weight;
        weight *= 127;
    }
    return sum % kBuckets;
}

TypeManager const* TypeManager::get(int type) {
    assert(type >= 0 && type < T_LAST_TYPE_NUM);
    TypeManager const* manager = type >= 0 && type < T_LAST_TYPE_NUM ? registry().by_number[type] : nullptr;
    if (!manager) TVK_LOG(LEVEL_ERR, "INVALID TYPE %0") << type;
    return manager;
}

TypeManager const* TypeManager::find(int type) {
    return type >= 0 && type < T_LAST_TYPE_NUM ? registry().by_number[type] : nullptr;
}

TypeManager const* TypeManager::get(char const* code) {
    if (!code) return nullptr;
    for (TypeManager const* manager : registry().by_code[code_bucket(code)])
        if (AString(manager->get_code()) == code) return manager;
    return nullptr;
}

TypeManager const* const* TypeManager::all(unsigned int& count) {
    Registry& r = registry();
    count = r.count;
    return r.in_order;
}

}  // namespace tarvik
