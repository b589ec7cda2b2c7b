// AutoRef.h: reference-counted objects, smart references, and factories that create objects by name.
//
// Every long-lived object of the library (services, interfaces, listeners, senders, log hooks, actions)
// derives from RefObject and is shared through AutoRef<T>. An object keeps two counts:
//   count         ordinary references. A new object has 0 (nobody owns it until the first reference
//                 attaches); the release that brings it to 0 sets it to -1000, a marker that destruction is
//                 under way, and deletes the object.
//   nested_count  references that reach the object through one of its interfaces (IAutoRef). Each also
//                 holds one ordinary reference; the last one calls interface_release() first.
// Copying a RefObject copies both counts as they stand (plain memberwise copy): a copy does not start from
// zero. Derived classes that are copied reset them themselves when they need to.
//
// AutoRef<T> holds one pointer. Built from another object type or reference, it tests the type at run time
// and holds null when the object is not a T. Built from a name, it asks the factories registered under
// T::factory_name() (RefFactory below), newest first, names compared without case; the first non-null
// object wins, and T::auto_create(name) is the default when none answers. Built from a bool it holds
// T::create(), whatever the flag's value (false creates exactly as true does).
//
// Thread safety: counts change under the CriticalSection returned by get_cs() (one process-wide section
// in the base class); deletion and interface_release() run after it is released. A reference object
// (AutoRef) is used by one thread at a time; distinct references to one object may live in any threads.
// Factory registration and lookup take the factory list's lock; a factory's create() or bind() runs
// without it.
#pragma once

#include <cstddef>
#include <type_traits>

#include "tarvik/ThreadSafety.h"
#include "tarvik/Types.h"

namespace tarvik {

class TARVIK_CAPABILITY("mutex") CriticalSection;
class AutoRefBase;

class TARVIK_EXPORT RefObject {
public:
    RefObject() = default;
    RefObject(RefObject const&) = default;
    RefObject& operator=(RefObject const&) = default;
    virtual ~RefObject();

    // Takes / drops an ordinary reference; the release that brings the count to 0 deletes the object.
    virtual void attach();
    virtual void release();
    // Takes / drops an interface reference (each also takes / drops an ordinary one).
    virtual void nested_attach();
    virtual void nested_release();
    // Called when the last interface reference goes; empty here.
    virtual void interface_release();
    // Empty here; runnable objects override it.
    virtual void Run();
    // The section that guards the counts: one process-wide section, made on first use.
    virtual CriticalSection& get_cs();

    // Creation statics; derived classes hide them with their own. Here each returns a null reference.
    static AutoRefBase create();
    static AutoRefBase create(char const* name);
    static AutoRefBase auto_create();
    static AutoRefBase auto_create(char const* name);
    static AutoRefBase bind();
    static AutoRefBase bind(char const* name);
    // The name factories register under for this class: "" here.
    static char const* factory_name() { return ""; }

    // The counts, read under the section (for diagnostics and tests).
    int get_count();
    int get_nested_count();

private:
    int count_ TARVIK_GUARDED_BY(get_cs()) = 0;
    int nested_count_ TARVIK_GUARDED_BY(get_cs()) = 0;
};

// The untyped holders. Nested = false counts through attach/release (AutoRefBase); Nested = true through
// nested_attach/nested_release (IAutoRefBase).
template <bool Nested>
class RefHolder {
public:
    RefHolder() = default;
    RefHolder(std::nullptr_t) {}
    RefHolder(RefObject* p) : ptr_(p) { attach(); }
    RefHolder(RefHolder const& other) : ptr_(other.ptr_) { attach(); }
    RefHolder(RefHolder&& other) noexcept : ptr_(other.ptr_) { other.ptr_ = nullptr; }
    ~RefHolder() { release(); }
    RefHolder& operator=(RefHolder const& other) {
        if (this != &other) set_(other.ptr_);
        return *this;
    }
    RefHolder& operator=(RefHolder&& other) noexcept {
        if (this != &other) {
            release();
            ptr_ = other.ptr_;
            other.ptr_ = nullptr;
        }
        return *this;
    }

    // Holds p: nothing when p is already held; otherwise releases the held object, then attaches p.
    void set_(RefObject* p) {
        if (p == ptr_) return;
        release();
        ptr_ = p;
        attach();
    }
    void clear() { release(); }
    RefObject* get_() const { return ptr_; }
    void attach() {
        if (!ptr_) return;
        if constexpr (Nested) {
            ptr_->nested_attach();
        } else {
            ptr_->attach();
        }
    }
    // Drops the reference and holds null.
    void release() {
        RefObject* p = ptr_;
        ptr_ = nullptr;
        if (!p) return;
        if constexpr (Nested) {
            p->nested_release();
        } else {
            p->release();
        }
    }

protected:
    RefObject* ptr_ = nullptr;
};

class AutoRefBase : public RefHolder<false> {
public:
    using RefHolder<false>::RefHolder;
};

class IAutoRefBase : public RefHolder<true> {
public:
    using RefHolder<true>::RefHolder;
};

// Factories that create objects by name. Each registers at construction at the head of one process-wide
// list, so the newest is asked first. A destroyed factory sets the list head to its own successor,
// wherever it stands: destroying one that is not at the head drops every factory in front of it. That is
// the fixed behaviour of this version; factories are process-lifetime objects destroyed in reverse order of
// construction, which always removes the head.
class TARVIK_EXPORT RefFactory {
public:
    RefFactory();
    virtual ~RefFactory();
    RefFactory(RefFactory const&) = delete;
    RefFactory& operator=(RefFactory const&) = delete;

