// tq service as its users run it: arguments in, output and exit code out.
#include "services/InstalledServices.h"

#include <filesystem>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;
using testing::HasSubstr;

namespace {

class TqService : public Installed {
  protected:
    // Both outputs together.
    static std::string Tq(std::vector<std::string> words, int exitCode) {
        words.insert(words.begin(), "service");
        ChildProcess tq("tq", words, ChildProcess::Files::Piped);
        tq.CloseInput();
        std::string output = tq.ReadAll();
        EXPECT_EQ(tq.ExitCode(), exitCode) << output;
        return output;
    }

    // The path alone.
    static std::string Program() {
        const std::wstring line(ProgramLine().View());
        return std::filesystem::path(line.substr(1, line.size() - 2)).string();
    }
};

MATCHER(IsOneLine, "one line of tq") {
    return arg.rfind("tq: ", 0) == 0 && arg.find('\n') == arg.size() - 1;
}

}  // namespace

TEST_F(TqService, CreatesRunsAndDeletesAService) {
    EXPECT_EQ(Tq({"create", "TQTestFirst", "--display", "Shown", "--shared", "--restart-after", "60", "--",
                  Program()},
                 0),
              "TQTestFirst: created; tq service start TQTestFirst starts it\n");
    EXPECT_THAT(Tq({"query", "TQTestFirst"}, 0), HasSubstr("Display name  Shown\n"));
    EXPECT_THAT(Tq({"start", "TQTestFirst"}, 0), HasSubstr("TQTestFirst: running\n"));
    EXPECT_THAT(Tq({"list", "--active"}, 0), HasSubstr("TQTestFirst"));
    EXPECT_THAT(Tq({"pause", "TQTestFirst"}, 0), HasSubstr("TQTestFirst: paused\n"));
    EXPECT_THAT(Tq({"interrogate", "TQTestFirst"}, 0), HasSubstr("State      paused\n"));
    EXPECT_THAT(Tq({"continue", "TQTestFirst"}, 0), HasSubstr("TQTestFirst: running\n"));
    EXPECT_EQ(Tq({"wait", "TQTestFirst", "running"}, 0), "TQTestFirst: running\n");
    EXPECT_THAT(Tq({"control", "TQTestFirst", "4"}, 0), HasSubstr("State      running\n"));
    EXPECT_THAT(Tq({"stop", "TQTestFirst"}, 0), HasSubstr("TQTestFirst: stopped\n"));
    EXPECT_EQ(Tq({"delete", "TQTestFirst"}, 0), "TQTestFirst: deleted\n");
    EXPECT_TRUE(ServiceManager::IsGone(FirstName));
}

TEST_F(TqService, ChangesWhatWasCreated) {
    Tq({"create", "TQTestFirst", "--depends", "TQTestSecond", "--", Program()}, 0);
    const std::string changed = "TQTestFirst: changed; tq service query TQTestFirst shows it\n";
    EXPECT_EQ(Tq({"config", "TQTestFirst", "--display", "Shown", "--start", "delayed", "--description", "What for",
                  "--no-depends", "--", Program(), "a b"},
                 0),
              changed);
    EXPECT_EQ(Tq({"failure", "TQTestFirst", "--restart-after", "1", "--run-after", "2", "--command", "program %1%",
                  "--reset-after", "60", "--exit-codes", "yes"},
                 0),
              changed);
    EXPECT_EQ(Tq({"failure", "TQTestFirst", "--reset-after", "70"}, 0), changed);
    const std::string found = Tq({"query", "TQTestFirst", "--json"}, 0);
    for (const char* const part :
         {"\"displayName\": \"Shown\"", "\"start\": \"auto\", \"delayed\": true", "\\\"a b\\\"\"",
          "\"dependencies\": []", "\"description\": \"What for\"",
          "[{\"action\": \"restart\", \"delay\": 1000}, {\"action\": \"run command\", \"delay\": 2000}]",
          "\"failureCommand\": \"program %1%\"", "\"failureReset\": 70"})
        EXPECT_THAT(found, HasSubstr(part));
    Tq({"config", "TQTestFirst", "--start", "disabled"}, 0);
    Tq({"failure", "TQTestFirst", "--none"}, 0);
    EXPECT_THAT(Tq({"start", "TQTestFirst"}, 3), HasSubstr("tq service config --start gives it another start"));
    EXPECT_THAT(Tq({"query", "TQTestFirst", "--json"}, 0), HasSubstr("\"failureActions\": [], "));
}

TEST_F(TqService, KillsWhatRuns) {
    InstallProgram();
    EXPECT_THAT(Tq({"kill", "TQTestFirst"}, 3), HasSubstr("tq service start starts it\n"));
    Tq({"start", "TQTestFirst"}, 0);
    EXPECT_THAT(Tq({"kill", "TQTestFirst"}, 0), HasSubstr("TQTestFirst: stopped\n"));
    EXPECT_THAT(Tq({"query", "TQTestFirst"}, 0), HasSubstr("Exit code     1067"));
}

TEST_F(TqService, PrintsJson) {
    InstallProgram();
    EXPECT_THAT(Tq({"list", "--json"}, 0),
                HasSubstr("{\"name\": \"TQTestFirst\", \"displayName\": \"Test\", \"state\": \"stopped\", "));
    EXPECT_THAT(Tq({"query", "--json", "TQTestFirst"}, 0),
                HasSubstr("\"account\": \"LocalSystem\", \"start\": \"demand\", \"delayed\": false, "));
}

TEST_F(TqService, SaysWhatToDoNext) {
    EXPECT_THAT(Tq({"query", "TQTestFirst"}, 1), HasSubstr("tq service list shows those that are\n"));
    InstallProgram();
    EXPECT_THAT(Tq({"stop", "TQTestFirst"}, 3), HasSubstr("tq service start starts it\n"));
    EXPECT_THAT(Tq({"create", "TQTestFirst", "--", "program"}, 3),
                HasSubstr("tq service delete removes it\n"));
    EXPECT_THAT(Tq({"wait", "--timeout", "0", "TQTestFirst", "running"}, 1), HasSubstr("--timeout makes"));
}

TEST_F(TqService, AnswersAWrongCommandLineInOneLine) {
    const std::vector<std::string> lines[] = {{},
                                              {"lst"},
                                              {"query"},
                                              {"query", "one", "two"},
                                              {"query", "--colour", "one"},
                                              {"wait", "one", "tired"},
                                              {"wait", "--timeout", "soon", "one", "running"},
                                              {"control", "one", "256"},
                                              {"create", "one"},
                                              {"create", "--", "program"},
                                              {"create", "one", "--start", "never", "--", "program"},
                                              {"config", "--start", "auto"},
                                              {"config", "one", "--restart-after", "1"},
                                              {"failure", "one", "two", "--none"},
                                              {"failure", "one", "--exit-codes", "maybe"}};
    for (const std::vector<std::string>& line : lines)
        EXPECT_THAT(Tq(line, 2), IsOneLine());
}
