// Pointers to objects that carry their own count.
#pragma once

#include "TQLib/text/memory/TQSmartPtr.h"

#include <compare>
#include <concepts>
#include <functional>
#include <utility>

namespace Quellan::Corvel {

// The base of such objects, with the count of their holders: `_TQRefThrCount` for several threads or
// `_TQRefCount` for one. Copying an object copies nothing of it. The object is made by new and deleted by its
// last pointer.
template <class Count = _TQRefThrCount>
class TQRefObject {
  public:
    // How many pointers share the object. Other threads may change it at any time, except from 1.
    [[nodiscard]] ULONG UseCount() const noexcept { return m_count.Holders(); }

  protected:
    TQRefObject() noexcept = default;
    TQRefObject(const TQRefObject&) noexcept {}
    TQRefObject& operator=(const TQRefObject&) noexcept { return *this; }
    virtual ~TQRefObject() = default;

  private:
    template <class T>
    friend class TQIntrusivePtr;

    void AddHolder() const noexcept { m_count.Add(); }
    void DropHolder() const noexcept {
        if (m_count.Drop()) delete this;
    }

    mutable Count m_count{0};
};

// A pointer to an object that derives from `TQRefObject`: one word, made from any pointer to the object, also
// by the object itself once its constructor is through (its only pointer ends it). One pointer belongs to one
// thread at a time. Nothing is allocated and nothing throws but following null: 5 (ERROR_ACCESS_DENIED).
template <class T>
class TQIntrusivePtr {
  public:
    using element_type = T;

    TQIntrusivePtr() noexcept = default;
    TQIntrusivePtr(std::nullptr_t) noexcept {}
    explicit TQIntrusivePtr(T* object) noexcept : m_object(object) {
        if (m_object) m_object->AddHolder();
    }
    TQIntrusivePtr(const TQIntrusivePtr& other) noexcept : TQIntrusivePtr(other.m_object) {}
    TQIntrusivePtr(TQIntrusivePtr&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
    template <class U>
    requires std::convertible_to<U*, T*> TQIntrusivePtr(TQIntrusivePtr<U> other)
    noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
    TQIntrusivePtr& operator=(TQIntrusivePtr other) noexcept {
        Swap(other);
        return *this;
    }
    ~TQIntrusivePtr() {
        if (m_object) m_object->DropHolder();
    }

    // Makes an object, whose constructor gets `arguments`; 14 (ERROR_OUTOFMEMORY) without memory.
    template <class... A>
    [[nodiscard]] static TQIntrusivePtr Make(A&&... arguments) {
        return Translated(L"TQIntrusivePtr::Make",
                          [&] { return TQIntrusivePtr(new T(std::forward<A>(arguments)...)); });
    }

    [[nodiscard]] T* Get() const noexcept { return m_object; }
    T& operator*() const { return *Followed(L"TQIntrusivePtr::operator*"); }
    T* operator->() const { return Followed(L"TQIntrusivePtr::operator->"); }
    explicit operator bool() const noexcept { return m_object != nullptr; }

    void Reset() noexcept { *this = TQIntrusivePtr(); }
    void Swap(TQIntrusivePtr& other) noexcept { std::swap(m_object, other.m_object); }
    // How many pointers share the object, 0 for none.
    [[nodiscard]] ULONG UseCount() const noexcept { return m_object ? m_object->UseCount() : 0; }

    // Pointers are equal when they point to the same object, and ordered by its address.
    template <class U>
    friend bool operator==(const TQIntrusivePtr& left, const TQIntrusivePtr<U>& right) noexcept {
        return left.Get() == right.Get();
    }
    friend bool operator==(const TQIntrusivePtr& left, const T* right) noexcept {
        return left.Get() == right;
    }
    friend std::strong_ordering operator<=>(const TQIntrusivePtr& left,
                                            const TQIntrusivePtr& right) noexcept {
        return std::compare_three_way()(left.Get(), right.Get());
    }

  private:
    template <class U>
    friend class TQIntrusivePtr;

    [[nodiscard]] T* Followed(const wchar_t* where) const {
        if (!m_object) TQStdExceptions::ThrowAccessError(where);
        return m_object;
    }

    T* m_object = nullptr;
};

}  // namespace Quellan::Corvel

template <class T>
struct std::hash<Quellan::Corvel::TQIntrusivePtr<T>> {
    std::size_t operator()(const Quellan::Corvel::TQIntrusivePtr<T>& pointer) const noexcept {
        return std::hash<T*>()(pointer.Get());
    }
};
