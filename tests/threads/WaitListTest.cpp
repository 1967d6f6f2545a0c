#include "TQLib/core/TQException.h"
#include "TQLib/log/time/TQTimer.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/threads/TQMutex.h"
#include "TQLib/threads/TQWaitList.h"
#include "support/FailCall.h"
#include "support/Worker.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <random>
#include <set>
#include <vector>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;

namespace {

// The most objects that the owner waits for itself.
constexpr std::size_t OwnBatch = 63;

// Events in a list, in the order of their handles.
class Events {
  public:
    explicit Events(std::size_t count, bool manualReset = false) {
        for (std::size_t i = 0; i < count; ++i)
            m_events.emplace_back(manualReset);
        std::ranges::sort(m_events, {}, &TQEvent::Handle);
    }

    void AddTo(TQWaitList& list) const {
        for (const TQEvent& event : m_events)
            list.Add(event.Handle());
    }
    const TQEvent& operator[](std::size_t i) const { return m_events[i]; }
    HANDLE Handle(std::size_t i) const { return m_events[i].Handle(); }
    std::size_t Size() const { return m_events.size(); }
    auto begin() const { return m_events.begin(); }
    auto end() const { return m_events.end(); }

  private:
    std::vector<TQEvent> m_events;
};

class WaitListOf : public testing::TestWithParam<std::size_t> {};

TEST_P(WaitListOf, ReturnsWhatIsSignalledInTheOrderSeen) {
    const Events events(GetParam());
    TQWaitList list;
    events.AddTo(list);
    EXPECT_EQ(list.Size(), GetParam());
    EXPECT_EQ(list.Wait(0), nullptr) << "nothing is signalled";
    std::minstd_rand random(7);
    for (int i = 0; i < 100; ++i) {
        const std::size_t which = random() % events.Size();
        events[which].Set();
        ASSERT_EQ(list.Wait(INFINITE), events.Handle(which));
    }
    EXPECT_EQ(list.HasWaitThread(), GetParam() > OwnBatch);
}

INSTANTIATE_TEST_SUITE_P(Sizes, WaitListOf, testing::Values(1, 63, 64, 65, 100, 126, 127, 1'000, 10'000));

TEST(WaitList, WithoutObjectsWaitsForTheTimeGiven) {
    TQWaitList list;
    EXPECT_EQ(list.Wait(0), nullptr);
    const TQTimer timer;
    EXPECT_EQ(list.Wait(30), nullptr);
    EXPECT_GE(timer.Elapsed(), TQTimeSpan::FromMilliseconds(15));
}

TEST(WaitList, HoldsEachHandleOnce) {
    const TQEvent event(false);
    TQWaitList list;
    list.Add(event.Handle());
    list.Add(event.Handle());
    EXPECT_EQ(list.Size(), 1u);
    list.Remove(event.Handle());
    list.Remove(event.Handle());
    EXPECT_EQ(list.Size(), 0u);
    event.Set();
    EXPECT_EQ(list.Wait(0), nullptr);
    EXPECT_TRUE(event.Wait(0));
}

TEST(WaitList, ReportsAnObjectThatStaysSignalledOnceForEachWait) {
    const Events events(200, true);
    TQWaitList list;
    events.AddTo(list);
    for (const std::size_t which : {std::size_t{0}, std::size_t{150}}) {
        events[which].Set();
        for (int i = 0; i < 3; ++i)
            ASSERT_EQ(list.Wait(INFINITE), events.Handle(which));
        events[which].Reset();
        EXPECT_EQ(list.Wait(NeverMs), nullptr) << "it was reset before the wait";
    }
}

TEST(WaitList, ShowsTheOthersBesideAnObjectThatStaysSignalled) {
    for (const std::size_t count : {std::size_t{3}, std::size_t{63}, std::size_t{300}}) {
        const Events events(count, true);
        TQWaitList list;
        events.AddTo(list);
        const std::set<std::size_t> signalled{0, count / 3, count / 3 + 1, count - 1};
        std::set<HANDLE> wanted, seen;
        for (const std::size_t which : signalled) {
            events[which].Set();
            wanted.insert(events.Handle(which));
        }
        for (int i = 0; i < 100 && seen.size() < wanted.size(); ++i)
            seen.insert(list.Wait(INFINITE));
        EXPECT_EQ(seen, wanted) << count;
    }
}

TEST(WaitList, TakesHandlesInAndOutWhileItsThreadWaits) {
    const Events events(300);
    TQWaitList list;
    for (std::size_t i = 0; i < 100; ++i)
        list.Add(events.Handle(i + 100));
    events[199].Set();
    EXPECT_EQ(list.Wait(INFINITE), events.Handle(199));

    for (std::size_t i = 0; i < 100; ++i)
        list.Add(events.Handle(i));  // they take the owner's places
    for (std::size_t i = 200; i < 300; ++i)
        list.Add(events.Handle(i));
    for (std::size_t i = 0; i < 300; ++i) {
        events[i].Set();
        ASSERT_EQ(list.Wait(INFINITE), events.Handle(i));
    }
    for (std::size_t i = 0; i < 299; ++i) {
        list.Remove(events.Handle(i));
        events[i].Set();
        ASSERT_EQ(WaitForSingleObject(events.Handle(i), 0), DWORD{WAIT_OBJECT_0})
            << "nobody else takes it any more";
        events[299].Set();
        ASSERT_EQ(list.Wait(INFINITE), events.Handle(299));
    }
    EXPECT_FALSE(list.HasWaitThread()) << "what is left needs none";
}

TEST(WaitList, ForgetsWhatWasSeenOfAnObjectThatIsRemoved) {
    const Events events(200);
    TQWaitList list;
    events.AddTo(list);
    for (const TQEvent& event : events)
        event.Set();
    ASSERT_NE(list.Wait(INFINITE), nullptr);
    for (std::size_t i = 0; i < 199; ++i)
        list.Remove(events.Handle(i));
    HANDLE seen = list.Wait(INFINITE);
    EXPECT_EQ(seen, events.Handle(199));
    EXPECT_EQ(list.Wait(NeverMs), nullptr);
}

TEST(WaitList, BelongsToOneThread) {
    const TQEvent event(false);
    TQWaitList list;
    constexpr const wchar_t* refusal = L"Only the owning thread can call this method on the wait list.";
    Worker([&] {
        EXPECT_EQ(ThrownText([&] { list.Add(event.Handle()); }), refusal);
        EXPECT_EQ(ThrownText([&] { list.Remove(event.Handle()); }), refusal);
        EXPECT_EQ(ThrownText([&] { list.Wait(0); }), refusal);
        EXPECT_EQ(ThrownText([&] { list = TQWaitList(); }), refusal);
        EXPECT_EQ(ThrownCode([&] { list.Wait(0); }), DWORD{ERROR_INVALID_FUNCTION});
    }).Join();
    EXPECT_EQ(list.Size(), 0u);
}

TEST(WaitList, IsCopiedForTheThreadThatCopies) {
    const Events events(100);
    TQWaitList list;
    events.AddTo(list);
    events[80].Set();
    events[90].Set();
    const HANDLE first = list.Wait(INFINITE);
    Worker([&] {
        TQWaitList copy(list);
        EXPECT_EQ(copy.Size(), 100u);
        EXPECT_FALSE(copy.HasWaitThread());
    }).Join();
    const HANDLE second = list.Wait(INFINITE);
    EXPECT_EQ((std::set<HANDLE>{first, second}), (std::set<HANDLE>{events.Handle(80), events.Handle(90)}))
        << "what was seen stayed with the original";
}

TEST(WaitList, IsAssignedTheObjectsOfAnother) {
    const Events events(200);
    TQWaitList list, other;
    for (std::size_t i = 0; i < 100; ++i)
        list.Add(events.Handle(i));
    for (std::size_t i = 90; i < 200; ++i)
        other.Add(events.Handle(i));
    for (std::size_t i = 70; i < 100; ++i)
        events[i].Set();
    ASSERT_NE(list.Wait(INFINITE), nullptr);
    const auto assign = [&] { list = other; };
    // All of the objects or none; what only makes waiting faster may lack memory.
    DWORD code = ERROR_OUTOFMEMORY;
    for (unsigned nth = 1; code != 0; ++nth) {
        {
            const FailAllocation fail(nth);
            code = ThrownCode(assign);
        }
        ASSERT_TRUE(code == 0 || code == ERROR_OUTOFMEMORY);
        ASSERT_EQ(list.Size(), code == 0 ? 110u : 100u);
    }
    EXPECT_EQ(list.Size(), 110u);
    list = *&list;
    std::set<HANDLE> seen;
    while (seen.size() < 10) {
        const HANDLE handle = list.Wait(INFINITE);
        ASSERT_TRUE(handle == events.Handle(70) || seen.insert(handle).second);
    }
    for (std::size_t i = 90; i < 100; ++i)
        EXPECT_TRUE(seen.contains(events.Handle(i)));
    EXPECT_EQ(list.Wait(NeverMs), nullptr);
}

TEST(WaitList, HoldsSoManyAndNoMore) {
    const auto handle = [](std::uintptr_t i) { return reinterpret_cast<HANDLE>(i * 4); };
    TQWaitList list;
    for (DWORD i = 1; i <= TQWaitList::MaxSize; ++i)
        list.Add(handle(i));
    EXPECT_EQ(ThrownCode([&] { list.Add(handle(TQWaitList::MaxSize + 1)); }), DWORD{ERROR_BUFFER_OVERFLOW});
    EXPECT_EQ(ThrownText([&] { list.Add(handle(TQWaitList::MaxSize + 1)); }),
              L"Too many elements in the wait list.");
    list.Add(handle(1));
    list.Remove(handle(7));
    list.Add(handle(TQWaitList::MaxSize + 1));
    EXPECT_EQ(list.Size(), DWORD{TQWaitList::MaxSize});
}

TEST(WaitList, ReportsAClosedHandleUntilItIsRemoved) {
    for (const std::size_t count : {std::size_t{2}, std::size_t{150}}) {
        const Events events(count);
        TQWaitList list;
        events.AddTo(list);
        // Above all others, so that it belongs to the auxiliary thread where there is one.
        const auto invalid =
            reinterpret_cast<HANDLE>(reinterpret_cast<std::uintptr_t>(events.Handle(count - 1)) + 0x40000);
        list.Add(invalid);
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(ThrownText([&] { list.Wait(INFINITE); }), L"Wait on synch object failed.") << count;
        EXPECT_EQ(ThrownCode([&] { list.Wait(INFINITE); }), DWORD{ERROR_INVALID_HANDLE});
        events[count - 1].Set();
        list.Remove(invalid);
        EXPECT_EQ(list.Wait(INFINITE), events.Handle(count - 1)) << "the others are none the worse";
    }
}

TEST(WaitList, TakesAnAbandonedMutexForSignalled) {
    const TQMutex mutex;
    Worker([&] { WaitForSingleObject(mutex.Handle(), INFINITE); }).Join();
    TQWaitList list;
    list.Add(mutex.Handle());
    EXPECT_EQ(list.Wait(INFINITE), mutex.Handle());
    mutex.Release();
}

TEST(WaitList, IsAsBeforeWhereSomethingFails) {
    const Events events(OwnBatch + 1);
    TQWaitList list;
    for (std::size_t i = 0; i < OwnBatch; ++i)
        list.Add(events.Handle(i));
    SweepAllocations([&] { list.Add(events.Handle(OwnBatch)); }, [&] { EXPECT_EQ(list.Size(), OwnBatch); });
    {
        const FailAllocation fail(1);
        EXPECT_EQ(ThrownText([&] { list.Wait(0); }), L"Unable to allocate wait list thread.");
    }
    {
        const FailCall fail("CreateThread", ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_EQ(ThrownText([&] { list.Wait(0); }), L"Thread Creation Failed.");
    }
    EXPECT_FALSE(list.HasWaitThread());
    {
        const FailCall fail("WaitForMultipleObjects", ERROR_NOT_ENOUGH_MEMORY, 2,
                            WAIT_FAILED);  // after that of the start
        EXPECT_EQ(ThrownCode([&] { list.Wait(0); }), DWORD{ERROR_NOT_ENOUGH_MEMORY});
    }
    events[OwnBatch].Set();
    EXPECT_EQ(list.Wait(INFINITE), events.Handle(OwnBatch));
}

}  // namespace
