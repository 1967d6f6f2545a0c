// Reference-counted pointers.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/text/memory/TQStdExceptions.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <algorithm>
#include <atomic>
#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <limits>
#include <memory>
#include <memory_resource>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace Quellan::Corvel {

// The count of holders that all belong to one thread.
class _TQRefCount {
  public:
    explicit _TQRefCount(ULONG holders = 1) noexcept : m_holders(holders) {}
    void Add() noexcept { ++m_holders; }
    // False, and nothing added, where there is no holder left.
    [[nodiscard]] bool AddToSome() noexcept {
        if (m_holders != 0) ++m_holders;
        return m_holders != 0;
    }
    // True for the last holder.
    bool Drop() noexcept { return --m_holders == 0; }
    [[nodiscard]] ULONG Holders() const noexcept { return m_holders; }

  private:
    ULONG m_holders;
};

// The count of holders on several threads.
class _TQRefThrCount {
  public:
    explicit _TQRefThrCount(ULONG holders = 1) noexcept : m_holders(holders) {}
    // Orders nothing: a new holder is made from one that already has the right to the thing.
    void Add() noexcept { m_holders.fetch_add(1, std::memory_order_relaxed); }
    // The same, where somebody who watches may come after the last holder.
    [[nodiscard]] bool AddToSome() noexcept {
        ULONG holders = m_holders.load(std::memory_order_relaxed);
        while (holders != 0 &&
               !m_holders.compare_exchange_weak(holders, holders + 1, std::memory_order_relaxed)) {
        }
        return holders != 0;
    }
    // The last holder sees all that the others did before they went.
    TQLIB_API bool Drop() noexcept;
    [[nodiscard]] ULONG Holders() const noexcept { return m_holders.load(std::memory_order_acquire); }

  private:
    std::atomic<ULONG> m_holders;
};

// One shared thing: its count, and in a derived record its end.
template <class Count>
struct _TQRefRecord {
    _TQRefRecord() noexcept = default;
    _TQRefRecord(const _TQRefRecord&) = delete;
    _TQRefRecord& operator=(const _TQRefRecord&) = delete;
    // The last holder has gone. Nobody touches the record after this, unless the derived one has others than
    // its holders.
    virtual void EndWithLast() noexcept = 0;
    Count count;

  protected:
    ~_TQRefRecord() = default;
};

// One holder of a shared thing, or of nothing. Different holders may be used by different threads where
// `Count` is `_TQRefThrCount`; one holder belongs to one thread at a time.
template <class Count>
class _TQRefHolder {
  public:
    _TQRefHolder() noexcept = default;
    // Takes over a share that the record counts already, as every new one does its first.
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
        if (m_record && m_record->count.Drop()) m_record->EndWithLast();
    }

    [[nodiscard]] ULONG Holders() const noexcept { return m_record ? m_record->count.Holders() : 0; }
    [[nodiscard]] _TQRefRecord<Count>* Record() const noexcept { return m_record; }

  private:
    _TQRefRecord<Count>* m_record = nullptr;
};

// The record of an object that may also be watched: it outlives its object for as long as somebody watches.
template <class Count>
class _TQWatchedRecord : public _TQRefRecord<Count> {
  public:
    void Watch() noexcept { m_watchers.Add(); }
    void Unwatch() noexcept {
        if (m_watchers.Drop()) Free();
    }
    void EndWithLast() noexcept final {
        EndObject();
        Unwatch();
    }

  protected:
    ~_TQWatchedRecord() = default;

  private:
    virtual void EndObject() noexcept = 0;
    // The record's memory.
    virtual void Free() noexcept = 0;

    Count m_watchers;  // all holders together are one
};

// The record of an object that something else made, which knows how to end it.
template <class Count, class Owner>
class _TQTakenRecord final : public _TQWatchedRecord<Count> {
  public:
    explicit _TQTakenRecord(Owner&& owner) noexcept : m_owner(std::move(owner)) {}

  private:
    void EndObject() noexcept override { m_owner.reset(); }
    void Free() noexcept override { delete this; }

    Owner m_owner;
};

// Memory for any alignment: of `resource`, or where that is null of operator new.
class _TQRecordMemory {
  public:
    explicit _TQRecordMemory(std::pmr::memory_resource* resource) noexcept : m_resource(resource) {}
    [[nodiscard]] void* Allocate(std::size_t bytes, std::size_t alignment) const {
        if (m_resource) return m_resource->allocate(bytes, alignment);
        if (alignment > __STDCPP_DEFAULT_NEW_ALIGNMENT__)
            return ::operator new(bytes, std::align_val_t(alignment));
        return ::operator new(bytes);
    }
    void Release(void* block, std::size_t bytes, std::size_t alignment) const noexcept {
        if (m_resource)
            m_resource->deallocate(block, bytes, alignment);
        else if (alignment > __STDCPP_DEFAULT_NEW_ALIGNMENT__)
            ::operator delete(block, std::align_val_t(alignment));
        else
            ::operator delete(block);
    }

