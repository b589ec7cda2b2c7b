#include "tarvik/GlobVar.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>

#include "LogUnit.h"
#include "Memory.h"
#include "tarvik/CriticalSection.h"
#include "tarvik/IOBStream.h"
#include "tarvik/Log.h"
#include "tarvik/Parser.h"
#include "tarvik/Path.h"

TARVIK_LOG_UNIT()

namespace tarvik {

struct GlobVarModule;

struct GlobVarEntry {
    Symbol module_name;
    std::atomic<int> value{0};
    GlobVar::Kind kind;
    Symbol name;
    std::unique_ptr<GlobVarEntry> next;
    int count = 0;
    GlobVarModule* module;
};

struct GlobVarModule {
    Symbol name;
    std::atomic<int> default_level{0};
    std::unique_ptr<GlobVarEntry> variables;
    std::unique_ptr<GlobVarModule> next;
};

namespace {

// The registry: the module list (newest first) and the process-wide default level. Made on first use
// and never destroyed, so variables of any static lifetime can bind and release safely.
struct Registry {
    CriticalSection lock;
    std::unique_ptr<GlobVarModule> modules TARVIK_GUARDED_BY(lock);
    std::atomic<int> default_level{0};

    GlobVarModule* find_module(Symbol const& name) const TARVIK_REQUIRES(lock) {
        for (GlobVarModule* m = modules.get(); m; m = m->next.get())
            if (m->name == name) return m;
        return nullptr;
    }

    GlobVarEntry* find_entry(Symbol const& module, Symbol const& name, GlobVar::Kind kind) const TARVIK_REQUIRES(lock) {
        GlobVarModule* m = find_module(module);
        if (!m) return nullptr;
        for (GlobVarEntry* e = m->variables.get(); e; e = e->next.get())
            if (e->kind == kind && e->name == name) return e;
        return nullptr;
    }

    GlobVarEntry* bind(Symbol const& module, Symbol const& name, GlobVar::Kind kind) TARVIK_REQUIRES(lock) {
        GlobVarModule* m = find_module(module);
        if (!m) {
            std::unique_ptr<GlobVarModule> made = memory::make_unique<GlobVarModule>();
            m = made.get();
            m->name = module;
            m->next = std::move(modules);
            modules = std::move(made);
        }
        GlobVarEntry* e = m->variables.get();
        while (e && !(e->kind == kind && e->name == name)) e = e->next.get();
        if (!e) {
            std::unique_ptr<GlobVarEntry> made = memory::make_unique<GlobVarEntry>();
            e = made.get();
            e->module_name = module;
            e->kind = kind;
            e->name = name;
            e->module = m;
            e->next = std::move(m->variables);
            m->variables = std::move(made);
        }
        ++e->count;
        return e;
    }

