// Services of one process from their start to their end.
#include "ScriptedManager.h"
#include "TQLib/core/TQException.h"
#include "TQLib/services/TQServiceApp.h"
#include "TQLib/services/TQServiceMgr.h"
#include "TestService.h"
#include "support/FailCall.h"
#include "support/RecordingSink.h"
#include "support/ThrownCode.h"

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;
using S = TQSvcState;
using C = TQSvcControl;

namespace {

constexpr DWORD OwnCode = 0xE0000001;
constexpr LONG Failed = static_cast<LONG>(0x8000FFFF);

using States = std::vector<DWORD>;

class Hosted : public testing::Test {
  protected:
    ScriptedManager manager;
    RecordingSink log;
    TestService service;
    Hosting hosting{&service};
};

// One exception of each kind, its code, and how it is logged.
struct Kind {
    const char* name;
    void (*raise)();
    DWORD code;
    DWORD eventId;
    WORD category;
};

constexpr Kind Kinds[] = {
    {"Library", [] { throw TQException(1234u, L"library"); }, 1234, 0xCFFF4001, 2},
    {"Foreign", [] { throw 17; }, 0x8000FFFF, 0xCFFF4002, 9},
    {"Structured", [] { RaiseException(OwnCode, 0, 0, nullptr); }, OwnCode, 0xCFFF4002, 9},
};

class Guard : public Hosted, public testing::WithParamInterface<Kind> {
  protected:
    // And where a service has ended by it, that one's end.
    void ExpectLogged(const wchar_t* context, bool hasEnded = true) {
        const auto entries = log.Entries();
        ASSERT_EQ(entries.size(), hasEnded ? 2u : 1u);
        if (hasEnded) {
            EXPECT_EQ(entries[1].eventId, 0xCFFF4010);
            EXPECT_EQ(entries[1].strings[0], Name);
        }
        EXPECT_EQ(entries[0].source, L"TQLib");
        EXPECT_EQ(entries[0].eventId, GetParam().eventId);
        EXPECT_EQ(entries[0].category, GetParam().category);
        EXPECT_NE(entries[0].strings[1].find(context), std::wstring::npos);
    }
};

}  // namespace

TEST_P(Guard, OfRunServicesLogsAndReturns) {
    manager.onDispatch = GetParam().raise;
    EXPECT_EQ(TQServiceMgr::RunServices(), Failed);
    ExpectLogged(L"Processing ServiceMgr RunServices()", false);
}

TEST_P(Guard, OfTheMainFunctionLogsAndReportsTheCode) {
    service.main = [](const TQStringArray&) { GetParam().raise(); };
    EXPECT_EQ(TQServiceMgr::RunServices(), 1);
    ExpectLogged(L"Running Service::RunAppServiceMain");
    EXPECT_EQ(manager.States(Name), (States{S::StartPending, S::Stopped}));
    EXPECT_EQ(manager.Reports(Name).back().dwWin32ExitCode, GetParam().code);
}

TEST_P(Guard, OfTheApplicationLogsAndReturns) {
    manager.onDispatch = GetParam().raise;
    EXPECT_EQ(TQServiceApp::Run(true), static_cast<DWORD>(Failed));
    ExpectLogged(L"Running ServiceApp main()", false);
}

TEST_P(Guard, OfTheProcessorLogsAndReportsTheCode) {
    service.processor.process = [](TestProcessor&) -> unsigned int { return GetParam().raise(), 0; };
    EXPECT_EQ(TQServiceMgr::RunServices(), 1);
    ExpectLogged(L"Processing Thread::RunWork");
    EXPECT_EQ(manager.Reports(Name).back().dwWin32ExitCode, GetParam().code);
}

INSTANTIATE_TEST_SUITE_P(All, Guard, testing::ValuesIn(Kinds),
                         [](const auto& each) { return std::string(each.param.name); });

TEST_F(Hosted, GoesFromStartToStopAndAgain) {
    for (int run = 0; run < 3; ++run) {
        Worker dispatcher([] { EXPECT_EQ(TQServiceMgr::RunServices(), 0); });
        manager.Await(Name, S::Running);
        EXPECT_EQ(manager.Control(Name, C::Pause), 0u);
        manager.Await(Name, S::Paused);
        EXPECT_EQ(manager.Control(Name, C::Continue), 0u);
        manager.Await(Name, S::Running);
        EXPECT_EQ(manager.Control(Name, C::Stop), 0u);
        dispatcher.Join();
        EXPECT_EQ(manager.States(Name), (States{S::StartPending, S::Running, S::PausePending, S::Paused,
                                                S::ContinuePending, S::Running, S::StopPending, S::Stopped}));
        EXPECT_EQ(manager.Reports(Name).back().dwWin32ExitCode, 0u);
    }
    EXPECT_TRUE(log.Entries().empty());
}

