#include "TQLib/platform/Win32.h"
#include "TQLib/system/TQLocale.h"
#include "support/FailCall.h"

namespace Quellan::Corvel::Test {
namespace {

TEST(Locale, NamesItsLanguage) {
    const struct {
        LCID id;
        const wchar_t *full, *base;
    } rows[] = {{0x0409, L"en-US", L"en"},
                {0x0C07, L"de-AT", L"de"},
                {0x281A, L"sr-Cyrl-RS", L"sr"},
                {0x3FFF, L"", L""}};
    for (const auto& [id, full, base] : rows) {
        EXPECT_EQ(TQLocale(id).LanguageString(), full);
        EXPECT_EQ(TQLocale(id).LanguageBaseString(), base);
    }
    EXPECT_EQ(TQLocale(), TQLocale(GetUserDefaultLCID()));
    EXPECT_NE(TQLocale(0x0407), TQLocale(0x0C07));
    const FailCall fail("GetLocaleInfoW", ERROR_GEN_FAILURE);
    EXPECT_EQ(ThrownCode([] { std::ignore = TQLocale(0x0409).LanguageString(); }), DWORD{ERROR_GEN_FAILURE});
}

}  // namespace
}  // namespace Quellan::Corvel::Test
