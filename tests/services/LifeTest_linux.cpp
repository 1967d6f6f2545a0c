// What Wine's manager does not know (124 for a delayed start), keep or tell, and systemd.
#include "InstalledServices.h"
#include "platform/PlatformTest.h"
#include "support/ReadBytes.h"

#include <filesystem>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;

using InstallLinux = Installed;

TEST_F(InstallLinux, KeepsFailureActions) {
    TQServiceOptions options;
    options.failureActions = {{TQSvcFailureAction::Kind::Restart, 1'000},
                              {TQSvcFailureAction::Kind::RunCommand, 5'000}};
    options.failureResetSeconds = 77;
    options.failureCommand = L"/bin/true now";
    InstallProgram(FirstName, options);
    EXPECT_EQ(TQServiceCtrl(FirstName).Config().options, options);
}

TEST_F(InstallLinux, KeepsDependenciesAndADelayedStart) {
    TQServiceOptions options;
    options.dependencies = {SecondName, L"NotThereYet"};
    options.isStartDelayed = true;
    options.failureResetSeconds = 0;  // without actions there is none
    TQSvcHandle service;
    TQServiceMgr::InstallService(service, FirstName, nullptr, ProgramLine().c_str(), nullptr, nullptr,
                                 SERVICE_WIN32_OWN_PROCESS, TQSvcStart::Auto, options);
    EXPECT_EQ(TQServiceCtrl(FirstName).Config().options, options);
}

TEST_F(InstallLinux, RunsAgainAfterAFailureOfItsWork) {
    TQServiceOptions options;
    constexpr DWORD LongEnoughToBeSeenStoppedMs = 1500;
    options.failureActions = {{TQSvcFailureAction::Kind::Restart, LongEnoughToBeSeenStoppedMs}};
    InstallProgram(FirstName, options);
    const TQServiceCtrl service(FirstName);
    service.Start({L"fail"});
    ASSERT_TRUE(service.WaitForState(TQSvcState::Stopped, PatienceMs));
    EXPECT_EQ(service.QueryStatus().Record().exitCode, FailureCode);
    EXPECT_TRUE(service.WaitForState(TQSvcState::Running, PatienceMs));
    service.StopAndWait(PatienceMs);
}

TEST_F(InstallLinux, WritesAUnitForSystemd) {
    const TemporaryFolder folder;
    const std::filesystem::path file = std::filesystem::path(folder.Path()) / "test.service";
    Run({"install", "--systemd=" + file.string()}, 0);
    const std::string program =
        (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "services_test_program").string();
    EXPECT_EQ(ReadBytes(file),
              "[Unit]\nDescription=Is there for a test.\nStartLimitIntervalSec=0\n"
              "\n[Service]\nType=notify\nNotifyAccess=main\nExecStart=\"" +
                  program +
                  "\"\nExecReload=/bin/kill -HUP $MAINPID\nKillMode=mixed\nWatchdogSec=30\n"
                  "Restart=on-failure\nRestartSec=60000ms\n");
    EXPECT_FALSE(IsInstalled(FirstName));
}