TEST_F(Hosted, GivesItsMainFunctionTheArguments) {
    TQStringArray seen;
    service.main = [&](const TQStringArray& arguments) { seen = arguments; };
    wchar_t name[] = L"TestService", first[] = L"one", second[] = L"";
    wchar_t* arguments[] = {name, first, second};
    TestService::RunAppServiceMain(3, arguments);
    EXPECT_EQ(seen, (TQStringArray{Name, L"one", L""}));
}

TEST_F(Hosted, ReportsTheResultOfItsWorkAsExitCode) {
    service.processor.process = [](TestProcessor&) { return 42u; };
    EXPECT_EQ(TQServiceMgr::RunServices(), 1);
    EXPECT_EQ(manager.Reports(Name).back().dwWin32ExitCode, 42u);
    service.processor.process = [](TestProcessor&) -> unsigned int { throw TQException(0u, L"no code"); };
    EXPECT_EQ(TQServiceMgr::RunServices(), 1);
    EXPECT_EQ(manager.Reports(Name).back().dwWin32ExitCode, static_cast<DWORD>(Failed)) << "whatever it says";
}

TEST_F(Hosted, FinishesWhatItCouldPrepareThoughAnExceptionEndedIt) {
    bool isFinished = false;
    service.processor.process = [](TestProcessor&) -> unsigned int { throw TQException(7u, L"work"); };
    service.processor.finish = [&] { isFinished = true; };
    EXPECT_EQ(TQServiceMgr::RunServices(), 1);
    EXPECT_TRUE(std::exchange(isFinished, false));
    EXPECT_EQ(manager.States(Name), (States{S::StartPending, S::Running, S::StopPending, S::Stopped}));
    service.processor.prepare = [] { throw TQException(8u, L"prepare"); };
    EXPECT_EQ(TQServiceMgr::RunServices(), 1);
    EXPECT_FALSE(isFinished);
    EXPECT_EQ(manager.States(Name), (States{S::StartPending, S::Stopped}));
    EXPECT_EQ(manager.Reports(Name).back().dwWin32ExitCode, 8u);
}

TEST_F(Hosted, AdvancesTheCheckPointOfALongStart) {
    service.budget = 10'000;
    service.processor.Hold(ProcState::Starting);
    Worker dispatcher([] { TQServiceMgr::RunServices(); });
    manager.AwaitReport(Name, [](const auto& last) { return last.dwCheckPoint >= 2; });
    EXPECT_LE(manager.Reports(Name).back().dwWaitHint, service.budget);
    EXPECT_EQ(manager.States(Name), (States{S::StartPending}));
    service.processor.Release();
    manager.Await(Name, S::Running);
    manager.Control(Name, C::Stop);
}

// Signs would come each second; the one at the end of the budget may be late.
TEST_F(Hosted, LooksAliveNoLongerThanItsBudget) {
    service.budget = 1;
    service.processor.Hold(ProcState::Starting);
    Worker dispatcher([] { TQServiceMgr::RunServices(); });
    service.processor.AwaitHeld();
    const DWORD before = manager.Reports(Name).back().dwCheckPoint;
    Sleep(2 * TQService::ProgressMs + NeverMs);
    EXPECT_LE(manager.Reports(Name).back().dwCheckPoint, before + 1);
    service.processor.Release();
    manager.Await(Name, S::Running);
    manager.Control(Name, C::Stop);
}

