#include "TQLib/platform/Win32.h"
#include "TQLib/text/TQEscape.h"
#include "support/ThrownCode.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace Quellan::Corvel {
namespace {

using Test::Failure;
using Test::Thrown;
using Wide = TQString (*)(_TQTextT<wchar_t>);
using Narrow = _TQaString (*)(_TQTextT<char>);

struct Form {
    Wide escape;
    Narrow escapeNarrow;
    Wide unescape;
    Narrow unescapeNarrow;
};
constexpr Form Json = {TQEscapeJson, TQEscapeJson, TQUnescapeJson, TQUnescapeJson};
constexpr Form XmlText = {TQEscapeXmlText, TQEscapeXmlText, TQUnescapeXml, TQUnescapeXml};
constexpr Form XmlAttribute = {TQEscapeXmlAttribute, TQEscapeXmlAttribute, TQUnescapeXml, TQUnescapeXml};
constexpr Form Url = {TQEscapeUrl, TQEscapeUrl, TQUnescapeUrl, TQUnescapeUrl};

// In both widths, there and back.
void ExpectBothWays(const Form& form, const wchar_t* text, const wchar_t* escaped) {
    EXPECT_EQ(form.escape(text), escaped);
    EXPECT_EQ(form.unescape(escaped), text);
    const _TQaString narrow = TQString(text).ToUtf8(), narrowEscaped = TQString(escaped).ToUtf8();
    EXPECT_EQ(form.escapeNarrow(narrow), narrowEscaped);
    EXPECT_EQ(form.unescapeNarrow(narrowEscaped), narrow);
}

TEST(Escape, IsUndoneInEachForm) {
    ExpectBothWays(Json, L"", L"");
    ExpectBothWays(Json, L"a \"b\" \\ c/d\n\t\x01\x7F",
                   LR"(a \"b\" \\ c/d\n\t\u0001)"
                   L"\x7F");
    ExpectBothWays(Json, L"\u00E9\u2028\U0001F600", L"\u00E9\u2028\U0001F600");
    ExpectBothWays(XmlText, L"a<b> & \"c\"\t\n\r'", L"a&lt;b&gt; &amp; \"c\"\t\n&#13;'");
    ExpectBothWays(XmlAttribute, L"a<b> & \"c\"\t\n\r' \u00E9",
                   L"a&lt;b&gt; &amp; &quot;c&quot;&#9;&#10;&#13;&apos; \u00E9");
    ExpectBothWays(Url, L"a-b_c.d~e f/g?%+", L"a-b_c.d~e%20f%2Fg%3F%25%2B");
    ExpectBothWays(Url, L"\u00E9\u20AC\U0001F600\n", L"%C3%A9%E2%82%AC%F0%9F%98%80%0A");
}

TEST(Escape, UndoesWhatItDoesNotWrite) {
    EXPECT_EQ(TQUnescapeJson(LR"(\/\b\f\r\u00e9\uD83D\uDE00\u0000x)"),
              TQString(L"/\b\f\r\u00E9\U0001F600\0x", 8 + (sizeof(wchar_t) == 2)));
    EXPECT_EQ(TQUnescapeJson(R"(\u20AC\uD83D\uDE00)"), "\xE2\x82\xAC\xF0\x9F\x98\x80");
    EXPECT_EQ(TQUnescapeXml(L"&#x20AC;&#128512;&apos;>"), L"\u20AC\U0001F600'>");
    EXPECT_EQ(TQUnescapeUrl("a+b%c3%A9"), "a+b\xC3\xA9");
    EXPECT_EQ(TQUnescapeC(LR"(\a\?\'\0\101\x41g\u20AC\U0001F600)"),
              TQString(L"\a?'\0AAg\u20AC\U0001F600", 9 + (sizeof(wchar_t) == 2)));
}

TEST(Escape, OfCKeepsEachUnit) {
    EXPECT_EQ(TQEscapeC(L"a\"\\\n\x01\x7F"
                        L"7\u00E9\u0085\u20AC\U0001F600?"),
              LR"(a\"\\\n\001\1777\u00e9\205\u20ac\U0001f600?)");
    EXPECT_EQ(TQEscapeC("\xC3\xA9"
                        "9\xFF"),
              R"(\303\2519\377)");
    std::string bytes;
    for (int i = 0; i < 256; ++i)
        bytes += static_cast<char>(i);
    EXPECT_EQ(TQUnescapeC(TQEscapeC(bytes)), bytes);
    EXPECT_EQ(TQUnescapeC(TQEscapeC(L"\u0080\u009F\u00A0\U0010FFFF")), L"\u0080\u009F\u00A0\U0010FFFF");
}

TEST(Escape, ReplacesWhatIsNoCharacter) {
    EXPECT_EQ(TQEscapeJson("a\xC3(\xED\xA0\x80"), "a\xEF\xBF\xBD(\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(TQEscapeUrl("\xFF"), "%EF%BF%BD");
    const wchar_t surrogate[] = {wchar_t{0xD800}, L'x', 0};
    EXPECT_EQ(TQEscapeUrl(surrogate), L"%EF%BF%BDx");
    EXPECT_EQ(TQEscapeC(surrogate), L"\\ufffdx");
}

TEST(Escape, TellsWhereWrongTextIs) {
    struct Row {
        Wide unescape;
        Narrow unescapeNarrow;
        const char* text;
        const wchar_t* message;
    };
    const Row rows[] = {
        {TQUnescapeJson, TQUnescapeJson, "ab\\x", L"TQUnescapeJson: wrong escape at offset 2."},
        {TQUnescapeJson, TQUnescapeJson, "\\", L"TQUnescapeJson: wrong escape at offset 0."},
        {TQUnescapeJson, TQUnescapeJson, "\\u12G4", L"TQUnescapeJson: wrong escape at offset 0."},
        {TQUnescapeJson, TQUnescapeJson, "a\\u123", L"TQUnescapeJson: wrong escape at offset 1."},
        {TQUnescapeJson, TQUnescapeJson, "\\uD83D\\u0041", L"TQUnescapeJson: wrong escape at offset 0."},
        {TQUnescapeJson, TQUnescapeJson, "\\uD83D\\", L"TQUnescapeJson: wrong escape at offset 0."},
        {TQUnescapeJson, TQUnescapeJson, "\\n\\uDE00", L"TQUnescapeJson: wrong escape at offset 2."},
        {TQUnescapeJson, TQUnescapeJson, "a\"b",
         L"TQUnescapeJson: character that must be escaped at offset 1."},
        {TQUnescapeJson, TQUnescapeJson, "a\nb",
         L"TQUnescapeJson: character that must be escaped at offset 1."},
        {TQUnescapeXml, TQUnescapeXml, "a&b;", L"TQUnescapeXml: wrong reference at offset 1."},
        {TQUnescapeXml, TQUnescapeXml, "a&amp", L"TQUnescapeXml: wrong reference at offset 1."},
        {TQUnescapeXml, TQUnescapeXml, "&#;", L"TQUnescapeXml: wrong reference at offset 0."},
        {TQUnescapeXml, TQUnescapeXml, "&#x;", L"TQUnescapeXml: wrong reference at offset 0."},
        {TQUnescapeXml, TQUnescapeXml, "&#0;", L"TQUnescapeXml: wrong reference at offset 0."},
        {TQUnescapeXml, TQUnescapeXml, "&#xD800;", L"TQUnescapeXml: wrong reference at offset 0."},
        {TQUnescapeXml, TQUnescapeXml, "&#99999999999999;", L"TQUnescapeXml: wrong reference at offset 0."},
        {TQUnescapeXml, TQUnescapeXml, "a<", L"TQUnescapeXml: character that must be escaped at offset 1."},
        {TQEscapeXmlText, TQEscapeXmlText, "ab\x01",
         L"TQEscapeXmlText: character that XML cannot have at offset 2."},
        {TQEscapeXmlAttribute, TQEscapeXmlAttribute, "\x1F",
         L"TQEscapeXmlAttribute: character that XML cannot have at offset 0."},
        {TQUnescapeUrl, TQUnescapeUrl, "a%4", L"TQUnescapeUrl: wrong escape at offset 1."},
        {TQUnescapeUrl, TQUnescapeUrl, "%", L"TQUnescapeUrl: wrong escape at offset 0."},
        {TQUnescapeUrl, TQUnescapeUrl, "%C3x", L"TQUnescapeUrl: wrong escape at offset 0."},
        {TQUnescapeUrl, TQUnescapeUrl, "%41%ED%A0%80%41",
         L"TQUnescapeUrl: escapes that are no UTF-8 at offset 3."},
        {TQUnescapeC, TQUnescapeC, "\\q", L"TQUnescapeC: wrong escape at offset 0."},
        {TQUnescapeC, TQUnescapeC, "a\\x", L"TQUnescapeC: wrong escape at offset 1."},
        {TQUnescapeC, TQUnescapeC, "\\x111111111111", L"TQUnescapeC: wrong escape at offset 0."},
        {TQUnescapeC, TQUnescapeC, "\\uD800", L"TQUnescapeC: wrong escape at offset 0."},
        {TQUnescapeC, TQUnescapeC, "\"", L"TQUnescapeC: character that must be escaped at offset 0."},
    };
    for (const Row& row : rows) {
        const Failure expected(ERROR_INVALID_DATA, row.message);
        EXPECT_EQ(Thrown([&] { (void)row.unescape(TQString::FromUtf8(row.text)); }), expected) << row.text;
        EXPECT_EQ(Thrown([&] { (void)row.unescapeNarrow(row.text); }), expected) << row.text;
    }
    EXPECT_EQ(Thrown([] { (void)TQUnescapeC("\\400"); }).first, DWORD{ERROR_INVALID_DATA})
        << "more than a byte";
    EXPECT_EQ(Thrown([] { (void)TQUnescapeJson("a\xFF"); }).second,
              L"TQUnescapeJson: no character at offset 1.");
    EXPECT_EQ(Thrown([] { (void)TQEscapeXmlText(L"\uFFFE"); }).first, DWORD{ERROR_INVALID_DATA});
}

const std::vector<std::wstring> Arguments = {L"plain",
                                             L"",
                                             L"two words",
                                             L"a\tb",
                                             L"\"",
                                             L"say \"no\"",
                                             L"C:\\path\\",
                                             L"C:\\my path\\",
                                             L"\\\\\"",
                                             L"a\\\\b c\\\\",
                                             L"--name=va lue",
                                             L"'",
                                             L"it's",
                                             L"$HOME `id` \\",
                                             L"*",
                                             L"\u00E9\U0001F600",
                                             L";&|<>()#~!"};

TEST(CommandLine, OfWindowsIsTakenApartAsItWasPut) {
    const TQString line = TQWindowsCommandLine(L"C:\\Program Files\\a.exe", Arguments);
    const TQStringArray words = TQSplitWindowsCommandLine(line);
    ASSERT_EQ(words.Count(), Arguments.size() + 1);
    EXPECT_EQ(words[0], L"C:\\Program Files\\a.exe");
    for (std::size_t i = 0; i < Arguments.size(); ++i)
        EXPECT_EQ(words[i + 1], Arguments[i]);
    EXPECT_EQ(TQQuoteWindowsArgument(L"a\\\"b\\"), L"\"a\\\\\\\"b\\\\\"");
    EXPECT_EQ(TQSplitWindowsCommandLine(L""), TQStringArray());
    EXPECT_EQ(Thrown([] { (void)TQQuoteWindowsArgument(std::wstring_view(L"a\0b", 3)); }),
              Failure(ERROR_INVALID_DATA, L"TQQuoteWindowsArgument: zero character at offset 1."));
    EXPECT_EQ(Thrown([] { (void)TQQuoteWindowsProgram(L"a\"b"); }).first, DWORD{ERROR_INVALID_DATA});
}

TEST(CommandLine, OfAShellIsTakenApartAsItWasPut) {
    const TQString line = TQShellCommandLine(Arguments);
    EXPECT_EQ(TQSplitShellCommandLine(line), TQStringArray(Arguments));
    EXPECT_EQ(TQQuoteShellWord(L"A=b"), L"'A=b'") << "no assignment";
    EXPECT_EQ(TQSplitShellCommandLine(L" a\\ b \"c \\\" \\x $d\"'e \\'\n f\\\ng "),
              (TQStringArray{L"a b", L"c \" \\x $de \\", L"fg"}));
    EXPECT_EQ(TQSplitShellCommandLine(L"'' \"\""), (TQStringArray{L"", L""}));
    EXPECT_EQ(Thrown([] { (void)TQSplitShellCommandLine(L"a 'b"); }),
              Failure(ERROR_INVALID_DATA, L"TQSplitShellCommandLine: quote that is not closed at offset 2."));
    EXPECT_EQ(
        Thrown([] { (void)TQSplitShellCommandLine(L"a\\"); }),
        Failure(ERROR_INVALID_DATA, L"TQSplitShellCommandLine: backslash without a character at offset 1."));
    EXPECT_EQ(Thrown([] { (void)TQQuoteShellWord(std::wstring_view(L"\0", 1)); }).first,
              DWORD{ERROR_INVALID_DATA});
}

}  // namespace
}  // namespace Quellan::Corvel
