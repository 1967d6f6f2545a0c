#include "PlatformMessages.h"
#include "TQLib/platform/Win32.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <gtest/gtest.h>
#include <initializer_list>
#include <sstream>
#include <string>

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

}  // namespace

TEST(MessageText, InsertsTakeTheirArgumentByNumber) {
    EXPECT_EQ(Expand(L"%2!s! before %1, %2 again", {Text(L"one"), Text(L"two")}),
              L"two before one, two again");
    EXPECT_EQ(Expand(L"%10 %11 %100", {1, 2, 3, 4, 5, 6, 7, 8, 9, Text(L"ten"), Text(L"eleven")}),
              L"ten eleven ten0");
}

TEST(MessageText, TextInsertsKeepWidthPrecisionAndKind) {
    const ULONG_PTR wide = Text(L"wide");
    const ULONG_PTR narrow = Text("narrow");
    EXPECT_EQ(Expand(L"[%1!6s!][%1!-6s!][%1!.2s!]", {wide}), L"[  wide][wide  ][wi]");
    EXPECT_EQ(Expand(L"[%1!ws!][%1!ls!][%2!hs!][%2!S!][%2!.3S!]", {wide, narrow}),
              L"[wide][wide][narrow][narrow][nar]");
    EXPECT_EQ(Expand(L"%1!c!%2!C!%3!hc!", {L'a', 'b', 'c'}), L"abc");
    EXPECT_EQ(Expand(L"%1 %2!hs!", {0, 0}), L"(null) (null)");
}

TEST(MessageText, ATextWithPrecisionNeedNoTerminator) {
    const wchar_t unterminated[] = {L'a', L'b', L'c'};
    EXPECT_EQ(Expand(L"%1!.3s!", {Text(unterminated)}), L"abc");
}

TEST(MessageText, NumbersHaveThePlatformsSizesAndFlags) {
    const ULONG_PTR minusFive = static_cast<ULONG_PTR>(-5LL);
    EXPECT_EQ(Expand(L"%1!d! %1!i! %1!ld! %1!I64d! %1!lld! %1!hd!", {minusFive}), L"-5 -5 -5 -5 -5 -5");
    EXPECT_EQ(Expand(L"%1!u! %1!lu! %1!hu! %1!I64u!", {minusFive}),
              L"4294967291 4294967291 65531 18446744073709551611");
    EXPECT_EQ(Expand(L"%1!x! %1!X! %1!#x! %1!o! %1!#o! %1!08x!", {0xABC}),
              L"abc ABC 0xabc 5274 05274 00000abc");
    EXPECT_EQ(Expand(L"%1!I64x! %1!p!", {0x123456789ABC}), L"123456789abc 0000123456789ABC");
    EXPECT_EQ(Expand(L"[%1!+d!][%1! d!][%1!5d!][%1!-5d!][%1!05d!][%1!.4d!][%1!6.4d!]", {42}),
              L"[+42][ 42][   42][42   ][00042][0042][  0042]");
    EXPECT_EQ(Expand(L"[%1!05d!][%1!.0d!][%2!.0d!]", {minusFive, 0}), L"[-0005][-5][]");
}

TEST(MessageText, AsterisksTakeTheArgumentsBeforeTheValue) {
    EXPECT_EQ(Expand(L"%1!*.*s! %4 %5!*s!", {4, 2, Text(L"Bill"), Text(L"Bob"), 6, Text(L"Bill")}),
              L"  Bi Bob   Bill");
    EXPECT_EQ(Expand(L"[%1!*d!]", {static_cast<ULONG_PTR>(-4LL), 7}), L"[7   ]");
}

TEST(MessageText, VariableArgumentsAreReadInOrderWhateverTheOrderOfInserts) {
    EXPECT_EQ(ExpandVariable(L"%3!d! %1 %2!I64x!", L"text", 0x123456789ABCULL, -7), L"-7 text 123456789abc");
}

TEST(MessageText, EscapesGiveTheirCharacters) {
    EXPECT_EQ(Plain(L"100%% a%tb%rc%nd%!e%.% f"), L"100% a\tb\rc\r\nd!e. f");
    EXPECT_EQ(Expand(L"%1%!s!", {Text(L"x")}), L"x!s!");
    EXPECT_EQ(Plain(L"kept%0dropped"), L"kept");
}

TEST(MessageText, LineBreaksAreKeptOrBecomeBlanks) {
    EXPECT_EQ(Plain(L"a\nb\rc\r\nd"), L"a\r\nb\r\nc\r\nd");
    EXPECT_EQ(Plain(L"a\nb\rc\r\nd%ne\r\n", FORMAT_MESSAGE_MAX_WIDTH_MASK), L"a b c d\r\ne ");
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
    EXPECT_EQ(Plain(L"percent at the end %"), Failed(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(Expand(L"%1!d", {1}), Failed(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(Plain(L"%1"), Failed(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(Plain(L""), Failed(NothingToFormat));
    EXPECT_EQ(Format(0, L"text", 0, 0, nullptr), Failed(ERROR_INVALID_PARAMETER));
    SetLastError(ERROR_SUCCESS);
    EXPECT_EQ(FormatMessageW(FORMAT_MESSAGE_FROM_STRING, L"text", 0, 0, nullptr, buffer.size(), nullptr), 0u);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
}

TEST(MessageText, ABufferHoldsTheTextAndItsTerminatorOrNothing) {
    std::array<wchar_t, 4> buffer;
    EXPECT_EQ(FormatMessageW(FORMAT_MESSAGE_FROM_STRING, L"abc", 0, 0, buffer.data(), 4, nullptr), 3u);
    SetLastError(ERROR_SUCCESS);
    EXPECT_EQ(FormatMessageW(FORMAT_MESSAGE_FROM_STRING, L"abcd", 0, 0, buffer.data(), 4, nullptr), 0u);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INSUFFICIENT_BUFFER});
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
    SetLastError(ERROR_SUCCESS);
    EXPECT_EQ(FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_ALLOCATE_BUFFER, nullptr,
                             UnknownMessage, 0, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr),
              0u);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_MR_MID_NOT_FOUND});
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
