#include "TQLib/platform/Win32.h"
#include "TQLib/text/memory/TQSmartPtr.h"
#include "support/FailCall.h"
#include "support/ThrownCode.h"

#include <gmock/gmock.h>
#include <queue>
#include <set>
#include <thread>
#include <unordered_set>
#include <vector>

namespace Quellan::Corvel {

namespace {

using Test::FailAllocation;
using Test::ThrownCode;

// Counts its ends.
struct Thing {
    explicit Thing(int& endings) : ends(endings) {}
    ~Thing() { ++ends; }
    int& ends;
    int value = 0;
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
    auto* const refused = new Thing(this->ends);
    {
        FailAllocation fail;
        EXPECT_EQ(ThrownCode([&] { pointer.Reset(refused); }), ERROR_OUTOFMEMORY);
    }
    EXPECT_EQ(this->ends, 1);
    EXPECT_NE(pointer.Get(), refused);
    EXPECT_EQ(pointer.UseCount(), 1u);
}

TYPED_TEST(SmartPtr, RefusesToFollowNull) {
    const TypeParam null;
    EXPECT_EQ(ThrownCode([&] { null->value = 1; }), ERROR_ACCESS_DENIED);
    EXPECT_EQ(ThrownCode([&] { (*null).value = 1; }), ERROR_ACCESS_DENIED);
}

TEST(SmartPtrConversion, EndsTheObjectAsWhatItWasMade) {
    struct Base {
        int base = 0;
    };
    struct Front {
        int front = 0;
    };
    struct Derived : Front, Base {  // not at the base's address, and without a virtual destructor
        explicit Derived(int& endings) : thing(endings) {}
        Thing thing;
    };
    int ends = 0;
    Ptr<Derived> derived(new Derived(ends));
    Ptr<Base> base = derived;
    EXPECT_EQ(base.Get(), derived.Get());
    base = std::move(derived);
    EXPECT_EQ(base.UseCount(), 1u);
    base.Reset();
    EXPECT_EQ(ends, 1);
}

static_assert(std::is_convertible_v<Ptr<int>, Ptr<const int>>);
static_assert(!std::is_convertible_v<Ptr<const int>, Ptr<int>>);
static_assert(!std::is_convertible_v<Ptr<int>, SharedPtr<int>>, "one object can't be counted in two ways");

TEST(SmartPtrPolicy, LeavesABorrowedObjectAloneAndEndsAWholeArray) {
    int ends = 0;
    Thing borrowed(ends);
    { const TQSmartPtr<Thing, _TQRefPtr<Thing, 0>> pointer(&borrowed); }
    EXPECT_EQ(ends, 0);
    struct Counted {
        ~Counted() { ++*ends; }
        int* ends;
    };
    {
        const TQSmartPtr<Counted, _TQRefThrPtr<Counted, 1, 1>> array(
            new Counted[3]{{&ends}, {&ends}, {&ends}});
    }
    EXPECT_EQ(ends, 3);
}

TEST(SmartPtrThreads, EndsASharedObjectOnceAfterAllThatWasDoneToIt) {
    struct Tally {
        ~Tally() {
            for (const int part : parts)
                total += part;
        }
        int& total;
        int parts[4] = {};
    };
    for (int round = 0; round < 200; ++round) {
        int total = 0;
        SharedPtr<Tally> pointer(new Tally{total});
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([share = pointer, i]() mutable {
                for (int n = 0; n < 100; ++n)
                    const auto copy = share;
                share->parts[i] = 1;
                share.Reset();
            });
        pointer.Reset();
        for (auto& thread : threads)
            thread.join();
        ASSERT_EQ(total, 4);
    }
}

TEST(SmartPtrContainer, KeepsObjectsByIdentity) {
    using Element = TQSPtrCont<Ptr<int>>;
    const Ptr<int> one(new int(1));
    const Ptr<int> same(new int(1));
    const std::set<Element> ordered = {one, same, one, Element()};
    EXPECT_EQ(ordered.size(), 3u);
    const std::unordered_set<Element> hashed = {one, same, one, Element()};
    EXPECT_EQ(hashed.size(), 3u);
    EXPECT_EQ(one.UseCount(), 3u);

    std::queue<Element> queue;
    queue.push(one);
    const Ptr<int> front = queue.front();
    EXPECT_EQ(front, one);
    *queue.front() = 2;
    EXPECT_EQ(*one, 2);
}

}  // namespace

}  // namespace Quellan::Corvel
