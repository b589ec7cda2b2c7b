#include "tarvik/Symbol.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <new>

#include "LogUnit.h"
#include "Memory.h"
#include "tarvik/CriticalSection.h"
#include "tarvik/HMap.h"
#include "tarvik/IOBStream.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

constexpr unsigned int kPageSlots = 256;
constexpr unsigned int kDirectoryStep = 256;

// One page of the number directory: 256 entry slots.
struct Page {
    std::atomic<SymbolEntry const*> slots[kPageSlots];
};

// The directory of pages. It grows by replacing it with a larger copy; a replaced directory is kept (not
// freed), since a lookup running without the lock may still be reading it.
struct Directory {
    unsigned int size;
    Directory* retired;  // the directory this one replaced
    std::atomic<Page*> pages[1];  // `size` slots

    static Directory* make(unsigned int size, Directory* retired) {
        void* storage = memory::allocate(sizeof(Directory) + (size - 1) * sizeof(std::atomic<Page*>));
        auto* d = static_cast<Directory*>(storage);
        d->size = size;
        d->retired = retired;
        for (unsigned int i = 0; i < size; ++i) new (&d->pages[i]) std::atomic<Page*>(nullptr);
        return d;
    }
};

// The process-wide registry: text -> entry, and number -> entry through a two-level directory. It is made
// on first use and never destroyed, so symbols stay valid through static destruction.
//
// Interning takes the lock. Lookups by number do not: entries never move or die, and the directory and
// its pages are published with release stores after they are complete, so a reader that acquires them
// sees them whole. That keeps the name comparisons of tuples (which look names up by number) lock-free.
class SymbolRegistry;
SymbolRegistry& registry();
SymbolEntry const* empty_entry();

// Each thread's cache of interned names, by hash slot. The pointer is initial-exec: it is reached through
// the thread pointer rather than a call to __tls_get_addr, and as a single pointer it fits the static TLS
// reserve even when the library is loaded late. The cache itself is made on the thread's first intern and
// freed when the thread ends; names interned after that (by other thread-exit code) go without a cache.
constexpr unsigned int kCacheSlots = 256;
thread_local __attribute__((tls_model("initial-exec"))) SymbolEntry const** cache_of_thread = nullptr;
thread_local __attribute__((tls_model("initial-exec"))) bool cache_gone = false;

struct ThreadCacheOwner {
    std::unique_ptr<SymbolEntry const*[]> slots;
    ~ThreadCacheOwner() {
        cache_of_thread = nullptr;
        cache_gone = true;
    }
};

// Null once the thread's cache was freed.
SymbolEntry const** new_thread_cache() {
    if (cache_gone) return nullptr;
    thread_local ThreadCacheOwner owner;
    owner.slots = memory::make_array<SymbolEntry const*>(kCacheSlots);
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete): owner is thread_local, freed only at thread exit
    return cache_of_thread = owner.slots.get();
}

class SymbolRegistry {
public:
    SymbolEntry const* intern(char const* text, unsigned int len, bool create) {
        // Names already known are found in this thread's cache without the lock: entries never move or
        // die, so a cached pointer stays valid for the whole process.
        SymbolEntry const** cache = cache_of_thread;
        if (!cache) cache = new_thread_cache();
        unsigned int slot = hash_bytes(text, len) & (kCacheSlots - 1);
        if (cache) {
            SymbolEntry const* cached = cache[slot];
            if (cached && cached->name.length() == len && std::memcmp(cached->name.c_str(), text, len) == 0)
                return cached;
        }
        SymbolEntry const* entry;
        {
            CriticalSectionHolder hold(lock_);
            entry = intern_locked_(text, len, create);
        }
        if (entry && cache) cache[slot] = entry;
        return entry;
    }

    SymbolEntry const* lookup(unsigned int num) const {
        Directory const* d = directory_.load(std::memory_order_acquire);
        unsigned int page = num / kPageSlots;
        if (!d || page >= d->size) return nullptr;
        Page const* p = d->pages[page].load(std::memory_order_acquire);
        return p ? p->slots[num % kPageSlots].load(std::memory_order_acquire) : nullptr;
    }

    unsigned int count() {
        CriticalSectionHolder hold(lock_);
        return next_num_;
    }

private:
    SymbolEntry const* intern_locked_(char const* text, unsigned int len, bool create) TARVIK_REQUIRES(lock_) {
        if (by_name_) {
            if (SymbolEntry** found = by_name_->find(TextKey{text, len})) return *found;
        }
        if (!create) return nullptr;
        if (!by_name_) {
            by_name_ = memory::make_unique<HMap<TextKey, SymbolEntry*>>(203, 0.75f);
            directory_.store(Directory::make(kDirectoryStep, nullptr), std::memory_order_release);
            SymbolEntry const* empty = intern_locked_("", 0, true);  // "" is number 0; the section is recursive
            if (len == 0) return empty;
        }
        unsigned int num = next_num_;
        Page* page = place_(num);
        auto* entry = memory::create<SymbolEntry>(AString(text, len), num);  // never freed: see above
        by_name_->insert(TextKey{entry->name.c_str(), entry->name.length()}, entry);
        page->slots[num % kPageSlots].store(entry, std::memory_order_release);
        ++next_num_;
        return entry;
    }

