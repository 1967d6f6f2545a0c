#include "TQLib/platform/Win32.h"
#include "TQLib/text/memory/TQHandle.h"
#include "support/FailCall.h"
#include "support/ThrownCode.h"

#include <gmock/gmock.h>
#include <unordered_set>
#include <vector>

namespace Quellan::Corvel {

namespace {

using Test::FailAllocation;
using Test::FailCall;
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
    using One = Number::Unique;
    static_assert(sizeof(One) == sizeof(int) && !std::is_copy_constructible_v<One>);
    {
        One first(7);
        One second(8);
        second = std::move(first);
        EXPECT_THAT(g_closed, ElementsAre(8));
        SetLastError(1234);
        *second.Put() = 9;
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

TEST_F(Handle, StaysWithItsOwnerWhereTheCountHasNoMemory) {
    g_closed.reserve(4);
    {
        Number holder(7);
        Number::Unique fresh(9);
        {
            FailAllocation fail(1);
            EXPECT_EQ(ThrownCode([&] { holder.Attach(8); }), ERROR_OUTOFMEMORY);
        }
        {
            FailAllocation fail(1);
            EXPECT_EQ(ThrownCode([&] { holder = std::move(fresh); }), ERROR_OUTOFMEMORY);
        }
        EXPECT_THAT(g_closed, IsEmpty());
        EXPECT_EQ(holder, 7);
        EXPECT_EQ(fresh, 9);
        holder = std::move(fresh);
        EXPECT_THAT(g_closed, ElementsAre(7));
        EXPECT_EQ(fresh, -1);
        fresh.Attach(10);
        fresh.Attach(10);
    }
    EXPECT_THAT(g_closed, ElementsAre(7, 10, 9));
}

TEST_F(Handle, IsFoundByItsRawValue) {
    const Number seven(7), none;
    EXPECT_TRUE(seven == 7 && seven != 8 && seven != 0 && none == 0 && none == -1 && none != 7);
    const Number copy = seven;
    EXPECT_EQ(std::unordered_set<Number>({seven, copy, none, Number(0)}).size(), 2u);
    const Number::Unique eight(8), zero(0), minusOne(-1);
    EXPECT_TRUE(eight == 8 && eight != zero && zero == minusOne && zero == -1);
    EXPECT_EQ(std::hash<Number::Unique>()(zero), std::hash<Number::Unique>()(minusOne));
}

TEST_F(Handle, KeepsTheLastErrorWhenItCloses) {
    Number closed(7);
    SetLastError(1234);
    closed.Close();
    { const Number destroyed(8); }
    EXPECT_THAT(g_closed, ElementsAre(7, 8));
    EXPECT_EQ(GetLastError(), 1234u);
}

TEST(HandleKinds, DuplicateWhatLivesOnWithoutTheFirst) {
    using Event = TQHandle<_TQKernelHandleClose>;
    Event event = Event::Unique(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const Event second = event.Duplicate();
    const Event::Unique third = Event::Unique::DuplicateOf(second.Get());
    EXPECT_NE(second, event);
    SetEvent(event.Get());
    event.Close();
    EXPECT_EQ(WaitForSingleObject(second.Get(), 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(third.Get(), 0), WAIT_OBJECT_0);
    EXPECT_FALSE(event.Duplicate());
    FailCall refused("DuplicateHandle", ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(ThrownCode([&] { return second.Duplicate(); }), DWORD{ERROR_NOT_ENOUGH_MEMORY});
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