  private:
    std::pmr::memory_resource* m_resource;
};

// The record of objects that lie behind it in the same block.
template <class Count, class T>
class _TQMadeRecord final : public _TQWatchedRecord<Count> {
  public:
    // `construct` makes `size` objects in the memory that it is given. What it throws is passed on.
    template <class Construct>
    [[nodiscard]] static _TQMadeRecord* New(_TQRecordMemory memory, std::size_t size, Construct construct) {
        if (size > (std::numeric_limits<std::ptrdiff_t>::max() - Offset()) / sizeof(T))
            throw std::length_error("_TQMadeRecord::New");
        void* const block = memory.Allocate(BlockSize(size), Alignment());
        try {
            construct(reinterpret_cast<T*>(static_cast<std::byte*>(block) + Offset()));
        } catch (...) {
            memory.Release(block, BlockSize(size), Alignment());
            throw;
        }
        return ::new (block) _TQMadeRecord(memory, size);
    }

    [[nodiscard]] T* Objects() noexcept {
        return std::launder(reinterpret_cast<T*>(reinterpret_cast<std::byte*>(this) + Offset()));
    }

  private:
    _TQMadeRecord(_TQRecordMemory memory, std::size_t size) noexcept : m_memory(memory), m_size(size) {}
    ~_TQMadeRecord() = default;

    static constexpr std::size_t Alignment() noexcept { return std::max(alignof(_TQMadeRecord), alignof(T)); }
    static constexpr std::size_t Offset() noexcept {
        return (sizeof(_TQMadeRecord) + alignof(T) - 1) / alignof(T) * alignof(T);
    }
    static constexpr std::size_t BlockSize(std::size_t size) noexcept { return Offset() + size * sizeof(T); }

    void EndObject() noexcept override { std::destroy_n(Objects(), m_size); }
    void Free() noexcept override {
        const _TQRecordMemory memory = m_memory;
        const std::size_t bytes = BlockSize(m_size);
        this->~_TQMadeRecord();
        memory.Release(this, bytes, Alignment());
    }

    const _TQRecordMemory m_memory;
    const std::size_t m_size;
};

// The two policies of `TQSmartPtr`. `Owns` tells whether the last holder deletes the object (1) or leaves it
// alone (0: the object must outlive all holders); `Array` whether it was made by new (0) or by new[] (1).

// For holders that all belong to one thread.
template <class T, int Owns = 1, int Array = 0>
struct _TQRefPtr {
    using Count = _TQRefCount;
    // The same policy for another class.
    template <class U>
    using For = _TQRefPtr<U, Owns, Array>;
    static constexpr bool IsOwner = Owns != 0, IsArray = Array != 0;
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
    template <class U>
    using For = _TQRefThrPtr<U, Owns, Array>;
};

// A pointer that shares its object with its copies; the object ends with the last of them, by the policy `P`.
// A pointer to a derived class converts to one to its base where both count in the same way, and the object
// still ends as what it was made. One pointer belongs to one thread at a time, whatever its policy.
//
// Failures: 5 (ERROR_ACCESS_DENIED) where a null pointer is followed, 14 (ERROR_OUTOFMEMORY) where there is
// no memory for the count or the object, 111 (ERROR_BUFFER_OVERFLOW) for more elements than there can be.
template <class T, class P>
class TQSmartPtr {
  public:
    using element_type = T;
    using Policy = P;

    TQSmartPtr() noexcept = default;
    TQSmartPtr(std::nullptr_t) noexcept {}
    // Takes the object over, also where this throws: it is deleted then.
    explicit TQSmartPtr(T* object) : m_object(object), m_holder(object ? NewRecord(object) : nullptr) {}
    // Takes the object over with the way in which `owner` ends it. Where this throws `owner` keeps it.
    template <class U, class D>
    requires std::convertible_to<typename std::unique_ptr<U, D>::pointer, T*> explicit TQSmartPtr(
        std::unique_ptr<U, D>&& owner)
        : m_object(owner.get()), m_holder(owner ? NewTaken(owner) : nullptr) {}
    TQSmartPtr(const TQSmartPtr& other) noexcept = default;
    TQSmartPtr(TQSmartPtr&& other) noexcept
        : m_object(std::exchange(other.m_object, nullptr)), m_holder(std::move(other.m_holder)) {}
    template <class U, class Q>
    requires std::convertible_to<U*, T*> && std::same_as<typename P::Count, typename Q::Count> TQSmartPtr(
        TQSmartPtr<U, Q> other)
    noexcept : m_object(std::exchange(other.m_object, nullptr)), m_holder(std::move(other.m_holder)) {}
    // Points to `part` and keeps alive what `owner` does, which `part` belongs to.
    template <class U, class Q>
    requires std::same_as<typename P::Count, typename Q::Count> TQSmartPtr(TQSmartPtr<U, Q> owner, T* part)
    noexcept : m_object(part), m_holder(std::move(owner.m_holder)) {}
    TQSmartPtr& operator=(TQSmartPtr other) noexcept {
        Swap(other);
        return *this;
    }
    ~TQSmartPtr() = default;

