#include "TQLib/platform/Win32.h"
#include "TQLib/platform/linux/process/ExceptionRecords.h"
#include "platform/StructuredExceptionsFaults.h"

#include <algorithm>
#include <atomic>
#include <barrier>
#include <climits>
#include <csignal>
#include <cstring>
#include <cwchar>
#include <fcntl.h>
#include <fenv.h>
#include <gmock/gmock.h>
#include <setjmp.h>
#include <stdexcept>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace Faults {

Page::Page(Access access)
    : m_address(mmap(nullptr, 4096, access == Access::None ? PROT_NONE : PROT_READ,
                     MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
    if (m_address == MAP_FAILED) throw std::runtime_error("mmap");
}
Page::~Page() {
    munmap(m_address, 4096);
}

const void* ProgramCounterOf(const CONTEXT& context) {
#if defined(__x86_64__)
    return reinterpret_cast<const void*>(context.Rip);
#else
    return reinterpret_cast<const void*>(context.Pc);
#endif
}

bool DiedOfAccessViolation(int status) {
    return testing::KilledBySignal(SIGSEGV)(status);
}
bool DiedOfRaised(DWORD, int status) {
    return testing::KilledBySignal(SIGABRT)(status);
}

namespace {

using Quellan::Platform::SetStructuredExceptionTranslator;
using testing::ExitedWithCode;
using testing::KilledBySignal;

TEST(StructuredExceptionsOnLinux, FileTruncatedBelowItsMappingIsAnInPageError) {
    const Translated translated;
    const int file = memfd_create("truncated", MFD_CLOEXEC);
    ASSERT_EQ(ftruncate(file, 4096), 0);
    auto* const mapped = static_cast<int*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
    ASSERT_NE(mapped, MAP_FAILED);
    ASSERT_EQ(ftruncate(file, 0), 0);
    EXPECT_THAT(FaultOf([&] { Read(mapped + 1); }),
                IsFault(EXCEPTION_IN_PAGE_ERROR, EXCEPTION_READ_FAULT, NumberOf(mapped + 1), 0xC0000185));
    EXPECT_THAT(FaultOf([&] { Write(mapped + 1); }),
                IsFault(EXCEPTION_IN_PAGE_ERROR, EXCEPTION_WRITE_FAULT, NumberOf(mapped + 1), 0xC0000185));
    munmap(mapped, 4096);
    close(file);
}

TEST(StructuredExceptionsOnLinux, FaultInAMemoryFunctionIsTranslated) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer puts functions of its own in the place of these";
#endif
    const Translated translated;
    const Page noAccess(Page::Access::None);
    char* const bad = reinterpret_cast<char*>(noAccess.At(0));
    wchar_t* const badWide = reinterpret_cast<wchar_t*>(bad);
    static char good[100'000];
    static wchar_t goodWide[100];
    // Through pointers, which unlike the functions are not known never to throw.
    static void* (*volatile copy)(void*, const void*, std::size_t) = std::memcpy;
    static void* (*volatile move)(void*, const void*, std::size_t) = std::memmove;
    static void* (*volatile set)(void*, int, std::size_t) = std::memset;
    static int (*volatile compare)(const void*, const void*, std::size_t) = std::memcmp;
    static std::size_t (*volatile length)(const char*) = std::strlen;
    static int (*volatile compareText)(const char*, const char*) = std::strcmp;
    static char* (*volatile copyText)(char*, const char*) = std::strcpy;
    static std::size_t (*volatile lengthWide)(const wchar_t*) = std::wcslen;
    static wchar_t* (*volatile copyWide)(wchar_t*, const wchar_t*) = std::wcscpy;
    for (const std::size_t size : {std::size_t{1}, std::size_t{40}, std::size_t{700}, sizeof good}) {
        EXPECT_TRUE(FaultOf([&] { copy(good, bad, size); })) << size;
        EXPECT_TRUE(FaultOf([&] { copy(bad, good, size); })) << size;
        EXPECT_TRUE(FaultOf([&] { move(good, bad, size); })) << size;
        EXPECT_TRUE(FaultOf([&] { set(bad, 0, size); })) << size;
        EXPECT_TRUE(FaultOf([&] { compare(good, bad, size); })) << size;
    }
    EXPECT_TRUE(FaultOf([&] { length(bad); }));
    EXPECT_TRUE(FaultOf([&] { compareText(good, bad); }));
    EXPECT_TRUE(FaultOf([&] { copyText(good, bad); }));
    EXPECT_TRUE(FaultOf([&] { lengthWide(badWide); }));
    EXPECT_TRUE(FaultOf([&] { copyWide(goodWide, badWide); }));
}

template <class Number>
[[gnu::noipa]] void DivideOneBy(Number divisor) {
    [[maybe_unused]] const volatile Number quotient = Number{1} / divisor;
}

TEST(StructuredExceptionsOnLinux, FloatingPointFaultIsTranslatedAndLeavesNonePending) {
    if (feenableexcept(FE_DIVBYZERO) == -1) GTEST_SKIP() << "this processor has no floating-point faults";
    const Translated translated;
    EXPECT_THAT(FaultOf([] { DivideOneBy(0.0); }), IsFault(EXCEPTION_FLT_DIVIDE_BY_ZERO));
    feenableexcept(FE_DIVBYZERO);  // a translator called within the signal handler loses the setting
    EXPECT_THAT(FaultOf([] { DivideOneBy(0.0L); }), IsFault(EXCEPTION_FLT_DIVIDE_BY_ZERO));
    EXPECT_FALSE(FaultOf([] { DivideOneBy(2.0L); }));
    fedisableexcept(FE_DIVBYZERO);
}

#if defined(__x86_64__)
static int g_divisor;
// The instructions find a dividend with no fitting quotient by -1 in eax, the divisor in g_divisor and behind
// rsi, and 5 in rcx.
#define DIVISION(instructions)                                       \
    [] {                                                             \
        int dividend = INT_MIN;                                      \
        const int* divisor = &g_divisor;                             \
        asm volatile(instructions                                    \
                     : "+a"(dividend), "+S"(divisor)                 \
                     : [global] "m"(g_divisor), "c"(std::int64_t{5}) \
                     : "rdx", "rbx", "r8", "r9", "cc");              \
    }

TEST(StructuredExceptionsOnLinux, QuotientThatDoesNotFitIsAnOverflow) {
    const Translated translated;
    for (void (*divide)() : {
             +DIVISION("movl (%%rsi), %%r9d; cltd; idivl %%r9d"),
             +DIVISION("movl (%%rsi), %%ebx; cltd; idivl %%ebx"),
             +DIVISION("movslq (%%rsi), %%r9; cltq; shlq $32, %%rax; cqto; idivq %%r9"),
             +DIVISION("movl (%%rsi), %%r9d; movw $-32768, %%ax; cwtd; idivw %%r9w"),
             +DIVISION("movb (%%rsi), %%bh; movw $-32768, %%ax; idivb %%bh"),
             +DIVISION("cltd; idivl (%%rsi)"),
             +DIVISION("subq $16, %%rsi; cltd; idivl 16(%%rsi)"),
             +DIVISION("leaq -4116(%%rsi), %%r8; cltd; idivl 4096(%%r8,%%rcx,4)"),
             +DIVISION("addq $128, %%rsi; cltd; idivl -128(%%rsi)"),
             +DIVISION("cltd; idivl %[global]"),
         }) {
        static void (*volatile opaque)();
        opaque = divide;
        g_divisor = -1;
        EXPECT_THAT(FaultOf([] { opaque(); }), IsFault(EXCEPTION_INT_OVERFLOW));
        g_divisor = 0;
        EXPECT_THAT(FaultOf([] { opaque(); }), IsFault(EXCEPTION_INT_DIVIDE_BY_ZERO));
    }
}
#endif

stack_t AlternateStack() {
    stack_t current{};
    sigaltstack(nullptr, &current);
    return current;
}

// A thread leaves its stack to the next; of those that many threads had at once, some are given back.
TEST(StructuredExceptionsOnLinux, ThreadWithoutAlternateStackIsGivenOneUntilItEnds) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer gives each thread one";
#endif
    constexpr std::size_t Threads = 24;
    const auto stacksOf = [](std::size_t count) {
        std::vector<void*> stacks(count);
        std::barrier allHaveOne(static_cast<std::ptrdiff_t>(count));
        std::vector<std::jthread> threads;
        for (void*& stack : stacks)
            threads.emplace_back([&] {
                const Translated translated;
                const stack_t own = AlternateStack();
                if (!(own.ss_flags & SS_DISABLE)) stack = own.ss_sp;
                allHaveOne.arrive_and_wait();
            });
        return stacks;
    };
    std::vector<void*> stacks = stacksOf(Threads);
    std::ranges::sort(stacks);
    EXPECT_NE(stacks.front(), nullptr);
    EXPECT_EQ(std::ranges::adjacent_find(stacks), stacks.end()) << "two threads on one stack";
    const auto isMapped = [](void* stack) {
        unsigned char resident;
        return mincore(stack, 4096, &resident) == 0;
    };
    EXPECT_FALSE(std::ranges::all_of(stacks, isMapped)) << "all kept";
    EXPECT_THAT(stacks, testing::Contains(stacksOf(1).front())) << "made anew";
}

TEST(StructuredExceptionsOnLinux, AlternateStackOfTheApplicationIsKept) {
    std::jthread([] {
        static char room[128 * 1024];
        const stack_t before = AlternateStack();
        stack_t own{};
        own.ss_sp = room;
        own.ss_size = sizeof room;
        ASSERT_EQ(sigaltstack(&own, nullptr), 0);
        {
            const Translated translated;
            EXPECT_EQ(AlternateStack().ss_sp, room);
            EXPECT_TRUE(FaultOf([] { ReadNearNull(); }));
        }
        sigaltstack(&before, nullptr);
    }).join();
}

TEST(StructuredExceptionsOnLinux, FaultIsTranslatedWithoutAnAlternateStack) {
    const Translated translated;
    stack_t before{}, none{};
    none.ss_flags = SS_DISABLE;
    ASSERT_EQ(sigaltstack(&none, &before), 0);
    for (int i = 0; i < 3; ++i)
        EXPECT_THAT(FaultOf([] { ReadNearNull(); }),
                    IsFault(EXCEPTION_ACCESS_VIOLATION, EXCEPTION_READ_FAULT, 64));
    sigaltstack(&before, nullptr);
}

TEST(StructuredExceptionsOnLinux, FaultWithinASignalHandlerIsTranslatedThere) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer blocks every signal in a handler, those of faults too";
#endif
    const Translated translated;
    static std::optional<Fault> fault;
    struct sigaction handler {
    }, before;
    handler.sa_handler = [](int) { fault = FaultOf([] { ReadNearNull(); }); };
    handler.sa_flags = SA_ONSTACK;
    sigaction(SIGUSR1, &handler, &before);
    raise(SIGUSR1);
    sigaction(SIGUSR1, &before, nullptr);
    EXPECT_THAT(fault, IsFault(EXCEPTION_ACCESS_VIOLATION, EXCEPTION_READ_FAULT, 64));
}

