#include "TQLib/platform/SystemCodes.h"

#include <gtest/gtest.h>
#include <set>
#include <string>
#include <string_view>

using namespace Quellan::Platform;

namespace {

std::wstring Names(DWORD code) {
    std::wstring names;
    for (const SystemCode& found : SystemCodesOf(code))
        names += std::wstring(found.name) + L' ';
    return names;
}

}  // namespace

TEST(SystemCodes, AreFoundByNameInAnyCase) {
    const SystemCode* const denied = FindSystemCode(L"error_Access_Denied");
    ASSERT_NE(denied, nullptr);
    EXPECT_EQ(denied->code, 5u);
    EXPECT_EQ(denied->family, SystemCodeFamily::Win32);
    EXPECT_EQ(std::wstring_view(denied->name), L"ERROR_ACCESS_DENIED");
    EXPECT_EQ(FindSystemCode(L"STATUS_ACCESS_VIOLATION")->code, 0xC0000005u);
    EXPECT_EQ(FindSystemCode(L"ERROR_ACCESS"), nullptr);
    EXPECT_EQ(FindSystemCode(L""), nullptr);
}

TEST(SystemCodes, HaveEveryNameOfANumber) {
    EXPECT_EQ(Names(258), L"WAIT_TIMEOUT STATUS_TIMEOUT ");
    EXPECT_EQ(Names(0x80070005), L"E_ACCESSDENIED ERROR_ACCESS_DENIED ");
    EXPECT_EQ(Names(0x80070020), L"ERROR_SHARING_VIOLATION ");
    EXPECT_EQ(Names(0xE1234567), L"");
}

TEST(SystemCodes, HaveNamesThatOccurOnce) {
    std::set<std::wstring_view> names;
    for (const SystemCode& known : SystemCodes())
        EXPECT_TRUE(names.insert(known.name).second) << known.code;
    EXPECT_GT(names.size(), 1000u);
}