    // Makes an object, whose constructor gets `arguments`, and its count in one piece of memory: of operator
    // new, or of `memory`, which must outlive all pointers to it, weak ones too. What the constructor throws is
    // passed on, but for std::bad_alloc, which is 14.
    template <class... A>
    [[nodiscard]] static TQSmartPtr Make(A&&... arguments) requires(P::IsOwner && !P::IsArray) {
        return MadeOne(nullptr, std::forward<A>(arguments)...);
    }
    template <class... A>
    [[nodiscard]] static TQSmartPtr MakeIn(std::pmr::memory_resource& memory,
                                           A&&... arguments) requires(P::IsOwner && !P::IsArray) {
        return MadeOne(&memory, std::forward<A>(arguments)...);
    }
    // The same for an array of `count` objects made without arguments, numbers of zero.
    [[nodiscard]] static TQSmartPtr MakeArray(std::size_t count) requires(P::IsOwner&& P::IsArray) {
        return MadeArray(nullptr, count);
    }
    [[nodiscard]] static TQSmartPtr MakeArrayIn(std::pmr::memory_resource& memory,
                                                std::size_t count) requires(P::IsOwner&& P::IsArray) {
        return MadeArray(&memory, count);
    }

    [[nodiscard]] T* Get() const noexcept { return m_object; }
    T& operator*() const { return *Followed(L"TQSmartPtr::operator*"); }
    T* operator->() const { return Followed(L"TQSmartPtr::operator->"); }
    // An element of an array, unchecked but for null.
    T& operator[](std::size_t index) const requires(P::IsArray) {
        return Followed(L"TQSmartPtr::operator[]")[index];
    }
    explicit operator bool() const noexcept { return m_object != nullptr; }

    // The same object as another class, with a share of its own: `StaticCast` where the caller knows that it is
    // one, `DynamicCast` null where it isn't, `ConstCast` to change it.
    template <class U>
    [[nodiscard]] auto StaticCast() const noexcept {
        return CastTo(static_cast<U*>(m_object));
    }
    template <class U>
    [[nodiscard]] auto DynamicCast() const noexcept {
        return CastTo(dynamic_cast<U*>(m_object));
    }
    template <class U>
    [[nodiscard]] auto ConstCast() const noexcept {
        return CastTo(const_cast<U*>(m_object));
    }

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
    template <class U, class Q>
    friend class TQWeakPtr;

    using Count = typename P::Count;
    using Object = std::remove_cv_t<T>;
    using MadeRecord = _TQMadeRecord<Count, Object>;
    struct Ending {
        void operator()(T* object) const noexcept { P::End(object); }
    };

    TQSmartPtr(T* object, _TQRefHolder<Count>&& holder) noexcept
        : m_object(object), m_holder(std::move(holder)) {}

    // The object ends where this throws.
    [[nodiscard]] static _TQWatchedRecord<Count>* NewRecord(T* object) {
        std::unique_ptr<T, Ending> owner(object);
        return NewTaken(owner);
    }
    template <class Owner>
    [[nodiscard]] static _TQWatchedRecord<Count>* NewTaken(Owner& owner) {
        auto* const record = new (std::nothrow) _TQTakenRecord<Count, Owner>(std::move(owner));
        if (!record) TQStdExceptions::ThrowMemAllocError(L"TQSmartPtr::TQSmartPtr");
        return record;
    }
    template <class... A>
    [[nodiscard]] static TQSmartPtr MadeOne(std::pmr::memory_resource* memory, A&&... arguments) {
        return Translated(L"TQSmartPtr::Make", [&] {
            return FromMade(MadeRecord::New(_TQRecordMemory(memory), 1, [&](Object* place) {
                ::new (static_cast<void*>(place)) Object(std::forward<A>(arguments)...);
            }));
        });
    }
    [[nodiscard]] static TQSmartPtr MadeArray(std::pmr::memory_resource* memory, std::size_t count) {
        return Translated(L"TQSmartPtr::MakeArray", [&] {
            return FromMade(MadeRecord::New(_TQRecordMemory(memory), count, [&](Object* place) {
                std::uninitialized_value_construct_n(place, count);
            }));
        });
    }
    [[nodiscard]] static TQSmartPtr FromMade(MadeRecord* record) noexcept {
        return {record->Objects(), _TQRefHolder<Count>(record)};
    }
    template <class U>
    [[nodiscard]] TQSmartPtr<U, typename P::template For<U>> CastTo(U* object) const noexcept {
        if (!object) return {};
        return {object, _TQRefHolder<Count>(m_holder)};
    }

