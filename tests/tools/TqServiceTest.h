// tq service as its users run it.
#pragma once

#include "services/InstalledServices.h"

#include <filesystem>

namespace Quellan::Corvel::Test {

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

}  // namespace Quellan::Corvel::Test
