#include "platform/linux/CriticalSections.h"

#include "platform/linux/internal/Fail.h"
#include "platform/linux/internal/FaultPoint.h"
#include "platform/linux/internal/Futex.h"
#include "platform/linux/internal/LockWatch.h"

using namespace Quellan::Corvel::Platform;

namespace {

constexpr DWORD Free = 0;
constexpr DWORD Locked = 1;
constexpr DWORD Contended = 2;

constexpr DWORD DefaultSpinCount = 100;

// Its address tells threads apart more cheaply than their ids.
[[gnu::tls_model("initial-exec")]] constinit thread_local char t_self = 0;

ULONG_PTR Self() noexcept {
    return reinterpret_cast<ULONG_PTR>(&t_self);
}

// The structure is plain memory to its users; inside it the lock state is a word to sleep on.
Word& State(CRITICAL_SECTION& section) noexcept {
    static_assert(sizeof(Word) == sizeof section.LockState && alignof(Word) == alignof(DWORD));
    return reinterpret_cast<Word&>(section.LockState);
}

std::atomic_ref<ULONG_PTR> Owner(CRITICAL_SECTION& section) noexcept {
    return std::atomic_ref(section.OwningThread);
}

bool TryLock(Word& state) noexcept {
    std::uint32_t free = Free;
    return state.compare_exchange_strong(free, Locked, std::memory_order_acquire, std::memory_order_relaxed);
}

[[gnu::noinline]] void LockContended(CRITICAL_SECTION& section) noexcept {
    Word& state = State(section);
    for (DWORD i = 0; i < section.SpinCount; ++i) {
        if (state.load(std::memory_order_relaxed) == Free && TryLock(state)) return;
        CpuPause();
    }
    while (state.exchange(Contended, std::memory_order_acquire) != Free)
        FutexWait(state, Contended, Never, Reach::Process);
}

void Entered(CRITICAL_SECTION& section) noexcept {
    Owner(section).store(Self(), std::memory_order_relaxed);
    section.RecursionCount = 1;
    if (section.Watched) EnteredWatchedLock();
}

bool EnterAgain(CRITICAL_SECTION& section) noexcept {
    if (Owner(section).load(std::memory_order_relaxed) != Self()) return false;
    ++section.RecursionCount;
    return true;
}

}  // namespace

void InitializeCriticalSection(CRITICAL_SECTION* section) noexcept {
    *section = {.LockState = Free,
                .RecursionCount = 0,
                .OwningThread = 0,
                .SpinCount = DefaultSpinCount,
                .Watched = TRUE};
}

BOOL InitializeCriticalSectionAndSpinCount(CRITICAL_SECTION* section, DWORD spinCount) noexcept {
    return InitializeCriticalSectionEx(section, spinCount, 0);
}

BOOL InitializeCriticalSectionEx(CRITICAL_SECTION* section, DWORD spinCount, DWORD flags) noexcept {
    if (DWORD code = FaultDue("InitializeCriticalSectionEx")) return Fail(code, FALSE);
    if (flags & ~CRITICAL_SECTION_NO_DEBUG_INFO) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    InitializeCriticalSection(section);
    section->SpinCount = spinCount;
    if (flags & CRITICAL_SECTION_NO_DEBUG_INFO) section->Watched = FALSE;
    return TRUE;
}

void DeleteCriticalSection(CRITICAL_SECTION* section) noexcept {
    *section = {};
}

void EnterCriticalSection(CRITICAL_SECTION* section) noexcept {
    if (EnterAgain(*section)) return;
    if (!TryLock(State(*section))) LockContended(*section);
    Entered(*section);
}

BOOL TryEnterCriticalSection(CRITICAL_SECTION* section) noexcept {
    if (EnterAgain(*section)) return TRUE;
    if (!TryLock(State(*section))) return FALSE;
    Entered(*section);
    return TRUE;
}

void LeaveCriticalSection(CRITICAL_SECTION* section) noexcept {
    if (--section->RecursionCount != 0) return;
    if (section->Watched) LeftWatchedLock();
    Owner(*section).store(0, std::memory_order_relaxed);
    Word& state = State(*section);
    if (state.exchange(Free, std::memory_order_release) == Contended) FutexWake(&state, 1, Reach::Process);
}
