#include "TQLib/core/TQException.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/text/memory/TQIntrusivePtr.h"
#include "TQLib/text/memory/TQSmartPtr.h"
#include "support/FailCall.h"
#include "support/ThrownCode.h"

#include <atomic>
#include <gmock/gmock.h>
#include <memory>
#include <memory_resource>
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

TYPED_TEST(SmartPtr, IsWatchedUntilItsObjectEnds) {
    using Weak = TQWeakPtr<Thing, typename TypeParam::Policy>;
    auto pointer = this->Make();
    const Weak weak = pointer;
    const Weak second = weak;
    EXPECT_EQ(weak.Lock(), pointer);
    EXPECT_EQ(weak.UseCount(), 1u);
    pointer.Reset();
    EXPECT_EQ(this->ends, 1);
    EXPECT_TRUE(weak.IsExpired() && !weak.Lock() && Weak().IsExpired());
    EXPECT_TRUE(weak == second && weak != Weak() && std::hash<Weak>()(weak) == std::hash<Weak>()(second));
}

TYPED_TEST(SmartPtr, KeepsTheWholeAliveForItsPart) {
    using Part = TQSmartPtr<int, typename TypeParam::Policy::template For<int>>;
    auto pointer = this->Make();
    Part part(pointer, &pointer->value);
    pointer.Reset();
    EXPECT_EQ(*part, 0);
    EXPECT_EQ(this->ends, 0);
    part.Reset();
    EXPECT_EQ(this->ends, 1);
}

TYPED_TEST(SmartPtr, TakesTheEndOfAUniquePointerOver) {
    struct CountAndDelete {
        void operator()(Thing* thing) const {
            ++*count;
            delete thing;
        }
        int* count;
    };
    int count = 0;
    std::unique_ptr<Thing, CountAndDelete> owner(new Thing(this->ends), {&count});
    {
        FailAllocation fail(1);
        EXPECT_EQ(ThrownCode([&] { return TypeParam(std::move(owner)); }), ERROR_OUTOFMEMORY);
    }
    ASSERT_TRUE(owner);
    {
        const TypeParam taken(std::move(owner));
        EXPECT_TRUE(taken && !owner && count == 0);
    }
    EXPECT_EQ(count, 1);
    EXPECT_EQ(this->ends, 1);
    EXPECT_EQ(TypeParam(std::move(owner)), nullptr);
}

// Memory that is counted, and refused where there is none left.
struct CountedMemory : std::pmr::memory_resource {
    std::size_t bytes = 0;
    unsigned left = ~0u;

    void* do_allocate(std::size_t size, std::size_t alignment) override {
        if (left-- == 0) throw std::bad_alloc();
        void* const block = std::pmr::new_delete_resource()->allocate(size, alignment);
        bytes += size;
        return block;
    }
    void do_deallocate(void* block, std::size_t size, std::size_t alignment) override {
        bytes -= size;
        std::pmr::new_delete_resource()->deallocate(block, size, alignment);
    }
    bool do_is_equal(const memory_resource& other) const noexcept override { return this == &other; }
};

// An object for any policy, whose third fails to be made where it is told so.
struct alignas(64) Aligned {
    Aligned() {
        if (made == 2 && fails) throw TQException(ERROR_BUSY, L"");
        ++made;
    }
    explicit Aligned(int number) : Aligned() { value = number; }
    ~Aligned() { --made; }
    bool IsAligned() const { return reinterpret_cast<std::uintptr_t>(this) % alignof(Aligned) == 0; }
    int value = 0;
    static inline int made = 0;
    static inline bool fails = false;
};
using AlignedArray = TQSmartPtr<Aligned, _TQRefThrPtr<Aligned, 1, 1>>;

TEST(SmartPtrMake, PutsObjectAndCountIntoOneBlock) {
    CountedMemory memory;
    {
        FailAllocation count(0);
        const auto one = SharedPtr<Aligned>::Make(7);
        const auto array = AlignedArray::MakeArray(3);
        EXPECT_EQ(count.Calls(), 2u);
        const auto oneIn = SharedPtr<Aligned>::MakeIn(memory, 8);
        const auto arrayIn = AlignedArray::MakeArrayIn(memory, 3);
        EXPECT_EQ(one->value + oneIn->value, 15);
        for (const Aligned* object : {one.Get(), oneIn.Get(), &array[2], &arrayIn[2]})
            EXPECT_TRUE(object->IsAligned());
        EXPECT_GT(memory.bytes, 4 * sizeof(Aligned));
        const TQSmartPtr<const int, _TQRefPtr<const int>> number = Ptr<int>::Make(5);
        EXPECT_EQ(*number, 5);
    }
    EXPECT_EQ(Aligned::made, 0);
    EXPECT_EQ(memory.bytes, 0u);
    const TQSmartPtr<int, _TQRefPtr<int, 1, 1>> zeros = TQSmartPtr<int, _TQRefPtr<int, 1, 1>>::MakeArray(2);
    EXPECT_EQ(zeros[0] + zeros[1], 0);
}

