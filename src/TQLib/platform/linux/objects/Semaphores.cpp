#include "TQLib/platform/linux/objects/Semaphores.h"

#include "TQLib/platform/linux/objects/ObjectCalls.h"

namespace Quellan::Platform {

namespace {

class Semaphore : public Waitable {
  public:
    static constexpr ObjectKind Kind{.name = "semaphore",
                                     .closedByCloseHandle = true,
                                     .waitable = true,
                                     .rights = {.read = READ_CONTROL | 0x1,
                                                .write = READ_CONTROL | SEMAPHORE_MODIFY_STATE,
                                                .execute = READ_CONTROL | SYNCHRONIZE,
                                                .all = SEMAPHORE_ALL_ACCESS}};
    static constexpr SharedKind NamedAs = SharedKind::Semaphore;

    Semaphore(std::uint32_t value, std::uint32_t maximum)
        : Waitable(Kind, TakesOne, value), m_maximum(maximum) {}
    explicit Semaphore(std::unique_ptr<SharedObject> shared)
        : Waitable(Kind, TakesOne, std::move(shared)), m_maximum(0) {}

    // Of an object of this process alone.
    std::uint32_t Maximum() const noexcept { return m_maximum; }

  private:
    const std::uint32_t m_maximum;
};

}  // namespace

HANDLE CreateSemaphoreW(const SECURITY_ATTRIBUTES* attributes, LONG initialCount, LONG maximumCount,
                        const wchar_t* name) noexcept {
    if (DWORD code = FaultDue("CreateSemaphoreW")) return Fail(code, HANDLE());
    if (initialCount < 0 || maximumCount <= 0 || initialCount > maximumCount)
        return Fail(ERROR_INVALID_PARAMETER, HANDLE());
    const SharedSetup setup{.kind = SharedKind::Semaphore,
                            .value = static_cast<std::uint32_t>(initialCount),
                            .maximum = static_cast<std::uint32_t>(maximumCount)};
    return CreateObject<Semaphore>(
        attributes, name, setup, SEMAPHORE_ALL_ACCESS, [&](DWORD access, HANDLE& handle) {
            return NewHandle<Semaphore>(handle, access, setup.value, setup.maximum);
        });
}

HANDLE OpenSemaphoreW(DWORD access, BOOL inherit, const wchar_t* name) noexcept {
    if (DWORD code = FaultDue("OpenSemaphoreW")) return Fail(code, HANDLE());
    return OpenObject<Semaphore>(access, inherit, name);
}

BOOL ReleaseSemaphore(HANDLE semaphore, LONG count, LONG* previousCount) noexcept {
    if (DWORD code = FaultDue("ReleaseSemaphore")) return Fail(code, FALSE);
    return ChangeObject<Semaphore>(semaphore, SEMAPHORE_MODIFY_STATE, [&](Semaphore& object) -> DWORD {
        if (count <= 0) return ERROR_INVALID_PARAMETER;
        return object.Add(static_cast<std::uint32_t>(count), object.Maximum(), previousCount);
    });
}

}  // namespace Quellan::Platform
