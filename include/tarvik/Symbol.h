// Symbol.h: interned names.
//
// A Symbol stands for one distinct text, stored once in a process-wide registry and numbered in order of
// first use with no gaps: "" is always number 0 (it is interned before anything else), the next new name
// is 1, and so on. Equality of two symbols is identity (one pointer comparison); ordering is by text, so
// sorted symbol containers are in alphabetical order of the names. A name can travel as its number and
// be looked up again with Symbol(unsigned int).
//
// Ownership: registry entries are never freed while the process runs, so a Symbol (one pointer) can be
// copied freely and its name read at any time without a lock.
//
// Thread safety: interning (the text constructors) and lookups by number take the registry's one lock
// and may run from any thread; reading a symbol's name or number needs no lock.
//
// The conversions to `char const*` and to the number are explicit: implicit ones would make every call
// that accepts both an AString and a `char const*` (or a char) ambiguous for a Symbol argument. The
// conversion to `AString const&` is implicit.
#pragma once

#include "tarvik/AString.h"
#include "tarvik/List.h"
#include "tarvik/ListAllocator.h"
#include "tarvik/Types.h"

namespace tarvik {

// One registry entry: the name and its number. Owned by the registry for the whole process.
struct SymbolEntry {
    AString name;
    unsigned int num;
};

class TARVIK_EXPORT Symbol {
public:
    // The empty name "", number 0.
    Symbol();
    // Interns the text (null is "").
    Symbol(char const* name);
    Symbol(AString const& name);
    // Interns `length` characters at `text` (they need not end with a NUL).
    Symbol(char const* text, unsigned int length);
    // Looks a number up; never creates. An unknown number gives a null symbol, whose name is empty and
    // whose number reads 0 (equal to Symbol() by number, not by identity).
    explicit Symbol(unsigned int num);
    // The symbol of a registry entry (one that get_entry() gave); null for null.
    explicit Symbol(SymbolEntry const* entry) : entry_(entry) {}

    AString const& get_name() const { return entry_ ? entry_->name : empty_name_(); }
    unsigned int get_num() const { return entry_ ? entry_->num : 0; }
    bool is_null() const { return entry_ == nullptr; }
    SymbolEntry const* get_entry() const { return entry_; }

    operator AString const&() const { return get_name(); }
    explicit operator char const*() const { return get_name().c_str(); }
    explicit operator unsigned int() const { return get_num(); }
    char const* c_str() const { return get_name().c_str(); }

    // Text order of the names (AString comparison).
    int compare(Symbol const& other) const { return get_name().compare(other.get_name()); }

    friend bool operator==(Symbol const& a, Symbol const& b) { return a.entry_ == b.entry_; }
    friend bool operator==(Symbol const& a, char const* b) { return a.get_name() == (b ? b : ""); }
    friend bool operator==(Symbol const& a, AString const& b) { return a.get_name() == b; }
    friend bool operator==(Symbol const& a, unsigned int n) { return a.get_num() == n; }
    friend bool operator<(Symbol const& a, Symbol const& b) { return a.compare(b) < 0; }
    friend bool operator>(Symbol const& a, Symbol const& b) { return a.compare(b) > 0; }

    // Writes the name with & < > escaped (quotes are written as they are). Returns 0.
    long write_xml(OBStream& out) const;
    // A symbol is not read from XML on its own: does nothing, returns 0.
    long read_xml(IBStream& in);

    // How many names the registry holds (the next number to be handed out).
    static unsigned int count();
    // The symbol of `length` bytes of `text` when that name is interned already (nothing is interned);
    // false otherwise.
    static bool find(char const* text, unsigned int length, Symbol& out);

private:
    static AString const& empty_name_();
    SymbolEntry const* entry_;
};

using SymbolList = List<Symbol, TvkListAllocator<Symbol>>;

// A limit on the names a thread may add to the registry while it reads something it does not trust.
//
// Names are interned for the life of the process, so a peer that sends ever new attribute names would grow
// the registry for good. While a SymbolBudget lives, CommBuffer::read(Symbol&) on the same thread looks a
// name up first and interns a new one only when fewer than `max_new` names were added under this budget and
// the registry holds fewer than `max_total`; otherwise the read fails (the buffer's decoding with it) and
// exceeded() says why. Names already interned cost nothing. Budgets nest; the innermost one counts. The
// transports put one around every buffer they decode from a peer, with the limits of the "TVK.COMM"
// variables "NAMES.MAX_NEW_PER_BUFFER" (10000) and "NAMES.MAX_TOTAL" (1000000).
//
// Thread safety: a budget belongs to the thread that made it and must be destroyed there.
class TARVIK_EXPORT SymbolBudget {
public:
    enum Exceeded { NONE = 0, TOO_MANY_NEW = 1, REGISTRY_FULL = 2 };

    SymbolBudget(unsigned int max_new, unsigned int max_total);
    ~SymbolBudget();
    SymbolBudget(SymbolBudget const&) = delete;
    SymbolBudget& operator=(SymbolBudget const&) = delete;

    // The budget in force on this thread, or null.
    static SymbolBudget* current();
    // Interns `length` bytes of `text` into `out` if the budget allows; false (and exceeded() set) if not.
    bool intern(char const* text, unsigned int length, Symbol& out);
    Exceeded exceeded() const { return exceeded_; }
    unsigned int added() const { return added_; }
    unsigned int max_new() const { return max_new_; }
    unsigned int max_total() const { return max_total_; }

private:
    unsigned int const max_new_;
    unsigned int const max_total_;
    unsigned int added_ = 0;
    Exceeded exceeded_ = NONE;
    SymbolBudget* outer_;
};

}  // namespace tarvik