    // The page for `num`, made (and the directory grown by steps of 256 slots) when needed.
    Page* place_(unsigned int num) {
        unsigned int index = num / kPageSlots;
        Directory* d = directory_.load(std::memory_order_relaxed);
        if (index >= d->size) {
            unsigned int size = d->size;
            while (index >= size) size += kDirectoryStep;
            Directory* grown = Directory::make(size, d);
            for (unsigned int i = 0; i < d->size; ++i)
                grown->pages[i].store(d->pages[i].load(std::memory_order_relaxed), std::memory_order_relaxed);
            directory_.store(grown, std::memory_order_release);
            d = grown;
        }
        Page* page = d->pages[index].load(std::memory_order_relaxed);
        if (!page) {
            page = memory::create<Page>();
            for (auto& slot : page->slots) slot.store(nullptr, std::memory_order_relaxed);
            d->pages[index].store(page, std::memory_order_release);
        }
        return page;
    }

    CriticalSection lock_;
    // Keyed by a view of each entry's own name: entries never move or die, so the view stays valid.
    std::unique_ptr<HMap<TextKey, SymbolEntry*>> by_name_ TARVIK_GUARDED_BY(lock_);
    // Grown and filled under the lock, read without it (see above).
    std::atomic<Directory*> directory_{nullptr};
    unsigned int next_num_ TARVIK_GUARDED_BY(lock_) = 0;
};

SymbolRegistry& registry() {
    static SymbolRegistry* const instance = memory::create<SymbolRegistry>();
    return *instance;
}

SymbolEntry const* empty_entry() {
    static SymbolEntry const* const entry = registry().intern("", 0, true);
    return entry;
}

}  // namespace

// The empty name is interned once: default symbols are made for every attribute a reader fills in.
Symbol::Symbol() : entry_(empty_entry()) {}

Symbol::Symbol(char const* name)
    : entry_(registry().intern(name ? name : "", name ? static_cast<unsigned int>(std::char_traits<char>::length(name)) : 0,
                               true)) {}

Symbol::Symbol(AString const& name) : entry_(registry().intern(name.c_str(), name.length(), true)) {}

Symbol::Symbol(char const* text, unsigned int length) : entry_(registry().intern(text ? text : "", text ? length : 0, true)) {}

Symbol::Symbol(unsigned int num) : entry_(registry().lookup(num)) {}

AString const& Symbol::empty_name_() {
    static AString const* const empty = memory::create<AString>();
    return *empty;
}

unsigned int Symbol::count() { return registry().count(); }

bool Symbol::find(char const* text, unsigned int length, Symbol& out) {
    SymbolEntry const* entry = registry().intern(text ? text : "", text ? length : 0, false);
    if (!entry) return false;
    out = Symbol(entry);
    return true;
}

// --- SymbolBudget -------------------------------------------------------------------------------------

namespace {
thread_local SymbolBudget* tls_budget = nullptr;
}  // namespace

SymbolBudget::SymbolBudget(unsigned int max_new, unsigned int max_total)
    : max_new_(max_new), max_total_(max_total), outer_(tls_budget) {
    tls_budget = this;
}

SymbolBudget::~SymbolBudget() { tls_budget = outer_; }

SymbolBudget* SymbolBudget::current() { return tls_budget; }

bool SymbolBudget::intern(char const* text, unsigned int length, Symbol& out) {
    if (Symbol::find(text, length, out)) return true;
    if (added_ >= max_new_) {
        exceeded_ = TOO_MANY_NEW;
        return false;
    }
    if (Symbol::count() >= max_total_) {
        exceeded_ = REGISTRY_FULL;
        return false;
    }
    out = Symbol(text, length);
    ++added_;
    return true;
}

long Symbol::write_xml(OBStream& out) const {
    AString const& name = get_name();
    for (unsigned int i = 0; i < name.length(); ++i) {
        char c = name.c_str()[i];
        switch (c) {
            case '&': out.put("&amp;"); break;
            case '<': out.put("&lt;"); break;
            case '>': out.put("&gt;"); break;
            default: out.put(c);
        }
    }
    return 0;
}

long Symbol::read_xml(IBStream&) { return 0; }

}  // namespace tarvik
