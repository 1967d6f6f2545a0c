// Controls on their way to a service, and what it does then.
#include "ScriptedManager.h"
#include "TQLib/core/TQException.h"
#include "TQLib/services/TQServiceMgr.h"
#include "TestService.h"

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;
using S = TQSvcState;
using C = TQSvcControl;

namespace {

constexpr DWORD Done = ERROR_SUCCESS;
constexpr DWORD NotDone = ERROR_CALL_NOT_IMPLEMENTED;

// A service run by the manager, in a state that it stays in.
class Running {
  public:
    explicit Running(DWORD state)
        : m_hosting{&service}, m_dispatcher([this, state] {
              if (state == S::StartPending) service.processor.Hold(ProcState::Starting);
              result = TQServiceMgr::RunServices();
          }) {
        if (state != S::StartPending) {
            manager.Await(Name, S::Running);
            if (state == S::PausePending) service.processor.Hold(ProcState::Pausing);
            if (state == S::ContinuePending) service.processor.Hold(ProcState::Continuing);
            if (state == S::StopPending) service.processor.Hold(ProcState::Stopping);
            const bool isPaused = state == S::Paused || state == S::ContinuePending;
            if (isPaused || state == S::PausePending) manager.Control(Name, C::Pause);
            if (isPaused) manager.Await(Name, S::Paused);
            if (state == S::ContinuePending) manager.Control(Name, C::Continue);
            if (state == S::StopPending || state == S::Stopped) manager.Control(Name, C::Stop);
        }
        manager.Await(Name, state);
        // The report comes a moment before the step.
        if (S::IsPending(state)) service.processor.AwaitHeld();
        if (state == S::Stopped) m_dispatcher.Join();
    }
    ~Running() {
        service.processor.Release();
        service.processor.StopProcessor();
        m_dispatcher.Join();
        EXPECT_EQ(result, 0);
    }

    ScriptedManager manager;
    TestService service;
    LONG result = -1;

  private:
    Hosting m_hosting;
    Worker m_dispatcher;
};

struct Expected {
    DWORD control;
    DWORD result;
    DWORD state;
};

// What the controls that change a state do, by the state: stop, pause, continue.
struct Row {
    DWORD state;
    Expected stop, pause, resume;
};

constexpr Row Rows[] = {
    {S::Stopped, {C::Stop, NotDone, 1}, {C::Pause, NotDone, 1}, {C::Continue, NotDone, 1}},
    {S::StartPending, {C::Stop, Done, 3}, {C::Pause, NotDone, 2}, {C::Continue, NotDone, 2}},
    {S::StopPending, {C::Stop, Done, 3}, {C::Pause, NotDone, 3}, {C::Continue, NotDone, 3}},
    {S::Running, {C::Stop, Done, 3}, {C::Pause, Done, 6}, {C::Continue, Done, 4}},
    {S::ContinuePending, {C::Stop, Done, 3}, {C::Pause, NotDone, 5}, {C::Continue, Done, 5}},
    {S::PausePending, {C::Stop, Done, 3}, {C::Pause, Done, 6}, {C::Continue, Done, 5}},
    {S::Paused, {C::Stop, Done, 3}, {C::Pause, Done, 7}, {C::Continue, Done, 5}},
};

class EachState : public testing::TestWithParam<Row> {};

}  // namespace

TEST_P(EachState, FollowsStopPauseAndContinue) {
    const Row& row = GetParam();
    Expected shutdown = row.stop;
    shutdown.control = C::Shutdown;
    for (const Expected& expected : {row.stop, shutdown, row.pause, row.resume}) {
        SCOPED_TRACE("control " + std::to_string(expected.control));
        Running running(row.state);
        // The state on the way is to be seen.
        if (!S::IsPending(row.state) && S::IsPending(expected.state))
            running.service.processor.Hold(expected.state == S::StopPending    ? ProcState::Stopping
                                           : expected.state == S::PausePending ? ProcState::Pausing
                                                                               : ProcState::Continuing);
        EXPECT_EQ(running.manager.Call(Name, expected.control), expected.result);
        EXPECT_EQ(running.service.CurrentState(), expected.state);
    }
}

TEST_P(EachState, AnswersEveryOtherControl) {
    Running running(GetParam().state);
    const std::vector<ScriptedManager::Report> before = running.manager.Reports(Name);
    for (DWORD control = 0; control <= 300; ++control) {
        if (control == C::Stop || control == C::Shutdown || control == C::Pause || control == C::Continue)
            continue;
        const bool isDone = control == 4 || control == 6 || (control >= 12 && control <= 14);
        EXPECT_EQ(running.manager.Call(Name, control), isDone ? Done : NotDone) << control;
    }
    EXPECT_EQ(running.service.CurrentState(), GetParam().state);
    // Interrogate alone has reported, unless nothing may be said any more.
    const std::vector<ScriptedManager::Report> after = running.manager.Reports(Name);
    if (GetParam().state == S::Stopped) {
        EXPECT_EQ(after.size(), before.size());
    } else {
        EXPECT_GT(after.size(), before.size());
        EXPECT_EQ(after.back().dwCurrentState, GetParam().state);
        EXPECT_EQ(after.back().dwCheckPoint > before.back().dwCheckPoint, S::IsPending(GetParam().state));
    }
}

INSTANTIATE_TEST_SUITE_P(All, EachState, testing::ValuesIn(Rows),
                         [](const auto& each) { return "State" + std::to_string(each.param.state); });

TEST(ControlHandler, TakesAnExceptionForARequestThatFailed) {
    Running running(S::Running);
    running.service.request = [](DWORD) -> bool { throw TQException(5u, L"request"); };
    EXPECT_EQ(running.manager.Call(Name, C::Stop), NotDone);
    EXPECT_EQ(running.service.CurrentState(), S::Running);
}

// Events are requests where the service has nothing to say to them.
TEST(ControlHandler, PassesEachControlToTheFunctionThatItIsFor) {
    for (const bool hasEvents : {false, true}) {
        Running running(S::Running);
        std::vector<DWORD> requests, events, own;
        int data = 0;
        running.service.request = [&](DWORD control) {
            return requests.push_back(control), control != C::Pause;
        };
        running.service.own = [&](DWORD control) { return own.push_back(control), control != 200; };
        if (hasEvents)
            running.service.event = [&](DWORD control, DWORD eventType, const void* eventData) {
                EXPECT_EQ(eventType, control + 100);
                EXPECT_EQ(eventData, &data);
                return events.push_back(control), control != C::PowerEvent;
            };
        std::vector<DWORD> done;
        for (DWORD control = 0; control <= 300; ++control)
            if (running.manager.Call(Name, control, control + 100, &data) == Done) done.push_back(control);
        using Controls = std::vector<DWORD>;
        EXPECT_EQ(requests, hasEvents ? (Controls{1, 2, 3, 5, 6}) : (Controls{1, 2, 3, 5, 6, 12, 13, 14}));
        EXPECT_EQ(events, hasEvents ? (Controls{12, 13, 14}) : Controls());
        EXPECT_EQ(own.size(), 128u);
        const std::size_t known = std::erase_if(done, [](DWORD control) { return control < 128; });
        EXPECT_EQ(known, hasEvents ? 7u : 8u) << "with the one that interrogates";
        EXPECT_EQ(done.size(), 127u);
    }
}
