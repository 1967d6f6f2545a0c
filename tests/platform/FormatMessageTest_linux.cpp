// What the layer's FormatMessageW does by the documentation where Wine does otherwise, its system texts, and
// the expansion's limits.
#include "PlatformMessages.h"
#include "PlatformTest.h"
#include "TQLib/platform/SystemCodes.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/platform/linux/texts/MessageFormat.h"
#include "support/FailCall.h"

#include <array>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

using namespace Quellan::Platform;
using namespace Quellan::Corvel::Test;

namespace {

struct Expanded {
    DWORD code;
    std::wstring text;
};

Expanded Format(DWORD flags, const void* source, DWORD id, DWORD language) {
    std::array<wchar_t, 1000> buffer;
    SetLastError(ERROR_SUCCESS);
    const DWORD length = FormatMessageW(flags, source, id, language, buffer.data(), buffer.size(), nullptr);
    return {GetLastError(), {buffer.data(), length}};
}

Expanded SystemText(DWORD code, DWORD language = 0) {
    return Format(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, language);
}

// Arguments as many as given, and no more.
class FewArguments : public MessageArguments {
  public:
    explicit FewArguments(std::vector<std::uint64_t> values) : m_values(std::move(values)) {}
    std::optional<std::uint64_t> Get(unsigned number) override {
        if (number > m_values.size()) return std::nullopt;
        return m_values[number - 1];
    }

  private:
    std::vector<std::uint64_t> m_values;
};

Expanded ExpandDirectly(std::wstring_view text, std::vector<std::uint64_t> values,
                        MessageLayout layout = {.limit = 100}) {
    FewArguments arguments(std::move(values));
    Expanded result{};
    result.code = FormatMessageText(text, layout, &arguments, result.text);
    return result;
}

}  // namespace

TEST(MessageText, InsertsWithoutArgumentAreRefused) {
    EXPECT_EQ(ExpandDirectly(L"%1!d! %2!d!", {1}).code, DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(ExpandDirectly(L"%1!*d!", {1}).code, DWORD{ERROR_INVALID_PARAMETER});
}

TEST(MessageText, HugeWidthsEndAtTheLimit) {
    for (const wchar_t* format :
         {L"%1!2000000000d!", L"%1!.2000000000d!", L"%1!-99999999999d!", L"%2!*d!", L"%2!.*d!"})
        EXPECT_EQ(ExpandDirectly(format, {7, 0x7FFFFFFF, 7}).code, DWORD{ERROR_INSUFFICIENT_BUFFER})
            << std::wstring_view(format).size();
    EXPECT_EQ(ExpandDirectly(L"12345", {}, {.limit = 5}).text, L"12345");
    EXPECT_EQ(ExpandDirectly(L"12345 ", {}, {.limit = 5}).code, DWORD{ERROR_INSUFFICIENT_BUFFER});
    EXPECT_EQ(ExpandDirectly(L"12 45", {}, {.width = 3, .limit = 5}).code, DWORD{ERROR_INSUFFICIENT_BUFFER});
}

TEST(MessageText, NarrowTextIsUtf8AndItsPrecisionCountsBytes) {
    const auto text = reinterpret_cast<std::uintptr_t>("\xC3\xB6\xFFz");
    EXPECT_EQ(ExpandDirectly(L"%1!hs!", {text}).text, L"\u00F6\uFFFDz");
    EXPECT_EQ(ExpandDirectly(L"%1!.2hs!", {text}).text, L"\u00F6");
}

TEST(MessageText, AnAllocatedTextHasItsGreatestSize) {
    wchar_t* buffer = nullptr;
    const auto format = [&](std::size_t length) {
        const std::wstring text(length, L'x');
        return FormatMessageW(FORMAT_MESSAGE_FROM_STRING | FORMAT_MESSAGE_ALLOCATE_BUFFER, text.c_str(), 0, 0,
                              reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
    };
    EXPECT_EQ(format(65535), 65535u);
    LocalFree(buffer);
    EXPECT_EQ(CodeOf(format(65536)), DWORD{ERROR_MORE_DATA});
}

TEST(MessageText, AStringIsNoSourceBesideOthers) {
    EXPECT_EQ(Format(FORMAT_MESSAGE_FROM_STRING | FORMAT_MESSAGE_FROM_SYSTEM, L"x", 0, 0).code,
              DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(Format(FORMAT_MESSAGE_FROM_STRING, nullptr, 0, 0).code, DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(Format(FORMAT_MESSAGE_FROM_STRING | 0x4000, L"x", 0, 0).code, DWORD{ERROR_INVALID_PARAMETER});
}

TEST(MessageText, EveryKnownCodeHasASentence) {
    for (const SystemCode& known : SystemCodes()) {
        const Expanded found = SystemText(known.code);
        EXPECT_TRUE(found.text.ends_with(L".\r\n")) << known.code << " failed with " << found.code;
        EXPECT_EQ(found.text.find_first_of(L"\r\n"), found.text.size() - 2) << known.code;
    }
}

TEST(MessageText, StatusCodesAndWrappedCodesHaveTheirTexts) {
    EXPECT_EQ(SystemText(STATUS_ACCESS_VIOLATION).text, L"The program touched memory it may not access.\r\n");
    EXPECT_EQ(SystemText(0x80070020).text, SystemText(ERROR_SHARING_VIOLATION).text);
    EXPECT_EQ(SystemText(0x8007FFFF).code, DWORD{ERROR_MR_MID_NOT_FOUND});
}

TEST(MessageText, SystemTextsAreEnglish) {
    for (const DWORD language : {0x0000u, 0x0400u, 0x0800u, 0x0009u, 0x0409u})
        EXPECT_FALSE(SystemText(ERROR_ACCESS_DENIED, language).text.empty()) << language;
    EXPECT_EQ(SystemText(ERROR_ACCESS_DENIED, 0x0407).code, DWORD{ERROR_RESOURCE_LANG_NOT_FOUND});
}

TEST(MessageText, ALackOfMemoryIsReportedWhereverItArises) {
    const HMODULE module = LoadLibraryExW(L"platform_messages.dll", nullptr, LOAD_LIBRARY_AS_DATAFILE);
    const auto format = [&] {
        wchar_t* buffer = nullptr;
        const DWORD length = FormatMessageW(
            FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_ALLOCATE_BUFFER,
            module, MSG_GREETING, 0x409, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
        LocalFree(buffer);
        return length;
    };
    for (unsigned nth = 1;; ++nth) {
        const FailAllocation lack(nth);
        const DWORD code = CodeOf(format());
        if (!lack.Fired()) break;
        EXPECT_EQ(code, DWORD{ERROR_NOT_ENOUGH_MEMORY}) << "with allocation " << nth;
    }
    {
        const FailCall lack("LocalAlloc", ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_EQ(CodeOf(format()), DWORD{ERROR_NOT_ENOUGH_MEMORY});
    }
    EXPECT_TRUE(FreeLibrary(module));
}
