// What a service records and reports of its state.
#include "ScriptedManager.h"
#include "TQLib/log/time/TQTimer.h"
#include "TQLib/services/TQService.h"
#include "TestService.h"
#include "support/ThrownCode.h"

#include <cstring>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;
using S = TQSvcState;

namespace {

constexpr DWORD Accepted = SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_PAUSE_CONTINUE | SERVICE_ACCEPT_SHUTDOWN;

// A registered service in a state.
class Status : public testing::Test {
  protected:
    Status() { service.Register(); }

    void Enter(DWORD state) {
        if (state != S::Stopped) service.UpdateStatus(state, 0);
    }
    ScriptedManager::Report Last() { return manager.Reports(Name).at(manager.Reports(Name).size() - 1); }

    ScriptedManager manager;
    TestService service;
};

class Transition : public Status, public testing::WithParamInterface<std::tuple<DWORD, DWORD>> {};

// One row a state gone to, one column a state come from.
constexpr const char* Allowed[] = {"-yyyyyy", "y------", "-y-yyyy", "yy--y--",
                                   "-----yy", "-yyyy--", "---y-y-"};

}  // namespace

TEST_P(Transition, IsReportedOrIgnored) {
    const auto [from, to] = GetParam();
    Enter(from);
    const TQServiceRecord before = service.CurrentRecord();
    const std::size_t reports = manager.Reports(Name).size();

    service.SetState(to);

    if (Allowed[to - 1][from - 1] == '-') {
        EXPECT_EQ(service.CurrentRecord(), before);
        EXPECT_EQ(manager.Reports(Name).size(), reports);
        return;
    }
    const bool isPending = to == 2 || to == 3 || to == 5 || to == 6;
    const TQServiceRecord after{.serviceType = SERVICE_WIN32_OWN_PROCESS,
                                .currentState = to,
                                .controlsAccepted = to >= 4 ? Accepted : 0,
                                .waitHint = isPending ? 30'000u : 0u};
    EXPECT_EQ(service.CurrentRecord(), after);
    // Stopped is never the first report.
    const bool isReported = !(from == S::Stopped && to == S::Stopped);
    ASSERT_EQ(manager.Reports(Name).size(), reports + (isReported ? 1 : 0));
    const ScriptedManager::Report sent = Last();
    EXPECT_EQ(std::memcmp(&sent, &after, sizeof sent), 0);
}

INSTANTIATE_TEST_SUITE_P(All, Transition,
                         testing::Combine(testing::Range(DWORD{1}, DWORD{8}),
                                          testing::Range(DWORD{1}, DWORD{8})));

TEST_F(Status, IgnoresNumbersThatAreNoStates) {
    Enter(S::Running);
    for (const DWORD state : {0u, 8u, 100u, 0xFFFFFFFFu})
        service.SetState(state);
    EXPECT_EQ(service.CurrentState(), S::Running);
    EXPECT_EQ(manager.Reports(Name).size(), 1u);
}

TEST_F(Status, AdvancesTheCheckPointWhileAPendingStateLasts) {
    service.SetState(S::StartPending);
    EXPECT_EQ(Last().dwCheckPoint, 0u);
    service.UpdateStatus(S::StartPending, 0);
    EXPECT_EQ(Last().dwCheckPoint, 1u);
    service.UpdateStatus(S::StartPending, 0);
    EXPECT_EQ(Last().dwCheckPoint, 2u);
    service.SetState(S::StopPending);
    EXPECT_EQ(Last().dwCheckPoint, 0u);
}

// It has not seen the state that was left again before its report could be sent.
TEST_F(Status, TakesNoCheckPointBackThatTheManagerHasSeen) {
    for (int i = 0; i < 3; ++i)
        Enter(S::StopPending);
    service.changed = [&](DWORD state) {
        if (state == S::PausePending) service.SetState(S::StopPending);
    };
    service.SetState(S::PausePending);
    EXPECT_EQ(Last().dwCurrentState, S::StopPending);
    EXPECT_EQ(Last().dwCheckPoint, 3u);
}

TEST_F(Status, HasNeitherCheckPointNorHintWhereNothingIsPending) {
    service.UpdateStatus(S::Running, 5'000);
    service.UpdateStatus(S::Running, 5'000);
    EXPECT_EQ(Last().dwCheckPoint, 0u);
    EXPECT_EQ(Last().dwWaitHint, 0u);
}

// A clamp of the hint that always gives its upper end.
TEST_F(Status, CountsSixtySecondsDownFromAPendingStateReportedAgainWithAHint) {
    for (const DWORD hint : {1u, 5'000u, 60'000u, 90'000u}) {
        service.SetState(S::StartPending);
        const TQTimer outer;
        service.UpdateStatus(S::StartPending, hint);
        EXPECT_EQ(Last().dwWaitHint, hint);
        EXPECT_LE(service.CountdownLeft(), 60'000u);
        EXPECT_GE(service.CountdownLeft() + outer.Elapsed().Milliseconds() + 1, 60'000);
    }
}

TEST_F(Status, ReportsTheTimeLeftWhereItIsReportedAgainWithoutAHint) {
    const TQTimer outer;
    Enter(S::Running);
    service.SetState(S::StopPending, 10'000);
    const TQTimer inner;
    Sleep(20);
    const LONGLONG atLeast = inner.Elapsed().Milliseconds();
    service.UpdateStatus(S::StopPending, 0);
    EXPECT_LE(Last().dwWaitHint, 10'000 - atLeast);
    EXPECT_GE(Last().dwWaitHint + outer.Elapsed().Milliseconds() + 1, 10'000);
}

TEST_F(Status, TellsItsExitCodeWithTheLastReportAlone) {
    const std::pair<DWORD, DWORD> rows[] = {{5, 0}, {0, 77}};
    for (const auto& [code, own] : rows) {
        service.Register();
        service.SetState(S::StartPending);
        service.SetExitCode(code, own);
        service.SetState(S::Running);
        EXPECT_EQ(Last().dwWin32ExitCode, 0u);
        service.SetState(S::Stopped);
        EXPECT_EQ(Last().dwWin32ExitCode, own ? DWORD{ERROR_SERVICE_SPECIFIC_ERROR} : code);
        EXPECT_EQ(Last().dwServiceSpecificExitCode, own);
    }
}

TEST_F(Status, SaysNothingAfterItHasStopped) {
    service.SetState(S::StartPending);
    service.SetState(S::Stopped);
    service.SetState(S::StartPending);
    service.UpdateStatus(S::Running, 0);
    EXPECT_FALSE(service.IsRegistered());
    EXPECT_EQ(manager.States(Name), (std::vector<DWORD>{S::StartPending, S::Stopped}));
}

TEST_F(Status, SaysNothingWhileItIsNotRegistered) {
    TestService other(L"Other");
    other.SetState(S::StartPending);
    EXPECT_EQ(other.CurrentState(), S::StartPending);
    EXPECT_TRUE(manager.Reports(L"Other").empty());
}

TEST_F(Status, TellsOfTheChangeBeforeItIsSentAndWithoutItsLock) {
    std::size_t sentBefore = 0;
    DWORD seen = 0;
    service.changed = [&](DWORD state) {
        seen = state;
        sentBefore = manager.Reports(Name).size();
        // Another thread gets in.
        Worker([&] { EXPECT_EQ(service.CurrentState(), state); }).Join();
    };
    service.SetState(S::Running);
    EXPECT_EQ(seen, S::Running);
    EXPECT_EQ(sentBefore, 0u);
    EXPECT_EQ(manager.Reports(Name).size(), 1u);
}

TEST_F(Status, AsksForItsProcessorWithoutItsLock) {
    int asked = 0;
    service.asked = [&] {
        ++asked;
        Worker([&] { static_cast<void>(service.CurrentState()); }).Join();
    };
    service.SetState(S::Running);
    EXPECT_GT(asked, 0);
}

// Between the question and the report another thread is quicker.
TEST_F(Status, ReportsInTheEndWhatIsAcceptedThen) {
    service.asked = [&] {
        service.asked = nullptr;
        service.processor.SetCtrlAllow(SERVICE_ACCEPT_STOP);
    };
    service.changed = [&](DWORD) {
        service.changed = nullptr;
        service.processor.SetCtrlAllow(SERVICE_ACCEPT_SHUTDOWN);
    };
    service.SetState(S::Running);
    EXPECT_EQ(Last().dwControlsAccepted, static_cast<DWORD>(SERVICE_ACCEPT_SHUTDOWN));
}

TEST_F(Status, ThrowsWhatTheManagerRefusesAndKeepsTheState) {
    manager.statusCode = ERROR_INVALID_HANDLE;
    EXPECT_EQ(ThrownCode([&] { service.SetState(S::Running); }), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(service.CurrentState(), S::Running);
}

TEST(SharedService, SaysThatItSharesItsProcess) {
    EXPECT_EQ(TestService(L"Shared", false).CurrentRecord().serviceType,
              static_cast<DWORD>(SERVICE_WIN32_SHARE_PROCESS));
}
