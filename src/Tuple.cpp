#include "tarvik/Tuple.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "LogUnit.h"
#include "Memory.h"
#include "StringOps.h"
#include "TupleDump.h"
#include "TupleText.h"
#include "tarvik/CommBuffer.h"
#include "tarvik/GlobVar.h"
#include "tarvik/IOBStream.h"

TARVIK_LOG_UNIT()

namespace tarvik {

// --- Value ----------------------------------------------------------------------------------------------

namespace {

// The bytes of a value of this kind: the link and header, then the payload or a pointer to it. A value's
// kind and by-reference flag never change after it is made, so its size can be worked out again to free it.
std::size_t value_bytes(Types type, bool by_reference) {
    if (by_reference) return sizeof(Tuple::Value) + sizeof(void*);
    TypeManager const* manager = TypeManager::find(type);
    return sizeof(Tuple::Value) + (manager ? manager->get_size() : 0);
}

}  // namespace

// Values are made and freed at a high rate (every decoded record), so they come from the small-block cache.
Tuple::Value* Tuple::Value::make(Types type, bool by_reference) {
    auto* value = new (memory::allocate_small_zeroed(value_bytes(type, by_reference))) Value();
    value->set_type(type);
    return value;
}

void Tuple::Value::free(Value* value) {
    if (!value) return;
    std::size_t bytes = value_bytes(value->get_type(), value->get_is_ref());
    value->~Value();
    memory::release_small(value, bytes);
}

Tuple::Value* Tuple::Value::clone() const {
    TypeManager const* manager = TypeManager::find(get_type());
    if (!manager) return nullptr;
    // The payload is copy-constructed at once, so the storage needs no zero-filling.
    auto* copy = new (memory::allocate_small(sizeof(Value) + manager->get_size())) Value();
    // The copy owns its payload, whatever this value held by reference.
    copy->header_ = header_ & ~(kRefBit | kConstBit);
    manager->construct(copy->place_(), get_pvalue());
    return copy;
}

void Tuple::Value::destroy() {
    if (get_is_ref()) return;
    if (TypeManager const* manager = TypeManager::find(get_type())) manager->destroy(place_());
}

namespace {

void discard(Tuple::Value* value) {
    value->destroy();
    Tuple::Value::free(value);
}

// The text order of names (AString's order), on their raw characters.
int compare_names(AString const& a, AString const& b) {
    return string_ops::compare(a.c_str(), a.length(), b.c_str(), b.length(), false);
}

// Whether the name numbered a sorts before the name numbered b (equal numbers are equal names).
bool name_before(unsigned int a, unsigned int b) {
    if (a == b) return false;
    return compare_names(Symbol(a).get_name(), Symbol(b).get_name()) < 0;
}

bool name_refused(Symbol const& name) {
    if (name.is_null()) {
        TVK_LOG(LEVEL_ERR, "ATT NAME IS NOT A SYMBOL");
        return true;
    }
    if (name.get_num() <= Tuple::Value::kMaxSymbolNum) return false;
    TVK_LOG(LEVEL_ERR, "ATT NAME NUMBER %0 TOO LARGE FOR ATTRIBUTE '%1'") << name.get_num() << name.get_name();
    return true;
}

TypeManager const* manager_of(Types kind) {
    if (kind < 0 || kind >= T_LAST_TYPE_NUM) {
        TVK_LOG(LEVEL_ERR, "INVALID TYPE %0") << static_cast<int>(kind);
        return nullptr;
    }
    return TypeManager::get(kind);
}

bool contains(ListSymbol const& names, unsigned int num) {
    for (Symbol const& s : names)
        if (s.get_num() == num) return true;
    return false;
}

}  // namespace

// --- construction ---------------------------------------------------------------------------------------

Tuple::Tuple(Tuple const& other) : class_name_(other.class_name_) { assign(other); }

Tuple::Tuple(Tuple&& other) noexcept : class_name_(other.class_name_), first_(other.first_) {
    other.first_ = nullptr;
    other.class_name_ = Symbol();
}

Tuple::~Tuple() { clear(); }

Tuple& Tuple::operator=(Tuple const& other) {
    if (this != &other) {
        class_name_ = other.class_name_;
        assign(other);
    }
    return *this;
}

Tuple& Tuple::operator=(Tuple&& other) noexcept {
    if (this != &other) splice(other);
    return *this;
}

unsigned int Tuple::get_count() const {
    unsigned int n = 0;
    for (Value const* v = first_; v; v = v->next_) ++n;
    return n;
}

// --- lookup ---------------------------------------------------------------------------------------------

Tuple::Value const* Tuple::get_value(Symbol const& name) const {
    if (name.is_null()) return nullptr;
    unsigned int num = name.get_num();
    for (Value const* v = first_; v; v = v->next_)
        if (v->get_symbol_num() == num) return v;
    return nullptr;
}

Tuple::Value* Tuple::get_value(Symbol const& name) {
    return const_cast<Value*>(static_cast<Tuple const*>(this)->get_value(name));
}

Tuple::Value const* Tuple::get_value(Symbol const& name, Types kind) const {
    Value const* v = get_value(name);
    return v && v->get_type() == kind ? v : nullptr;
}

Tuple::Value* Tuple::get_value(Symbol const& name, Types kind) {
    Value* v = get_value(name);
    return v && v->get_type() == kind ? v : nullptr;
}

void const* Tuple::empty_of_(Types kind) {
    TypeManager const* manager = TypeManager::find(kind);
    return manager ? manager->get_empty() : nullptr;
}

// --- linking --------------------------------------------------------------------------------------------

void Tuple::insert_(Value* value, Value* hint, AString const* name_text, AString const* hint_text) {
    unsigned int num = value->get_symbol_num();
    AString const& name = name_text ? *name_text : Symbol(num).get_name();  // looked up once for the walk
    auto before = [&](Value const* standing, AString const* text = nullptr) {
        unsigned int n = standing->get_symbol_num();
        return n != num && compare_names(text ? *text : Symbol(n).get_name(), name) < 0;
    };
    Value** link = &first_;
    if (hint && before(hint, hint_text)) link = &hint->next_;
    while (*link && before(*link)) link = &(*link)->next_;
    if (*link && (*link)->get_symbol_num() == num) {
        TVK_LOG(LEVEL_ERR, "ALLREADY ATT n=%0 t=%1 r=%2")
            << value->get_symbol() << static_cast<int>((*link)->get_type()) << (*link)->get_is_ref();
    }
    value->next_ = *link;
    *link = value;
}

void Tuple::remove_after_(Value* prev) {
    Value*& link = prev ? prev->next_ : first_;
    Value* gone = link;
    if (!gone) return;
    link = gone->next_;
    discard(gone);
}

// --- the central setter -----------------------------------------------------------------------------------

Tuple::Value* Tuple::set_value(Symbol const& name, Types kind, void const* src, bool is_ref, bool is_const) {
    if (name_refused(name)) return nullptr;
    TypeManager const* manager = manager_of(kind);
    if (!manager) return nullptr;
    if (is_ref && !src) {
        TVK_LOG(LEVEL_ERR, "NULL REFERENCE FOR ATT n=%0 t=%1") << name << static_cast<int>(kind);
        return nullptr;
    }
    unsigned int num = name.get_num();
    Value* prev = nullptr;
    Value* found = first_;
    while (found && found->get_symbol_num() != num) {
        prev = found;
        found = found->next_;
    }
    if (found && found->get_type() == kind && found->get_is_ref() == is_ref && !found->get_is_const()) {
        if (src) manager->assign(found->get_pvalue(), src);
        return found;
    }
    // Replace: the old value is unlinked now and freed last, so that `src` may still point into it.
    void const* remembered = nullptr;
    if (found) {
        if (found->get_type() == kind && found->get_is_const()) remembered = found->get_pvalue();
        (prev ? prev->next_ : first_) = found->next_;
    }
    Value* fresh = Value::make(kind, is_ref);
    fresh->set_symbol(name);
    fresh->set_is_ref(is_ref);
    fresh->set_is_const(is_const);
    if (!src) src = remembered;
    if (is_ref) {
        *static_cast<void const**>(fresh->place_()) = src;
    } else {
        manager->construct(fresh->place_(), src);
    }
    insert_(fresh, prev, &name.get_name());
    if (found) discard(found);
    return fresh;
}

Tuple::Value* Tuple::set_value(Value const* value) {
    if (!value) return nullptr;
    return set_value(value->get_symbol(), value->get_type(), value->get_pvalue(), false, false);
}

Tuple::Value* Tuple::add_value(Symbol const& name, Types kind, Value* hint) {
    if (name_refused(name)) return nullptr;
    TypeManager const* manager = manager_of(kind);
    return manager ? add_value_(name, manager, hint, nullptr) : nullptr;
}

Tuple::Value* Tuple::add_value_(Symbol const& name, TypeManager const* manager, Value* hint,
                                AString const* hint_text) {
    // The payload is constructed at once, so the storage needs no zero-filling.
    auto* fresh = new (memory::allocate_small(sizeof(Value) + manager->get_size())) Value();
    fresh->set_type(manager->get_type());
    fresh->set_symbol(name);
    manager->construct(fresh->place_(), nullptr);
    insert_(fresh, hint, &name.get_name(), hint_text);
    return fresh;
}

// --- whole-tuple operations -----------------------------------------------------------------------------

void Tuple::clear() {
    while (first_) remove_after_(nullptr);
}

void Tuple::clear(Symbol const& name) {
    if (name.is_null()) return;
    unsigned int num = name.get_num();
    Value* prev = nullptr;
    while (Value* v = prev ? prev->next_ : first_) {
        if (v->get_symbol_num() == num) {
            remove_after_(prev);
        } else {
            prev = v;
        }
    }
}

void Tuple::clear(ListSymbol const& names) {
    for (Symbol const& name : names) clear(name);
}

Tuple& Tuple::keep(ListSymbol const& names) {
    Value* prev = nullptr;
    while (Value* v = prev ? prev->next_ : first_) {
        if (!contains(names, v->get_symbol_num())) {
            remove_after_(prev);
        } else {
            prev = v;
        }
    }
    return *this;
}

Tuple& Tuple::assign(Tuple const& other) {
    if (this == &other) return *this;
    // Copy before clearing: `other` may be a tuple held inside this one, which clearing frees.
    Value* head = nullptr;
    Value** tail = &head;
    for (Value const* v = other.first_; v; v = v->next_) {
        Value* copy = v->clone();
        if (!copy) continue;
        *tail = copy;
        tail = &copy->next_;
    }
    clear();
    first_ = head;
    return *this;
}

Tuple& Tuple::splice(Tuple& other) {
    if (this == &other) return *this;
    // Take the chain before clearing: `other` may be a tuple held inside this one.
    Symbol class_name = other.class_name_;
    Value* chain = other.first_;
    other.first_ = nullptr;
    other.class_name_ = Symbol();
    clear();
    class_name_ = class_name;
    first_ = chain;
    return *this;
}

Tuple& Tuple::merge_filtered_(Tuple const& other, ListSymbol const* names, bool listed) {
    if (this == &other) return *this;
    Value const* v = other.first_;
    while (v) {
        unsigned int num = v->get_symbol_num();
        bool take = !names || contains(*names, num) == listed;
        // Copy the run of values of this name, in order.
        Value* head = nullptr;
        Value** tail = &head;
        for (; v && v->get_symbol_num() == num; v = v->next_) {
            if (!take) continue;
            if (Value* copy = v->clone()) {
                *tail = copy;
                tail = &copy->next_;
            }
        }
        if (!take || !head) continue;
        clear(Symbol(num));
        Value** link = &first_;
        while (*link && name_before((*link)->get_symbol_num(), num)) link = &(*link)->next_;
        *tail = *link;
        *link = head;
    }
    return *this;
}

Tuple& Tuple::merge(Tuple const& other) { return merge_filtered_(other, nullptr, true); }

Tuple& Tuple::merge_only(Tuple const& other, ListSymbol const& names) { return merge_filtered_(other, &names, true); }

Tuple& Tuple::merge_except(Tuple const& other, ListSymbol const& names) {
    return merge_filtered_(other, &names, false);
}

Tuple& Tuple::diff(Tuple const& other) {
    if (this == &other) {
        clear();
        return *this;
    }
    Value* prev = nullptr;
    while (Value* v = prev ? prev->next_ : first_) {
        bool same = false;
        TypeManager const* manager = TypeManager::find(v->get_type());
        for (Value const* o = other.first_; o && !same; o = o->next_) {
            same = o->get_symbol_num() == v->get_symbol_num() && o->get_type() == v->get_type() && manager &&
                   manager->compare(o->get_pvalue(), v->get_pvalue()) == 0;
        }
        if (same) {
            remove_after_(prev);
        } else {
            prev = v;
        }
    }
    return *this;
}

int Tuple::compare(Tuple const& other) const {
    int r = class_name_.compare(other.class_name_);
    if (r) return r < 0 ? -1 : 1;
    Value const* a = first_;
    Value const* b = other.first_;
    for (; a && b; a = a->next_, b = b->next_) {
        if (a->get_symbol_num() != b->get_symbol_num())
            return name_before(a->get_symbol_num(), b->get_symbol_num()) ? -1 : 1;
        if (a->get_type() != b->get_type()) return a->get_type() < b->get_type() ? -1 : 1;
        TypeManager const* manager = TypeManager::find(a->get_type());
        if (!manager) continue;
        r = manager->compare(a->get_pvalue(), b->get_pvalue());
        if (r) return r < 0 ? -1 : 1;
    }
    return a ? 1 : (b ? -1 : 0);
}

// --- text ---------------------------------------------------------------------------------------------

void Tuple::to_string(AString& out) const {
    if (!class_name_.get_name().is_empty()) tuple_text::write_name(out, class_name_.get_name());
    out += '{';
    for (Value const* v = first_; v; v = v->next_) {
        TypeManager const* manager = TypeManager::find(v->get_type());
        if (!manager) continue;
        if (v != first_) out += ", ";
        tuple_text::write_name(out, v->get_symbol().get_name());
        out += ':';
        out += manager->get_code();
        out += '=';
        manager->write_text(out, v->get_pvalue());
    }
    out += '}';
}

AString Tuple::to_string() const {
    AString out;
    to_string(out);
    return out;
}

bool Tuple::from_string(char const* text) {
    char const* t = text ? text : "";
    TupleTextReader in(t, static_cast<unsigned int>(std::strlen(t)));
    Tuple parsed;
    bool ok = tuple_text::read_tuple(in, parsed);
    if (ok && !in.at_end()) ok = in.fail("TEXT AFTER THE TUPLE");
    if (!ok) {
        TVK_LOG(LEVEL_ERR, "TUPLE TEXT: %0 AT %1 IN '%2'") << in.error() << in.error_position() << t;
        return false;
    }
    splice(parsed);
    return true;
}

AString Tuple::format(char const* text) const {
    Array<OBStreamFormatArg> args;
    if (ListAString const* items = payload_<ListAString>(Symbol(), T_LIST_ASTRING)) {
        for (AString const& item : *items) {
            OBStreamFormatArg& arg = args.emplace_back();
            arg.position = args.size() - 1;
            arg.type = OBStreamFormatArg::T_TEXT;
            arg.text = item;
        }
    }
    AString out;
    OBStreamFormat::format_to(out, text, args);
    return out;
}

OBStream& operator<<(OBStream& out, Tuple const& tuple) { return out << tuple.to_string(); }

// --- binary form ----------------------------------------------------------------------------------------

long Tuple::write(CommBuffer& out) const {
    if (out.is_ascii()) {
        long r;
        {
            OBStream xml(out, true);
            r = write_xml(xml);
        }
        save_debug_dump(out, "write");
        return r;
    }
    long total = out.write(class_name_);
    for (Value const* v = first_; v; v = v->next_) {
        TypeManager const* manager = TypeManager::find(v->get_type());
        if (!manager) continue;
        total += out.write(static_cast<int>(v->get_type()));
        total += out.write(v->get_symbol());
        total += manager->write(out, v->get_pvalue());
    }
    return total + out.write(static_cast<int>(T_END));
}

long Tuple::read(CommBuffer const& in) {
    if (in.is_ascii()) {
        long r;
        {
            IBStream xml(in);
            r = read_xml(xml);
        }
        save_debug_dump(in, "read");
        return r;
    }
    Symbol class_name;
    long total = in.read(class_name);
    if (total < 0) return total;
    if (!in.enter_()) return -1;
    clear();
    class_name_ = class_name;
    Value* last = nullptr;
    AString const* last_name = nullptr;  // the text of last's name (interned names never move)
    Symbol name;
    for (;;) {
        int type = 0;
        in.read(type);
        if (type == T_END) break;
        long r = in.read(name);
        if (r < 0) {
            // A failed read leaves no name: the record shows the empty one.
            TVK_LOG(LEVEL_ERR, "READ INVALID ATT IN COMM BUFFER type=%0 r=%1 att=%2") << type << r << Symbol();
            total = -1;
            break;
        }
        TypeManager const* manager = TypeManager::find(type);
        if (!manager) {
            TVK_LOG(LEVEL_ERR, "READ %0 INVALID TYPE IN COMM BUFFER") << type;
            total = -1;
            break;
        }
        if (name_refused(name)) {
            total = -1;
            break;
        }
        Value* value = add_value_(name, manager, last, last_name);
        last = value;
        last_name = &name.get_name();
        long n = manager->read(in, value->get_pvalue());
        if (n < 0) {
            total = n;
            break;
        }
        total += r + n;
    }
    in.leave_();
    return total;
}

}  // namespace tarvik
