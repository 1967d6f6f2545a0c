#include "PlatformMessages.h"
#include "PlatformTest.h"
#include "support/FormatRows.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <gtest/gtest.h>
#include <initializer_list>
#include <sstream>
#include <string>

using namespace Quellan::Corvel::Test;

namespace {

constexpr DWORD English = 0x0409;
constexpr DWORD German = 0x0407;
constexpr DWORD French = 0x040C;
constexpr DWORD AnyLanguage = 0;
constexpr DWORD UnknownMessage = 0xE1234567;
constexpr DWORD NothingToFormat = 235;  // not every header of the platform has its name

// What a call gave: its text, or the code with which it failed.
std::wstring Failed(DWORD code) {
    return L"failed with " + std::to_wstring(code);
}

std::wstring Format(DWORD flags, const void* source, DWORD id, DWORD language, va_list* arguments) {
    std::array<wchar_t, 1000> buffer;
    buffer.fill(L'#');
    SetLastError(ERROR_SUCCESS);
    const DWORD length = FormatMessageW(flags, source, id, language, buffer.data(), buffer.size(), arguments);
    if (length == 0) return Failed(GetLastError());
    EXPECT_EQ(buffer[length], L'\0');
    return {buffer.data(), length};
}

class Arguments {
  public:
    Arguments(std::initializer_list<ULONG_PTR> values) {
        std::copy(values.begin(), values.end(), m_values.begin());
    }
    va_list* Array() { return reinterpret_cast<va_list*>(m_values.data()); }

  private:
    std::array<ULONG_PTR, 99> m_values{};
};

template <class Character>
ULONG_PTR Text(const Character* text) {
    return reinterpret_cast<ULONG_PTR>(text);
}

std::wstring Expand(const wchar_t* format, Arguments arguments, DWORD flags = 0) {
    return Format(FORMAT_MESSAGE_FROM_STRING | FORMAT_MESSAGE_ARGUMENT_ARRAY | flags, format, 0, 0,
                  arguments.Array());
}

std::wstring Plain(const wchar_t* format, DWORD flags = 0) {
    return Format(FORMAT_MESSAGE_FROM_STRING | flags, format, 0, 0, nullptr);
}

std::wstring ExpandVariable(const wchar_t* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::wstring text = Format(FORMAT_MESSAGE_FROM_STRING, format, 0, 0, &arguments);
    va_end(arguments);
    return text;
}

// With the tables' names for breaks and tabs in place.
std::wstring Broken(const std::string& text) {
    std::wstring broken;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const std::size_t escape =
            text[i] == '\\' ? std::string_view("nrt").find(text[i + 1]) : std::string::npos;
        broken += escape < 3 ? L"\n\r\t"[escape] : static_cast<wchar_t>(text[i]);
        i += escape < 3;
    }
    return broken;
}

}  // namespace

TEST(MessageText, IsWhatTheTableSays) {
    const auto rows = ReadFormatRows(TQ_TEST_DATA "/MessageTexts.txt");
    ASSERT_FALSE(rows.empty());
    for (const FormatRow& row : rows) {
        if (OnWine() && row.kind.starts_with("not in Wine:")) continue;
        std::array<ULONG_PTR, 99> values{};
        std::ranges::transform(row.arguments, values.begin(), &FormatArgument::value);
        const auto flags = static_cast<DWORD>(std::stoul(row.kind.substr(row.kind.find(':') + 1)));
        const std::wstring text =
            Format(FORMAT_MESSAGE_FROM_STRING | FORMAT_MESSAGE_ARGUMENT_ARRAY | flags,
                   Broken(row.format).c_str(), 0, 0, reinterpret_cast<va_list*>(values.data()));
        const bool fails = row.printed.starts_with("error ");
        EXPECT_EQ(text,
                  fails ? Failed(static_cast<DWORD>(std::stoul(row.printed.substr(6)))) : Broken(row.printed))
            << row.line;
    }
}

