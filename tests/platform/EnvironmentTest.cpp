#include "PlatformTest.h"
#include "TQLib/platform/Win32.h"

#include <array>

namespace Quellan::Corvel::Test {
namespace {

constexpr const wchar_t* Name = L"TQLIB_TEST_VARIABLE";

std::wstring Expanded(const wchar_t* source) {
    std::array<wchar_t, 100> buffer{};
    const DWORD size = ExpandEnvironmentStringsW(source, buffer.data(), static_cast<DWORD>(buffer.size()));
    return std::wstring(buffer.data(), size - 1);
}

TEST(Environment, GivesAValueOrTheSizeItNeeds) {
    const EnvironmentVariable variable(Name, L"v\u00E4lue");
    wchar_t buffer[6];
    EXPECT_EQ(GetEnvironmentVariableW(Name, buffer, 6), 5u);
    EXPECT_EQ(std::wstring_view(buffer), L"v\u00E4lue");
    EXPECT_EQ(GetEnvironmentVariableW(Name, buffer, 5), 6u);
    EXPECT_EQ(GetEnvironmentVariableW(Name, nullptr, 0), 6u);
    EXPECT_EQ(GetEnvironmentVariableW(L"tqlib_Test_variable", buffer, 6), 5u);
}

TEST(Environment, TellsAMissingVariableFromAnEmptyOne) {
    wchar_t buffer[6];
    EXPECT_EQ(CodeOf(GetEnvironmentVariableW(Name, buffer, 6)), DWORD{ERROR_ENVVAR_NOT_FOUND});
    EXPECT_EQ(CodeOf(SetEnvironmentVariableW(Name, L"")), 0u);
    EXPECT_EQ(GetEnvironmentVariableW(Name, nullptr, 0), 1u);
    EXPECT_EQ(CodeOf(SetEnvironmentVariableW(Name, nullptr)), 0u);
    EXPECT_EQ(CodeOf(SetEnvironmentVariableW(Name, nullptr)), 0u);
}

TEST(Environment, ReplacesAVariableOfAnotherCase) {
    const EnvironmentVariable variable(Name, L"old");
    EXPECT_EQ(CodeOf(SetEnvironmentVariableW(L"tqlib_test_VARIABLE", L"new")), 0u);
    wchar_t buffer[10];
    EXPECT_EQ(GetEnvironmentVariableW(Name, buffer, 10), 3u);
    EXPECT_EQ(std::wstring_view(buffer), L"new");
    for (const wchar_t* none : {L"", L"a=b"})
        EXPECT_EQ(CodeOf(SetEnvironmentVariableW(none, L"x")), DWORD{ERROR_INVALID_PARAMETER});
}

TEST(Environment, ExpandsVariablesAndLeavesTheRest) {
    const EnvironmentVariable variable(Name, L"value");
    EXPECT_EQ(Expanded(L"<%TQLIB_TEST_VARIABLE%><%TQLIB_TEST_VARIABLE%>"), L"<value><value>");
    EXPECT_EQ(Expanded(L"50% of %TQLIB_NO_SUCH% 100%"), L"50% of %TQLIB_NO_SUCH% 100%");
    EXPECT_EQ(Expanded(L"%TQLIB_NO_SUCH%TQLIB_TEST_VARIABLE%"), L"%TQLIB_NO_SUCH%TQLIB_TEST_VARIABLE%");
    EXPECT_EQ(ExpandEnvironmentStringsW(L"%TQLIB_TEST_VARIABLE%", nullptr, 0), 6u);
}

TEST(Process, KnowsTheComputersName) {
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 1];
    DWORD size = MAX_COMPUTERNAME_LENGTH + 1;
    ASSERT_EQ(CodeOf(GetComputerNameW(name, &size)), 0u);
    EXPECT_EQ(std::wstring_view(name).size(), size);
    EXPECT_GT(size, 0u);
    DWORD tooSmall = size;
    EXPECT_EQ(CodeOf(GetComputerNameW(name, &tooSmall)), DWORD{ERROR_BUFFER_OVERFLOW});
    EXPECT_EQ(tooSmall, size + 1);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
