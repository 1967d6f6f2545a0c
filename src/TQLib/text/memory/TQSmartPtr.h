// Reference-counted pointers.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/text/memory/TQStdExceptions.h"

#include <atomic>
#include <compare>
#include <concepts>
#include <functional>
#include <new>
#include <utility>

namespace Quellan::Corvel {

// The count of holders that all belong to one thread.
class _TQRefCount {
  public:
    void Add() noexcept { ++m_holders; }
    // True for the last holder.
    bool Drop() noexcept { return --m_holders == 0; }
    [[nodiscard]] ULONG Holders() const noexcept { return m_holders; }

  private:
    ULONG m_holders = 1;
};

// The count of holders on several threads.
class _TQRefThrCount {
  public:
    // Orders nothing: a new holder is made from one that already has the right to the thing.
    void Add() noexcept { m_holders.fetch_add(1, std::memory_order_relaxed); }
    // The last holder sees all that the others did before they went.
    TQLIB_API bool Drop() noexcept;
    [[nodiscard]] ULONG Holders() const noexcept { return m_holders.load(std::memory_order_acquire); }

  private:
    std::atomic<ULONG> m_holders = 1;
};

// One shared thing: its count, and in a derived record its end, which is the record's destructor.
template <class Count>
struct _TQRefRecord {
    virtual ~_TQRefRecord() = default;
    Count count;
};

// One holder of a shared thing, or of nothing. Different holders may be used by different threads where
// `Count` is
// `_TQRefThrCount`; one holder belongs to one thread at a time.
template <class Count>
class _TQRefHolder {
  public:
    _TQRefHolder() noexcept = default;
    // Takes over the share that every new record counts.
    explicit _TQRefHolder(_TQRefRecord<Count>* record) noexcept : m_record(record) {}
    _TQRefHolder(const _TQRefHolder& other) noexcept : m_record(other.m_record) {
        if (m_record) m_record->count.Add();
    }
    _TQRefHolder(_TQRefHolder&& other) noexcept : m_record(std::exchange(other.m_record, nullptr)) {}
    _TQRefHolder& operator=(_TQRefHolder other) noexcept {
        std::swap(m_record, other.m_record);
        return *this;
    }
    ~_TQRefHolder() {
        if (m_record && m_record->count.Drop()) delete m_record;
    }

    [[nodiscard]] ULONG Holders() const noexcept { return m_record ? m_record->count.Holders() : 0; }
    [[nodiscard]] _TQRefRecord<Count>* Record() const noexcept { return m_record; }

  private:
    _TQRefRecord<Count>* m_record = nullptr;
};

// The two policies of `TQSmartPtr`. `Owns` tells whether the last holder deletes the object (1) or leaves it
// alone (0: the object must outlive all holders); `Array` whether it was made by new (0) or by new[] (1).

// For holders that all belong to one thread.
template <class T, int Owns = 1, int Array = 0>
struct _TQRefPtr {
    using Count = _TQRefCount;
    static void End(T* object) noexcept {
        if constexpr (Owns && Array)
            delete[] object;
        else if constexpr (Owns)
            delete object;
    }
};

// For objects shared between threads: the count is changed by interlocked operations. The object guards
// itself.
template <class T, int Owns = 1, int Array = 0>
struct _TQRefThrPtr : _TQRefPtr<T, Owns, Array> {
    using Count = _TQRefThrCount;
};

// A pointer that shares its object with its copies; the object ends with the last of them, by the policy `P`.
// A pointer to a derived class converts to one to its base where both count in the same way, and the object
// still ends as what it was made. One pointer belongs to one thread at a time, whatever its policy.
//
// Failures: 5 (ERROR_ACCESS_DENIED) where a null pointer is followed, 14 (ERROR_OUTOFMEMORY) where there is
// no memory for the count.
template <class T, class P>
class TQSmartPtr {
  public:
    TQSmartPtr() noexcept = default;
    TQSmartPtr(std::nullptr_t) noexcept {}
    // Takes the object over, also where this throws: it is deleted then.
    explicit TQSmartPtr(T* object) : m_object(object), m_holder(object ? NewRecord(object) : nullptr) {}
    TQSmartPtr(const TQSmartPtr& other) noexcept = default;
    TQSmartPtr(TQSmartPtr&& other) noexcept
        : m_object(std::exchange(other.m_object, nullptr)), m_holder(std::move(other.m_holder)) {}
    template <class U, class Q>
    requires std::convertible_to<U*, T*> && std::same_as<typename P::Count, typename Q::Count> TQSmartPtr(
        TQSmartPtr<U, Q> other)
    noexcept : m_object(std::exchange(other.m_object, nullptr)), m_holder(std::move(other.m_holder)) {}
    TQSmartPtr& operator=(TQSmartPtr other) noexcept {
        Swap(other);
        return *this;
    }
    ~TQSmartPtr() = default;