TEST(MessageText, ATextWithPrecisionNeedNoTerminator) {
    const wchar_t unterminated[] = {L'a', L'b', L'c'};
    EXPECT_EQ(Expand(L"%1!.3s!", {Text(unterminated)}), L"abc");
}

TEST(MessageText, VariableArgumentsAreReadInOrderWhateverTheOrderOfInserts) {
    EXPECT_EQ(ExpandVariable(L"%3!d! %1 %2!I64x!", L"text", 0x123456789ABCULL, -7), L"-7 text 123456789abc");
}

TEST(MessageText, AlreadyBrokenInAnArgumentStaysSo) {
    EXPECT_EQ(Expand(L"%1", {Text(L"a\nb")}, FORMAT_MESSAGE_MAX_WIDTH_MASK), L"a\nb");
}

TEST(MessageText, AWidthBreaksLinesBetweenWords) {
    constexpr DWORD Width = 12;
    const std::wstring text = Plain(L"The quick\r\nbrown fox jumps over the%nlazy dog.", Width);
    EXPECT_EQ(text.substr(text.find(L"the\r\n")), L"the\r\nlazy dog.");
    std::wstring words = text;
    words.erase(std::remove(words.begin(), words.end(), L'\r'), words.end());
    std::wistringstream lines(words);
    for (std::wstring line; std::getline(lines, line);)
        EXPECT_LE(line.size(), Width) << "in one of the lines";
    std::replace(words.begin(), words.end(), L'\n', L' ');
    EXPECT_EQ(words, L"The quick brown fox jumps over the lazy dog.");
}

TEST(MessageText, TextWithKeptInsertsCanBeExpandedLater) {
    constexpr const wchar_t* Message = L"%1!s! is 100%% of %2!08x!%!%n%t% .";
    const std::wstring kept = Plain(Message, FORMAT_MESSAGE_IGNORE_INSERTS);
    EXPECT_NE(kept.find(L"%1!s!"), std::wstring::npos);
    EXPECT_EQ(Expand(kept.c_str(), {Text(L"it"), 255}), Expand(Message, {Text(L"it"), 255}));
}

