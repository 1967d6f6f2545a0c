#include "TQLib/threads/TQSignalLockSynch.h"

#include "TQLib/core/TQException.h"
#include "TQLib/core/internal/Insist.h"
#include "TQLib/log/time/TQTimer.h"

#include <new>

namespace Quellan::Corvel {

TQSignalThreadLock::TQSignalThreadLock(TQThreadSynch& lock) : m_guard(lock) {}

TQSignalThreadLock::~TQSignalThreadLock() = default;

TQSignalLockSynch::TQSignalLockSynch(TQThreadSynch& lock, bool isSet)
    : m_lock(lock), m_isSet(isSet), m_signal(nullptr, false, true, isSet) {}

TQSignalLockSynch::~TQSignalLockSynch() = default;

void TQSignalLockSynch::Set() {
    {
        const TQThreadSynch::TQSynchLock guard(m_flagLock);
        m_isSet = true;
    }
    SetSurely(m_signal.Handle());
}

void TQSignalLockSynch::Clear() {
    const TQThreadSynch::TQSynchLock guard(m_flagLock);
    m_signal.Reset();
    m_isSet = false;
}

bool TQSignalLockSynch::IsSet() const {
    const TQThreadSynch::TQSynchLock guard(m_flagLock);
    return m_isSet;
}

TQSignalLockSynch::LockPtr TQSignalLockSynch::GetLock(DWORD ms) {
    const TQCountdownTimer timer(ms);
    while (m_signal.Wait(timer.Remaining())) {
        LockPtr lock = NewLock();
        if (IsStillSet()) return lock;
    }
    return {};
}

// The event may have been set late, when the flag had been cleared again.
bool TQSignalLockSynch::IsStillSet() {
    const TQThreadSynch::TQSynchLock guard(m_flagLock);
    if (!m_isSet) m_signal.Reset();
    return m_isSet;
}

TQSignalLockSynch::LockPtr TQSignalLockSynch::NewLock() {
    constexpr const wchar_t* where = L"Allocation of signaled thread lock object failed";
    auto* const lock = new (std::nothrow) TQSignalThreadLock(m_lock);
    if (!lock) TQStdExceptions::ThrowMemAllocError(where);
    try {
        return LockPtr(lock);
    } catch (const TQException&) {
        TQStdExceptions::ThrowMemAllocError(where);
    }
}

}  // namespace Quellan::Corvel
