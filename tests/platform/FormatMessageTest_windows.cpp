// The system codes and their texts, which the library carries for the other platform, beside the platform's own.
#include "PlatformTest.h"
#include "TQLib/platform/SystemCodes.h"
#include "TQLib/platform/Win32.h"

#include <array>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <string>
#include <string_view>

using namespace Quellan::Platform;
using namespace Quellan::Corvel::Test;

namespace {

constexpr DWORD EndOfSystemTexts = 16000;
const std::set<DWORD> OtherInWine = {34, 107, 129, 216};  // without a documented insert, or with one more

const std::map<DWORD, std::string_view> OurTexts = {
#define TQ_WIN32(code, name, text) {code, text},
#define TQ_HRESULT(code, name, text)
#define TQ_NTSTATUS(code, name, text)
#include "TQLib/platform/SystemCodes.def"
#undef TQ_WIN32
#undef TQ_HRESULT
#undef TQ_NTSTATUS
};

// The numbers of a text's inserts.
template <class Character>
std::set<unsigned> InsertsOf(std::basic_string_view<Character> text) {
    std::set<unsigned> inserts;
    for (std::size_t at = text.find('%'); at < text.size(); at = text.find('%', at)) {
        unsigned number = 0;
        for (++at; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at)
            number = number * 10 + static_cast<unsigned>(text[at] - '0');
        if (number == 0)
            ++at;
        else
            inserts.insert(number);
    }
    return inserts;
}

}  // namespace

TEST(SystemCodes, HaveATextWithTheSameInsertsWhereverThePlatformHasOne) {
    std::array<wchar_t, 4096> buffer;
    unsigned compared = 0;
    for (DWORD code = 0; code < EndOfSystemTexts; ++code) {
        const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                            nullptr, code, 0, buffer.data(), buffer.size(), nullptr);
        const auto ours = OurTexts.find(code);
        // A newer system may have texts of codes that nobody knew of here.
        if (length == 0 || (ours == OurTexts.end() && !OnWine())) continue;
        if (OnWine() && OtherInWine.contains(code)) continue;
        ASSERT_NE(ours, OurTexts.end()) << code;
        EXPECT_EQ(InsertsOf(ours->second), InsertsOf(std::wstring_view(buffer.data(), length))) << code;
        ++compared;
    }
    EXPECT_GT(compared, 0u);
}