// Every case runs in a process of its own, in which nobody set a translator before.
class EarlierHandlersDeathTest : public testing::Test {
  protected:
    EarlierHandlersDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    // Installs the handler, then has the library install its own.
    static void Install(struct sigaction action) {
        sigaction(SIGSEGV, &action, nullptr);
        const Translated first;
    }
    static void Install(void (*handler)(int), int flags = 0) {
        struct sigaction action {};
        action.sa_handler = handler;
        action.sa_flags = flags;
        Install(action);
    }
    static void Install(void (*handler)(int, siginfo_t*, void*)) {
        struct sigaction action {};
        action.sa_sigaction = handler;
        action.sa_flags = SA_SIGINFO;
        Install(action);
    }
    static void Say(const char* word) {
        [[maybe_unused]] const auto written = write(STDERR_FILENO, word, std::strlen(word));
    }
    static bool IsBlocked(int signal) {
        sigset_t blocked;
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        return sigismember(&blocked, signal) == 1;
    }

    const Page noAccess{Page::Access::None};
    static inline sigjmp_buf back;
    static inline volatile std::sig_atomic_t calls = 0;
    static inline void* volatile address = nullptr;
};

TEST_F(EarlierHandlersDeathTest, TakeTheFaultOfAThreadWithoutTranslatorAndMayJumpOutOrRepairIt) {
    const auto jump = [&] {
        Install([](int, siginfo_t* info, void*) {
            address = info->si_addr;
            siglongjmp(back, 1);
        });
        if (sigsetjmp(back, 0) == 0) Read(noAccess.At(1));
        std::_Exit(address == noAccess.At(1) && IsBlocked(SIGSEGV) && !IsBlocked(SIGUSR1) ? 0 : 1);
    };
    const auto repair = [&] {
        Install([](int, siginfo_t* info, void*) { mprotect(info->si_addr, 4096, PROT_READ); });
        std::_Exit(Read(noAccess.At(0)));
    };
    EXPECT_EXIT(jump(), ExitedWithCode(0), "");
    EXPECT_EXIT(repair(), ExitedWithCode(0), "");
}

