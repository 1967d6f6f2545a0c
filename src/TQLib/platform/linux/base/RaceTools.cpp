#include "TQLib/platform/RaceTools.h"

#include "TQLib/platform/Compiler.h"

#include <cstdint>

namespace Quellan::Platform {

// A program that was built for the thread sanitizer has these.
extern "C" {
TQ_MAY_BE_MISSING void __tsan_acquire(void* what);
TQ_MAY_BE_MISSING void __tsan_release(void* what);
}

namespace {

// What a program can ask of valgrind's helgrind; its other tools answer nothing.
enum class Request : std::uint64_t {
    CountKnown = 0x4847012E,  // of so many bytes, those that it knows
    Released = 0x48470121,
    Acquired = 0x48470122,
    Untracked = 0x48470127,
};

std::uint64_t Ask(Request request, const void* what, std::size_t second = 0, std::size_t third = 0) noexcept {
    return Compiler::AskValgrind(
        {static_cast<std::uint64_t>(request), reinterpret_cast<std::uint64_t>(what), second, third});
}

bool g_onHelgrind = false;

}  // namespace

bool g_hasRaceTool = false;

namespace {

// Before any lock of the library is made.
TQ_RUN_AT_LOAD void LookForRaceTools() noexcept {
    g_onHelgrind = Ask(Request::CountKnown, &g_onHelgrind, 0, sizeof g_onHelgrind) != 0;
    g_hasRaceTool = __tsan_acquire || g_onHelgrind;
}

}  // namespace

void TellToolReleased(const void* what) noexcept {
    if (__tsan_release) __tsan_release(const_cast<void*>(what));
    if (g_onHelgrind) Ask(Request::Released, what);
}

void TellToolAcquired(const void* what) noexcept {
    if (__tsan_acquire) __tsan_acquire(const_cast<void*>(what));
    if (g_onHelgrind) Ask(Request::Acquired, what);
}

void TellToolOwnMemory(const void* what, std::size_t size) noexcept {
    if (g_onHelgrind) Ask(Request::Untracked, what, size);
}

}  // namespace Quellan::Platform
