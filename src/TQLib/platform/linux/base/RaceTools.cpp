#include "TQLib/platform/RaceTools.h"

#include <cstdint>

namespace Quellan::Platform {

// A program that was built for the thread sanitizer has these.
extern "C" {
[[gnu::weak]] void __tsan_acquire(void* what);
[[gnu::weak]] void __tsan_release(void* what);
}

namespace {

// What a program can ask of valgrind, and of its tool helgrind.
enum class Request : std::uint64_t {
    IsThere = 0x1001,  // 1 on valgrind
    Released = 0x48470121,
    Acquired = 0x48470122,
    Untracked = 0x48470127,
};

// Instructions that do nothing, in an order that no compiler makes: valgrind takes them for a request. 0 from
// anything else.
std::uint64_t Ask(Request request, const void* what, std::size_t size = 0) noexcept {
    const volatile std::uint64_t arguments[6] = {static_cast<std::uint64_t>(request),
                                                 reinterpret_cast<std::uint64_t>(what), size};
#if defined(__x86_64__)
    std::uint64_t answer = 0;
    asm volatile("rolq $3, %%rdi; rolq $13, %%rdi; rolq $61, %%rdi; rolq $51, %%rdi; xchgq %%rbx, %%rbx"
                 : "+d"(answer)
                 : "a"(&arguments[0])
                 : "cc", "memory");
    return answer;
#elif defined(__aarch64__)
    register std::uint64_t answer asm("x3") = 0;
    register const volatile std::uint64_t* asked asm("x4") = &arguments[0];
    asm volatile(
        "ror x12, x12, #3; ror x12, x12, #13; ror x12, x12, #51; ror x12, x12, #61; orr x10, x10, x10"
        : "+r"(answer)
        : "r"(asked)
        : "cc", "memory");
    return answer;
#else
    static_cast<void>(arguments);
    return 0;
#endif
}

bool g_onValgrind = false;

}  // namespace

bool g_hasRaceTool = false;

namespace {

// Before any lock of the library is made.
[[gnu::constructor(101)]] void LookForRaceTools() noexcept {
    g_onValgrind = Ask(Request::IsThere, nullptr) != 0;
    g_hasRaceTool = __tsan_acquire || g_onValgrind;
}

}  // namespace

void TellToolReleased(const void* what) noexcept {
    if (__tsan_release) __tsan_release(const_cast<void*>(what));
    if (g_onValgrind) Ask(Request::Released, what);
}

void TellToolAcquired(const void* what) noexcept {
    if (__tsan_acquire) __tsan_acquire(const_cast<void*>(what));
    if (g_onValgrind) Ask(Request::Acquired, what);
}

void TellToolOwnMemory(const void* what, std::size_t size) noexcept {
    if (g_onValgrind) Ask(Request::Untracked, what, size);
}

}  // namespace Quellan::Platform
