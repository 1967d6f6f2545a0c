#include "text/TQSmartPtr.h"

#include <gtest/gmock.h>

#include <map>
#include <queue>
#include <set>
#include <thread>
#include <unordered_set>
#include <vector>

#include "platform/Win32.h"
#include "support/FailCall.h"
#include "support/ThrownCode.h"

namespace Quellan::Corvel {

namespace {

using Test::FailAllocation;
using Test::SweepAllocations;
using Test::ThrownCode;

// Counts its ends.
struct Thing {
    explicit Thing(int& endings) : ends(endings) {}
    ~Thing() { ++ends; }
    int& ends;
    int value = 0;
};
struct Special : Thing {
    using Thing::Thing;
};

template <class T>
using Ptr = TQSmartPtr<T, _TQRefPtr<T>>;
template <class T>
using SharedPtr = TQSmartPtr<T, _TQRefThrPtr<T, 1, 0>>;

template <class S>
class SmartPtr : public testing::Test {
  protected:
    int ends = 0;
    S Make() { return S(new Thing(ends)); }
};
using Policies = testing::Types<Ptr<Thing>, SharedPtr<Thing>>;
TYPED_TEST_SUITE(SmartPtr, Policies);

TYPED_TEST(SmartPtr, EndsTheObjectWithItsLastCopy) {
    auto first = this->Make();
    auto second = first;
    EXPECT_EQ(first.UseCount(), 2u);
    first.Reset();
    EXPECT_EQ(this->ends, 0);
    EXPECT_EQ(second.UseCount(), 1u);
    second = nullptr;
    EXPECT_EQ(this->ends, 1);
    EXPECT_EQ(second.UseCount(), 0u);
}

TYPED_TEST(SmartPtr, HandsItsShareOnWhenMoved) {
    auto first = this->Make();
    const Thing* const thing = first.Get();
    auto second = std::move(first);
    EXPECT_EQ(first, nullptr);
    EXPECT_EQ(second.Get(), thing);
    EXPECT_EQ(second.UseCount(), 1u);
    first = std::move(second);
    EXPECT_EQ(first->value, 0);
    EXPECT_EQ(this->ends, 0);
}

TYPED_TEST(SmartPtr, SurvivesAssignmentFromItself) {
    auto pointer = this->Make();
    const auto& same = pointer;
    pointer = same;
    EXPECT_EQ(this->ends, 0);
    EXPECT_EQ(pointer.UseCount(), 1u);
}

TYPED_TEST(SmartPtr, EndsTheObjectOnceWhereTheCountHasNoMemory) {
    auto pointer = this->Make();
    SweepAllocations([&] { pointer.Reset(); pointer = TypeParam(); }, [] {});
}

TYPED_TEST(SmartPtr, RefusesToFollowNull) {
    const TypeParam null;
    EXPECT_EQ(ThrownCode([&] { null->value = 1; }), ERROR_ACCESS_DENIED);
    EXPECT_EQ(ThrownCode([&] { (*null).value = 1; }), ERROR_ACCESS_DENIED);
}

}  // namespace

}  // namespace Quellan::Corvel