    [[nodiscard]] T* Get() const noexcept { return m_object; }
    T& operator*() const { return *Followed(L"TQSmartPtr::operator*"); }
    T* operator->() const { return Followed(L"TQSmartPtr::operator->"); }
    explicit operator bool() const noexcept { return m_object != nullptr; }

    // Gives this pointer's share up.
    void Reset() noexcept { *this = TQSmartPtr(); }
    // Takes another object, as the constructor does; unchanged where that throws.
    void Reset(T* object) { *this = TQSmartPtr(object); }
    void Swap(TQSmartPtr& other) noexcept {
        std::swap(m_object, other.m_object);
        std::swap(m_holder, other.m_holder);
    }

    // How many pointers share the object, 0 for none. Other threads may change it at any time, except from 1.
    [[nodiscard]] ULONG UseCount() const noexcept { return m_holder.Holders(); }

  private:
    template <class U, class Q>
    friend class TQSmartPtr;

    struct Record : _TQRefRecord<typename P::Count> {
        explicit Record(T* held) noexcept : object(held) {}
        ~Record() override { P::End(object); }
        T* object;
    };

    [[nodiscard]] static Record* NewRecord(T* object) {
        auto* record = new (std::nothrow) Record(object);
        if (!record) {
            P::End(object);
            TQStdExceptions::ThrowMemAllocError(L"TQSmartPtr::TQSmartPtr");
        }
        return record;
    }

    [[nodiscard]] T* Followed(const wchar_t* where) const {
        if (!m_object) TQStdExceptions::ThrowAccessError(where);
        return m_object;
    }

    T* m_object = nullptr;
    _TQRefHolder<typename P::Count> m_holder;
};

// Pointers are equal when they point to the same object, and ordered by its address.
template <class T, class P>
bool operator==(const TQSmartPtr<T, P>& left, const TQSmartPtr<T, P>& right) noexcept {
    return left.Get() == right.Get();
}

template <class T, class P>
bool operator==(const TQSmartPtr<T, P>& left, std::nullptr_t) noexcept {
    return !left;
}

template <class T, class P>
std::strong_ordering operator<=>(const TQSmartPtr<T, P>& left, const TQSmartPtr<T, P>& right) noexcept {
    return std::compare_three_way()(left.Get(), right.Get());
}

// A smart pointer of type `S` as an element of a standard container: made from one without a word, used like
// one. It is ordered and hashed by the object's identity, never by its value, so an object may change while
// it is a key.
template <class S>
class TQSPtrCont {
  public:
    TQSPtrCont() noexcept = default;
    TQSPtrCont(S pointer) noexcept : m_pointer(std::move(pointer)) {}

    operator const S&() const noexcept { return m_pointer; }
    [[nodiscard]] const S& Ptr() const noexcept { return m_pointer; }
    [[nodiscard]] auto* Get() const noexcept { return m_pointer.Get(); }
    auto& operator*() const { return *m_pointer; }
    auto* operator->() const { return m_pointer.operator->(); }
    explicit operator bool() const noexcept { return static_cast<bool>(m_pointer); }

    friend bool operator==(const TQSPtrCont& left, const TQSPtrCont& right) noexcept = default;
    friend std::strong_ordering operator<=>(const TQSPtrCont& left,
                                            const TQSPtrCont& right) noexcept = default;

  private:
    S m_pointer;
};

}  // namespace Quellan::Corvel

template <class T, class P>
struct std::hash<Quellan::Corvel::TQSmartPtr<T, P>> {
    std::size_t operator()(const Quellan::Corvel::TQSmartPtr<T, P>& pointer) const noexcept {
        return std::hash<T*>()(pointer.Get());
    }
};

template <class S>
struct std::hash<Quellan::Corvel::TQSPtrCont<S>> {
    std::size_t operator()(const Quellan::Corvel::TQSPtrCont<S>& element) const noexcept {
        return std::hash<S>()(element.Ptr());
    }
};
