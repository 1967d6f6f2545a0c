// tq service as its users run it: arguments in, output and exit code out.
#include "TqServiceTest.h"

#include <iterator>
#include <sstream>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;
using testing::HasSubstr;

namespace {

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
    Tq({"create", "TQTestFirst", "--", Program()}, 0);
    EXPECT_EQ(
        Tq({"config", "TQTestFirst", "--display", "Shown", "--start", "disabled", "--", Program(), "more"},
           0),
        "TQTestFirst: changed; tq service query TQTestFirst shows it\n");
    const std::string found = Tq({"query", "TQTestFirst", "--json"}, 0);
    EXPECT_THAT(found, HasSubstr("\"displayName\": \"Shown\""));
    EXPECT_THAT(found, HasSubstr("\" more\""));
    EXPECT_THAT(Tq({"start", "TQTestFirst"}, 3),
                HasSubstr("tq service config --start gives it another start"));
    EXPECT_THAT(Tq({"kill", "TQTestFirst"}, 3), HasSubstr("tq service start starts it\n"));
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
    for (const std::string line :
         {"", "lst", "query", "query one two", "query --colour one", "wait one tired",
          "wait --timeout soon one running", "control one 256", "create one", "create -- program",
          "create one --start never -- program", "config --start auto", "config one --restart-after 1",
          "failure one two --none", "failure one --exit-codes maybe"}) {
        std::istringstream words(line);
        EXPECT_THAT(Tq({std::istream_iterator<std::string>(words), {}}, 2), IsOneLine()) << line;
    }
}