    void release(GlobVarEntry* entry) TARVIK_REQUIRES(lock) {
        GlobVarModule* m = entry->module;
        if (--entry->count > 0) return;
        // Unlinking frees: each link owns the node it points to.
        for (std::unique_ptr<GlobVarEntry>* link = &m->variables; *link; link = &(*link)->next) {
            if (link->get() == entry) {
                *link = std::move(entry->next);
                break;
            }
        }
        if (m->variables) return;
        for (std::unique_ptr<GlobVarModule>* link = &modules; *link; link = &(*link)->next) {
            if (link->get() == m) {
                *link = std::move(m->next);
                break;
            }
        }
    }
};

Registry& registry() {
    static Registry* const instance = memory::create<Registry>();
    return *instance;
}

}  // namespace

// --- GlobVar ------------------------------------------------------------------------------------------

GlobVar::GlobVar(Symbol const& module, Symbol const& name, Kind kind) {
    Registry& r = registry();
    CriticalSectionHolder hold(r.lock);
    entry_ = r.bind(module, name, kind);
}

GlobVar::~GlobVar() {
    if (!entry_) return;
    Registry& r = registry();
    CriticalSectionHolder hold(r.lock);
    r.release(entry_);
    entry_ = nullptr;
}

Symbol GlobVar::get_module() const { return entry_ ? entry_->module_name : Symbol(); }

Symbol GlobVar::get_name() const { return entry_ ? entry_->name : Symbol(); }

int GlobVar::read_() const { return entry_ ? entry_->value.load(std::memory_order_relaxed) : 0; }

int GlobVar::write_(int value) {
    return entry_ ? entry_->value.exchange(value, std::memory_order_relaxed) : 0;
}

void GlobVar::add_(int delta) {
    if (entry_) entry_->value.fetch_add(delta, std::memory_order_relaxed);
}

int GlobVar::get_modules(SymbolList& out) {
    Registry& r = registry();
    CriticalSectionHolder hold(r.lock);
    for (GlobVarModule* m = r.modules.get(); m; m = m->next.get()) out.push_back(m->name);
    return 0;
}

int GlobVar::get_names_(Symbol const& module, Kind kind, SymbolList& out) {
    Registry& r = registry();
    CriticalSectionHolder hold(r.lock);
    GlobVarModule* m = r.find_module(module);
    int n = 0;
    for (GlobVarEntry* e = m ? m->variables.get() : nullptr; e; e = e->next.get()) {
        if (e->kind != kind) continue;
        out.push_back(e->name);
        ++n;
    }
    return n;
}

int GlobVar::get_(Symbol const& module, Symbol const& name, Kind kind) {
    Registry& r = registry();
    CriticalSectionHolder hold(r.lock);
    GlobVarEntry* e = r.find_entry(module, name, kind);
    return e ? e->value.load(std::memory_order_relaxed) : 0;
}

int GlobVar::set_(Symbol const& module, Symbol const& name, Kind kind, int value) {
    Registry& r = registry();
    CriticalSectionHolder hold(r.lock);
    GlobVarEntry* e = r.find_entry(module, name, kind);
    return e ? e->value.exchange(value, std::memory_order_relaxed) : 0;
}

// --- loading from INI text -------------------------------------------------------------------------------

namespace {

bool parse_int(AString const& text, int& out) {
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(text.c_str(), &end, 10);
    if (text.is_empty() || *end != '\0' || errno == ERANGE || v < INT_MIN || v > INT_MAX) return false;
    out = static_cast<int>(v);
    return true;
}

bool parse_bool(AString const& text, int& out) {
    AString t(text);
    t.make_lower();
    if (t == "true" || t == "yes" || t == "on" || t == "1") return (out = 1, true);
    if (t == "false" || t == "no" || t == "off" || t == "0") return (out = 0, true);
    return false;
}

bool parse_level(AString const& text, int& out) {
    if (parse_int(text, out)) return true;
    for (int level = 0; level <= 6; ++level) {
        if (text.CompareNoCase(level_name(level)) == 0) return (out = level, true);
    }
    return false;
}

struct IniEntry {
    AString section;
    AString key;
    AString value;
    unsigned int line;
};

}  // namespace

int GlobVar::load_ini(IBStream& in, char const* source_name) {
    // The whole text is parsed first, so that malformed text sets nothing.
    List<IniEntry> entries;
    IniParser parser(in);
    for (IniParser::Event e; (e = parser.next()) != IniParser::kDone;) {
        if (e == IniParser::kError) return -1;
        if (e == IniParser::kEntry) entries.push_back(IniEntry{parser.section(), parser.key(), parser.value(), parser.line()});
    }
    char const* source = source_name ? source_name : "";
    int set = 0;
    for (IniEntry const& entry : entries) {
        Symbol module(entry.section);
        Symbol name(entry.key);
        bool known = false;
        int applied = 0;  // variables this entry set: one per kind of the name whose form the value has
        for (Kind kind : {KIND_BOOL, KIND_INT, KIND_LOG, KIND_TEXT}) {
            GlobVarEntry* e;
            {
                Registry& r = registry();
                CriticalSectionHolder hold(r.lock);
                e = r.find_entry(module, name, kind);
                if (!e) continue;
                known = true;
                int value = 0;
                bool ok = kind == KIND_INT    ? parse_int(entry.value, value)
                          : kind == KIND_BOOL ? parse_bool(entry.value, value)
                          : kind == KIND_LOG  ? parse_level(entry.value, value)
                                              : (value = static_cast<int>(Symbol(entry.value).get_num()), true);
                if (!ok) continue;
                e->value.store(value, std::memory_order_relaxed);
                ++applied;
            }
        }
        if (!known) {
            TVK_LOG(LEVEL_WARN, "UNKNOWN GLOBAL VARIABLE [%0] %1 (%2 LINE %3)") << entry.section << entry.key << source
                                                                                << entry.line;
        } else if (applied == 0) {
            TVK_LOG(LEVEL_ERR, "BAD VALUE '%0' FOR [%1] %2 (%3 LINE %4)") << entry.value << entry.section << entry.key
                                                                           << source << entry.line;
        } else {
            set += applied;
        }
    }
    return set;
}

int GlobVar::load_ini(Path const& path) {
    IBStream in(path, true);
    if (!in.is_open()) return static_cast<int>(kCannotOpenFile);
    return load_ini(in, path.c_str());
}

// --- GlobVarInt / GlobVarBool -----------------------------------------------------------------------

GlobVarInt::GlobVarInt(Symbol const& module, Symbol const& name) : GlobVar(module, name, KIND_INT) {}

GlobVarInt::GlobVarInt(Symbol const& module, Symbol const& name, int value) : GlobVar(module, name, KIND_INT) {
    set(value);
}

int GlobVarInt::get_names(Symbol const& module, SymbolList& out) { return get_names_(module, KIND_INT, out); }
int GlobVarInt::get(Symbol const& module, Symbol const& name) { return get_(module, name, KIND_INT); }
int GlobVarInt::set(Symbol const& module, Symbol const& name, int value) {
    return set_(module, name, KIND_INT, value);
}

GlobVarBool::GlobVarBool(Symbol const& module, Symbol const& name) : GlobVar(module, name, KIND_BOOL) {}

GlobVarBool::GlobVarBool(Symbol const& module, Symbol const& name, bool value) : GlobVar(module, name, KIND_BOOL) {
    set(value);
}

int GlobVarBool::get_names(Symbol const& module, SymbolList& out) { return get_names_(module, KIND_BOOL, out); }
bool GlobVarBool::get(Symbol const& module, Symbol const& name) { return get_(module, name, KIND_BOOL) != 0; }
bool GlobVarBool::set(Symbol const& module, Symbol const& name, bool value) {
    return set_(module, name, KIND_BOOL, value ? 1 : 0) != 0;
}

// --- GlobVarLog -----------------------------------------------------------------------------------

GlobVarText::GlobVarText(Symbol const& module, Symbol const& name) : GlobVar(module, name, KIND_TEXT) {}

GlobVarText::GlobVarText(Symbol const& module, Symbol const& name, char const* value)
    : GlobVar(module, name, KIND_TEXT) {
    set(value);
}

AString GlobVarText::get() const { return Symbol(static_cast<unsigned int>(read_())).get_name(); }

void GlobVarText::set(char const* value) { write_(static_cast<int>(Symbol(value ? value : "").get_num())); }

int GlobVarText::get_names(Symbol const& module, SymbolList& out) { return get_names_(module, KIND_TEXT, out); }

AString GlobVarText::get(Symbol const& module, Symbol const& name) {
    return Symbol(static_cast<unsigned int>(get_(module, name, KIND_TEXT))).get_name();
}

bool GlobVarText::set(Symbol const& module, Symbol const& name, char const* value) {
    Registry& r = registry();
    CriticalSectionHolder hold(r.lock);
    GlobVarEntry* e = r.find_entry(module, name, KIND_TEXT);
    if (!e) return false;
    e->value.store(static_cast<int>(Symbol(value ? value : "").get_num()), std::memory_order_relaxed);
    return true;
}

AString GlobVarLog::name_of_source(char const* source_path) {
    AString base = Path(source_path).get_base();
    return base.make_upper();
}

GlobVarLog::GlobVarLog(Symbol const& module, char const* source_path)
    : GlobVar(module, Symbol(name_of_source(source_path)), KIND_LOG) {}

GlobVarLog::GlobVarLog(Symbol const& module, char const* source_path, int level)
    : GlobVar(module, Symbol(name_of_source(source_path)), KIND_LOG) {
    set(level);
}

int GlobVarLog::get() const {
    if (!entry_) return 0;
    int level = entry_->value.load(std::memory_order_relaxed);
    int module_level = entry_->module->default_level.load(std::memory_order_relaxed);
    int process_level = registry().default_level.load(std::memory_order_relaxed);
    if (module_level > level) level = module_level;
    return process_level > level ? process_level : level;
}

int GlobVarLog::get_names(Symbol const& module, SymbolList& out) { return get_names_(module, KIND_LOG, out); }
int GlobVarLog::get(Symbol const& module, Symbol const& name) { return get_(module, name, KIND_LOG); }
int GlobVarLog::set(Symbol const& module, Symbol const& name, int level) { return set_(module, name, KIND_LOG, level); }

int GlobVarLog::get_default() { return registry().default_level.load(std::memory_order_relaxed); }

int GlobVarLog::set_default(int level) {
    Registry& r = registry();
    CriticalSectionHolder hold(r.lock);
    return r.default_level.exchange(level, std::memory_order_relaxed);
}

int GlobVarLog::get_default(Symbol const& module) {
    Registry& r = registry();
    CriticalSectionHolder hold(r.lock);
    GlobVarModule* m = r.find_module(module);
    return m ? m->default_level.load(std::memory_order_relaxed) : 0;
}

int GlobVarLog::set_default(Symbol const& module, int level) {
    Registry& r = registry();
    CriticalSectionHolder hold(r.lock);
    GlobVarModule* m = r.find_module(module);
    return m ? m->default_level.exchange(level, std::memory_order_relaxed) : 0;
}

}  // namespace tarvik