TEST_F(EarlierHandlersDeathTest, TakeASentSignalThoughTheThreadHasATranslator) {
    const auto run = [] {
        Install([](int) { calls = calls + 1; });
        const Translated translated;
        // It is to arrive in the loop, not in the C library, where even a fault would go to the earlier
        // handler.
        std::atomic<bool> looping = false;
        const std::jthread sender([&looping, receiver = pthread_self()] {
            while (!looping) {
            }
            pthread_kill(receiver, SIGSEGV);
        });
        looping = true;
        while (calls == 0) {
        }
        std::_Exit(FaultOf([] { ReadNearNull(); }) ? 0 : 1);
    };
    EXPECT_EXIT(run(), ExitedWithCode(0), "");
}

TEST_F(EarlierHandlersDeathTest, AreCalledOnceOrIgnoreSentSignalsOrKillAsTheyAsked) {
    const auto once = [&] {
        Install([](int) { Say("called;"); }, static_cast<int>(SA_RESETHAND));
        Read(noAccess.At(0));
    };
    const auto ignore = [&] {
        Install(SIG_IGN);
        kill(getpid(), SIGSEGV);
        Say("alive;");
        Read(noAccess.At(0));
    };
    const auto byDefault = [] {
        const Translated translated;
        kill(getpid(), SIGSEGV);
        Say("alive;");
    };
    EXPECT_EXIT(once(), KilledBySignal(SIGSEGV), "^called;$");
    EXPECT_EXIT(ignore(), KilledBySignal(SIGSEGV), "^alive;$");
    EXPECT_EXIT(byDefault(), KilledBySignal(SIGSEGV), "^$");
}

