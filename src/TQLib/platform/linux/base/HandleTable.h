// Handles: numbers that name objects, checked on every use.
//
// A handle is the index of a slot and the slot's generation. Slots are never given back to the heap, so a
// handle that is stale, was closed or never was one is recognised without touching freed memory. A slot
// counts the calls that use its object; closing forbids further uses, and the last one to leave drops the
// object. Several handles may share one object, and code that needs the object beyond a call keeps a
// `shared_ptr` of its own.
#pragma once

#include "TQLib/platform/GenericRights.h"
#include "TQLib/platform/linux/base/Base.h"
#include "TQLib/platform/linux/base/Errors.h"
#include "TQLib/platform/linux/base/SignalWords.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>
#include <span>
#include <utility>

namespace Quellan::Platform {

// `access` with the rights that its generic ones and MAXIMUM_ALLOWED stand for in their place.
constexpr DWORD MapRights(const GenericRights& rights, DWORD access) noexcept {
    return MapGenericRights(rights, access & ~MAXIMUM_ALLOWED) | (access & MAXIMUM_ALLOWED ? rights.all : 0);
}

// What all objects of one kind have in common. Each kind is one constexpr record, told from the others by its
// address.
struct ObjectKind {
    const char* name;
    bool closedByCloseHandle;   // false: the kind has a closing call of its own
    bool waitable = false;      // whether its objects are of class Waitable
    GenericRights rights = {};  // none: handles of the kind are only duplicated as they are
    bool grantsNoMore = false;  // whether a duplicate grants at most what its source does
};

// The base of what a handle names. A derived class has its record as `static constexpr ObjectKind Kind`.
class Object {
  public:
    virtual ~Object();
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    const ObjectKind& KindOf() const noexcept { return m_kind; }
    // What a handle that grants `access` may do without the object.
    virtual SignalWay WayFor(DWORD) const noexcept { return {}; }

  protected:
    explicit Object(const ObjectKind& kind) noexcept : m_kind(kind) {}

  private:
    const ObjectKind& m_kind;
};

// Makes a handle that grants `access`. 1450 (ERROR_NO_SYSTEM_RESOURCES) when the table is full.
DWORD InsertHandle(std::shared_ptr<Object> object, DWORD access, HANDLE& handle) noexcept;

// Makes an object from `arguments` and its handle. 8 (ERROR_NOT_ENOUGH_MEMORY) when there is no memory.
template <class Body, class... Arguments>
DWORD NewHandle(HANDLE& handle, DWORD access, Arguments&&... arguments) noexcept {
    try {
        return InsertHandle(std::make_shared<Body>(std::forward<Arguments>(arguments)...), access, handle);
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}

struct HandleSlot;

// Keeps the object of a handle alive, whatever happens to the handle meanwhile. Empty when the handle is
// invalid.
class HandleUse {
  public:
    HandleUse() = default;
    explicit HandleUse(HANDLE handle) noexcept;
    HandleUse(HandleUse&& other) noexcept
        : m_slot(std::exchange(other.m_slot, nullptr)),
          m_handle(other.m_handle),
          m_object(std::exchange(other.m_object, nullptr)) {}
    HandleUse& operator=(HandleUse&& other) noexcept {
        std::swap(m_slot, other.m_slot);
        std::swap(m_handle, other.m_handle);
        std::swap(m_object, other.m_object);
        return *this;
    }
    ~HandleUse() {
        if (m_slot) End();
    }

    // Null when empty.
    Object* Get() const noexcept { return m_object; }
    // For an owner that outlives the call.
    std::shared_ptr<Object> Share() const noexcept;
    // What the handle grants; only when not empty.
    DWORD Access() const noexcept;

  private:
    void End() noexcept;

    HandleSlot* m_slot = nullptr;
    HANDLE m_handle = nullptr;
    Object* m_object = nullptr;
};

// The same for one kind: empty also when the handle names an object of another kind.
template <class Body>
class HandleRef {
  public:
    explicit HandleRef(HANDLE handle) noexcept : m_use(handle) {
        const Object* object = m_use.Get();
        if (object && &object->KindOf() != &Body::Kind) m_use = HandleUse();
    }

    explicit operator bool() const noexcept { return m_use.Get() != nullptr; }
    Body& operator*() const noexcept { return static_cast<Body&>(*m_use.Get()); }
    Body* operator->() const noexcept { return &**this; }
    DWORD Access() const noexcept { return m_use.Access(); }

  private:
    HandleUse m_use;
};

// A handle that named an object once. Whether it still does takes one look then; it never names another one.
class KnownHandle {
  public:
    KnownHandle() = default;
    explicit KnownHandle(HANDLE handle) noexcept;

    // Whether this is the handle, and it is open at this moment.
    bool IsOpen(HANDLE handle) const noexcept {
        return handle == m_handle && m_state &&
               m_state->load(std::memory_order_acquire) >> StateShift == m_open;
    }

  private:
    static constexpr unsigned StateShift = 31;  // without the users

    HANDLE m_handle = nullptr;
    const std::atomic<std::uint64_t>* m_state = nullptr;
    std::uint64_t m_open = 0;
};

// The way of a handle, which may be closed by now: changes are made by comparison with the tag.
SignalWay FindWay(HANDLE handle) noexcept;

// What is done on a handle's way by one change, if that is all there is to do.
enum class Step {
    Done,
    Nothing,  // it is not signalled
    Unclear,  // the object has to be used, or the handle is invalid
};
// Makes the value 1.
Step SetOnWay(HANDLE handle) noexcept;
// Takes what is signalled.
Step TakeOnWay(HANDLE handle) noexcept;

// What a look at several handles shows. It keeps no object alive and is over before the call returns.
enum class Sight {
    Nothing,    // none is signalled
    Signalled,  // the one at `index`, and none before it
    Unclear,    // one of them has to be looked at more closely, or is invalid
};
// At most MostLooks of them.
constexpr std::size_t MostLooks = 64;
Sight LookAt(std::span<const HANDLE> handles, std::size_t& index) noexcept;

// Closes a handle of one kind, or with null of any kind that CloseHandle closes. 0 or 6
// (ERROR_INVALID_HANDLE).
DWORD CloseHandleOf(HANDLE handle, const ObjectKind* kind) noexcept;

// (HANDLE)-1 and (HANDLE)-2 stand for the calling process and thread and are in no table.
inline bool IsPseudoHandle(HANDLE handle) noexcept {
    return reinterpret_cast<ULONG_PTR>(handle) >= ~ULONG_PTR{1};
}

}  // namespace Quellan::Platform
