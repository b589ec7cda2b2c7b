// GlobVar.h: named global variables that switch settings at run time.
//
// A process-wide registry holds integer, boolean, log-level and text variables grouped by module. Each part of
// the library declares the variables it consults as static objects; a host reads, changes and lists them
// by module and name while it runs. One variable is identified by (module, name, kind): the same module
// and name under two kinds are two distinct variables.
//
// Binding: constructing a GlobVarInt/GlobVarBool/GlobVarLog finds or creates its module (new modules go
// to the head of the module list) and its entry (new entries go to the head of the module's list), counts
// one more object bound to the entry, and, when given a value, stores it (so the last object constructed
// with a value decides the value). Destroying the last object bound to an entry removes the entry, and a
// module left without entries goes with it.
//
// Log levels: a GlobVarLog is named after a source file (its base name, upper-cased: "src/Blob.cpp" is
// "BLOB"). Its effective level is the largest of its own level, its module's default level and the
// process-wide default level.
//
// Loading from a file (GlobVar::load_ini): an INI file whose sections name modules and whose keys name
// variables sets the variables that exist: an integer variable takes a decimal integer, a boolean one
// true/false, yes/no, on/off or 1/0, a log level a number or a level name (OK, FATAL, ERR, WARN, INFO, LOG,
// DEBUG). When one name exists under several kinds, each kind whose form the value has is set. A name that
// no variable has is reported ("UNKNOWN GLOBAL VARIABLE [%0] %1 (%2 LINE %3)" at WARN) and not created; a
// value of the wrong form is reported ("BAD VALUE '%0' FOR [%1] %2 (%3 LINE %4)" at ERR) and skipped. A file
// that cannot be read or parsed sets nothing.
//
// Thread safety: binding, release and every static operation take the registry's lock. Instance get/set
// read and write the bound entry without a lock: single-word atomic accesses, so no torn value, but an
// increment racing with a set may lose one of them.
#pragma once

#include "tarvik/List.h"
#include "tarvik/Symbol.h"
#include "tarvik/Types.h"

namespace tarvik {

struct GlobVarEntry;

class TARVIK_EXPORT GlobVar {
public:
    GlobVar(GlobVar const&) = delete;
    GlobVar& operator=(GlobVar const&) = delete;

    Symbol get_module() const;
    Symbol get_name() const;

    // Appends every module name, newest first. Returns 0 whatever the number of modules (the count is
    // deliberately not computed here, unlike get_names).
    static int get_modules(SymbolList& out);

    // Sets variables from INI text (see the header comment): the number of variables set, or -1 (nothing
    // set) when the text cannot be read or parsed; -1000002 when the file cannot be opened.
    static int load_ini(Path const& path);
    static int load_ini(IBStream& in, char const* source_name);

    enum Kind { KIND_BOOL = 0, KIND_INT = 1, KIND_LOG = 2, KIND_TEXT = 3 };

protected:
    GlobVar(Symbol const& module, Symbol const& name, Kind kind);
    ~GlobVar();

    int read_() const;
    // Stores a value and returns the previous one (0 and nothing stored when unbound).
    int write_(int value);
    void add_(int delta);

    static int get_names_(Symbol const& module, Kind kind, SymbolList& out);
    static int get_(Symbol const& module, Symbol const& name, Kind kind);
    static int set_(Symbol const& module, Symbol const& name, Kind kind, int value);

    GlobVarEntry* entry_;
};

class TARVIK_EXPORT GlobVarInt : public GlobVar {
public:
    GlobVarInt(Symbol const& module, Symbol const& name);
    GlobVarInt(Symbol const& module, Symbol const& name, int value);

    int get() const { return read_(); }
    operator int() const { return read_(); }
    int set(int value) { return write_(value); }
    GlobVarInt& operator++(int) {
        add_(1);
        return *this;
    }
    GlobVarInt& operator--(int) {
        add_(-1);
        return *this;
    }

    // Appends the names of the module's integer variables, newest first; returns how many.
    static int get_names(Symbol const& module, SymbolList& out);
    // The variable's value, 0 when there is none.
    static int get(Symbol const& module, Symbol const& name);
    // Stores into an existing variable and returns its previous value; creates nothing (returns 0).
    static int set(Symbol const& module, Symbol const& name, int value);
};

class TARVIK_EXPORT GlobVarBool : public GlobVar {
public:
    GlobVarBool(Symbol const& module, Symbol const& name);
    GlobVarBool(Symbol const& module, Symbol const& name, bool value);

    bool get() const { return read_() != 0; }
    operator bool() const { return read_() != 0; }
    bool set(bool value) { return write_(value ? 1 : 0) != 0; }

    static int get_names(Symbol const& module, SymbolList& out);
    static bool get(Symbol const& module, Symbol const& name);
    static bool set(Symbol const& module, Symbol const& name, bool value);
};

class TARVIK_EXPORT GlobVarLog : public GlobVar {
public:
    // The variable is named after the base name of source_path, upper-cased.
    GlobVarLog(Symbol const& module, char const* source_path);
    GlobVarLog(Symbol const& module, char const* source_path, int level);

    // The effective level: the largest of the own, module default and process default levels.
    int get() const;
    operator int() const { return get(); }
    // Stores the own level; returns the previous own level.
    int set(int level) { return write_(level); }
    GlobVarLog& operator++(int) {
        add_(1);
        return *this;
    }
    GlobVarLog& operator--(int) {
        add_(-1);
        return *this;
    }

    static int get_names(Symbol const& module, SymbolList& out);
    // The own level of a log variable (0 when there is none).
    static int get(Symbol const& module, Symbol const& name);
    static int set(Symbol const& module, Symbol const& name, int level);

    // The process-wide default level.
    static int get_default();
    static int set_default(int level);
    // A module's default level; for an unknown module 0, and nothing is created.
    static int get_default(Symbol const& module);
    static int set_default(Symbol const& module, int level);

    // The variable name a source path gives: "src/Blob-linux.cpp" -> "BLOB-LINUX".
    static AString name_of_source(char const* source_path);
};

// A text variable (a path, a name). The text is interned as a Symbol and the variable holds its number,
// so reading and setting stay single-word operations as for the other kinds; every distinct value set
// stays in the name registry for the life of the process, so text variables are for settings, not for
// data. Loading from a file takes the value as it stands (any text is of the right form).
class TARVIK_EXPORT GlobVarText : public GlobVar {
public:
    GlobVarText(Symbol const& module, Symbol const& name);
    GlobVarText(Symbol const& module, Symbol const& name, char const* value);

    AString get() const;
    void set(char const* value);

    static int get_names(Symbol const& module, SymbolList& out);
    // The variable's value, "" when there is none.
    static AString get(Symbol const& module, Symbol const& name);
    // Stores into an existing variable; false (nothing created) when there is none.
    static bool set(Symbol const& module, Symbol const& name, char const* value);
};

// Library start: builds the table of value-kind managers (the first lookup builds it) and makes the
// library's transports available. Returns 1; calling it again does no more than the lookup.
TARVIK_EXPORT int init();

}  // namespace tarvik