TEST(MessageText, MalformedTextsInsertsWithoutArgumentsAndWrongCallsAreRefused) {
    std::array<wchar_t, 10> buffer;
    EXPECT_EQ(Plain(L"%1"), Failed(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(Plain(L""), Failed(NothingToFormat));
    EXPECT_EQ(Format(0, L"text", 0, 0, nullptr), Failed(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(
        CodeOf(FormatMessageW(FORMAT_MESSAGE_FROM_STRING, L"text", 0, 0, nullptr, buffer.size(), nullptr)),
        DWORD{ERROR_INVALID_PARAMETER});
}

TEST(MessageText, ABufferHoldsTheTextAndItsTerminatorOrNothing) {
    std::array<wchar_t, 4> buffer;
    EXPECT_EQ(FormatMessageW(FORMAT_MESSAGE_FROM_STRING, L"abc", 0, 0, buffer.data(), 4, nullptr), 3u);
    EXPECT_EQ(CodeOf(FormatMessageW(FORMAT_MESSAGE_FROM_STRING, L"abcd", 0, 0, buffer.data(), 4, nullptr)),
              DWORD{ERROR_INSUFFICIENT_BUFFER});
}

TEST(MessageText, AnAllocatedBufferHasTheLeastSizeAskedFor) {
    constexpr DWORD Least = 100;
    wchar_t* buffer = nullptr;
    ASSERT_EQ(FormatMessageW(FORMAT_MESSAGE_FROM_STRING | FORMAT_MESSAGE_ALLOCATE_BUFFER, L"abc", 0, 0,
                             reinterpret_cast<wchar_t*>(&buffer), Least, nullptr),
              3u);
    EXPECT_STREQ(buffer, L"abc");
    buffer[Least - 1] = L'x';
    EXPECT_EQ(LocalFree(buffer), nullptr);
}

TEST(MessageText, AFailureLeavesNoAllocatedBuffer) {
    wchar_t placeholder = 0;
    wchar_t* buffer = &placeholder;
    EXPECT_EQ(CodeOf(FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_ALLOCATE_BUFFER, nullptr,
                                    UnknownMessage, 0, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr)),
              DWORD{ERROR_MR_MID_NOT_FOUND});
    EXPECT_EQ(buffer, nullptr);
}

TEST(MessageText, SystemTextsAnswerWin32CodesAndTheSameAsHResults) {
    const auto text = [](DWORD code, DWORD flags = 0) {
        return Format(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | flags, nullptr, code, 0,
                      nullptr);
    };
    const std::wstring denied = text(ERROR_ACCESS_DENIED);
    EXPECT_TRUE(denied.ends_with(L".\r\n")) << "has " << denied.size() << " characters";
    EXPECT_EQ(text(static_cast<DWORD>(E_ACCESSDENIED)), denied);
    EXPECT_EQ(text(ERROR_ACCESS_DENIED, FORMAT_MESSAGE_MAX_WIDTH_MASK),
              denied.substr(0, denied.size() - 2) + L" ");
    EXPECT_NE(text(ERROR_BAD_EXE_FORMAT).find(L"%1"), std::wstring::npos);
    EXPECT_EQ(Format(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, ERROR_BAD_EXE_FORMAT, 0, nullptr),
              Failed(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(text(UnknownMessage), Failed(ERROR_MR_MID_NOT_FOUND));
}

class ModuleMessages : public testing::Test {
  protected:
    void SetUp() override {
        m_module = LoadLibraryExW(L"platform_messages.dll", nullptr, LOAD_LIBRARY_AS_DATAFILE);
        ASSERT_NE(m_module, nullptr) << GetLastError();
    }
    void TearDown() override { EXPECT_TRUE(FreeLibrary(m_module)); }

    std::wstring Text(DWORD id, DWORD language, DWORD flags = 0) const {
        return Format(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_IGNORE_INSERTS | flags, m_module, id,
                      language, nullptr);
    }

  private:
    HMODULE m_module = nullptr;
};

TEST_F(ModuleMessages, AreFoundInTheLanguageAskedFor) {
    EXPECT_EQ(Text(MSG_GREETING, English), L"Good day, %1!s!.\r\n");
    EXPECT_EQ(Text(MSG_GREETING, German), L"Sch\u00F6nen guten Tag, %1!s!.\r\n");
    EXPECT_EQ(Text(MSG_GREETING, French), Failed(ERROR_RESOURCE_LANG_NOT_FOUND));
    EXPECT_EQ(Text(MSG_ENGLISH_ONLY, German), Failed(ERROR_MR_MID_NOT_FOUND));
    EXPECT_EQ(Text(MSG_ENGLISH_ONLY, AnyLanguage), L"In English alone.\r\n");
}

TEST_F(ModuleMessages, GiveWayToTheSystemsOwnWhenUnknown) {
    const std::wstring system = Format(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, ERROR_ACCESS_DENIED, 0, nullptr);
    EXPECT_EQ(Text(ERROR_ACCESS_DENIED, AnyLanguage), Failed(ERROR_MR_MID_NOT_FOUND));
    EXPECT_EQ(Text(ERROR_ACCESS_DENIED, AnyLanguage, FORMAT_MESSAGE_FROM_SYSTEM), system);
    EXPECT_EQ(Text(MSG_ENGLISH_ONLY, AnyLanguage, FORMAT_MESSAGE_FROM_SYSTEM), L"In English alone.\r\n");
    EXPECT_EQ(Text(UnknownMessage, AnyLanguage, FORMAT_MESSAGE_FROM_SYSTEM), Failed(ERROR_MR_MID_NOT_FOUND));
}

TEST(MessageText, AModuleWithoutMessagesHasNone) {
    EXPECT_EQ(Format(FORMAT_MESSAGE_FROM_HMODULE, nullptr, 1, 0, nullptr),
              Failed(ERROR_RESOURCE_DATA_NOT_FOUND));
}
