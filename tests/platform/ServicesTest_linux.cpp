#include "RawServiceHandle_linux.h"
#include "ServicesTest.h"
#include "ServicesTestProgram.h"
#include "support/PrivateManager_linux.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <iterator>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace Quellan::Corvel::Test {
namespace {

using namespace Quellan::Platform;
using testing::ElementsAre;
using testing::IsEmpty;

bool IsAlive(DWORD process) {
    return kill(static_cast<pid_t>(process), 0) == 0;
}

class ServiceManagement : public testing::Test {
  protected:
    explicit ServiceManagement(std::vector<std::string> options = {"--delay", "200"})
        : m_manager(std::move(options)) {}

    OwnedService Add(const std::wstring& name, const std::wstring& dependencies = {}) {
        ServiceRecord record{.name = name};
        record.dependencies = dependencies;
        OwnedService service = Create(record);
        EXPECT_TRUE(service) << GetLastError();
        return service;
    }
    // Of the test program in a role, with its arguments.
    static OwnedService AddRole(const std::wstring& name, const std::wstring& role,
                                DWORD type = SERVICE_WIN32_SHARE_PROCESS) {
        ServiceRecord record{.name = name, .type = type};
        record.commandLine = ServiceRecord::ProgramInRole(role);
        return Create(record);
    }
    // Another manager in the place of one that was killed.
    void Replace() {
        m_manager.Kill();
        m_manager.Start();
    }
    static DWORD ProcessOf(const OwnedService& service) { return StatusOf(service).dwProcessId; }
    // Which whoever changes the records holds.
    std::string HiveLock() const { return m_manager.Folder() + "root/state/registry/machine/lock"; }

    static bool SetActions(const OwnedService& service, std::vector<SC_ACTION> actions,
                           std::wstring command = {}, DWORD resetPeriod = INFINITE) {
        SERVICE_FAILURE_ACTIONSW info{};
        info.dwResetPeriod = resetPeriod;
        info.lpCommand = command.data();
        info.cActions = static_cast<DWORD>(actions.size());
        info.lpsaActions = actions.data();
        return ChangeServiceConfig2W(service.get(), SERVICE_CONFIG_FAILURE_ACTIONS, &info);
    }
    // Ends the service's process and waits until the manager has seen it.
    static void Crash(const OwnedService& service) {
        const DWORD process = ProcessOf(service);
        ASSERT_NE(process, 0u);  // which would be this one and all of its group
        kill(static_cast<pid_t>(process), SIGKILL);
        WaitUntil(service, [&](const SERVICE_STATUS_PROCESS& now) { return now.dwProcessId != process; });
    }

    // A limit of the manager that is `now` while `action` runs.
    template <class Action>
    void WithLimit(decltype(RLIMIT_NOFILE) what, rlim_t now, Action action) const {
        const auto manager = static_cast<pid_t>(m_manager.Id());
        rlimit before{};
        ASSERT_EQ(prlimit(manager, what, nullptr, &before), 0);
        const rlimit limit{.rlim_cur = now, .rlim_max = before.rlim_max};
        ASSERT_EQ(prlimit(manager, what, &limit, nullptr), 0);
        action();
        ASSERT_EQ(prlimit(manager, what, &before, nullptr), 0);
    }

