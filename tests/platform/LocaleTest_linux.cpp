#include "PlatformTest.h"
#include "TQLib/platform/Win32.h"

namespace Quellan::Corvel::Test {
namespace {

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
