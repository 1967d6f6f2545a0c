#include "threads/TestPool.h"

#include <gmock/gmock.h>
#include <set>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;
using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

// A pool of two, one of whose threads stays in a handler. The other one hands out what was queued, in its
// order, once it is let go.
class WorkQueue : public testing::Test {
  protected:
    WorkQueue() {
        script.onWork = [this](const std::string& work) {
            if (work == "first gate") first.Pass();
            if (work == "second gate") second.Pass();
        };
        pool.Post("first gate");
        pool.Post("second gate");
        Until([&] { return first.Came() == 1 && second.Came() == 1; });
        a = pool.GetNewRequestorID();
        b = pool.GetNewRequestorID();
    }
    ~WorkQueue() override {
        first.Open();
        second.Open();
    }
    // What was handed out, by one thread.
    std::vector<std::string> Run() {
        first.Open();
        Until([&] { return pool.WorkCount() == 0 && pool.ThreadsBusy() == 1; });
        auto items = script.Items();
        items.erase(items.begin(), items.begin() + 2);
        return items;
    }
    void ExpectNothingLeft() {
        EXPECT_EQ(pool.WorkCount(), 0u);
        second.Open();
        pool.AwaitQuiet();
        Until([&] { return pool.CanStop(); });  // the packets of what was dropped are out of the port too
    }

    Script script;
    Gate first, second;
    TestPool<2> pool{script};
    DWORD a = 0, b = 0;
};

TEST_F(WorkQueue, HandsAnonymousItemsOutInTheirOrder) {
    std::vector<std::string> posted;
    for (int i = 0; i < 5'000; ++i)
        pool.Post(posted.emplace_back(std::to_string(i)));
    EXPECT_THAT(Run(), ElementsAreArray(posted));
    ExpectNothingLeft();
}

TEST_F(WorkQueue, KeepsTheOrderOfAllKindsWhateverIsDropped) {
    pool.Post("A1", a);
    pool.Post("A2", a);
    pool.Post("free");
    pool.Post("B1", b);
    pool.Post("free 2");
    pool.ClearRequestorItems(a);
    pool.Post("A3", a);
    pool.Post("free 3");
    EXPECT_EQ(pool.WorkCount(), 5u);
    EXPECT_THAT(Run(), ElementsAre("free", "B1", "free 2", "A3", "free 3"));
    ExpectNothingLeft();
}

TEST_F(WorkQueue, GivesNothingOfAReleasedRequestorToTheNext) {
    pool.Post("A1", a);
    pool.ReleaseRequestorID(a);
    pool.Post("next", pool.GetNewRequestorID());
    EXPECT_EQ(pool.WorkCount(), 1u);
    EXPECT_THAT(Run(), ElementsAre("next"));
    ExpectNothingLeft();
}

TEST_F(WorkQueue, DropsEverythingAtOnce) {
    pool.Post("A1", a);
    pool.Post("free");
    pool.Post("B1", b);
    pool.ClearAll();
    EXPECT_EQ(pool.WorkCount(), 0u);
    pool.Post("A2", a);
    pool.Post("free 2");
    EXPECT_EQ(pool.WorkCount(), 2u);
    EXPECT_THAT(Run(), ElementsAre("A2", "free 2"));
    ExpectNothingLeft();
}

TEST_F(WorkQueue, KnowsARequestorUntilItIsReleased) {
    const auto post = [&](DWORD id) { return ThrownCode([&] { pool.Post("A", id); }); };
    EXPECT_EQ(post(a), 0u);
    pool.ReleaseRequestorID(a);
    EXPECT_EQ(pool.WorkCount(), 0u);
    EXPECT_EQ(post(a), 1168u);
    EXPECT_EQ(post(99'999), 1168u);
    pool.ClearRequestorItems(a);
    pool.ReleaseRequestorID(a);
    EXPECT_EQ(post(b), 0u);
    EXPECT_THAT(Run(), ElementsAre("A"));
    ExpectNothingLeft();
}

TEST_F(WorkQueue, GivesEachRequestorAnIDOfItsOwn) {
    std::set<DWORD> ids{0, a, b};
    for (int i = 0; i < 100; ++i)
        EXPECT_TRUE(ids.insert(pool.GetNewRequestorID()).second);
    for (const DWORD id : ids)
        EXPECT_EQ(ThrownCode([&] { pool.Post("", id); }), 0u) << id;
    SweepAllocations([&] { pool.GetNewRequestorID(); }, [] {});
}

}  // namespace
