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

// Null removes a variable.
LCID UserDefault(const wchar_t* all, const wchar_t* messages, const wchar_t* lang) {
    const EnvironmentVariable first(L"LC_ALL", all), second(L"LC_MESSAGES", messages), third(L"LANG", lang);
    return GetUserDefaultLCID();
}

TEST(UserDefaultLocale, ComesFromTheFirstVariableThatIsSet) {
    EXPECT_EQ(UserDefault(L"de_AT.UTF-8", L"fr_FR", L"it_IT"), 0x0C07u);
    EXPECT_EQ(UserDefault(nullptr, L"fr_FR.UTF-8@euro", L"it_IT"), 0x040Cu);
    EXPECT_EQ(UserDefault(L"", L"", L"it_IT.ISO-8859-1"), 0x0410u);
}

TEST(UserDefaultLocale, UnderstandsTheSystemsNames) {
    EXPECT_EQ(UserDefault(L"ja", nullptr, nullptr), 0x0411u);
    EXPECT_EQ(UserDefault(L"sr_RS", nullptr, nullptr), 0x281Au);
    EXPECT_EQ(UserDefault(L"sr_RS@latin", nullptr, nullptr), 0x241Au);
    EXPECT_EQ(UserDefault(L"uz_UZ.UTF-8", nullptr, nullptr), 0x0443u);
    EXPECT_EQ(UserDefault(L"zh_TW.Big5", nullptr, nullptr), 0x0404u);
}

TEST(UserDefaultLocale, IsAmericanEnglishOtherwise) {
    for (const wchar_t* name : {L"C", L"C.UTF-8", L"POSIX", L"xx_YY", L".UTF-8"})
        EXPECT_EQ(UserDefault(name, nullptr, L"de_DE"), 0x0409u) << testing::PrintToString(name);
    EXPECT_EQ(UserDefault(nullptr, nullptr, nullptr), 0x0409u);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
