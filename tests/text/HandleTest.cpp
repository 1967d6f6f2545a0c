#include "TQLib/platform/Win32.h"
#include "TQLib/text/memory/TQHandle.h"
#include "support/FailCall.h"
#include "support/ThrownCode.h"

#include <gmock/gmock.h>
#include <vector>

namespace Quellan::Corvel {

namespace {

using Test::FailAllocation;
using Test::ThrownCode;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<int> g_closed;

// Small numbers as handles; closing spoils the last error, as closing calls may.
struct NumberClose {
    using Handle = int;
    static int Empty() noexcept { return -1; }
    static bool IsEmpty(int handle) noexcept { return handle <= 0; }
    static void Close(int handle) noexcept {
        g_closed.push_back(handle);
        SetLastError(4321);
    }
};
using Number = TQHandle<NumberClose>;

class Handle : public testing::Test {
  protected:
    Handle() { g_closed.clear(); }
};

TEST_F(Handle, ClosesWithItsLastCopy) {
    {
        Number first(7);
        const Number second = first;
        EXPECT_EQ(second.Get(), 7);
        EXPECT_EQ(first.UseCount(), 2u);
        first.Close();
        EXPECT_FALSE(first.IsValid());
        EXPECT_EQ(first.Get(), -1);
        EXPECT_EQ(second.UseCount(), 1u);
        EXPECT_THAT(g_closed, IsEmpty());
    }
    EXPECT_THAT(g_closed, ElementsAre(7));
}

TEST_F(Handle, ClosesWhatAssignmentReplaces) {
    Number first(7);
    Number second(8);
    first = second;
    EXPECT_THAT(g_closed, ElementsAre(7));
    second = std::move(first);
    second.Attach(9);
    EXPECT_THAT(g_closed, ElementsAre(7, 8));
    EXPECT_EQ(second.Get(), 9);
    EXPECT_FALSE(first.IsValid());
}

TEST_F(Handle, OfOneOwnerIsClosedOnceWhereverItIsMoved) {
    using One = UniqueHandle<NumberClose>;
    static_assert(sizeof(One) == sizeof(int) && !std::is_copy_constructible_v<One>);
    {
        One first(7);
        One second(8);
        second = std::move(first);
        EXPECT_THAT(g_closed, ElementsAre(8));
        SetLastError(1234);
        *second.Receive() = 9;
        EXPECT_EQ(GetLastError(), 1234u);
        EXPECT_THAT(g_closed, ElementsAre(8, 7));
        EXPECT_EQ(One(std::move(second)).Detach(), 9);
    }
    EXPECT_THAT(g_closed, ElementsAre(8, 7));
}

TEST_F(Handle, IsEmptyForEachValueThatStandsForNone) {
    {
        const Number zero(0);
        const Number minusOne(-1);
        EXPECT_FALSE(zero);
        EXPECT_EQ(zero, minusOne);
        EXPECT_EQ(zero.Get(), -1);
    }
    EXPECT_THAT(g_closed, IsEmpty());
}

TEST_F(Handle, HandsTheHandleOverOnlyWhenAlone) {
    Number first(7);
    {
        const Number second = first;
        EXPECT_EQ(ThrownCode([&] { return first.Detach(); }), ERROR_INVALID_FUNCTION);
        EXPECT_EQ(first.Get(), 7);
    }
    EXPECT_EQ(first.Detach(), 7);
    EXPECT_FALSE(first.IsValid());
    EXPECT_EQ(first.Detach(), -1);
    EXPECT_THAT(g_closed, IsEmpty());
}

TEST_F(Handle, ClosesTheRawHandleWhereTheCountHasNoMemory) {
    Number holder(7);
    g_closed.reserve(4);
    {
        FailAllocation fail;
        EXPECT_EQ(ThrownCode([&] { holder.Attach(8); }), ERROR_OUTOFMEMORY);
    }
    EXPECT_THAT(g_closed, ElementsAre(8));
    EXPECT_EQ(holder.Get(), 7);
}

TEST_F(Handle, KeepsTheLastErrorWhenItCloses) {
    Number closed(7);
    SetLastError(1234);
    closed.Close();
    { const Number destroyed(8); }
    EXPECT_THAT(g_closed, ElementsAre(7, 8));
    EXPECT_EQ(GetLastError(), 1234u);
}

TEST(HandleKinds, KnowTheirValuesForNone) {
    const TQHandle<_TQFileHandleClose> failedFile(INVALID_HANDLE_VALUE);
    EXPECT_FALSE(failedFile);
    EXPECT_EQ(failedFile.Get(), INVALID_HANDLE_VALUE);
    EXPECT_FALSE(TQHandle<_TQFindHandleClose>(nullptr));
    EXPECT_EQ(TQHandle<_TQKernelHandleClose>(nullptr).Get(), nullptr);
}

}  // namespace

}  // namespace Quellan::Corvel