    [[nodiscard]] T* Followed(const wchar_t* where) const {
        if (!m_object) TQStdExceptions::ThrowAccessError(where);
        return m_object;
    }

    T* m_object = nullptr;
    _TQRefHolder<Count> m_holder;
};

// Watches an object that smart pointers share, without keeping it alive. It keeps the memory of the count,
// which is the object's as well where `Make` made it. One of them belongs to one thread at a time; where the
// policy counts for several threads the last pointer may go on another one meanwhile.
template <class T, class P>
class TQWeakPtr {
  public:
    TQWeakPtr() noexcept = default;
    template <class U, class Q>
    requires std::convertible_to<U*, T*> && std::same_as<typename P::Count, typename Q::Count> TQWeakPtr(
        const TQSmartPtr<U, Q>& pointer)
    noexcept : TQWeakPtr(pointer.m_object, pointer.m_holder.Record()) {}
    TQWeakPtr(const TQWeakPtr& other) noexcept : TQWeakPtr(other.m_object, other.m_record) {}
    TQWeakPtr(TQWeakPtr&& other) noexcept
        : m_object(std::exchange(other.m_object, nullptr)),
          m_record(std::exchange(other.m_record, nullptr)) {}
    TQWeakPtr& operator=(TQWeakPtr other) noexcept {
        Swap(other);
        return *this;
    }
    ~TQWeakPtr() {
        if (m_record) m_record->Unwatch();
    }

    // A pointer to the object, null where it has ended.
    [[nodiscard]] TQSmartPtr<T, P> Lock() const noexcept {
        if (!m_record || !m_record->count.AddToSome()) return {};
        return {m_object, _TQRefHolder<typename P::Count>(m_record)};
    }
    // Whether it has ended, or there never was one; once so, for ever.
    [[nodiscard]] bool IsExpired() const noexcept { return UseCount() == 0; }
    // As `TQSmartPtr::UseCount`; weak pointers do not count.
    [[nodiscard]] ULONG UseCount() const noexcept { return m_record ? m_record->count.Holders() : 0; }

    void Reset() noexcept { *this = TQWeakPtr(); }
    void Swap(TQWeakPtr& other) noexcept {
        std::swap(m_object, other.m_object);
        std::swap(m_record, other.m_record);
    }

    // By what they watch, whether it has ended or not: pointers to parts of one object are equal.
    friend bool operator==(const TQWeakPtr& left, const TQWeakPtr& right) noexcept {
        return left.m_record == right.m_record;
    }
    friend std::strong_ordering operator<=>(const TQWeakPtr& left, const TQWeakPtr& right) noexcept {
        return std::compare_three_way()(left.m_record, right.m_record);
    }

  private:
    friend struct std::hash<TQWeakPtr>;
    using Record = _TQWatchedRecord<typename P::Count>;

    TQWeakPtr(T* object, _TQRefRecord<typename P::Count>* record) noexcept
        : m_object(object), m_record(static_cast<Record*>(record)) {
        if (m_record) m_record->Watch();
    }

    T* m_object = nullptr;
    Record* m_record = nullptr;
};

// Pointers are equal when they point to the same object, and ordered by its address.
template <class T, class P, class U, class Q>
bool operator==(const TQSmartPtr<T, P>& left, const TQSmartPtr<U, Q>& right) noexcept {
    return left.Get() == right.Get();
}

template <class T, class P>
bool operator==(const TQSmartPtr<T, P>& left, const std::type_identity_t<T>* right) noexcept {
    return left.Get() == right;
}

template <class T, class P>
bool operator==(const TQSmartPtr<T, P>& left, std::nullptr_t) noexcept {
    return !left;
}

template <class T, class P, class U, class Q>
std::strong_ordering operator<=>(const TQSmartPtr<T, P>& left, const TQSmartPtr<U, Q>& right) noexcept {
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

template <class T, class P>
struct std::hash<Quellan::Corvel::TQWeakPtr<T, P>> {
    std::size_t operator()(const Quellan::Corvel::TQWeakPtr<T, P>& pointer) const noexcept {
        return std::hash<const void*>()(pointer.m_record);
    }
};

template <class S>
struct std::hash<Quellan::Corvel::TQSPtrCont<S>> {
    std::size_t operator()(const Quellan::Corvel::TQSPtrCont<S>& element) const noexcept {
        return std::hash<S>()(element.Ptr());
    }
};
