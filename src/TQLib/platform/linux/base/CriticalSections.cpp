#include "TQLib/platform/linux/base/CriticalSections.h"

#include "TQLib/platform/RaceTools.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/Futex.h"
#include "TQLib/platform/linux/base/LockWatch.h"
#include "TQLib/platform/linux/base/Process.h"

#include <unistd.h>

namespace Quellan::Platform {

namespace {

// The state of a section: its owner's name, and Contended where somebody may sleep for it.
constexpr std::uint32_t Free = 0;
constexpr std::uint32_t Contended = 1u << 31;

constexpr DWORD DefaultSpinCount = 100;

// A name is the thread's id and, above it, the generation of the process in which the thread got it: ids have
// 22 bits, as the kernel gives none that is higher. The thread that forks keeps its name in the child, where
// the other names of earlier generations are nobody's, and where its old id may come again.
constexpr unsigned GenerationShift = 22;
constexpr std::uint32_t Generations = 1u << (31 - GenerationShift);

TQ_THERE_WITH_THREAD constinit thread_local std::uint32_t t_name = 0;  // 0: none yet

// The name of the thread that made this process by a fork; written before the process has others.
constinit std::uint32_t g_forker = 0;

const ForkPart g_ownerForkPart(ForkOrder::Ids, nullptr, [](bool isChild) noexcept {
    if (isChild) g_forker = t_name;
});

std::uint32_t Generation() noexcept {
    return ForkGeneration() % Generations;
}

TQ_NOINLINE std::uint32_t NewName() noexcept {
    return t_name = GetCurrentThreadId() | Generation() << GenerationShift;
}

std::uint32_t Self() noexcept {
    const std::uint32_t name = t_name;
    return name != 0 ? name : NewName();
}

// Whether nobody is inside: the section is free, or its owner is no thread of this process.
bool IsFree(std::uint32_t state) noexcept {
    const std::uint32_t owner = state & ~Contended;
    return owner == 0 || (owner >> GenerationShift != Generation() && owner != g_forker);
}

// The structure is plain memory to its users; inside it the lock state is a word to sleep on.
Word& State(CRITICAL_SECTION& section) noexcept {
    static_assert(sizeof(Word) == sizeof section.LockState && alignof(Word) == alignof(DWORD));
    return reinterpret_cast<Word&>(section.LockState);
}

bool TryLock(Word& state, std::uint32_t& seen, std::uint32_t next) noexcept {
    return state.compare_exchange_strong(seen, next, std::memory_order_acquire, std::memory_order_relaxed);
}

// `seen` is what the state was found to be.
TQ_NOINLINE void LockContended(CRITICAL_SECTION& section, std::uint32_t seen) noexcept {
    Word& state = State(section);
    const std::uint32_t self = Self();
    for (DWORD i = 0; i < section.SpinCount; ++i) {
        if (seen == Free && TryLock(state, seen, self)) return;
        Compiler::Pause();
        seen = state.load(std::memory_order_relaxed);
    }
    for (;;) {
        // Whoever has slept cannot know whether he was the only one.
        if (IsFree(seen)) {
            if (TryLock(state, seen, self | Contended)) return;
        } else if (seen & Contended || TryLock(state, seen, seen | Contended)) {
            FutexWait(state, seen | Contended, Never, Reach::Process);
            seen = state.load(std::memory_order_relaxed);
        }
    }
}

void Entered(CRITICAL_SECTION& section) noexcept {
    section.RecursionCount = 1;
    TellAcquired(&section);
    if (section.Watched) EnteredWatchedLock();
}

}  // namespace

void InitializeCriticalSection(CRITICAL_SECTION* section) noexcept {
    *section = {.LockState = Free, .RecursionCount = 0, .SpinCount = DefaultSpinCount, .Watched = TRUE};
    TellOwnMemory(section, sizeof *section);
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
    std::uint32_t seen = Free;
    if (!TryLock(State(*section), seen, Self())) {
        if ((seen & ~Contended) == Self()) {
            ++section->RecursionCount;
            return;
        }
        LockContended(*section, seen);
    }
    Entered(*section);
}

BOOL TryEnterCriticalSection(CRITICAL_SECTION* section) noexcept {
    std::uint32_t seen = Free;
    while (!TryLock(State(*section), seen, Self())) {
        if ((seen & ~Contended) == Self()) {
            ++section->RecursionCount;
            return TRUE;
        }
        if (!IsFree(seen)) return FALSE;
    }
    Entered(*section);
    return TRUE;
}

void LeaveCriticalSection(CRITICAL_SECTION* section) noexcept {
    if (--section->RecursionCount != 0) return;
    if (section->Watched) LeftWatchedLock();
    TellReleased(section);
    Word& state = State(*section);
    if (state.exchange(Free, std::memory_order_release) & Contended) FutexWake(&state, 1, Reach::Process);
}

}  // namespace Quellan::Platform
