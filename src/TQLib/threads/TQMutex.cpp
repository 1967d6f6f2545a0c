#include "TQLib/threads/TQMutex.h"

#include "TQLib/core/internal/About.h"
#include "TQLib/core/internal/Insist.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/threads/internal/WaitFailure.h"

#include <algorithm>
#include <array>

namespace Quellan::Corvel {

namespace {

TQUniqueHandle<_TQKernelHandleClose> OpenedMutex(const wchar_t* name) {
    TQUniqueHandle<_TQKernelHandleClose> mutex(CreateMutexW(nullptr, FALSE, name));
    if (!mutex) About(name, [] { TQSysException::ThrowLastError(L"Attempt to open mutex object failed."); });
    return mutex;
}

}  // namespace

// One acquisition. It is made before the wait, so that no acquired mutex is left behind where there is no
// memory.
class _TQMutexLockImpl {
  public:
    explicit _TQMutexLockImpl(const TQMutex& mutex) : m_mutex(mutex) {}
    _TQMutexLockImpl(const _TQMutexLockImpl&) = delete;
    _TQMutexLockImpl& operator=(const _TQMutexLockImpl&) = delete;
    ~_TQMutexLockImpl() {
        if (!m_isAcquired) return;
        const _TQLastErrorKeeper keeper;
        Insist([this] { return ReleaseMutex(m_mutex.Handle()) || GetLastError() == ERROR_NOT_OWNER; });
    }

    void SetAcquired() noexcept { m_isAcquired = true; }

  private:
    const TQMutex m_mutex;
    bool m_isAcquired = false;
};

TQMutex::TQMutex() : TQSynchObj(OpenedMutex(nullptr)) {}

TQMutex::TQMutex(const wchar_t* name, bool global)
    : TQSynchObj(OpenedMutex(name ? KernelObjectName(name, global).c_str() : nullptr)) {}

TQMutex::TQMutexLock TQMutex::Acquire(DWORD ms) const {
    return TQMutexLock(*this, ms);
}

DWORD TQMutex::Acquire(TQMutexLock& lock, DWORD ms, void* const* extraHandles, DWORD extraCount) const {
    return Acquire(lock, false, ms, extraHandles, extraCount);
}

DWORD TQMutex::Acquire(TQMutexLock& lock, bool waitAll, DWORD ms, void* const* extraHandles,
                       DWORD extraCount) const {
    std::array<HANDLE, MAXIMUM_WAIT_OBJECTS> handles;
    if (extraCount >= handles.size() || (extraCount != 0 && !extraHandles))
        throw TQException(ERROR_INVALID_PARAMETER, WaitFailed);
    handles[0] = Handle();
    std::copy_n(extraHandles, extraCount, handles.begin() + 1);

    auto* const impl = new (std::nothrow) _TQMutexLockImpl(*this);
    if (!impl) TQStdExceptions::ThrowMemAllocError(L"TQMutex::Acquire");
    const TQMutexLock::Impl acquisition(impl);

    const DWORD count = extraCount + 1;
    DWORD result = WaitForMultipleObjects(count, handles.data(), waitAll, ms);
    if (result == WAIT_FAILED) TQSysException::ThrowLastError(WaitFailed);
    if (result >= WAIT_ABANDONED_0 && result < WAIT_ABANDONED_0 + count) result -= WAIT_ABANDONED_0;
    // A wait for all tells one index where a mutex was abandoned, which says nothing of the others.
    if (waitAll && result != WAIT_TIMEOUT) result = 0;
    if (result == 0) impl->SetAcquired();
    lock.m_impl = result == 0 ? acquisition : nullptr;
    return result;
}

void TQMutex::Release() const {
    if (!ReleaseMutex(Handle())) TQSysException::ThrowLastError(L"TQMutex::Release");
}

TQMutex::TQMutexLock::TQMutexLock() noexcept = default;

TQMutex::TQMutexLock::TQMutexLock(const TQMutex& mutex, DWORD ms) {
    static_cast<void>(mutex.Acquire(*this, ms, nullptr, 0));
}

TQMutex::TQMutexLock::TQMutexLock(const TQMutex& mutex, DWORD ms, void* const* extraHandles, DWORD extraCount,
                                  DWORD& result) {
    result = mutex.Acquire(*this, ms, extraHandles, extraCount);
}

TQMutex::TQMutexLock::TQMutexLock(const TQMutex& mutex, bool waitAll, DWORD ms, void* const* extraHandles,
                                  DWORD extraCount, DWORD& result) {
    result = mutex.Acquire(*this, waitAll, ms, extraHandles, extraCount);
}

TQMutex::TQMutexLock::TQMutexLock(const TQMutexLock&) noexcept = default;
TQMutex::TQMutexLock::TQMutexLock(TQMutexLock&&) noexcept = default;
TQMutex::TQMutexLock& TQMutex::TQMutexLock::operator=(const TQMutexLock&) noexcept = default;
TQMutex::TQMutexLock& TQMutex::TQMutexLock::operator=(TQMutexLock&&) noexcept = default;
TQMutex::TQMutexLock::~TQMutexLock() = default;

}  // namespace Quellan::Corvel