    PrivateManager m_manager;
};

// A short limit for programs and handlers, which must be long enough for a loaded machine to start one.
constexpr DWORD ImpatientMs = SlowControlMs / 3;

class ImpatientManagement : public ServiceManagement {
  protected:
    ImpatientManagement() : ServiceManagement({"--request-limit", std::to_string(ImpatientMs)}) {}
};

class FailingStart : public ImpatientManagement,
                     public testing::WithParamInterface<std::pair<std::wstring, DWORD>> {};

TEST_P(FailingStart, IsTold) {
    const auto [commandLine, code] = GetParam();
    ServiceRecord record{.name = L"A"};
    record.commandLine = commandLine;
    const OwnedService service = Create(record);
    EXPECT_EQ(Start(service), code);
    const SERVICE_STATUS_PROCESS status = StatusOf(service);
    EXPECT_EQ(status.dwCurrentState, SERVICE_STOPPED);
    EXPECT_EQ(status.dwWin32ExitCode, code);
    EXPECT_EQ(status.dwProcessId, 0u);
}

INSTANTIATE_TEST_SUITE_P(ServiceManagement, FailingStart,
                         testing::Values(std::pair(L"/no/such/program", ERROR_FILE_NOT_FOUND),
                                         std::pair(L"\"/no such/program\" x", ERROR_FILE_NOT_FOUND),
                                         std::pair(L"/etc/passwd", ERROR_ACCESS_DENIED),
                                         std::pair(L"/bin/true", ERROR_SERVICE_REQUEST_TIMEOUT),
                                         std::pair(L"/bin/sleep 100", ERROR_SERVICE_REQUEST_TIMEOUT)),
                         [](const auto& row) { return "Row" + std::to_string(row.index); });

// Who opens a leased file waits until the lease is given back: programs on a disk that does not answer yet.
TEST_F(ServiceManagement, WaitsForNoProgramToBeRead) {
    std::signal(SIGIO, SIG_IGN);
    std::vector<Descriptor> files;
    std::vector<OwnedService> services;
    for (const std::string name : {"A", "B", "C"}) {
        const std::string path = m_manager.Folder() + name;
        ServiceRecord record{.name = Wide(name)};
        record.commandLine = Wide(path);
        services.push_back(Create(record));
        std::ofstream(path) << "no program";
        chmod(path.c_str(), 0755);
        files.emplace_back(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_EQ(fcntl(files.back().Get(), F_SETLEASE, F_WRLCK), 0);
    }
    std::vector<DWORD> codes(services.size());
    std::vector<std::jthread> starts;
    for (std::size_t i = 0; i < services.size(); ++i)
        starts.emplace_back([&, i] { codes[i] = Start(services[i]); });
    EXPECT_TRUE(Eventually([&] {
        return std::ranges::none_of(
            files, [](const Descriptor& file) { return fcntl(file.Get(), F_GETLEASE) == F_WRLCK; });
    }));
    for (const OwnedService& service : services)
        EXPECT_EQ(StateOf(service), SERVICE_START_PENDING);
    files.clear();
    starts.clear();
    EXPECT_THAT(codes, testing::Each(ERROR_BAD_EXE_FORMAT));
}

// Programs that misbehave. Whatever they do, each service comes to a state that stays, and not before its
// time.

struct Misbehaviour {
    const char* does;
    DWORD startCode;  // ERROR_IO_PENDING where it depends on what is quicker
    DWORD stopCode;   // of a stop once it runs; ERROR_IO_PENDING for none
    DWORD state;
    DWORD exitCode;
    DWORD limit;  // in milliseconds: not sooner than this
};

TEST_F(ImpatientManagement, EndsWhatMisbehaves) {
    constexpr DWORD Either = ERROR_IO_PENDING, Hung = ERROR_SERVICE_REQUEST_TIMEOUT;
    const Misbehaviour rows[] = {
        {"never-registers", 0, Either, SERVICE_STOPPED, Hung, ImpatientMs},
        {"exits-in-start", Either, Either, SERVICE_STOPPED, ERROR_PROCESS_ABORTED, 0},
        {"hangs-in-start", 0, Either, SERVICE_STOPPED, Hung, ImpatientMs + ShortHintMs},
        {"repeats-its-start", 0, Either, SERVICE_STOPPED, Hung, ImpatientMs + ShortHintMs},
        {"hangs-in-stop", 0, 0, SERVICE_STOPPED, Hung, ImpatientMs + ShortHintMs},
        {"says-nothing-in-stop", 0, 0, SERVICE_STOPPED, Hung, ImpatientMs},
        {"hangs-in-handler", 0, Hung, SERVICE_RUNNING, 0, ImpatientMs},
        {"floods", 0, Either, SERVICE_STOPPED, FailureCode, 0},
    };
    std::vector<OwnedService> services;
    std::vector<ULONGLONG> begun;
    std::vector<DWORD> processes;
    for (const Misbehaviour& row : rows) {
        SCOPED_TRACE(row.does);
        services.push_back(
            AddRole(Wide(row.does), L"misbehaving " + Wide(row.does), SERVICE_WIN32_OWN_PROCESS));
        begun.push_back(GetTickCount64());
        const DWORD code = Start(services.back());
        EXPECT_TRUE(code == row.startCode || row.startCode == Either) << code;
        if (row.stopCode != Either) {
            WaitFor(services.back(), SERVICE_RUNNING);
            processes.push_back(ProcessOf(services.back()));
            begun.back() = GetTickCount64();
            EXPECT_EQ(Control(services.back(), SERVICE_CONTROL_STOP), row.stopCode);
        } else {
            processes.push_back(ProcessOf(services.back()));
        }
    }
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(rows[i].does);
        const SERVICE_STATUS_PROCESS status = WaitFor(services[i], rows[i].state);
        EXPECT_EQ(status.dwWin32ExitCode, rows[i].exitCode);
        EXPECT_GE(GetTickCount64() - begun[i], rows[i].limit);
        if (rows[i].state != SERVICE_STOPPED) continue;
        EXPECT_EQ(status.dwProcessId, 0u);
        EXPECT_TRUE(Eventually([&] { return !processes[i] || !IsAlive(processes[i]); }));
    }
    EXPECT_EQ(RawServiceHandle(m_manager.Socket(), std::string("hangs-in-handler")).Ask(KillServiceMessage()),
              0u);
    EXPECT_EQ(WaitFor(OpenNamed(L"hangs-in-handler"), SERVICE_STOPPED).dwWin32ExitCode,
              ERROR_PROCESS_ABORTED);
}

// A service that hangs in a process which others use is given up alone, and known again when it does
// something.
TEST_F(ImpatientManagement, SparesTheNeighboursOfAServiceThatHangs) {
    const std::wstring role = L"misbehaving starts-late well late";
    const OwnedService well = AddRole(L"well", role), late = AddRole(L"late", role),
                       dependent = Add(L"dependent", L"late");
    EXPECT_EQ(StartAndWait(well), 0u);
    EXPECT_EQ(Start(dependent), ERROR_SERVICE_DEPENDENCY_FAIL);
    EXPECT_EQ(WaitFor(late, SERVICE_STOPPED).dwWin32ExitCode, ERROR_SERVICE_REQUEST_TIMEOUT);
    EXPECT_EQ(Start(late), ERROR_SERVICE_ALREADY_RUNNING) << "says its process";
    EXPECT_EQ(Control(well, SERVICE_CONTROL_PARAMCHANGE), 0u) << "which goes on, and tells it to";
    EXPECT_EQ(WaitFor(late, SERVICE_RUNNING).dwProcessId, ProcessOf(well));
    EXPECT_EQ(StopAndWait(late), 0u);
    EXPECT_EQ(StopAndWait(well), 0u);
}

TEST_F(ImpatientManagement, WaitsForASlowHandlerInItsProcessAlone) {
    const OwnedService slow = AddRole(L"slow", L"service slow other"),
                       other = AddRole(L"other", L"service slow other"), elsewhere = Add(L"elsewhere");
    EXPECT_EQ(StartAndWait(slow), 0u);
    EXPECT_EQ(Control(slow, SlowControl), ERROR_SERVICE_REQUEST_TIMEOUT);
    EXPECT_EQ(StartAndWait(elsewhere), 0u);
    EXPECT_EQ(Start(other), ERROR_SERVICE_REQUEST_TIMEOUT) << "it was not told";
    EXPECT_EQ(StatusOf(other).dwWin32ExitCode, ERROR_SERVICE_REQUEST_TIMEOUT);
    EXPECT_EQ(StateOf(other), SERVICE_STOPPED);
    EXPECT_TRUE(Eventually([&] { return Control(slow, SERVICE_CONTROL_INTERROGATE) == 0; }));
    EXPECT_EQ(StartAndWait(other), 0u);
}

// One that asks and takes no answers.
TEST_F(ImpatientManagement, DropsAClientThatStopsReading) {
    for (int i = 0; i < 40; ++i)
        Create({.name = L"filler-" + std::to_wstring(i) + std::wstring(200, L'x')});
    const RawServiceHandle client(m_manager.Socket());
    EXPECT_TRUE(Eventually([&] {
        client.Say(EnumServicesMessage{SERVICE_WIN32, SERVICE_STATE_ALL, {}, {}});
        EXPECT_TRUE(OpenManager()) << "others are served";
        return client.HasEnded();
    }));
}

TEST_F(ServiceManagement, NoManagerIsNoServer) {
    SetLastError(77);
    EXPECT_TRUE(OpenManager());
    EXPECT_EQ(GetLastError(), 77u);  // on the way to it nothing failed
    m_manager.Kill();
    EXPECT_EQ(CodeOf(OpenManager().get()), RPC_S_SERVER_UNAVAILABLE);
    EXPECT_EQ(CodeOf(OpenSCManagerW(L"elsewhere", nullptr, 0)), RPC_S_SERVER_UNAVAILABLE);
    EXPECT_EQ(CodeOf(OpenSCManagerW(nullptr, L"another", 0)), ERROR_DATABASE_DOES_NOT_EXIST);
}

TEST_F(ServiceManagement, ChecksRecords) {
    const OwnedService there = Add(L"A");
    const auto codeOf = [](ServiceRecord record) { return CodeOf(Create(record).get()); };
    EXPECT_EQ(codeOf({.name = L""}), ERROR_INVALID_NAME);
    EXPECT_EQ(codeOf({.name = L"a/b"}), ERROR_INVALID_NAME);
    EXPECT_EQ(codeOf({.name = L"a\\b"}), ERROR_INVALID_NAME);
    EXPECT_EQ(codeOf({.name = std::wstring(256, L'n')}), ERROR_INVALID_NAME);
    EXPECT_EQ(codeOf({.name = std::wstring(255, L'n')}), 0u);
    EXPECT_EQ(codeOf({.name = L"B", .type = 1}), ERROR_INVALID_PARAMETER) << "no drivers";
    EXPECT_EQ(codeOf({.name = L"B", .start = 0}), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(codeOf({.name = L"B", .commandLine = L""}), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(codeOf({.name = L"B", .commandLine = std::wstring(70'000, L'x')}), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(codeOf({.name = L"B", .account = L"no such user"}), ERROR_INVALID_SERVICE_ACCOUNT);
    EXPECT_TRUE(ChangeServiceConfigW(there.get(), SERVICE_NO_CHANGE, SERVICE_NO_CHANGE, SERVICE_NO_CHANGE,
                                     nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, L"Shown"));
    EXPECT_EQ(codeOf({.name = L"SHOWN"}), ERROR_DUPLICATE_SERVICE_NAME);
}

TEST_F(ServiceManagement, StartsDependenciesFirstAndStopsThemLast) {
    const OwnedService a = Add(L"A"), b = Add(L"B", L"a\0"), c = Add(L"C", std::wstring(L"B\0A\0", 4));
    EXPECT_EQ(StartAndWait(c), 0u);
    EXPECT_EQ(StateOf(a), SERVICE_RUNNING);
    EXPECT_EQ(StateOf(b), SERVICE_RUNNING);
    ENUM_SERVICE_STATUSW dependents[20];
    DWORD needed = 0, count = 0;
    ASSERT_TRUE(
        EnumDependentServicesW(a.get(), SERVICE_ACTIVE, dependents, sizeof dependents, &needed, &count));
    ASSERT_EQ(count, 2u);
    EXPECT_STREQ(dependents[0].lpServiceName, L"C");
    EXPECT_STREQ(dependents[1].lpServiceName, L"B");
    EXPECT_EQ(Control(a, SERVICE_CONTROL_STOP), ERROR_DEPENDENT_SERVICES_RUNNING);
    for (const OwnedService* service : {&c, &b, &a})
        EXPECT_EQ(StopAndWait(*service), 0u);
}

TEST_F(ServiceManagement, RefusesCirclesOfDependencies) {
    const OwnedService a = Add(L"A", L"B"), b = Add(L"B", L"C");
    ServiceRecord record{.name = L"C"};
    record.dependencies = L"A";
    EXPECT_EQ(CodeOf(Create(record).get()), ERROR_CIRCULAR_DEPENDENCY);
    EXPECT_EQ(Start(a), ERROR_SERVICE_DEPENDENCY_FAIL) << "what B needs is missing";
    EXPECT_EQ(Start(b), ERROR_SERVICE_DEPENDENCY_DELETED);
}

TEST_F(ServiceManagement, RunsServicesOfOneProgramInOneProcess) {
    const std::wstring role = L"service one two";
    const OwnedService one = AddRole(L"one", role), two = AddRole(L"two", role),
                       three = AddRole(L"three", role);
    EXPECT_EQ(StartAndWait(one), 0u);
    EXPECT_EQ(StartAndWait(two), 0u);
    const DWORD process = ProcessOf(one);
    EXPECT_EQ(ProcessOf(two), process);
    EXPECT_EQ(Start(three), ERROR_SERVICE_NOT_IN_EXE);
    EXPECT_EQ(StopAndWait(one), 0u);
    EXPECT_EQ(StateOf(two), SERVICE_RUNNING);
    EXPECT_EQ(StartAndWait(one), 0u);
    EXPECT_EQ(ProcessOf(one), process);
    EXPECT_EQ(StopAndWait(one), 0u);
    EXPECT_EQ(StopAndWait(two), 0u);
    EXPECT_TRUE(Eventually([&] { return !IsAlive(process); }));
}

// Its report may be there before the answer that it was started.
TEST_F(ServiceManagement, StartsAServiceOnceThatStopsAtOnce) {
    const OwnedService service = Add(L"A");
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(Start(service, {CountArguments}), 0u);
        EXPECT_EQ(WaitFor(service, SERVICE_STOPPED).dwServiceSpecificExitCode, 2u);
    }
}

TEST_F(ServiceManagement, GivesTheHandlersAnswerAndSaysWhereItEndedWithoutOne) {
    const OwnedService service = Add(L"A");
    EXPECT_EQ(StartAndWait(service), 0u);
    EXPECT_EQ(Control(service, RefuseControl), RefusalCode);
    EXPECT_EQ(Control(service, 200), ERROR_CALL_NOT_IMPLEMENTED);
    EXPECT_EQ(Control(service, CrashControl), ERROR_PROCESS_ABORTED);
    EXPECT_EQ(WaitFor(service, SERVICE_STOPPED).dwWin32ExitCode, ERROR_PROCESS_ABORTED);
    EXPECT_EQ(StartAndWait(service), 0u);
}

TEST_F(ServiceManagement, RestartsAServiceThatFailedAsOftenAsItIsTold) {
    const OwnedService service = Add(L"A");
    ASSERT_TRUE(SetActions(service, {{SC_ACTION_RESTART, 0}, {SC_ACTION_RESTART, 50}, {SC_ACTION_NONE, 0}}));
    EXPECT_EQ(StartAndWait(service), 0u);
    Crash(service);
    WaitFor(service, SERVICE_RUNNING);
    Crash(service);
    WaitFor(service, SERVICE_RUNNING);
    Crash(service);
    EXPECT_EQ(StateOf(service), SERVICE_STOPPED);
}

TEST_F(ServiceManagement, DoesNothingForAServiceThatIsKilledByRequest) {
    const OwnedService service = Add(L"A");
    ASSERT_TRUE(SetActions(service, {{SC_ACTION_RESTART, 0}, {SC_ACTION_NONE, 0}}));
    const RawServiceHandle handle(m_manager.Socket(), std::string("A"));
    EXPECT_EQ(handle.Ask(KillServiceMessage()), ERROR_SERVICE_NOT_ACTIVE);
    EXPECT_EQ(StartAndWait(service), 0u);
    EXPECT_EQ(handle.Ask(KillServiceMessage()), 0u);
    EXPECT_EQ(WaitFor(service, SERVICE_STOPPED).dwWin32ExitCode, ERROR_PROCESS_ABORTED);
    EXPECT_EQ(StartAndWait(service), 0u);
    Crash(service);
    WaitFor(service, SERVICE_RUNNING);  // as after a first failure
}

TEST_F(ServiceManagement, ForgetsFailuresAfterTheResetPeriod) {
    const OwnedService service = Add(L"A");
    ASSERT_TRUE(SetActions(service, {{SC_ACTION_RESTART, 0}, {SC_ACTION_NONE, 0}}, {}, 0));
    EXPECT_EQ(StartAndWait(service), 0u);
    for (int i = 0; i < 3; ++i) {
        Crash(service);
        WaitFor(service, SERVICE_RUNNING);
    }
}

TEST_F(ServiceManagement, RunsACommandAfterAFailureAsTheServicesAccount) {
    chmod(m_manager.Folder().c_str(), 0777);
    ServiceRecord record{.name = L"A"};
    if (geteuid() == 0) record.account = L"NT AUTHORITY\\LocalService";
    const OwnedService service = Create(record);
    const std::string file = m_manager.Folder() + "failed-";
    ASSERT_TRUE(SetActions(service, {{SC_ACTION_RUN_COMMAND, 0}}, L"/usr/bin/touch " + Wide(file) + L"%1%"));
    EXPECT_EQ(StartAndWait(service), 0u);
    Crash(service);
    struct stat made {};
    EXPECT_TRUE(Eventually([&] { return stat((file + "1").c_str(), &made) == 0; }));
    EXPECT_EQ(made.st_uid, geteuid() == 0 ? 65'534u : geteuid());
}

TEST_F(ServiceManagement, ActsOnExitCodesOnlyWhenItIsTold) {
    const OwnedService service = Add(L"A");
    ASSERT_TRUE(SetActions(service, {{SC_ACTION_RESTART, 0}}));
    EXPECT_EQ(StartAndWait(service), 0u);
    EXPECT_EQ(Control(service, FailControl), 0u);
    EXPECT_EQ(WaitFor(service, SERVICE_STOPPED).dwWin32ExitCode, FailureCode);
    SERVICE_FAILURE_ACTIONS_FLAG flag{TRUE};
    ASSERT_TRUE(ChangeServiceConfig2W(service.get(), SERVICE_CONFIG_FAILURE_ACTIONS_FLAG, &flag));
    EXPECT_EQ(StartAndWait(service), 0u);
    const DWORD process = ProcessOf(service);
    EXPECT_EQ(Control(service, FailControl), 0u);
    WaitUntil(service, [&](const SERVICE_STATUS_PROCESS& now) {
        return now.dwCurrentState == SERVICE_RUNNING && now.dwProcessId != process;
    });
    EXPECT_NE(ProcessOf(service), process);
    EXPECT_EQ(StateOf(service), SERVICE_RUNNING);
}

TEST_F(ServiceManagement, StartsServicesAtItsOwnStart) {
    ServiceRecord record{.name = L"A", .start = SERVICE_AUTO_START};
    record.dependencies = L"B";
    OwnedService a = Create(record), b = Add(L"B"),
                 late = Create({.name = L"C", .start = SERVICE_AUTO_START});
    SERVICE_DELAYED_AUTO_START_INFO delayed{TRUE};
    ASSERT_TRUE(ChangeServiceConfig2W(late.get(), SERVICE_CONFIG_DELAYED_AUTO_START_INFO, &delayed));
    EXPECT_EQ(m_manager.Stop(), 0);
    m_manager.Start();
    a = OpenNamed(L"A"), b = OpenNamed(L"B"), late = OpenNamed(L"C");
    WaitFor(a, SERVICE_RUNNING);
    EXPECT_EQ(StateOf(b), SERVICE_RUNNING);
    WaitFor(late, SERVICE_RUNNING);
}

TEST_F(ServiceManagement, StopsTheServicesAtItsEnd) {
    const OwnedService a = Add(L"A"), b = Add(L"B", L"A");
    EXPECT_EQ(StartAndWait(b), 0u);
    const DWORD processes[] = {ProcessOf(a), ProcessOf(b)};
    EXPECT_EQ(m_manager.Stop(), 0);
    EXPECT_FALSE(std::filesystem::exists(m_manager.Socket()));
    for (const DWORD process : processes)
        EXPECT_TRUE(Eventually([&] { return !IsAlive(process); }));
    m_manager.Start();
}

TEST_F(ServiceManagement, IsTheOnlyOneAtItsSocket) {
    ChildProcess second("tqscm", {"--socket", m_manager.Socket()}, ChildProcess::Files::Piped);
    EXPECT_EQ(second.ExitCode(), 3);
    EXPECT_TRUE(OpenManager()) << "the first still serves";
}

TEST_F(ServiceManagement, HearsHowAServiceEndedMeanwhile) {
    OwnedService reporting = Add(L"A"), killed = Add(L"B"), restarted = Add(L"C");
    ASSERT_TRUE(SetActions(restarted, {{SC_ACTION_RESTART, 0}}));
    for (const OwnedService* service : {&reporting, &killed, &restarted})
        EXPECT_EQ(StartAndWait(*service), 0u);
    EXPECT_EQ(Control(reporting, StopByFileControl), 0u);
    const DWORD processes[] = {ProcessOf(killed), ProcessOf(restarted)};
    m_manager.Kill();
    for (const DWORD process : processes)
        kill(static_cast<pid_t>(process), SIGKILL);
    const std::string stop = m_manager.Folder() + "root/" + StopFile;
    std::ofstream(stop).put('x');
    EXPECT_TRUE(Eventually([&] { return !std::filesystem::exists(stop); })) << "reported, to nobody";
    m_manager.Start();
    EXPECT_EQ(StatusOf(OpenNamed(L"A")).dwWin32ExitCode, FailureCode);
    EXPECT_EQ(StatusOf(OpenNamed(L"B")).dwWin32ExitCode, ERROR_PROCESS_ABORTED);
    WaitFor(OpenNamed(L"C"), SERVICE_RUNNING);
}

TEST_F(ServiceManagement, GoesOnWithADeletionThatAnEarlierManagerBegan) {
    OwnedService running = Add(L"A"), stopped = Add(L"B");
    EXPECT_EQ(StartAndWait(running), 0u);
    EXPECT_TRUE(DeleteService(running.get()));
    EXPECT_TRUE(DeleteService(stopped.get()));
    Replace();
    EXPECT_EQ(CodeOf(OpenNamed(L"B").get()), ERROR_SERVICE_DOES_NOT_EXIST);
    running = OpenNamed(L"A");
    EXPECT_EQ(StopAndWait(running), 0u);
    running.reset();
    EXPECT_EQ(CodeOf(OpenNamed(L"A").get()), ERROR_SERVICE_DOES_NOT_EXIST);
}

// Nobody changes a hive whose lock others could have made.
TEST_F(ServiceManagement, TriesAgainWhatItCouldNotDelete) {
    OwnedService service = Add(L"A");
    EXPECT_TRUE(DeleteService(service.get()));
    std::filesystem::permissions(HiveLock(), std::filesystem::perms::others_write,
                                 std::filesystem::perm_options::add);
    service.reset();
    m_manager.ReadTo("A cannot be deleted yet: error 5");
    EXPECT_FALSE(Create({.name = L"A"}));
    EXPECT_EQ(GetLastError(), ERROR_SERVICE_MARKED_FOR_DELETE);
    std::filesystem::permissions(HiveLock(), std::filesystem::perms::others_write,
                                 std::filesystem::perm_options::remove);
    EXPECT_TRUE(Eventually([&] { return service || (service = Create({.name = L"A"})); }));
}

TEST_F(ServiceManagement, AnswersOthersWhileItWaitsForTheRegistry) {
    const OwnedService service = Add(L"A");
    EXPECT_EQ(StartAndWait(service), 0u);
    Descriptor held(open(HiveLock().c_str(), O_RDWR | O_CLOEXEC));
    struct flock whole {};
    whole.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(held.Get(), F_OFD_SETLKW, &whole), 0);
    std::atomic<bool> isMade = false;
    std::jthread other([&] { isMade = Create({.name = L"B"}) != nullptr; });
    // Somebody stands in the lock's line.
    struct stat info {};
    fstat(held.Get(), &info);
    const std::string waits = ':' + std::to_string(info.st_ino) + ' ';
    EXPECT_TRUE(Eventually([&] {
        std::ifstream locks("/proc/locks");
        for (std::string line; std::getline(locks, line);)
            if (line.find("->") != line.npos && line.find(waits) != line.npos) return true;
        return false;
    }));
    EXPECT_EQ(Control(service, SERVICE_CONTROL_PAUSE), 0u);
    EXPECT_FALSE(isMade);
    held = Descriptor();
    other.join();
    EXPECT_TRUE(isMade);
}

TEST_F(ServiceManagement, RestartsWhatAnEarlierManagerWasToRestart) {
    OwnedService service = Add(L"A");
    ASSERT_TRUE(SetActions(service, {{SC_ACTION_RESTART, 2000}, {SC_ACTION_NONE, 0}}));
    EXPECT_EQ(StartAndWait(service), 0u);
    Crash(service);
    const ULONGLONG begin = GetTickCount64();
    Replace();
    service = OpenNamed(L"A");
    EXPECT_EQ(StateOf(service), SERVICE_STOPPED);
    WaitFor(service, SERVICE_RUNNING);
    EXPECT_GE(GetTickCount64() - begin, 1950u) << "no sooner than it is told to";
    Crash(service);
    EXPECT_EQ(StateOf(service), SERVICE_STOPPED) << "the first failure counts";
    Replace();
    EXPECT_EQ(StateOf(OpenNamed(L"A")), SERVICE_STOPPED);
}

const Role g_startSlowlyNeeding("start-needing", [](const RoleArguments&) {
    puts("asking");
    fflush(stdout);
    return Start(OpenNamed(L"A"), {CountArguments, L"x"}) == RPC_S_SERVER_UNAVAILABLE ? 0 : 1;
});

TEST_F(ServiceManagement, StartsWhatAnEarlierManagerWasToStart) {
    const std::wstring role = L"misbehaving starts-late well late";
    OwnedService well = AddRole(L"well", role);
    const OwnedService late = AddRole(L"late", role), service = Add(L"A", L"late");
    EXPECT_EQ(StartAndWait(well), 0u);
    RoleProcess asker("start-needing");
    WaitFor(late, SERVICE_START_PENDING);
    m_manager.Kill();
    EXPECT_EQ(asker.ExitCode(), 0);
    m_manager.Start();
    well = OpenNamed(L"well");
    EXPECT_EQ(Control(well, SERVICE_CONTROL_PARAMCHANGE), 0u);
    EXPECT_EQ(
        WaitUntil(OpenNamed(L"A"),
                  [](const SERVICE_STATUS_PROCESS& status) { return status.dwServiceSpecificExitCode != 0; })
            .dwServiceSpecificExitCode,
        3u)
        << "with its arguments";
}

// Whatever becomes of the journal, services that run are found again, and none runs twice.
TEST_F(ServiceManagement, FindsServicesAgainThatTheJournalHasLost) {
    ServiceRecord record{.name = L"A", .start = SERVICE_AUTO_START};
    record.commandLine += L" A";
    OwnedService service = Create(record);
    const std::string path = m_manager.Socket() + ".journal";
    std::filesystem::copy(path, path + ".old");
    EXPECT_EQ(StartAndWait(service), 0u);
    EXPECT_EQ(Control(service, SERVICE_CONTROL_PAUSE), 0u);
    const DWORD process = ProcessOf(service);
    struct Damage {
        const char* name;
        void (*how)(const std::string& path);
    };
    const Damage damages[] = {
        {"nothing", [](const std::string&) {}},
        {"one that is older", [](const std::string& file) { std::filesystem::rename(file + ".old", file); }},
        {"a byte of its beginning", [](const std::string& file) { std::fstream(file).seekp(4).put('\xFF'); }},
        {"all after its beginning", [](const std::string& file) { std::filesystem::resize_file(file, 60); }},
        {"none of it", [](const std::string& file) { std::filesystem::remove(file); }}};
    for (const Damage& damage : damages) {
        SCOPED_TRACE(damage.name);
        m_manager.Kill();
        EXPECT_EQ(Control(service, SERVICE_CONTROL_CONTINUE), RPC_S_SERVER_UNAVAILABLE);
        damage.how(path);
        m_manager.Start();
        service = OpenNamed(L"A");
        EXPECT_EQ(StateOf(service), SERVICE_PAUSED);
        EXPECT_EQ(ProcessOf(service), process);
        EXPECT_EQ(Control(service, SERVICE_CONTROL_CONTINUE), 0u);
        EXPECT_EQ(Control(service, SERVICE_CONTROL_PAUSE), 0u);
    }
    // One that does not answer is not waited for. It is the one to end when it does.
    m_manager.Kill();
    std::filesystem::remove(path);
    kill(static_cast<pid_t>(process), SIGSTOP);
    m_manager.Start();
    service = OpenNamed(L"A");
    const DWORD second = WaitFor(service, SERVICE_RUNNING).dwProcessId;
    EXPECT_NE(second, process);
    kill(static_cast<pid_t>(process), SIGCONT);
    EXPECT_TRUE(Eventually([&] { return !IsAlive(process); }));
    EXPECT_EQ(ProcessOf(service), second);
}

TEST_F(ServiceManagement, TriesAgainWhatItHasNoDescriptorsFor) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the manager's sanitizer needs descriptors to look at an object";
#endif
    const OwnedService service = Add(L"A");
    ASSERT_TRUE(SetActions(service, {{SC_ACTION_RESTART, 0}}));
    EXPECT_EQ(StartAndWait(service), 0u);
    WithLimit(RLIMIT_NOFILE, 3, [&] {
        Crash(service);
        EXPECT_EQ(StateOf(service), SERVICE_STOPPED);
    });
    WaitFor(service, SERVICE_RUNNING);
    EXPECT_TRUE(OpenManager());
}

TEST_F(ServiceManagement, RestartsAServiceOnceItsAccountMayHaveAProcess) {
    if (geteuid() != 0) GTEST_SKIP() << "only root may become somebody else";
    chmod(m_manager.Folder().c_str(), 0755);
    ServiceRecord record{.name = L"A"};
    record.account = L"NT AUTHORITY\\LocalService";
    const OwnedService service = Create(record);
    record.name = L"B";
    const OwnedService other = Create(record);
    ASSERT_TRUE(SetActions(service, {{SC_ACTION_RESTART, 0}}));
    EXPECT_EQ(StartAndWait(service), 0u);
    EXPECT_EQ(StartAndWait(other), 0u);
    WithLimit(RLIMIT_NPROC, 0, [&] {
        Crash(service);
        m_manager.ReadTo("A is started later");
    });
    WaitFor(service, SERVICE_RUNNING);
}

// A service that crashes at once is restarted ever later.
TEST_F(ServiceManagement, RestartsAServiceEverLaterThatAlwaysFails) {
    const std::string file = m_manager.Folder() + "starts";
    const OwnedService service =
        AddRole(L"A", L"misbehaving counts-and-exits " + Wide(file), SERVICE_WIN32_OWN_PROCESS);
    ASSERT_TRUE(SetActions(service, {{SC_ACTION_RESTART, 0}}));
    Start(service);
    std::vector<ULONGLONG> times;
    EXPECT_TRUE(Eventually([&] {
        std::ifstream stream(file);
        times.assign(std::istream_iterator<ULONGLONG>(stream), {});
        return times.size() >= 9;
    }));
    // After five failures: 200 ms, 400 ms and 800 ms.
    ASSERT_GE(times.size(), 9u);
    EXPECT_GE(times[8] - times[5], 1390u);
}

const Role g_stranger("stranger", [](const RoleArguments&) {
    if (setgid(65'534) != 0 || setuid(65'534) != 0) return 1;
    if (OpenManager(SC_MANAGER_CREATE_SERVICE) || GetLastError() != ERROR_ACCESS_DENIED) return 2;
    for (const DWORD right : {SERVICE_START, SERVICE_STOP, SERVICE_PAUSE_CONTINUE, SERVICE_CHANGE_CONFIG,
                              DELETE, SERVICE_USER_DEFINED_CONTROL, SERVICE_ALL_ACCESS})
        if (OpenNamed(L"A", right) || GetLastError() != ERROR_ACCESS_DENIED) return 3;
    const OwnedService service = OpenNamed(L"A", MAXIMUM_ALLOWED);
    if (StateOf(service) != SERVICE_RUNNING) return 4;
    if (Control(service, SERVICE_CONTROL_STOP) != ERROR_ACCESS_DENIED) return 5;
    if (Control(service, SERVICE_CONTROL_INTERROGATE) != 0) return 6;
    DWORD needed = 0, count = 0, resume = 0;
    EnumServicesStatusW(OpenManager(SC_MANAGER_ENUMERATE_SERVICE).get(), SERVICE_WIN32, SERVICE_STATE_ALL,
                        nullptr, 0, &needed, &count, &resume);
    return GetLastError() == ERROR_MORE_DATA && needed > 0 ? 0 : 7;
});

TEST_F(ServiceManagement, LetsStrangersLookOnly) {
    if (geteuid() != 0) GTEST_SKIP() << "only root has other users' processes";
    chmod(m_manager.Folder().c_str(), 0755);
    EXPECT_EQ(StartAndWait(Add(L"A")), 0u);
    RoleProcess stranger("stranger");
    EXPECT_EQ(stranger.ExitCode(), 0);
}

SERVICE_STATUS_HANDLE g_userHandle;
void ReportUser(DWORD, wchar_t** arguments) {
    g_userHandle = RegisterServiceCtrlHandlerW(arguments[0], [](DWORD) {});
    SERVICE_STATUS status{
        SERVICE_WIN32_OWN_PROCESS, SERVICE_STOPPED, 0, ERROR_SERVICE_SPECIFIC_ERROR, 0, 0, 0};
    status.dwServiceSpecificExitCode = getuid() == geteuid() && getgroups(0, nullptr) <= 1 ? getuid() : 1;
    SetServiceStatus(g_userHandle, &status);
}
const Role g_user("user", [](const RoleArguments&) { return ServeAll({"any"}, ReportUser) ? 0 : 1; });

TEST_F(ServiceManagement, RunsServicesAsTheirAccount) {
    if (geteuid() != 0) GTEST_SKIP() << "only root may become somebody else";
    chmod(m_manager.Folder().c_str(), 0755);
    ServiceRecord record{.name = L"A"};
    record.commandLine = ServiceRecord::ProgramInRole(L"user");
    record.account = L"NT AUTHORITY\\LocalService";
    const OwnedService service = Create(record);
    EXPECT_EQ(Start(service), 0u);
    EXPECT_EQ(WaitFor(service, SERVICE_STOPPED).dwServiceSpecificExitCode, 65'534u);
}

// A process that no manager has started does not become a service by saying so.
TEST_F(ServiceManagement, BelievesOnlyTheProcessesThatItHasStarted) {
    const EnvironmentVariable pretence(L"TQLIB_SERVICE_PROCESS", L"1");
    RoleProcess process("service");
    EXPECT_EQ(process.ExitCode(), 63);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
