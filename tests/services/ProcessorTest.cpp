// The worker of a service on its own.
#include "TQLib/services/TQSvcProcessor.h"
#include "TestService.h"
#include "support/Worker.h"

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;

TEST(Processor, GoesWhereItIsAskedTo) {
    TestProcessor processor;
    EXPECT_EQ(processor.CurrentState(), ProcState::Stop);
    EXPECT_FALSE(processor.Pause());
    EXPECT_FALSE(processor.Restart());
    EXPECT_FALSE(processor.StopProcessor());
    EXPECT_TRUE(processor.StartProcessor());
    EXPECT_TRUE(processor.WaitForState(ProcState::Run, INFINITE));
    EXPECT_FALSE(processor.StartProcessor());
    EXPECT_TRUE(processor.Pause());
    EXPECT_TRUE(processor.WaitForState(ProcState::Pause, INFINITE));
    EXPECT_TRUE(processor.Restart());
    EXPECT_TRUE(processor.WaitForState(ProcState::Run, INFINITE));
    EXPECT_TRUE(processor.StopProcessor());
    EXPECT_TRUE(processor.WaitForState(ProcState::Stop, INFINITE));
    EXPECT_TRUE(processor.Stopped());
    EXPECT_EQ(processor.ErrorCode(), 0u);
}

TEST(Processor, WaitsNoLongerThanItIsTold) {
    TestProcessor processor;
    EXPECT_FALSE(processor.WaitForState(ProcState::Run | ProcState::Pause, 0));
    EXPECT_FALSE(processor.WaitForNotState(ProcState::Stop, 1));
    EXPECT_TRUE(processor.WaitForNotState(ProcState::Run, 0));
}

TEST(Processor, ContinuesOnceAfterEachPauseThatHasBegun) {
    TestProcessor processor;
    int pauses = 0, continuations = 0;
    processor.pause = [&] { ++pauses; };
    processor.resume = [&] { ++continuations; };
    processor.StartProcessor();
    processor.WaitForState(ProcState::Run, INFINITE);
    for (int i = 0; i < 500; ++i) {
        EXPECT_TRUE(processor.Pause());
        EXPECT_TRUE(processor.Restart());
        EXPECT_TRUE(processor.WaitForState(ProcState::Run, INFINITE));
    }
    EXPECT_EQ(pauses, continuations);
}

TEST(Processor, TakesTurnsUntilItIsStopped) {
    TestProcessor processor;
    std::atomic<int> turns{0};
    processor.process = [&](TestProcessor& self) {
        while (self.WaitForTurn(1))
            if (++turns == 3) self.StopProcessor();
        return 5u;
    };
    processor.StartProcessor();
    EXPECT_TRUE(processor.WaitForState(ProcState::Stop, INFINITE));
    EXPECT_EQ(turns, 3);
    EXPECT_EQ(processor.ErrorCode(), 5u);
}

TEST(Processor, StartsAgainAsSoonAsItsWorkIsOver) {
    TestProcessor processor;
    std::atomic<int> works{0};
    processor.process = [&](TestProcessor&) { return ++works, 0u; };
    for (int i = 1; i <= 300; ++i) {
        EXPECT_TRUE(processor.StartProcessor());
        ASSERT_TRUE(processor.WaitForState(ProcState::Stop, 60'000));
        ASSERT_EQ(works, i);
    }
}

TEST(Processor, HasNoTurnWhileItPauses) {
    TestProcessor processor;
    std::atomic<int> turns{0};
    processor.process = [&](TestProcessor& self) {
        while (self.WaitForTurn(0))
            ++turns;
        return 0u;
    };
    processor.StartProcessor();
    processor.WaitForState(ProcState::Run, INFINITE);
    processor.Pause();
    processor.WaitForState(ProcState::Pause, INFINITE);
    const int before = turns;
    Sleep(NeverMs);
    EXPECT_EQ(turns, before);
}

TEST(Processor, SignalsItsEventsAtEachChange) {
    TestProcessor processor;
    const TQEvent changed(false);
    processor.AddChangedEvent(changed.Handle());
    processor.StartProcessor();
    EXPECT_TRUE(changed.Wait(INFINITE));
    processor.WaitForState(ProcState::Run, INFINITE);
    processor.RemoveChangedEvent(changed.Handle());
    changed.Reset();
    processor.Pause();
    processor.WaitForState(ProcState::Pause, INFINITE);
    EXPECT_FALSE(changed.Wait(0));
}

TEST(Processor, GoesNoWayThatThereIsNot) {
    TestProcessor processor;
    processor.SetState(ProcState::Run);
    processor.SetState(ProcState::Pause);
    EXPECT_EQ(processor.CurrentState(), ProcState::Stop);
    processor.SetState(ProcState::Stop, 9);
    EXPECT_EQ(processor.ErrorCode(), 9u);
}

TEST(Processor, KeepsTheSetOfControlsThatItAccepts) {
    TestProcessor processor;
    EXPECT_EQ(processor.CtrlsAccepted(), 0x07u);
    processor.SetCtrlAllow(ProcControlAccept::PauseContinue, false);
    processor.SetCtrlAllow(ProcControlAccept::SessionChange, true);
    EXPECT_EQ(processor.CtrlsAccepted(), 0x85u);
    processor.SetCtrlAllow(0x01);
    EXPECT_EQ(processor.CtrlsAccepted(), 0x01u);
}

TEST(Processor, LosesNoControlThatAnotherThreadAllows) {
    TestProcessor processor;
    const auto turn = [&](ProcControlAccept control) {
        for (int i = 0; i <= 20'000; ++i)
            processor.SetCtrlAllow(control, i % 2 == 0);
    };
    Worker other([&] { turn(ProcControlAccept::ParamChange); });
    turn(ProcControlAccept::PowerEvent);
    other.Join();
    EXPECT_EQ(processor.CtrlsAccepted(), 0x4Fu);
}
