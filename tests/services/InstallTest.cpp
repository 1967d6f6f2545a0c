// Installing, asking, removing: what it does, and what it says where it can't.
#include "InstalledServices.h"
#include "TQLib/services/TQServiceMgr.h"
#include "TestService.h"
#include "support/FailCall.h"

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;

namespace {

class Install : public Installed {
  protected:
    // Of a failure of one platform call.
    template <class Operation>
    static void ExpectThrown(const char* call, DWORD code, Operation operation) {
        const FailCall fail(call, code);
        EXPECT_EQ(ThrownCode(operation), code) << call;
    }
};

}  // namespace

TEST_F(Install, KeepsWhatIsSaidOfTheService) {
    TQServiceOptions options;
    options.description = L"A text with \u00e4 and \"marks\"";
    TQSvcHandle service;
    const TQString line = ProgramLine() + L" \"with blank\" more";
    TQServiceMgr::InstallService(service, FirstName, L"For people", line.c_str(), nullptr, nullptr,
                                 SERVICE_WIN32_OWN_PROCESS, TQSvcStart::Auto, options);
    EXPECT_TRUE(service);

    const TQServiceConfig config = TQServiceCtrl(FirstName).Config();
    EXPECT_EQ(config.displayName, L"For people");
    EXPECT_EQ(config.commandLine, line);
    EXPECT_EQ(config.account, L"LocalSystem");
    EXPECT_EQ(config.type, static_cast<DWORD>(SERVICE_WIN32_OWN_PROCESS));
    EXPECT_EQ(config.start, TQSvcStart::Auto);
    EXPECT_EQ(config.options.description, options.description);
    EXPECT_FALSE(config.options.isStartDelayed);
}

TEST_F(Install, FindsTheServiceInTheList) {
    InstallProgram();
    const TQServiceList list =
        TQServiceCtrl::ServiceList(ServiceListType::Services | ServiceListType::Inactive);
    const TQServiceStatus& found = list[L"tqtestFIRST"];
    EXPECT_EQ(found.Name(), FirstName);
    EXPECT_EQ(found.DisplayName(), L"Test");
    EXPECT_EQ(found.Record().currentState, TQSvcState::Stopped);
    EXPECT_EQ(found, TQServiceCtrl(FirstName).QueryStatus());
    EXPECT_EQ(TQServiceCtrl::ServiceList(ServiceListType::Active).Find(FirstName), nullptr);
}

TEST_F(Install, TakesBackWhatItCannotFinish) {
    TQServiceOptions options;
    options.description = L"text";
    TQSvcHandle service;
    ExpectThrown("ChangeServiceConfig2W", ERROR_ACCESS_DENIED, [&] {
        TQServiceMgr::InstallService(service, FirstName, nullptr, ProgramLine().c_str(), nullptr, nullptr,
                                     SERVICE_WIN32_OWN_PROCESS, TQSvcStart::Demand, options);
    });
    EXPECT_FALSE(service);
    EXPECT_FALSE(IsInstalled(FirstName));
}

TEST_F(Install, OfSeveralServicesInstallsAllOrNone) {
    TestService first(FirstName, false), second(SecondName, false);
    const Hosting hosting{&first, &second};
    {
        const FailCall fail("CreateServiceW", ERROR_INVALID_SERVICE_ACCOUNT, 2);
        EXPECT_EQ(ThrownCode([] { TQServiceMgr::Install(); }),
                  static_cast<DWORD>(ERROR_INVALID_SERVICE_ACCOUNT));
    }
    EXPECT_FALSE(IsInstalled(FirstName));
    TQServiceMgr::Install();
    EXPECT_TRUE(IsInstalled(FirstName) && IsInstalled(SecondName));
    EXPECT_EQ(TQServiceCtrl(FirstName).Config().commandLine,
              TQString::Format(L"\"%s\"", TQSysProc::ModuleFileName(nullptr).c_str()));
    TQServiceMgr::UnInstall();
    EXPECT_FALSE(IsInstalled(FirstName) || IsInstalled(SecondName));
    EXPECT_EQ(ThrownCode([] { TQServiceMgr::UnInstall(); }),
              static_cast<DWORD>(ERROR_SERVICE_DOES_NOT_EXIST));
}