using UntranslatedDeathTest = EarlierHandlersDeathTest;

TEST_F(UntranslatedDeathTest, FaultInTheAllocatorEndsTheProcessWithAReport) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's own allocator finds the bad pointer before the processor does";
#endif
    const auto run = [] {
        const Translated translated;
        static void (*volatile release)(void*) = std::free;
        FaultOf([] { release(reinterpret_cast<void*>(16)); });
    };
    EXPECT_EXIT(run(), KilledBySignal(SIGSEGV), "^TQLib: exception 0xc0000005 at .*C library");
}

[[gnu::noipa]] int RecurseWithoutEnd(int depth) {
    volatile char room[512];
    room[0] = 1;
    return depth == INT_MAX ? 0 : RecurseWithoutEnd(depth + 1) + room[0];
}

TEST_F(UntranslatedDeathTest, StackOverflowEndsTheProcessWithAReport) {
    const auto overflow = [] {
        const Translated translated;
        FaultOf([] { RecurseWithoutEnd(0); });
    };
    const auto overflowThread = [&] { std::jthread(overflow).join(); };
    EXPECT_EXIT(overflow(), KilledBySignal(SIGSEGV), "^TQLib: exception 0xc0000005 at .*stack overflow");
    EXPECT_EXIT(overflowThread(), KilledBySignal(SIGSEGV),
                "^TQLib: exception 0xc0000005 at .*stack overflow");
}

}  // namespace
}  // namespace Faults
