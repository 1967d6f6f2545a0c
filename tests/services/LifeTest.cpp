// The service program, run by the platform's manager and without one.
#include "InstalledServices.h"
#include "TQLib/services/TQServiceCtrl.h"
#include "support/FailCall.h"

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;
using testing::HasSubstr;
using S = TQSvcState;

namespace {

class Life : public Installed {
  protected:
    const TQServiceCtrl service{FirstName};
};

using Words = Installed;
using Foreground = Installed;

}  // namespace

TEST_F(Life, HasTheCodeOfTheExceptionThatEndedItsWork) {
    InstallProgram();
    service.Start({L"fail"});
    ASSERT_TRUE(service.WaitForState(S::Stopped, PatienceMs));
    EXPECT_EQ(service.QueryStatus().Record().exitCode, FailureCode);
}

TEST_F(Life, GivesUpOnAStateThatDoesNotCome) {
    InstallProgram();
    EXPECT_FALSE(service.WaitForState(S::Running, 1));
}

// The control meets work that has just ended by itself.
TEST_F(Life, HasStoppedWhateverTheControlGave) {
    InstallProgram();
    for (const DWORD code : {ERROR_CALL_NOT_IMPLEMENTED, ERROR_SERVICE_CANNOT_ACCEPT_CTRL}) {
        const FailCall fail("ControlService", code);
        service.StopAndWait(PatienceMs);
    }
    service.StartAndWait({}, PatienceMs);
    {
        const FailCall fail("ControlService", ERROR_CALL_NOT_IMPLEMENTED);
        EXPECT_EQ(ThrownCode([&] { service.StopAndWait(PatienceMs); }),
                  static_cast<DWORD>(ERROR_CALL_NOT_IMPLEMENTED));
    }
    service.StopAndWait(PatienceMs);
}

TEST_F(Life, EndsARunningServiceThatIsRemoved) {
    InstallProgram();
    service.StartAndWait({}, PatienceMs);
    TQSvcHandle handle;
    TQServiceMgr::RemoveService(nullptr, FirstName, handle);
    handle.Close();
    EXPECT_TRUE(ServiceManager::IsGone(FirstName));
}

TEST_F(Words, InstallStartStopAndRemoveTheServices) {
    EXPECT_EQ(Run({"install"}, 0), "TQTestFirst: installed\nTQTestSecond: installed\n");
    EXPECT_EQ(TQServiceCtrl(FirstName).Config().options.description, L"Is there for a test.");
    EXPECT_EQ(Run({"status"}, 0), "TQTestFirst: stopped\nTQTestSecond: stopped\n");
    const std::string started = Run({"start"}, 0);
    EXPECT_THAT(started, HasSubstr("TQTestFirst: running\n"));
    EXPECT_THAT(started, HasSubstr("TQTestSecond: running\n"));
    EXPECT_THAT(Run({"status"}, 0), HasSubstr("TQTestSecond: running, process "));
    EXPECT_THAT(Run({"start"}, 1), HasSubstr("The service TQTestFirst is running already."));
    EXPECT_THAT(Run({"stop"}, 0), HasSubstr("TQTestFirst: stopped\n"));
    EXPECT_EQ(Run({"uninstall"}, 0), "TQTestFirst: removed\nTQTestSecond: removed\n");
    EXPECT_TRUE(ServiceManager::IsGone(FirstName) && ServiceManager::IsGone(SecondName));
    EXPECT_THAT(Run({"uninstall"}, 1), HasSubstr("is not installed."));
}

TEST_F(Words, SayHowTheyAreUsed) {
    for (const std::string word : {"uninstall", "stop", "status"})
        EXPECT_EQ(Run({word, "--more"}, 2).rfind("usage: services_test_program " + word, 0), 0u);
}

TEST_F(Words, AreTheOnlyOnesWhereTheServicesTakeNoArguments) {
    for (const std::string word : {"instal", "--verbose"})
        EXPECT_THAT(Run({word, "none"}, 2), HasSubstr("usage: services_test_program stop\n"));
    EXPECT_THAT(Run({"--help", "none"}, 0), HasSubstr("usage: services_test_program start\n"));
    for (const std::string word : {"install", "start"})
        EXPECT_EQ(Run({word, "none"}, 2).rfind("usage: services_test_program " + word, 0), 0u);
}

TEST_F(Foreground, RunsTheServicesUntilCtrlC) {
    if (!ChildProcess::CanInterrupt()) GTEST_SKIP() << "the sanitizer keeps the signal back";
    ChildProcess program("services_test_program", {"slow"}, ChildProcess::Files::Piped);
    program.ReadTo("TQTestFirst: start pending");
    program.Interrupt();
    const std::string output = program.ReadAll();
    EXPECT_THAT(output, HasSubstr("TQTestFirst: stopped\n"));
    EXPECT_THAT(output, HasSubstr("TQTestSecond: stopped\n"));
    EXPECT_EQ(program.ExitCode(), 0);
}

TEST_F(Foreground, EndsWithTheServicesAndSaysThatTheyFailed) {
    const std::string output = Run({"fail"}, 1);
    EXPECT_THAT(output, HasSubstr("TQTestFirst: stopped, "));
    EXPECT_THAT(output, HasSubstr("[0x000004d2]"));
}
