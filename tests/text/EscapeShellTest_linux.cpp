#include "TQLib/text/TQEscape.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace Quellan::Corvel {
namespace {

TEST(CommandLine, IsReadByTheShellAsItWasPut) {
    const TQStringArray words{L"printf", L"[%s]", L"two words",    L"",       L"it's",  L"$HOME `id` \\",
                              L"*",      L"a\nb", L";&|<>()#~!\"", L"\u00E9", L"-x=\\'"};
    const std::unique_ptr<FILE, int (*)(FILE*)> shell(popen(TQShellCommandLine(words).ToUtf8().c_str(), "r"),
                                                      &pclose);
    ASSERT_TRUE(shell);
    char buffer[256];
    const std::string printed(buffer, std::fread(buffer, 1, sizeof buffer, shell.get()));
    std::string expected;
    for (std::size_t i = 2; i < words.Count(); ++i)
        expected += "[" + std::string(words[i].ToUtf8().View()) + "]";
    EXPECT_EQ(printed, expected);
}

}  // namespace
}  // namespace Quellan::Corvel