    virtual char const* factory_name() const;
    // The object this factory makes for `name`, or null when it does not recognise the name.
    virtual AutoRefBase create(char const* name);
    virtual AutoRefBase bind(char const* name);

    // Asks every factory whose factory_name() equals `factory_name` (ignoring case), newest first, until one
    // returns an object; `def` when none does.
    static AutoRefBase lookup_create(char const* factory_name, char const* name, AutoRefBase const& def);
    static AutoRefBase lookup_bind(char const* factory_name, char const* name, AutoRefBase const& def);

    RefFactory* get_next() const { return next_; }
    static RefFactory* get_head();

private:
    // Changed under the factory list's lock when a factory registers or goes. Not annotated: that lock is
    // private to the factory list, and get_next() is read by callers walking a list they know is stable.
    RefFactory* next_ = nullptr;
};

// Typed access shared by AutoRef<T> (ordinary) and IAutoRef<T> (interface references).
template <class T, class Base>
class TypedRef : public Base {
public:
    TypedRef() = default;
    TypedRef(std::nullptr_t) {}
    TypedRef(T* p) : Base(p) {}
    // Run-time type-tested: an object of another type gives null (and attaches nothing).
    template <class U>
        requires(std::is_base_of_v<RefObject, U> && !std::is_convertible_v<U*, T*>)
    TypedRef(U* p) : Base(dynamic_cast<T*>(p)) {}
    TypedRef(AutoRefBase const& other) : Base(dynamic_cast<T*>(other.get_())) {}
    TypedRef(IAutoRefBase const& other) : Base(dynamic_cast<T*>(other.get_())) {}
    TypedRef(TypedRef const& other) = default;
    TypedRef(TypedRef&& other) noexcept = default;
    // Created by factories registered under T::factory_name(), T::auto_create(name) being the default.
    explicit TypedRef(char const* name) { create(name); }
    // Holds T::create(); the flag is not consulted (false creates as true does).
    explicit TypedRef(bool) { create(); }

    TypedRef& operator=(TypedRef const& other) = default;
    TypedRef& operator=(TypedRef&& other) noexcept = default;
    TypedRef& operator=(AutoRefBase const& other) {
        this->set_(dynamic_cast<T*>(other.get_()));
        return *this;
    }
    TypedRef& operator=(RefObject* p) {
        this->set_(dynamic_cast<T*>(p));
        return *this;
    }

    bool create() { return hold_(T::create()); }
    bool create(char const* name) {
        return hold_(RefFactory::lookup_create(T::factory_name(), name, AutoRefBase(as_t_(T::auto_create(name)))));
    }
    bool bind() { return hold_(T::bind()); }
    bool bind(char const* name) {
        return hold_(RefFactory::lookup_bind(T::factory_name(), name, AutoRefBase(as_t_(T::bind(name)))));
    }

    explicit operator bool() const { return this->ptr_ != nullptr; }
    bool is_bound() const { return this->ptr_ != nullptr; }
    T* get() const { return static_cast<T*>(this->ptr_); }
    T& operator*() const { return *get(); }
    T* operator->() const { return get(); }
    operator T*() const { return get(); }

    // Identity, and address order for sorted containers.
    friend bool operator==(TypedRef const& a, TypedRef const& b) { return a.ptr_ == b.ptr_; }
    // Raw pointers compare exactly as they are given (T*, T const*, nullptr, either side), so that the
    // built-in pointer comparison reached through operator T*() is never an equally good candidate.
    friend bool operator==(TypedRef const& a, T* b) { return a.ptr_ == b; }
    friend bool operator==(TypedRef const& a, T const* b) { return a.ptr_ == b; }
    friend bool operator==(TypedRef const& a, std::nullptr_t) { return a.ptr_ == nullptr; }
    friend bool operator==(T* a, TypedRef const& b) { return b.ptr_ == a; }
    friend bool operator==(T const* a, TypedRef const& b) { return b.ptr_ == a; }
    friend bool operator<(TypedRef const& a, TypedRef const& b) { return a.ptr_ < b.ptr_; }

private:
    static T* as_t_(AutoRefBase const& r) { return dynamic_cast<T*>(r.get_()); }
    bool hold_(AutoRefBase const& r) {
        this->set_(as_t_(r));
        return this->ptr_ != nullptr;
    }
};

template <class T>
class AutoRef : public TypedRef<T, AutoRefBase> {
public:
    using TypedRef<T, AutoRefBase>::TypedRef;
    using TypedRef<T, AutoRefBase>::operator=;
};

template <class T>
class IAutoRef : public TypedRef<T, IAutoRefBase> {
public:
    using TypedRef<T, IAutoRefBase>::TypedRef;
    using TypedRef<T, IAutoRefBase>::operator=;
};

}  // namespace tarvik
