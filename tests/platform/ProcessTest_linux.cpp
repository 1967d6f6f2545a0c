#include "Forked_linux.h"
#include "PlatformTest.h"
#include "TQLib/platform/Win32.h"
#include "support/ReadBytes.h"

namespace Quellan::Corvel::Test {
namespace {

TEST(ProcessOnLinux, KnowsItsThreadAfterAFork) {
    ASSERT_EQ(GetCurrentThreadId(), static_cast<DWORD>(gettid()));
    EXPECT_EQ(Forked([] { return GetCurrentThreadId() == static_cast<DWORD>(gettid()) ? 0 : 1; }).Code(), 0);
}

class DebugOutput : public testing::Test {
  protected:
    TemporaryFolder m_folder;
    const std::wstring m_path = m_folder / L"debug.txt";
};

TEST_F(DebugOutput, GoesToTheFileOfTheVariableInOrder) {
    if (IsDebuggerPresent()) GTEST_SKIP() << "a traced process writes to standard error";
    const EnvironmentVariable variable(L"TQLIB_DEBUG_OUTPUT", m_path.c_str());
    SetLastError(77);
    OutputDebugStringW(L"first\n");
    OutputDebugStringW(L"s\u00E9cond\n");
    EXPECT_EQ(GetLastError(), 77u);
    EXPECT_EQ(ReadBytes(m_path),
              "first\ns\xC3\xA9"
              "cond\n");
}

TEST_F(DebugOutput, GoesNowhereWithoutTheVariable) {
    if (IsDebuggerPresent()) GTEST_SKIP() << "a traced process writes to standard error";
    testing::internal::CaptureStderr();
    OutputDebugStringW(L"text");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(DebugOutput, GoesToStandardErrorWhenAsked) {
    const EnvironmentVariable variable(L"TQLIB_DEBUG_OUTPUT", L"-");
    testing::internal::CaptureStderr();
    OutputDebugStringW(L"text");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "text");
}

}  // namespace
}  // namespace Quellan::Corvel::Test
