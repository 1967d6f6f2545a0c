#include "TQLib/platform/linux/objects/Mutexes.h"

#include "TQLib/platform/linux/objects/ObjectCalls.h"

namespace Quellan::Platform {

namespace {

class Mutex : public Waitable {
  public:
    static constexpr ObjectKind Kind{.name = "mutex",
                                     .closedByCloseHandle = true,
                                     .waitable = true,
                                     .rights = {.read = READ_CONTROL | MUTEX_MODIFY_STATE,
                                                .write = READ_CONTROL,
                                                .execute = READ_CONTROL | SYNCHRONIZE,
                                                .all = MUTEX_ALL_ACCESS}};
    static constexpr SharedKind NamedAs = SharedKind::Mutex;

    Mutex() : Waitable(Kind, TakesOwnership, 0) {}
    explicit Mutex(std::unique_ptr<SharedObject> shared)
        : Waitable(Kind, TakesOwnership, std::move(shared)) {}
};

DWORD CreateUnnamed(bool owned, DWORD access, HANDLE& handle) {
    Waiter* const waiter = owned ? CurrentWaiter() : nullptr;
    if (owned && (!waiter || !waiter->MakeRoom(1))) return ERROR_NOT_ENOUGH_MEMORY;
    auto mutex = std::make_shared<Mutex>();
    if (owned) mutex->Own(*waiter);
    return InsertHandle(std::move(mutex), access, handle);
}

}  // namespace

HANDLE CreateMutexW(const SECURITY_ATTRIBUTES* attributes, BOOL initialOwner, const wchar_t* name) noexcept {
    if (DWORD code = FaultDue("CreateMutexW")) return Fail(code, HANDLE());
    const SharedSetup setup{.kind = SharedKind::Mutex, .owned = initialOwner != FALSE};
    return CreateObject<Mutex>(attributes, name, setup, MUTEX_ALL_ACCESS, [&](DWORD access, HANDLE& handle) {
        return WithMemory([&] { return CreateUnnamed(setup.owned, access, handle); });
    });
}

HANDLE OpenMutexW(DWORD access, BOOL inherit, const wchar_t* name) noexcept {
    if (DWORD code = FaultDue("OpenMutexW")) return Fail(code, HANDLE());
    return OpenObject<Mutex>(access, inherit, name);
}

BOOL ReleaseMutex(HANDLE mutex) noexcept {
    if (DWORD code = FaultDue("ReleaseMutex")) return Fail(code, FALSE);
    return ChangeObject<Mutex>(mutex, 0, [](Mutex& object) { return object.Release(); });
}

}  // namespace Quellan::Platform
