// Reference-counted objects and the handle that holds them.
//
// Counting is atomic, so threads may share an object. A handle is not thread-safe; an object is as
// thread-safe as its class states.
#pragma once

#include <atomic>
#include <cstddef>
#include <type_traits>
#include <utility>

namespace Tessim {

// The interface that every counted object offers. A new object has no references; the first Ref adds one, and
// the object deletes itself when the last one goes.
class Object {
  public:
    Object() = default;
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    virtual ~Object() = default;

    virtual void IncRef() const noexcept = 0;
    virtual void DecRef() const noexcept = 0;
};

// The one implementation of the counting. Classes derive from this and, virtually, from Object.
class ObjectImpl : public virtual Object {
  public:
    void IncRef() const noexcept final { references.fetch_add(1, std::memory_order_relaxed); }
    // Out of line: an analyzer does not follow the atomic count, and would take every release for the last.
    void DecRef() const noexcept final;

  private:
    mutable std::atomic<std::size_t> references{0};
};

// A handle that shares ownership of one object, or holds none. Assigning releases what it held before.
template <class T>
class Ref {
  public:
    Ref() noexcept = default;
    Ref(std::nullptr_t) noexcept {}
    Ref(T* object) noexcept : held(object) { Acquire(); }
    Ref(const Ref& other) noexcept : held(other.held) { Acquire(); }
    Ref(Ref&& other) noexcept : held(std::exchange(other.held, nullptr)) {}
    template <class U>
    requires std::is_convertible_v<U*, T*> Ref(const Ref<U>& other)
    noexcept : held(other.Get()) { Acquire(); }
    ~Ref() { Release(); }

    Ref& operator=(Ref other) noexcept {
        std::swap(held, other.held);
        return *this;
    }

    // The object, or null; the handle keeps its reference.
    T* Get() const noexcept { return held; }
    T* operator->() const noexcept { return held; }
    T& operator*() const noexcept { return *held; }
    explicit operator bool() const noexcept { return held != nullptr; }

    // Releases the object.
    void Reset() noexcept { *this = Ref(); }

    friend bool operator==(const Ref& a, const Ref& b) noexcept { return a.held == b.held; }
    friend bool operator==(const Ref& a, std::nullptr_t) noexcept { return a.held == nullptr; }

  private:
    void Acquire() const noexcept {
        if (held != nullptr) {
            held->IncRef();
        }
    }
    void Release() noexcept {
        if (held != nullptr) {
            held->DecRef();
        }
    }

    T* held = nullptr;
};

// A new T in its first handle.
template <class T, class... Arguments>
Ref<T> MakeRef(Arguments&&... arguments) {
    return Ref<T>(new T(std::forward<Arguments>(arguments)...));
}

// The object as a T. Null stays null, and so does an object that is no T.
template <class T, class From>
T* NarrowToType(From* object) noexcept {
    return dynamic_cast<T*>(object);
}

template <class T, class From>
T* NarrowToType(const Ref<From>& object) noexcept {
    return dynamic_cast<T*>(object.Get());
}

}  // namespace Tessim
