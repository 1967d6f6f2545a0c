#include "TQLib/text/TQUnicode.h"

#include <gtest/gtest.h>
#include <string>

namespace Quellan::Corvel {
namespace {

using Form = TQUnicode::Form;

// How many plain characters stand before a text: none, some, and what fills the blocks in which they are taken.
constexpr std::size_t Before[] = {0, 15, 16, 31};

std::wstring Full(TQString (*convert)(std::wstring_view), std::wstring_view text) {
    return std::wstring(convert(text).View());
}

TEST(UnicodeCase, MayChangeTheLength) {
    const struct {
        std::wstring_view text;
        std::wstring_view upper;
        std::wstring_view lower;
        std::wstring_view folded;
    } cases[] = {
        {L"aZ09 \u00E9", L"AZ09 \u00C9", L"az09 \u00E9", L"az09 \u00E9"},
        {L"Stra\u00DFe", L"STRASSE", L"stra\u00DFe", L"strasse"},
        {L"\u1E9E", L"\u1E9E", L"\u00DF", L"ss"},
        {L"\uFB03", L"FFI", L"\uFB03", L"ffi"},
        {L"\u0130", L"\u0130", L"i\u0307", L"i\u0307"},
        {L"\u0131\u017F", L"IS", L"\u0131\u017F", L"\u0131s"},
        {L"\u0390", L"\u0399\u0308\u0301", L"\u0390", L"\u03B9\u0308\u0301"},
        {L"\u1F80", L"\u1F08\u0399", L"\u1F80", L"\u1F00\u03B9"},
        {L"\u13A0\uAB70", L"\u13A0\u13A0", L"\uAB70\uAB70", L"\u13A0\u13A0"},
        {L"\u10D0", L"\u1C90", L"\u10D0", L"\u10D0"},
        {L"\U00010428\U00010400", L"\U00010400\U00010400", L"\U00010428\U00010428", L"\U00010428\U00010428"},
        {L"\U0001F600\uFFFF", L"\U0001F600\uFFFF", L"\U0001F600\uFFFF", L"\U0001F600\uFFFF"},
    };
    for (const auto& [text, upper, lower, folded] : cases)
        for (const std::size_t before : Before) {
            const std::wstring plain(before, L'\u4E00');
            const std::wstring whole = plain + L"Zz" + std::wstring(text);
            EXPECT_EQ(Full(&TQUnicode::ToUpperFull, whole), plain + L"ZZ" + std::wstring(upper));
            EXPECT_EQ(Full(&TQUnicode::ToLowerFull, whole), plain + L"zz" + std::wstring(lower));
            EXPECT_EQ(Full(&TQUnicode::FoldCase, whole), plain + L"zz" + std::wstring(folded));
        }
    // All of it grows, beyond the room for a few.
    const std::wstring many(1000, L'\uFB03');
    EXPECT_EQ(Full(&TQUnicode::ToUpperFull, many).size(), 3 * many.size());
}

TEST(UnicodeCase, EndsWordsWithTheFinalSigma) {
    const struct {
        std::wstring_view text;
        std::wstring_view lower;
    } cases[] = {
        {L"\u03A3", L"\u03C3"},
        {L"A\u03A3", L"a\u03C2"},
        {L"\u03A3A", L"\u03C3a"},
        {L"A\u03A3A \u03A3", L"a\u03C3a \u03C3"},
        {L"A\u0301'\u03A3.", L"a\u0301'\u03C2."},
        {L"A\u03A3'A", L"a\u03C3'a"},
        {L"A\u03A3\u03A3", L"a\u03C3\u03C2"},
    };
    for (const auto& [text, lower] : cases)
        EXPECT_EQ(Full(&TQUnicode::ToLowerFull, text), lower);
}

// Values that are no characters go where characters go.
TEST(UnicodeText, KeepsWhatIsNoCharacter) {
    std::wstring text = {wchar_t(0xDC00), L'A', wchar_t(0xD800)};
    if (sizeof(wchar_t) > 2) text += {wchar_t(0x110000), wchar_t(0x7FFFFFFF), wchar_t(-1)};
    std::wstring lower = text;
    lower[1] = L'a';
    EXPECT_EQ(Full(&TQUnicode::ToUpperFull, text), text);
    EXPECT_EQ(Full(&TQUnicode::ToLowerFull, text), lower);
    EXPECT_EQ(TQUnicode::Normalise(text, Form::Composed).View(), text);
    EXPECT_EQ(TQUnicode::Normalise(text, Form::Decomposed).View(), text);
    EXPECT_EQ(TQUnicode::CompareNoCase(text, lower), 0);
    EXPECT_EQ(TQUnicode::Width(text), text.size());
}

int Sign(int order) {
    return order < 0 ? -1 : order > 0;
}

TEST(UnicodeOrder, IsThatOfFoldedText) {
    const struct {
        std::wstring_view a;
        std::wstring_view b;
        int order;
    } cases[] = {
        {L"", L"", 0},
        {L"", L"a", -1},
        {L"Stra\u00DFe", L"STRASSE", 0},
        {L"Stra\u00DFe", L"STRAS", 1},
        {L"\uFB03", L"fF\u0130", -1},
        {L"\u03A3\u03C3\u03C2", L"\u03C3\u03C3\u03C3", 0},
        {L"a_", L"AB", -1},
        {L"\U00010400", L"\U00010428", 0},
        {L"\U00010400", L"\uFF5A", 1},
    };
    for (const auto& [a, b, order] : cases) {
        EXPECT_EQ(Sign(TQUnicode::CompareNoCase(a, b)), order) << testing::PrintToString(std::wstring(a));
        EXPECT_EQ(Sign(TQUnicode::CompareNoCase(b, a)), -order);
    }
}

// Every text against every other: the order is one.
TEST(UnicodeOrder, TakesDigitsAsNumbers) {
    const std::wstring many(400, L'9');
    const std::wstring sorted[] = {
        L"",      L"0",     L"00",   L"0a",    L"1",        L"1.2", L"1.10", L"2",      L"02",    L"02b",
        L"10",    L"010",   L"0010", many,     many + L"0", L"A1",  L"a",    L"a1",     L"a01",   L"a1b0",
        L"a1b00", L"a01b0", L"a1b1", L"a1b01", L"a2",       L"a10", L"aa",   L"\u00E9", L"\u0661"};
    for (std::size_t i = 0; i < std::size(sorted); ++i)
        for (std::size_t j = 0; j < std::size(sorted); ++j)
            EXPECT_EQ(Sign(TQUnicode::CompareNatural(sorted[i], sorted[j])), i < j ? -1 : i > j)
                << i << ' ' << j;
    const auto noCase = [](const wchar_t* a, const wchar_t* b) {
        return Sign(TQUnicode::CompareNatural(a, b, TQUnicode::Case::Ignored));
    };
    EXPECT_EQ(noCase(L"FILE9\u00DF", L"file9SS"), 0);
    EXPECT_EQ(noCase(L"FILE10", L"file9"), 1);
}

TEST(UnicodeNormalisation, ComposesAndDecomposes) {
    const struct {
        std::wstring_view text;
        std::wstring_view composed;
        std::wstring_view decomposed;
    } cases[] = {
        {L"plain", L"plain", L"plain"},
        {L"caf\u00E9", L"caf\u00E9", L"cafe\u0301"},
        {L"e\u0301x", L"\u00E9x", L"e\u0301x"},
        {L"\u1E0A\u0323", L"\u1E0C\u0307", L"D\u0323\u0307"},
        {L"D\u0307\u0323", L"\u1E0C\u0307", L"D\u0323\u0307"},
        {L"\u212B", L"\u00C5", L"A\u030A"},
        {L"\u0344", L"\u0308\u0301", L"\u0308\u0301"},
        {L"\u0958", L"\u0915\u093C", L"\u0915\u093C"},
        {L"\u0F73\u0F71", L"\u0F71\u0F71\u0F72", L"\u0F71\u0F71\u0F72"},
        {L"\uAC00\u11A8", L"\uAC01", L"\u1100\u1161\u11A8"},
        {L"\uAC01\u11A8", L"\uAC01\u11A8", L"\u1100\u1161\u11A8\u11A8"},
        {L"\u1100\u1161\u11A7", L"\uAC00\u11A7", L"\u1100\u1161\u11A7"},
        {L"a\u05AE\u0300\u0315b", L"\u00E0\u05AE\u0315b", L"a\u05AE\u0300\u0315b"},
        {L"a\u0315\u0300\u05AEb", L"\u00E0\u05AE\u0315b", L"a\u05AE\u0300\u0315b"},
        {L"\u09C7\u0334\u09BE", L"\u09C7\u0334\u09BE", L"\u09C7\u0334\u09BE"},
        {L"\uF900", L"\u8C48", L"\u8C48"},
        {L"a\u0310\u0301", L"a\u0310\u0301", L"a\u0310\u0301"},
        // Marks out of order at the end of a block, plain characters behind it.
        {L"xxxxxxxxxxa\u0301\u0323xxxxxxxxxxxxxxxx", L"xxxxxxxxxx\u1EA1\u0301xxxxxxxxxxxxxxxx",
         L"xxxxxxxxxxa\u0323\u0301xxxxxxxxxxxxxxxx"},
        // Beside the ranges that are taken in blocks.
        {L"\u00C0\u00BF", L"\u00C0\u00BF", L"A\u0300\u00BF"},
        {L"\u2000\u2001", L"\u2002\u2003", L"\u2002\u2003"},
        {L"a\u20D0\u0323", L"\u1EA1\u20D0", L"a\u0323\u20D0"},
        {L"\u30FE", L"\u30FE", L"\u30FD\u3099"},
        {L"a\uA66F\u0323", L"\u1EA1\uA66F", L"a\u0323\uA66F"},
        {L"\U0002F800", L"\u4E3D", L"\u4E3D"},
        {L"\U0001D15E", L"\U0001D157\U0001D165", L"\U0001D157\U0001D165"},
        {L"\U00011131\U00011127", L"\U0001112E", L"\U00011131\U00011127"},
        {L"\U0001D157\u0301\u0323", L"\U0001D157\u0323\u0301", L"\U0001D157\u0323\u0301"},
        {L"a\u0315\u0301\u0323\u0300\U0001D165", L"\u1EA1\U0001D165\u0301\u0300\u0315",
         L"a\U0001D165\u0323\u0301\u0300\u0315"},
    };
    for (const auto& [text, composed, decomposed] : cases) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(text)));
        for (const std::wstring_view form : {text, composed, decomposed}) {
            // In the middle of text that is as it should be.
            for (const std::size_t before : Before) {
                const std::wstring plain = std::wstring(before, L'\u2019') + L"\u4E00q";
                const std::wstring whole = L"\u00C4" + plain + std::wstring(form) + L"y" + plain + L"\u00FF";
                EXPECT_EQ(TQUnicode::Normalise(whole, Form::Composed).View(),
                          L"\u00C4" + plain + std::wstring(composed) + L"y" + plain + L"\u00FF");
                EXPECT_EQ(TQUnicode::Normalise(whole, Form::Decomposed).View(),
                          L"A\u0308" + plain + std::wstring(decomposed) + L"y" + plain + L"y\u0308");
            }
            EXPECT_EQ(TQUnicode::Normalise(form, Form::Composed).View(), composed);
            EXPECT_EQ(TQUnicode::Normalise(form, Form::Decomposed).View(), decomposed);
            EXPECT_EQ(TQUnicode::IsNormalised(form, Form::Composed), form == composed);
            EXPECT_EQ(TQUnicode::IsNormalised(form, Form::Decomposed), form == decomposed);
        }
    }
}

TEST(UnicodeWidth, IsInColumns) {
    const struct {
        std::wstring_view text;
        std::size_t width;
    } cases[] = {
        {L"", 0},
        {L"abc\u00E9\u00AD", 5},
        {L"e\u0301\u200B\u200D\uFE0F\t", 1},
        {L"\u7CFB\u7EDF\uFF21", 6},
        {L"\u1100\u1161\u11A8\uAC00", 4},
        {L"\U0001F600\U0001F1E6\u03B1\u20AC", 5},
        {L"\U0003FFFD\U000E0001\U000E0200", 3},
    };
    for (const auto& [text, width] : cases)
        EXPECT_EQ(TQUnicode::Width(text), width) << testing::PrintToString(std::wstring(text));
}

}  // namespace
}  // namespace Quellan::Corvel
