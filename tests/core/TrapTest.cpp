#include "TQLib/core/TQException.h"
#include "TQLib/platform/Win32.h"

#include <gtest/gtest.h>
#include <string>
#include <thread>

using namespace Quellan::Corvel;
using Trap = _TQWin32Exception::Trap_SEH;

namespace {

// Hidden from the compiler, which would see through the fault.
volatile std::uintptr_t g_badAddress = 16;

[[gnu::noinline]] int ReadBadAddress() {
    return *reinterpret_cast<const volatile int*>(g_badAddress);
}

struct Counter {
    explicit Counter(int& count) : m_count(count) {}
    ~Counter() { ++m_count; }
    int& m_count;
};

[[gnu::noinline]] int ReadBehindADestructor(int& count) {
    const Counter counter(count);
    return ReadBadAddress() + 1;
}

TEST(Trap, ThrowsAFaultWithItsRecord) {
    const Trap trap(L"test");
    int destroyed = 0;
    try {
        ReadBehindADestructor(destroyed);
        FAIL();
    } catch (const _TQWin32Exception& e) {
        EXPECT_EQ(e.ErrCode(), 0xC0000005u);
        EXPECT_EQ(dynamic_cast<const TQCoreException*>(&e), nullptr) << "no failure of the library";
        ASSERT_NE(e.OSException(), nullptr);
        EXPECT_EQ(e.OSException()->access, 0u);
        EXPECT_EQ(e.OSException()->target, 16u);
        STLString block;
        e.AssembleLogOutput(L"here", block);
        for (const wchar_t* part : {L"OS Exception-Read Access Violation @ ", L" reading 0000000000000010. ",
                                    L"Owner=core_traps_test", L"A System Exception Occurred."})
            EXPECT_NE(block.Std().find(part), std::wstring::npos) << block.ToUtf8().c_str();
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(Trap, ThrowsASoftwareExceptionWithItsParameters) {
    const Trap trap;
    const ULONG_PTR parameters[] = {1, 2, 0xC000009A};
    try {
        RaiseException(0xC0000006, 0, 3, parameters);
        FAIL();
    } catch (const _TQWin32Exception& e) {
        EXPECT_EQ(e.OSException()->access, 1u);
        EXPECT_EQ(e.OSException()->target, 2u);
        EXPECT_EQ(e.OSException()->status, 0xC000009Au);
    }
}

TEST(Trap, IsFoundByItsThreadAndNests) {
    const DWORD self = GetCurrentThreadId();
    EXPECT_EQ(_TQWin32Exception::ThreadHandler(self), nullptr);
    {
        const Trap outer(L"outer");
        EXPECT_EQ(_TQWin32Exception::ThreadHandler(self), &outer);
        {
            const Trap inner(L"inner");
            EXPECT_EQ(_TQWin32Exception::ThreadHandler(self), &inner);
            EXPECT_STREQ(inner.Name(), L"inner");
            EXPECT_THROW(ReadBadAddress(), _TQWin32Exception);
        }
        EXPECT_EQ(_TQWin32Exception::ThreadHandler(self), &outer);
        EXPECT_THROW(ReadBadAddress(), _TQWin32Exception) << "the outer one still works";
        std::thread([&] {
            EXPECT_EQ(_TQWin32Exception::ThreadHandler(GetCurrentThreadId()), nullptr);
            const Trap other(L"other");
            EXPECT_EQ(_TQWin32Exception::ThreadHandler(self), &outer);
            EXPECT_EQ(_TQWin32Exception::ThreadHandler(GetCurrentThreadId()), &other);
        }).join();
    }
    EXPECT_EQ(_TQWin32Exception::ThreadHandler(self), nullptr);
}

TEST(Trap, KeepsTheLastErrorWhenItEnds) {
    {
        const Trap trap;
        SetLastError(1234);
    }
    EXPECT_EQ(GetLastError(), 1234u);
}

}  // namespace
