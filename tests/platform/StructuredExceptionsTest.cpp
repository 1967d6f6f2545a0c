#include "TQLib/platform/StructuredExceptions.h"
#include "TQLib/platform/Win32.h"
#include "platform/StructuredExceptionsFaults.h"

#include <array>
#include <atomic>
#include <climits>
#include <gmock/gmock.h>
#include <numeric>
#include <thread>

using namespace Faults;
using Quellan::Platform::SetStructuredExceptionTranslator;
using testing::Field;
using testing::Optional;

namespace {

constexpr DWORD OwnCode = 0xE0001234;

void Raise(DWORD code, std::vector<ULONG_PTR> parameters, DWORD flags = 0) {
    RaiseException(code, flags, static_cast<DWORD>(parameters.size()), parameters.data());
}

class StructuredExceptions : public testing::Test {
  protected:
    const Translated translated;
    const Page noAccess{Page::Access::None};
};

TEST_F(StructuredExceptions, AreToldWithTheirAddress) {
    const Page readOnly(Page::Access::ReadOnly);
    EXPECT_EQ(Read(readOnly.At(5)), 0);
    EXPECT_THAT(FaultOf([&] { Read(noAccess.At(3)); }),
                IsFault(EXCEPTION_ACCESS_VIOLATION, EXCEPTION_READ_FAULT, NumberOf(noAccess.At(3))));
    EXPECT_THAT(FaultOf([&] { ReadNearNull(); }),
                IsFault(EXCEPTION_ACCESS_VIOLATION, EXCEPTION_READ_FAULT, 64));
    EXPECT_THAT(FaultOf([&] { Write(readOnly.At(5)); }),
                IsFault(EXCEPTION_ACCESS_VIOLATION, EXCEPTION_WRITE_FAULT, NumberOf(readOnly.At(5))));
    EXPECT_THAT(FaultOf([] { ExecuteIllegalInstruction(); }), IsFault(EXCEPTION_ILLEGAL_INSTRUCTION));
#if !defined(__aarch64__)  // which divides by zero without a fault
    EXPECT_THAT(FaultOf([] { Divide(7, 0); }), IsFault(EXCEPTION_INT_DIVIDE_BY_ZERO));
#endif
}

TEST_F(StructuredExceptions, CallOfDataIsToldWithItsAddress) {
    alignas(16) static std::array<unsigned char, 16> data{};
    const auto function = reinterpret_cast<int (*)()>(data.data());
    const auto fault = FaultOf([&] { Call(function); });
    EXPECT_THAT(fault, IsFault(EXCEPTION_ACCESS_VIOLATION, EXCEPTION_EXECUTE_FAULT, NumberOf(data.data())));
    EXPECT_THAT(fault, Optional(Field(&Fault::address, data.data())));
    EXPECT_THAT(FaultOf([] { Call(nullptr); }),
                IsFault(EXCEPTION_ACCESS_VIOLATION, EXCEPTION_EXECUTE_FAULT, 0));
    const auto noAddress = reinterpret_cast<int (*)()>(0x4141414141414141);
    EXPECT_THAT(FaultOf([&] { Call(noAddress); }), Optional(Field(&Fault::code, EXCEPTION_ACCESS_VIOLATION)));
}

TEST_F(StructuredExceptions, TranslatorHasTheFaultingInstructionAndTheLastError) {
    static const void* faulting;
    static DWORD lastError;
    const Translated noting([](unsigned int code, EXCEPTION_POINTERS* pointers) {
        lastError = GetLastError();
        faulting = ProgramCounterOf(*pointers->ContextRecord);
        ThrowFault(code, pointers);
    });
    SetLastError(1234);
    const auto fault = FaultOf([&] { Read(noAccess.At(0)); });
    ASSERT_TRUE(fault);
    EXPECT_EQ(fault->address, faulting);
    EXPECT_EQ(lastError, 1234u);
}

TEST_F(StructuredExceptions, RaisedExceptionKeepsItsParameters) {
    EXPECT_THAT(FaultOf([] { Raise(OwnCode, {1, 2, 3}); }), IsFault(OwnCode, 1, 2, 3));
    EXPECT_THAT(FaultOf([] {
                    Raise(EXCEPTION_IN_PAGE_ERROR, {EXCEPTION_WRITE_FAULT, 4096, 0xC000009A});
                }),
                IsFault(EXCEPTION_IN_PAGE_ERROR, EXCEPTION_WRITE_FAULT, 4096, 0xC000009A));
    EXPECT_THAT(FaultOf([] { Raise(EXCEPTION_ACCESS_VIOLATION, {}); }), IsFault(EXCEPTION_ACCESS_VIOLATION));
    std::vector<ULONG_PTR> twenty(20);
    std::iota(twenty.begin(), twenty.end(), ULONG_PTR{0});
    const auto fault = FaultOf([&] { Raise(OwnCode, twenty); });
    ASSERT_TRUE(fault) << "at most fifteen";
    EXPECT_EQ(fault->parameters, std::vector<ULONG_PTR>(twenty.begin(), twenty.begin() + 15));
}

TEST_F(StructuredExceptions, DestructorsInFramesOfALibraryRun) {
    for (const auto callback : {ReadNearNull, +[] { return Call(nullptr); },
                                +[] {
                                    Raise(OwnCode, {});
                                    return 0;
                                }}) {
        int destroyed = 0;
        EXPECT_TRUE(FaultOf([&] { CallBelowDestructors(callback, destroyed); }));
        EXPECT_EQ(destroyed, DestructorsOnTheWay);
    }
}

// The fault is the first instruction for which the catch block is responsible.
[[gnu::noipa, gnu::no_sanitize("undefined")]] int ReadOr(const volatile int* from, int otherwise) {
    try {
        return *from;
    } catch (const Fault&) {
        return otherwise;
    }
}

TEST_F(StructuredExceptions, FaultIsCaughtInTheFaultingFunction) {
    EXPECT_EQ(ReadOr(noAccess.At(0), 5), 5);
}

TEST_F(StructuredExceptions, FaultInACatchBlockOrATranslatorIsTranslated) {
    const auto inCatch = FaultOf([] {
        try {
            ExecuteIllegalInstruction();
        } catch (const Fault&) {
            ReadNearNull();
        }
    });
    const Translated faulting([](unsigned int code, EXCEPTION_POINTERS* pointers) {
        if (code == EXCEPTION_ILLEGAL_INSTRUCTION) ReadNearNull();
        ThrowFault(code, pointers);
    });
    for (const auto& fault : {inCatch, FaultOf([] { ExecuteIllegalInstruction(); })})
        EXPECT_THAT(fault, IsFault(EXCEPTION_ACCESS_VIOLATION, EXCEPTION_READ_FAULT, 64));
}

TEST_F(StructuredExceptions, ThreadsFaultAtTheSameTime) {
    constexpr std::size_t Threads = 8, Faults = 1000;
    std::atomic<unsigned> right = 0;
    const auto faultOften = [&](std::size_t thread) {
        const Translated own;
        for (std::size_t i = 0; i < Faults; ++i) {
            const int* const address = noAccess.At(thread * 64 + i % 64);
            const auto fault = FaultOf([&] { Read(address); });
            right += fault && fault->parameters == std::vector<ULONG_PTR>{0, NumberOf(address)};
        }
    };
    {
        std::vector<std::jthread> threads;
        for (std::size_t i = 0; i < Threads; ++i)
            threads.emplace_back(faultOften, i);
    }
    EXPECT_EQ(right, Threads * Faults);
}

// More values live across the faults than there are registers that a call preserves.
template <class Step>
[[gnu::noinline]] std::uint64_t Mix(int rounds, Step step) {
    std::uint64_t a = 1, b = 2, c = 3, d = 4, e = 5, f = 6, g = 7, h = 8;
    double x = 1.5;
    for (int i = 0; i < rounds; ++i) {
        try {
            step();
        } catch (const Fault&) {
        }
        a += b ^ h, b += c * 3, c ^= d + 1, d += e >> 3, e += f * 5, f ^= g, g += h << 1, h += a;
        x = x * 0.5 + static_cast<double>(a % 16);
    }
    return a ^ b ^ c ^ d ^ e ^ f ^ g ^ h ^ static_cast<std::uint64_t>(x * 1024);
}

TEST_F(StructuredExceptions, LocalValuesSurviveTenThousandFaults) {
    constexpr int Rounds = 10000;
    int faults = 0;
    const auto mixed = Mix(Rounds, [&] {
        ++faults;
        Read(noAccess.At(0));
    });
    EXPECT_EQ(mixed, Mix(Rounds, [] {}));
    EXPECT_EQ(faults, Rounds);
}

class StructuredExceptionsDeathTest : public StructuredExceptions {
  protected:
    StructuredExceptionsDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(StructuredExceptionsDeathTest, ThatNobodyTranslatesEndTheProcess) {
    const auto diedOfRaised = [](int status) { return DiedOfRaised(OwnCode, status); };
    const auto returnFromTranslator = [] {
        std::set_terminate([] { std::_Exit(7); });
        SetStructuredExceptionTranslator([](unsigned int, EXCEPTION_POINTERS*) {});
        ReadNearNull();
    };
    EXPECT_EXIT(std::jthread([] { ReadNearNull(); }).join(), DiedOfAccessViolation, "");
    EXPECT_EXIT((SetStructuredExceptionTranslator(nullptr), Raise(OwnCode, {})), diedOfRaised, "");
    EXPECT_EXIT(Raise(OwnCode, {}, EXCEPTION_NONCONTINUABLE), diedOfRaised, "");
    EXPECT_EXIT(returnFromTranslator(), testing::ExitedWithCode(7), "");
}

}  // namespace
