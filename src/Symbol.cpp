#include "tarvik/Symbol.h"

#include "LogUnit.h"
#include "tarvik/CriticalSection.h"
#include "tarvik/HMap.h"
#include "tarvik/IOBStream.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

constexpr unsigned int kPageSlots = 256;
constexpr unsigned int kDirectoryStep = 256;

// The process-wide registry: text -> entry, and number -> entry through a two-level directory. It is made
// on first use and never destroyed, so symbols stay valid through static destruction.
class SymbolRegistry {
public:
    SymbolEntry const* intern(char const* text, unsigned int len, bool create) {
        CriticalSectionHolder hold(lock_);
        return intern_locked_(text, len, create);
    }

    SymbolEntry const* lookup(unsigned int num) {
        CriticalSectionHolder hold(lock_);
        unsigned int page = num / kPageSlots;
        if (!directory_ || page >= directory_size_ || !directory_[page]) return nullptr;
        return directory_[page][num % kPageSlots];
    }

    unsigned int count() {
        CriticalSectionHolder hold(lock_);
        return next_num_;
    }

private:
    SymbolEntry const* intern_locked_(char const* text, unsigned int len, bool create) {
        if (by_name_) {
            if (SymbolEntry** found = by_name_->find(TextKey{text, len})) return *found;
        }
        if (!create) return nullptr;
        if (!by_name_) {
            by_name_ = new HMap<TextKey, SymbolEntry*>(203, 0.75f);
            directory_size_ = kDirectoryStep;
            directory_ = new SymbolEntry**[directory_size_]();
            intern_locked_("", 0, true);  // "" is number 0; the section is recursive
            if (len == 0) return directory_[0][0];
        }
        unsigned int num = next_num_;
        place_(num);
        auto* entry = new SymbolEntry{AString(text, len), num};
        by_name_->insert(TextKey{entry->name.c_str(), entry->name.length()}, entry);
        directory_[num / kPageSlots][num % kPageSlots] = entry;
        ++next_num_;
        return entry;
    }

    // Makes sure the directory and the page for `num` exist.
    void place_(unsigned int num) {
        unsigned int page = num / kPageSlots;
        if (page >= directory_size_) {
            unsigned int size = directory_size_;
            while (page >= size) size += kDirectoryStep;
            auto** grown = new SymbolEntry**[size]();
            for (unsigned int i = 0; i < directory_size_; ++i) grown[i] = directory_[i];
            delete[] directory_;
            directory_ = grown;
            directory_size_ = size;
        }
        if (!directory_[page]) directory_[page] = new SymbolEntry*[kPageSlots]();
    }

    CriticalSection lock_;
    // Keyed by a view of each entry's own name: entries never move or die, so the view stays valid.
    HMap<TextKey, SymbolEntry*>* by_name_ = nullptr;
    SymbolEntry*** directory_ = nullptr;
    unsigned int directory_size_ = 0;
    unsigned int next_num_ = 0;
};

SymbolRegistry& registry() {
    static SymbolRegistry* const instance = new SymbolRegistry;
    return *instance;
}

}  // namespace

Symbol::Symbol() : entry_(registry().intern("", 0, true)) {}

Symbol::Symbol(char const* name)
    : entry_(registry().intern(name ? name : "", name ? static_cast<unsigned int>(std::char_traits<char>::length(name)) : 0,
                               true)) {}

Symbol::Symbol(AString const& name) : entry_(registry().intern(name.c_str(), name.length(), true)) {}

Symbol::Symbol(unsigned int num) : entry_(registry().lookup(num)) {}

AString const& Symbol::empty_name_() {
    static AString const* const empty = new AString;
    return *empty;
}

unsigned int Symbol::count() { return registry().count(); }

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
