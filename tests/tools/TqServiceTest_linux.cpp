// What Wine's manager does not keep, and does not see: the end of a process that was killed.
#include "TqServiceTest.h"

using namespace Quellan::Corvel::Test;
using testing::HasSubstr;

TEST_F(TqService, ChangesAllThatCanBeChanged) {
    Tq({"create", "TQTestFirst", "--depends", "TQTestSecond", "--", Program()}, 0);
    const std::string changed = "TQTestFirst: changed; tq service query TQTestFirst shows it\n";
    EXPECT_EQ(Tq({"config", "TQTestFirst", "--display", "Shown", "--start", "delayed", "--description",
                  "What for", "--no-depends", "--", Program(), "a b"},
                 0),
              changed);
    EXPECT_EQ(Tq({"failure", "TQTestFirst", "--restart-after", "1", "--run-after", "2", "--command",
                  "program %1%", "--reset-after", "60", "--exit-codes", "yes"},
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
    Tq({"config", "TQTestFirst", "--start", "demand"}, 0);
    Tq({"failure", "TQTestFirst", "--none"}, 0);
    EXPECT_THAT(Tq({"query", "TQTestFirst", "--json"}, 0),
                testing::AllOf(HasSubstr("\"start\": \"demand\", \"delayed\": false"),
                               HasSubstr("\"failureActions\": [], ")));
}

TEST_F(TqService, KillsWhatRuns) {
    InstallProgram();
    Tq({"start", "TQTestFirst"}, 0);
    EXPECT_THAT(Tq({"kill", "TQTestFirst"}, 0), HasSubstr("TQTestFirst: stopped\n"));
    EXPECT_THAT(Tq({"query", "TQTestFirst"}, 0), HasSubstr("Exit code     1067"));
}