TEST_F(Hosted, LooksAliveForTheTimeThatItsWorkAsksFor) {
    service.budget = 1;
    service.processor.finish = [&] {
        service.processor.RequestTime(40'000);
        manager.AwaitReport(Name, [](const auto& last) { return last.dwCheckPoint >= 2; });
    };
    Worker dispatcher([] { TQServiceMgr::RunServices(); });
    manager.Await(Name, S::Running);
    const std::size_t before = manager.Reports(Name).size();
    service.processor.RequestTime(40'000);
    EXPECT_EQ(manager.Reports(Name).size(), before) << "nothing is pending";
    manager.Control(Name, C::Stop);
    dispatcher.Join();
    const auto isAsked = [](const auto& report) { return report.dwWaitHint == 40'000; };
    EXPECT_TRUE(std::ranges::any_of(manager.Reports(Name), isAsked));
}

TEST_F(Hosted, ReportsControlsThatItAcceptsFromNowOn) {
    Worker dispatcher([] { TQServiceMgr::RunServices(); });
    manager.Await(Name, S::Running);
    service.processor.SetCtrlAllow(ProcControlAccept::ParamChange, true);
    EXPECT_TRUE(manager.Reports(Name).back().dwControlsAccepted & SERVICE_ACCEPT_PARAMCHANGE);
    manager.Control(Name, C::Stop);
}

TEST_F(Hosted, GoesOnWhereTheManagerTakesNoReports) {
    Worker dispatcher([] { EXPECT_EQ(TQServiceMgr::RunServices(), 0); });
    manager.Await(Name, S::Running);
    manager.statusCode = ERROR_INVALID_HANDLE;
    EXPECT_EQ(manager.Control(Name, C::Pause), 0u);
    EXPECT_TRUE(service.processor.WaitForState(ProcState::Pause, INFINITE));
    manager.Control(Name, C::Stop);
    dispatcher.Join();
    EXPECT_EQ(service.CurrentState(), S::Stopped);
    EXPECT_FALSE(log.Entries().empty());
}

TEST_F(Hosted, DoesNotRunWhereItsHandlerIsRefused) {
    bool hasRun = false;
    service.main = [&](const TQStringArray&) { hasRun = true; };
    manager.registerCode = ERROR_SERVICE_DOES_NOT_EXIST;
    EXPECT_EQ(TQServiceMgr::RunServices(), 1);
    EXPECT_FALSE(hasRun);
    ASSERT_EQ(log.Entries().size(), 2u);
    EXPECT_EQ(log.Entries()[0].eventId, 0xCFFF4001);
}

// As of a service that has a process of its own and another name than the one that the program knows.
TEST_F(Hosted, RunsTheFirstUnderAnyName) {
    TestService other(L"Other");
    const Hosting both{&other};
    TQString seen;
    service.main = [&](const TQStringArray& arguments) { seen = arguments[0]; };
    wchar_t name[] = L"Installed";
    wchar_t* arguments[] = {name};
    TestService::RunAppServiceMain(1, arguments);
    EXPECT_EQ(seen, name);
}

TEST(Nothing, IsLeftPendingWhereNoServiceCanBeFound) {
    ScriptedManager manager;
    const RecordingSink log;
    wchar_t name[] = L"Installed";
    wchar_t* arguments[] = {name};
    TestService::RunAppServiceMain(1, arguments);
    ASSERT_EQ(manager.States(name), States{S::Stopped});
    EXPECT_EQ(manager.Reports(name)[0].dwWin32ExitCode, static_cast<DWORD>(ERROR_SERVICE_NOT_IN_EXE));
}

TEST_F(Hosted, FailsWithoutAManager) {
    manager.dispatchCode = ERROR_FAILED_SERVICE_CONTROLLER_CONNECT;
    EXPECT_EQ(TQServiceMgr::RunServices(), Failed);
    EXPECT_EQ(log.Entries().size(), 1u);
}

TEST_F(Hosted, IsRegisteredOnce) {
    TestService twin(L"TESTSERVICE");
    EXPECT_EQ(ThrownCode([&] { TQServiceMgr::RegisterService(&twin); }),
              static_cast<DWORD>(ERROR_SERVICE_EXISTS));
    EXPECT_EQ(ThrownCode([] { TQServiceMgr::RegisterService(nullptr); }),
              static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

// While one of a name is being registered, a call back registers another one of that name.
TEST(Registering, GivesANameOnce) {
    struct Asked : TestService {
        using TestService::TestService;
        TQString ServiceName() const override {
            if (const auto ask = std::exchange(onAsked, nullptr)) ask();
            return TestService::ServiceName();
        }
        mutable std::function<void()> onAsked;
    } other(L"other");
    TestService one(L"same"), twin(L"same");
    const Hosting hosting({&other});
    bool isTwinRegistered = false;
    other.onAsked = [&] {
        TQServiceMgr::RegisterService(&twin);
        isTwinRegistered = true;
    };
    const bool isOneRegistered = ThrownCode([&] { TQServiceMgr::RegisterService(&one); }) == 0;
    EXPECT_NE(isOneRegistered, isTwinRegistered);
}

TEST(NoService, CannotBeRun) {
    ScriptedManager manager;
    const RecordingSink log;
    EXPECT_EQ(TQServiceMgr::RunServices(), Failed);
    ASSERT_EQ(log.Entries().size(), 1u);
}

TEST(TwoServices, HaveStatesExitCodesAndFailuresOfTheirOwn) {
    ScriptedManager manager;
    const RecordingSink log;
    TestService first(L"First", false), second(L"Second", false);
    TQEvent fails(true);
    first.processor.process = [&](TestProcessor&) -> unsigned int {
        fails.Wait(INFINITE);
        throw TQException(11u, L"first");
    };
    const Hosting hosting{&first, &second};
    Worker dispatcher([] { EXPECT_EQ(TQServiceMgr::RunServices(), 1); });
    manager.Await(L"First", S::Running);
    manager.Await(L"Second", S::Running);
    manager.Control(L"Second", C::Pause);
    manager.Await(L"Second", S::Paused);
    EXPECT_EQ(first.CurrentState(), S::Running);
    fails.Set();
    manager.Await(L"First", S::Stopped);
    EXPECT_EQ(manager.Control(L"Second", C::Continue), 0u);
    manager.Await(L"Second", S::Running);
    manager.Control(L"Second", C::Stop);
    dispatcher.Join();
    EXPECT_EQ(manager.Reports(L"First").back().dwWin32ExitCode, 11u);
    EXPECT_EQ(manager.Reports(L"Second").back().dwWin32ExitCode, 0u);
}

// Returns as soon as all services have reported that they stopped, as the platform's does.
class HastyManager : public ServiceHost {
  public:
    BOOL Dispatch(const SERVICE_TABLE_ENTRYW* table) override {
        for (const auto* entry = table; entry->lpServiceName; ++entry)
            ++m_running;
        for (; table->lpServiceName; ++table)
            AddThread([main = table->lpServiceProc, name = std::wstring(table->lpServiceName)]() mutable {
                wchar_t* arguments[] = {name.data()};
                main(1, arguments);
            });
        m_allStopped.Wait(INFINITE);
        return TRUE;
    }
    SERVICE_STATUS_HANDLE RegisterHandler(const wchar_t*, LPHANDLER_FUNCTION_EX handler,
                                          void* context) override {
        if (controls) AddThread([=] { handler(C::ParamChange, 0, nullptr, context); });
        return reinterpret_cast<SERVICE_STATUS_HANDLE>(this);
    }
    BOOL SetStatus(SERVICE_STATUS_HANDLE, SERVICE_STATUS* status) override {
        if (status->dwCurrentState == SERVICE_STOPPED && --m_running == 0) m_allStopped.Set();
        return TRUE;
    }
    // Between the report and the last touch.
    void Linger() const {
        m_allStopped.Wait(INFINITE);
        Sleep(NeverMs);
        EXPECT_FALSE(hasReturned);
    }

    bool controls = false;  // sends a control on a thread of its own
    std::atomic<bool> hasReturned{false};

  private:
    void AddThread(std::function<void()> body) {
        auto thread = std::make_unique<Worker>(std::move(body));
        const std::lock_guard guard(m_lock);
        m_threads.push_back(std::move(thread));
    }

    const ServiceHostScope m_scope{*this};
    std::atomic<int> m_running{0};
    const TQEvent m_allStopped{true};
    std::mutex m_lock;
    std::vector<std::unique_ptr<Worker>> m_threads;
};

TEST(RunServices, ReturnsWhenNoThreadIsInAServiceAnyMore) {
    for (const bool isHandlerLate : {false, true}) {
        HastyManager manager;
        manager.controls = true;
        const TQEvent isControlled(true);
        TestService service;
        const Hosting hosting{&service};
        service.request = [&](DWORD) {
            isControlled.Set();
            if (isHandlerLate) manager.Linger();
            return true;
        };
        service.main = [&](const TQStringArray&) {
            isControlled.Wait(INFINITE);
            service.SetState(S::Stopped);
            if (!isHandlerLate) manager.Linger();
        };
        EXPECT_EQ(TQServiceMgr::RunServices(), 0);
        manager.hasReturned = true;
    }
}

// They are destroyed at once, while their threads are on their way out.
TEST(RunServices, LeavesServicesThatMayBeDestroyed) {
    for (int round = 0; round < 200; ++round) {
        HastyManager manager;
        TestService first(L"First", false), second(L"Second", false);
        const Hosting hosting{&first, &second};
        first.main = second.main = [](const TQStringArray&) {};
        EXPECT_EQ(TQServiceMgr::RunServices(), 0);
    }
}

// In the foreground one service runs already when the other cannot be started.
TEST(TwoServices, DoNotRunOneWithoutTheOther) {
    ScriptedManager manager;
    manager.dispatchCode = ERROR_FAILED_SERVICE_CONTROLLER_CONNECT;
    const RecordingSink log;
    TestService first(L"First", false), second(L"Second", false);
    const Hosting hosting{&first, &second};
    // The first time the platform has a thread of its own for Ctrl+C.
    second.processor.process = [](TestProcessor&) { return 0u; };
    first.processor.process = second.processor.process;
    EXPECT_EQ(TQServiceApp::Run(true), 0u);
    bool hasRun = false;
    first.processor.process = [&](TestProcessor& self) {
        hasRun = true;
        while (self.WaitForTurn(INFINITE)) {
        }
        return 0u;
    };
    const FailCall fail("CreateThread", ERROR_NOT_ENOUGH_MEMORY, 2);
    EXPECT_EQ(TQServiceApp::Run(true), static_cast<DWORD>(Failed));
    EXPECT_EQ(first.CurrentState(), S::Stopped);
    EXPECT_TRUE(hasRun);
}