TEST(SmartPtrMake, LeavesNothingBehindWhereItFails) {
    CountedMemory memory;
    EXPECT_EQ(ThrownCode([&] { AlignedArray::MakeArrayIn(memory, ~std::size_t{0} / 100); }),
              ERROR_BUFFER_OVERFLOW);
    Aligned::fails = true;
    EXPECT_EQ(ThrownCode([&] { AlignedArray::MakeArrayIn(memory, 3); }), DWORD{ERROR_BUSY});
    Aligned::fails = false;
    EXPECT_EQ(Aligned::made, 0);
    memory.left = 0;
    EXPECT_EQ(ThrownCode([&] { SharedPtr<Aligned>::MakeIn(memory, 8); }), ERROR_OUTOFMEMORY);
    EXPECT_EQ(memory.bytes, 0u);
    FailAllocation fail(1);
    EXPECT_EQ(ThrownCode([] { SharedPtr<int>::Make(8); }), ERROR_OUTOFMEMORY);
}

TEST(SmartPtrMake, KeepsTheBlockForThoseWhoWatch) {
    CountedMemory memory;
    auto pointer = Ptr<int>::MakeIn(memory, 7);
    TQWeakPtr<int, Ptr<int>::Policy> weak = pointer;
    pointer.Reset();
    EXPECT_TRUE(weak.IsExpired() && memory.bytes != 0);
    weak.Reset();
    EXPECT_EQ(memory.bytes, 0u);
}

TEST(SmartPtrCast, SharesTheObjectAsAnotherClass) {
    struct Base {
        virtual ~Base() = default;
    };
    struct Derived : Base {
        int value = 3;
    };
    struct Other : Base {};
    const Ptr<Base> base = Ptr<Derived>::Make();
    EXPECT_EQ(base.StaticCast<Derived>()->value, 3);
    const auto derived = base.DynamicCast<Derived>();
    EXPECT_EQ(derived, base);
    EXPECT_EQ(base.UseCount(), 2u);
    EXPECT_FALSE(base.DynamicCast<Other>());
    const Ptr<const Derived> fixed = derived;
    fixed.ConstCast<Derived>()->value = 4;
    EXPECT_EQ(derived->value, 4);
}

TEST(SmartPtrThreads, IsLockedOnlyWhileItsObjectLives) {
    struct Word {
        ~Word() { value = 0; }
        std::atomic<int> value = 7;
    };
    for (int round = 0; round < 300; ++round) {
        auto pointer = round % 2 ? SharedPtr<Word>::Make() : SharedPtr<Word>(new Word);
        std::vector<std::thread> threads;
        for (int i = 0; i < 3; ++i)
            threads.emplace_back([weak = TQWeakPtr<Word, SharedPtr<Word>::Policy>(pointer)] {
                while (const auto locked = weak.Lock())
                    EXPECT_EQ(locked->value, 7);
            });
        pointer.Reset();
        for (auto& thread : threads)
            thread.join();
    }
}

// Objects that carry their own count.
template <class Count>
struct CountingThing : TQRefObject<Count>, Thing {
    using Thing::Thing;
    TQIntrusivePtr<CountingThing> Self() { return TQIntrusivePtr<CountingThing>(this); }
};
template <class Count>
class IntrusivePtr : public testing::Test {};
using Counts = testing::Types<_TQRefCount, _TQRefThrCount>;
TYPED_TEST_SUITE(IntrusivePtr, Counts);

TYPED_TEST(IntrusivePtr, EndsTheObjectWithTheLastPointerWhoeverMadeIt) {
    int ends = 0;
    using Pointer = TQIntrusivePtr<CountingThing<TypeParam>>;
    auto pointer = Pointer::Make(ends);
    auto self = pointer->Self();
    TQIntrusivePtr<TQRefObject<TypeParam>> base = self;
    EXPECT_EQ(pointer.UseCount(), 3u);
    EXPECT_TRUE(pointer == self && base == self.Get() && pointer != nullptr);
    EXPECT_EQ(std::unordered_set<Pointer>({pointer, self, Pointer()}).size(), 2u);
    pointer.Reset();
    const Pointer moved = std::move(self);
    EXPECT_EQ(moved.UseCount(), 2u);
    base = moved;
    EXPECT_EQ(ends, 0);
    const CountingThing<TypeParam> copy(*moved);
    EXPECT_EQ(copy.UseCount(), 0u) << "a copy is an object of its own";
    base.Reset();
    const_cast<Pointer&>(moved).Reset();
    EXPECT_EQ(ends, 1);
    EXPECT_EQ(ThrownCode([&] { moved->value = 1; }), ERROR_ACCESS_DENIED);
    FailAllocation fail(1);
    EXPECT_EQ(ThrownCode([&] { Pointer::Make(ends); }), ERROR_OUTOFMEMORY);
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