TEST_F(Install, HandsTheProgramItsArgumentsAsTheyAre) {
    TestService service(FirstName);
    const Hosting hosting{&service};
    TQStringArray arguments;
    for (const wchar_t* argument : {L"plain", L"", L"with blanks", L"a\"quote", L"back\\slash", L"end\\",
                                    L"blank end\\", L"back\\\"quote \\\\"})
        arguments.Add(argument);
    TQServiceMgr::Install(arguments);
    int count = 0;
    wchar_t** const words = CommandLineToArgvW(TQServiceCtrl(FirstName).Config().commandLine.c_str(), &count);
    ASSERT_EQ(count, static_cast<int>(arguments.Count()) + 1);
    EXPECT_EQ(TQSysProc::ModuleFileName(nullptr), words[0]);
    for (std::size_t i = 0; i < arguments.Count(); ++i)
        EXPECT_EQ(arguments[i], words[i + 1]);
    LocalFree(words);
}

TEST_F(Install, SaysThatThereIsNoSuchService) {
    const TQServiceCtrl service(FirstName);
    constexpr DWORD code = ERROR_SERVICE_DOES_NOT_EXIST;
    EXPECT_EQ(ThrownCode([&] { service.QueryStatus(); }), code);
    EXPECT_EQ(ThrownCode([&] { service.Config(); }), code);
    EXPECT_EQ(ThrownCode([&] { service.ProcessID(); }), code);
    EXPECT_EQ(ThrownCode([&] { service.Start(); }), code);
    EXPECT_EQ(ThrownText([&] { service.Start(); }), L"The service TQTestFirst is not installed.");
    EXPECT_EQ(ThrownCode([&] { service.Stop(); }), code);
    EXPECT_EQ(ThrownCode([&] { service.Delete(); }), code);
    EXPECT_EQ(ThrownCode([&] { service.WaitForState(TQSvcState::Running, 0); }), code);
    EXPECT_EQ(ThrownCode([] { TQServiceMgr::StartServiceW(FirstName, 0, nullptr); }), code);
    TQSvcHandle handle;
    EXPECT_EQ(ThrownCode([&] { TQServiceMgr::RemoveService(nullptr, FirstName, handle); }), code);
    EXPECT_EQ(ThrownCode([] { TQServiceCtrl::ServiceList(ServiceListType::Services)[FirstName]; }), code);
}

TEST_F(Install, SaysWhatIsWrongWithTheStateOfAService) {
    InstallProgram();
    EXPECT_EQ(ThrownCode([] { InstallProgram(); }), static_cast<DWORD>(ERROR_SERVICE_EXISTS));
    EXPECT_EQ(ThrownCode([] { TQServiceCtrl(FirstName).Stop(); }),
              static_cast<DWORD>(ERROR_SERVICE_NOT_ACTIVE));
    // What is open cannot go.
    TQSvcHandle open;
    ASSERT_TRUE(TQServiceMgr::ServiceInstalled(FirstName, open, SERVICE_QUERY_STATUS));
    TQServiceCtrl(FirstName).Delete();
    EXPECT_EQ(ThrownCode([] { TQServiceCtrl(FirstName).Delete(); }),
              static_cast<DWORD>(ERROR_SERVICE_MARKED_FOR_DELETE));
    open.Close();
    EXPECT_FALSE(IsInstalled(FirstName));
}

TEST_F(Install, OpensTheManagerUnlessTheUserMayNot) {
    TQSvcHandle manager;
    EXPECT_TRUE(TQServiceMgr::OpenSCManagerW(manager, SC_MANAGER_CONNECT));
    EXPECT_TRUE(manager);
    {
        const FailCall fail("OpenSCManagerW", ERROR_ACCESS_DENIED);
        EXPECT_FALSE(TQServiceMgr::OpenSCManagerW(manager, SC_MANAGER_ALL_ACCESS));
    }
    ExpectThrown("OpenSCManagerW", RPC_S_SERVER_UNAVAILABLE,
                 [&] { TQServiceMgr::OpenSCManagerW(manager, SC_MANAGER_CONNECT); });
    EXPECT_TRUE(manager);
}

TEST_F(Install, NeedsANameAndACommandLine) {
    TQSvcHandle service;
    for (const auto& [name, line] : {std::pair{L"", L"\"program\""}, std::pair{FirstName, L""}})
        EXPECT_EQ(ThrownCode([&, n = name, l = line] {
                      TQServiceMgr::InstallService(service, n, nullptr, l, nullptr, nullptr,
                                                   SERVICE_WIN32_OWN_PROCESS, TQSvcStart::Demand);
                  }),
                  static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}
