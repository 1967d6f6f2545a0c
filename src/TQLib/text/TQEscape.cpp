#include "TQLib/text/TQEscape.h"

#include "TQLib/platform/Platform.h"
#include "TQLib/text/internal/CodePoints.h"
#include "TQLib/text/internal/Refuse.h"
#include "TQLib/text/memory/TQHandle.h"
#include "TQLib/text/memory/TQUniqueHandle.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <algorithm>
#include <array>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Quellan::Corvel {
namespace {

// Characters of ASCII, by a flag each; what is beyond is in none.
class AsciiSet {
  public:
    template <class Test>
    constexpr explicit AsciiSet(Test test) {
        for (std::size_t i = 0; i < m_has.size(); ++i)
            m_has[i] = test(static_cast<char>(i));
    }
    template <class C>
    constexpr bool Has(C c) const noexcept {
        const auto code = static_cast<std::make_unsigned_t<C>>(c);
        return code < m_has.size() && m_has[code];
    }

  private:
    std::array<bool, 128> m_has{};
};

constexpr bool IsAlphanumeric(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
constexpr bool IsOneOf(char c, std::string_view set) {
    return set.find(c) != set.npos;
}

constexpr AsciiSet JsonPlain([](char c) { return c >= ' ' && !IsOneOf(c, "\"\\"); });
constexpr AsciiSet XmlTextPlain([](char c) {
    return (c >= ' ' && !IsOneOf(c, "&<>")) || c == '\t' || c == '\n';
});
constexpr AsciiSet XmlAttributePlain([](char c) { return c >= ' ' && !IsOneOf(c, "&<>\"'"); });
constexpr AsciiSet UrlPlain([](char c) { return IsAlphanumeric(c) || IsOneOf(c, "-._~"); });
constexpr AsciiSet CPlain([](char c) { return c >= ' ' && c != 0x7F && !IsOneOf(c, "\"\\"); });
constexpr AsciiSet ShellPlain([](char c) { return IsAlphanumeric(c) || IsOneOf(c, "@%_+:,./-"); });

// A text in the making. What one character becomes is written without a look at the room for it.
template <class C>
class EscapeOutput {
  public:
    explicit EscapeOutput(std::size_t likelyLength) { m_text.resize(likelyLength); }

    // Makes room for so many characters more and the longest that one becomes.
    void Need(std::size_t length) {
        constexpr std::size_t LongestOfOne = 12;
        length += LongestOfOne;
        if (m_text.size() - m_length < length) m_text.resize(std::max(m_length + length, 2 * m_text.size()));
    }
    void Put(C character) noexcept { m_text[m_length++] = character; }
    void PutAscii(std::string_view text) noexcept {
        for (const char c : text)
            Put(static_cast<C>(c));
    }
    // The lowest digits of `value`.
    void PutDigits(char32_t value, unsigned digits, unsigned bitsEach,
                   const char* alphabet = "0123456789abcdef") noexcept {
        while (digits-- > 0)
            Put(static_cast<C>(alphabet[value >> digits * bitsEach & ((1u << bitsEach) - 1)]));
    }
    void PutCode(char32_t code) noexcept {
        PutCodePoint<C>(code, [this](C unit) { Put(unit); });
    }
    // After room was made for it.
    void PutText(std::basic_string_view<C> text) noexcept {
        text.copy(m_text.data() + m_length, text.size());
        m_length += text.size();
    }
    std::basic_string<C> Take() {
        m_text.resize(m_length);
        return std::move(m_text);
    }

  private:
    std::basic_string<C> m_text;
    std::size_t m_length = 0;
};

// What a text becomes: plain characters as they are, others by `write`, which gets the output and the position in
// the text and returns the position behind what it has written.
template <class C, class Write>
std::basic_string<C> Rewritten(std::basic_string_view<C> text, const AsciiSet& plain, const wchar_t* where,
                               Write write) {
    return Translated(where, [&] {
        EscapeOutput<C> output(text.size() + text.size() / 4 + 1);
        for (std::size_t at = 0;;) {
            const std::size_t begin = at;
            while (at < text.size() && plain.Has(text[at]))
                ++at;
            output.Need(at - begin);
            output.PutText(text.substr(begin, at - begin));
            if (at == text.size()) return output.Take();
            at = write(output, at);
        }
    });
}

constexpr unsigned NoDigitHere = 16;

template <class C>
constexpr unsigned HexDigit(C c) noexcept {
    return c >= C{'0'} && c <= C{'9'}   ? static_cast<unsigned>(c - C{'0'})
           : c >= C{'a'} && c <= C{'f'} ? static_cast<unsigned>(c - C{'a'}) + 10
           : c >= C{'A'} && c <= C{'F'} ? static_cast<unsigned>(c - C{'A'}) + 10
                                        : NoDigitHere;
}

constexpr char32_t NoNumber = std::numeric_limits<char32_t>::max();

// The number of exactly `digits` hexadecimal digits at `at`.
template <class C>
char32_t HexAt(std::basic_string_view<C> text, std::size_t at, std::size_t digits) noexcept {
    if (at > text.size() || digits > text.size() - at) return NoNumber;
    char32_t value = 0;
    for (std::size_t i = 0; i < digits; ++i) {
        const unsigned digit = HexDigit(text[at + i]);
        if (digit == NoDigitHere) return NoNumber;
        value = value << 4 | digit;
    }
    return value;
}

// A character beyond the plain ones as it is, or U+FFFD.
template <class C>
std::size_t CopyCodePoint(EscapeOutput<C>& output, std::basic_string_view<C> text, std::size_t at) {
    const CodePoint point = CodePointAt(text, at);
    output.PutCode(point.code);
    return at + point.units;
}

// Escapes of one letter, from pairs of it and what it stands for.
class Letters {
  public:
    constexpr explicit Letters(std::string_view pairs) {
        for (std::size_t i = 0; i < pairs.size(); i += 2) {
            m_characters[static_cast<std::size_t>(pairs[i])] = pairs[i + 1];
            m_letters[static_cast<std::size_t>(pairs[i + 1])] = pairs[i];
        }
    }
    // 0 where there is none.
    template <class C>
    [[nodiscard]] constexpr char CharacterOf(C letter) const noexcept {
        const auto code = static_cast<std::make_unsigned_t<C>>(letter);
        return code < m_characters.size() ? m_characters[code] : '\0';
    }
    template <class C>
    [[nodiscard]] constexpr char LetterOf(C character) const noexcept {
        const auto code = static_cast<std::make_unsigned_t<C>>(character);
        return code < m_letters.size() ? m_letters[code] : '\0';
    }

  private:
    std::array<char, 128> m_characters{};
    std::array<char, 128> m_letters{};
};

constexpr Letters JsonLetters("b\bf\fn\nr\rt\t\"\"\\\\//");
constexpr Letters CLetters("a\ab\bf\fn\nr\rt\tv\v\"\"\\\\''??");

template <class C>
std::basic_string<C> EscapedJson(std::basic_string_view<C> text) {
    return Rewritten(text, JsonPlain, L"TQEscapeJson", [&](EscapeOutput<C>& output, std::size_t at) {
        if (static_cast<std::make_unsigned_t<C>>(text[at]) >= 0x80) return CopyCodePoint(output, text, at);
        output.Put(C{'\\'});
        if (const char letter = JsonLetters.LetterOf(text[at])) {
            output.Put(static_cast<C>(letter));
        } else {
            output.Put(C{'u'});
            output.PutDigits(static_cast<char32_t>(text[at]), 4, 4);
        }
        return at + 1;
    });
}

template <class C>
std::basic_string<C> UnescapedJson(std::basic_string_view<C> text) {
    constexpr auto Where = L"TQUnescapeJson";
    return Rewritten(text, JsonPlain, Where, [&](EscapeOutput<C>& output, std::size_t at) {
        if (static_cast<std::make_unsigned_t<C>>(text[at]) >= 0x80) {
            if (!CodePointAt(text, at).isValid) RefuseAt(Where, L"no character", at);
            return CopyCodePoint(output, text, at);
        }
        if (text[at] != C{'\\'}) RefuseAt(Where, L"character that must be escaped", at);
        const std::size_t begin = at;
        const C letter = ++at < text.size() ? text[at] : C{};
        if (const char character = JsonLetters.CharacterOf(letter)) {
            output.Put(static_cast<C>(character));
            return at + 1;
        }
        char32_t code = letter == C{'u'} ? HexAt(text, at + 1, 4) : NoNumber;
        at += 5;
        if (code >= 0xD800 && code <= 0xDBFF && at + 1 < text.size() && text[at] == C{'\\'}) {
            const char32_t second = text[at + 1] == C{'u'} ? HexAt(text, at + 2, 4) : NoNumber;
            if (second >= 0xDC00 && second <= 0xDFFF) {
                code = 0x10000 + ((code - 0xD800) << 10) + (second - 0xDC00);
                at += 6;
            }
        }
        if (!IsCodePoint(code)) RefuseAt(Where, L"wrong escape", begin);
        output.PutCode(code);
        return at;
    });
}

constexpr bool IsXmlCharacter(char32_t code) noexcept {
    return code >= 0x20 ? IsCodePoint(code) && code != 0xFFFE && code != 0xFFFF
                        : code == '\t' || code == '\n' || code == '\r';
}

constexpr std::string_view XmlNames[] = {"amp", "lt", "gt", "quot", "apos"};
constexpr std::string_view XmlCharacters = "&<>\"'";

template <class C>
std::basic_string<C> EscapedXml(std::basic_string_view<C> text, const AsciiSet& plain, const wchar_t* where) {
    return Rewritten(text, plain, where, [&](EscapeOutput<C>& output, std::size_t at) {
        const CodePoint point = CodePointAt(text, at);
        if (!IsXmlCharacter(point.code)) RefuseAt(where, L"character that XML cannot have", at);
        if (point.code >= 0x80) return CopyCodePoint(output, text, at);
        output.Put(C{'&'});
        const std::size_t name = XmlCharacters.find(static_cast<char>(point.code));
        if (name != XmlCharacters.npos)
            output.PutAscii(XmlNames[name]);
        else
            output.PutAscii(point.code == '\t' ? "#9" : point.code == '\n' ? "#10" : "#13");
        output.Put(C{';'});
        return at + 1;
    });
}

// The character of a reference between & and ;.
template <class C>
char32_t XmlReference(std::basic_string_view<C> name) noexcept {
    for (std::size_t i = 0; i < XmlCharacters.size(); ++i)
        if (std::equal(name.begin(), name.end(), XmlNames[i].begin(), XmlNames[i].end()))
            return static_cast<char32_t>(XmlCharacters[i]);
    if (name.size() < 2 || name[0] != C{'#'}) return NoNumber;
    const bool isHex = name[1] == C{'x'};
    name.remove_prefix(isHex ? 2 : 1);
    if (name.empty()) return NoNumber;
    char32_t code = 0;
    for (const C c : name) {
        const unsigned digit = HexDigit(c);
        if (digit >= (isHex ? 16u : 10u)) return NoNumber;
        code = code * (isHex ? 16 : 10) + digit;
        if (code > 0x10FFFF) return NoNumber;
    }
    return code;
}

template <class C>
std::basic_string<C> UnescapedXml(std::basic_string_view<C> text) {
    constexpr auto Where = L"TQUnescapeXml";
    return Rewritten(text, XmlTextPlain, Where, [&](EscapeOutput<C>& output, std::size_t at) {
        const CodePoint point = CodePointAt(text, at);
        if (!point.isValid || !IsXmlCharacter(point.code) || point.code == '<')
            RefuseAt(Where, L"character that must be escaped", at);
        if (point.code != '&') return CopyCodePoint(output, text, at);
        const std::size_t end = text.find(C{';'}, at);
        const char32_t code = end == text.npos ? NoNumber : XmlReference(text.substr(at + 1, end - at - 1));
        if (!IsXmlCharacter(code)) RefuseAt(Where, L"wrong reference", at);
        output.PutCode(code);
        return end + 1;
    });
}

template <class C>
std::basic_string<C> EscapedUrl(std::basic_string_view<C> text) {
    return Rewritten(text, UrlPlain, L"TQEscapeUrl", [&](EscapeOutput<C>& output, std::size_t at) {
        const CodePoint point = CodePointAt(text, at);
        PutCodePoint<char>(point.code, [&](char octet) {
            output.Put(C{'%'});
            output.PutDigits(static_cast<unsigned char>(octet), 2, 4, "0123456789ABCDEF");
        });
        return at + point.units;
    });
}

template <class C>
std::basic_string<C> UnescapedUrl(std::basic_string_view<C> text) {
    constexpr auto Where = L"TQUnescapeUrl";
    constexpr AsciiSet Plain([](char c) { return c != '%'; });
    return Rewritten(text, Plain, Where, [&](EscapeOutput<C>& output, std::size_t at) {
        if (text[at] != C{'%'}) {
            if (!CodePointAt(text, at).isValid) RefuseAt(Where, L"no character", at);
            return CopyCodePoint(output, text, at);
        }
        // The bytes of one character.
        const std::size_t begin = at;
        std::array<char, 4> bytes{};
        std::size_t count = 0;
        CodePoint point{};
        do {
            const char32_t octet = at < text.size() && text[at] == C{'%'} ? HexAt(text, at + 1, 2) : NoNumber;
            if (octet == NoNumber) RefuseAt(Where, L"wrong escape", begin);
            bytes[count++] = static_cast<char>(octet);
            at += 3;
            point = CodePointAt(std::string_view(bytes.data(), count), 0);
        } while (!point.isValid && count < bytes.size());
        if (!point.isValid) RefuseAt(Where, L"escapes that are no UTF-8", begin);
        output.PutCode(point.code);
        return at;
    });
}

template <class C>
std::basic_string<C> EscapedC(std::basic_string_view<C> text) {
    return Rewritten(text, CPlain, L"TQEscapeC", [&](EscapeOutput<C>& output, std::size_t at) {
        output.Put(C{'\\'});
        if (const char letter = CLetters.LetterOf(text[at])) {
            output.Put(static_cast<C>(letter));
            return at + 1;
        }
        CodePoint point{static_cast<unsigned char>(text[at]), 1, true};
        if constexpr (sizeof(C) > 1) point = CodePointAt(text, at);
        // Three digits of octal end by themselves, and \u knows no controls.
        if (point.code < 0xA0 || sizeof(C) == 1) {
            output.PutDigits(point.code, 3, 3);
        } else {
            const bool isLong = point.code > 0xFFFF;
            output.Put(isLong ? C{'U'} : C{'u'});
            output.PutDigits(point.code, isLong ? 8 : 4, 4);
        }
        return at + point.units;
    });
}

template <class C>
std::basic_string<C> UnescapedC(std::basic_string_view<C> text) {
    constexpr auto Where = L"TQUnescapeC";
    // A unit by its number: in octal up to three digits, in hexadecimal all that there are.
    constexpr char32_t MostUnit = sizeof(C) == 1 ? 0xFF : sizeof(C) == 2 ? 0xFFFF : 0x10FFFF;
    const auto appendUnit = [&](EscapeOutput<C>& output, std::size_t begin, std::size_t at, unsigned base,
                                std::size_t mostDigits) {
        const std::size_t first = at;
        char32_t value = 0;
        for (unsigned digit;
             at < text.size() && at - first < mostDigits && (digit = HexDigit(text[at])) < base; ++at)
            value = std::min(value * base + digit, MostUnit + 1);
        if (at == first || value > MostUnit) RefuseAt(Where, L"wrong escape", begin);
        output.Put(static_cast<C>(value));
        return at;
    };
    constexpr AsciiSet Plain([](char c) { return !IsOneOf(c, "\"\\\n"); });
    return Rewritten(text, Plain, Where, [&](EscapeOutput<C>& output, std::size_t at) {
        if (static_cast<std::make_unsigned_t<C>>(text[at]) >= 0x80) {
            output.Put(text[at]);
            return at + 1;
        }
        if (text[at] != C{'\\'}) RefuseAt(Where, L"character that must be escaped", at);
        const std::size_t begin = at;
        const C letter = ++at < text.size() ? text[at] : C{};
        if (const char character = CLetters.CharacterOf(letter)) {
            output.Put(static_cast<C>(character));
            return at + 1;
        }
        if (HexDigit(letter) < 8) return appendUnit(output, begin, at, 8, 3);
        if (letter == C{'x'}) return appendUnit(output, begin, at + 1, 16, text.npos);
        const std::size_t digits = letter == C{'u'} ? 4 : letter == C{'U'} ? 8 : 0;
        const char32_t code = digits == 0 ? NoNumber : HexAt(text, at + 1, digits);
        if (!IsCodePoint(code)) RefuseAt(Where, L"wrong escape", begin);
        output.PutCode(code);
        return at + 1 + digits;
    });
}

// No command line of any system has one, and what stands behind it would be lost.
std::wstring_view WithoutZero(std::wstring_view text, const wchar_t* where) {
    const std::size_t zero = text.find(L'\0');
    if (zero != text.npos) RefuseAt(where, L"zero character", zero);
    return text;
}

constexpr bool IsShellBlank(wchar_t c) noexcept {
    return c == L' ' || c == L'\t' || c == L'\n';
}

// One word of a command line from `at` on, and where it ends.
std::size_t ReadShellWord(std::wstring_view text, std::size_t at, std::wstring& word) {
    constexpr auto Where = L"TQSplitShellCommandLine";
    for (; at < text.size() && !IsShellBlank(text[at]); ++at) {
        const wchar_t quote = text[at];
        if (quote == L'\\') {
            if (++at == text.size()) RefuseAt(Where, L"backslash without a character", at - 1);
            if (text[at] != L'\n') word += text[at];
        } else if (quote == L'\'' || quote == L'"') {
            const std::size_t begin = at++;
            for (; at < text.size() && text[at] != quote; ++at) {
                const bool isEscape = quote == L'"' && text[at] == L'\\' && at + 1 < text.size() &&
                                      std::wstring_view(L"$`\"\\\n").find(text[at + 1]) != text.npos;
                if (isEscape && text[++at] == L'\n') continue;
                word += text[at];
            }
            if (at == text.size()) RefuseAt(Where, L"quote that is not closed", begin);
        } else {
            word += quote;
        }
    }
    return at;
}

}  // namespace

TQString TQEscapeJson(_TQTextT<wchar_t> text) {
    return EscapedJson(text.View());
}
_TQaString TQEscapeJson(_TQTextT<char> text) {
    return EscapedJson(text.View());
}
TQString TQUnescapeJson(_TQTextT<wchar_t> text) {
    return UnescapedJson(text.View());
}
_TQaString TQUnescapeJson(_TQTextT<char> text) {
    return UnescapedJson(text.View());
}
TQString TQEscapeXmlText(_TQTextT<wchar_t> text) {
    return EscapedXml(text.View(), XmlTextPlain, L"TQEscapeXmlText");
}
_TQaString TQEscapeXmlText(_TQTextT<char> text) {
    return EscapedXml(text.View(), XmlTextPlain, L"TQEscapeXmlText");
}
TQString TQEscapeXmlAttribute(_TQTextT<wchar_t> text) {
    return EscapedXml(text.View(), XmlAttributePlain, L"TQEscapeXmlAttribute");
}
_TQaString TQEscapeXmlAttribute(_TQTextT<char> text) {
    return EscapedXml(text.View(), XmlAttributePlain, L"TQEscapeXmlAttribute");
}
TQString TQUnescapeXml(_TQTextT<wchar_t> text) {
    return UnescapedXml(text.View());
}
_TQaString TQUnescapeXml(_TQTextT<char> text) {
    return UnescapedXml(text.View());
}
TQString TQEscapeUrl(_TQTextT<wchar_t> text) {
    return EscapedUrl(text.View());
}
_TQaString TQEscapeUrl(_TQTextT<char> text) {
    return EscapedUrl(text.View());
}
TQString TQUnescapeUrl(_TQTextT<wchar_t> text) {
    return UnescapedUrl(text.View());
}
_TQaString TQUnescapeUrl(_TQTextT<char> text) {
    return UnescapedUrl(text.View());
}
TQString TQEscapeC(_TQTextT<wchar_t> text) {
    return EscapedC(text.View());
}
_TQaString TQEscapeC(_TQTextT<char> text) {
    return EscapedC(text.View());
}
TQString TQUnescapeC(_TQTextT<wchar_t> text) {
    return UnescapedC(text.View());
}
_TQaString TQUnescapeC(_TQTextT<char> text) {
    return UnescapedC(text.View());
}

TQString TQQuoteWindowsArgument(_TQTextT<wchar_t> argument) {
    const std::wstring_view text = WithoutZero(argument.View(), L"TQQuoteWindowsArgument");
    if (!text.empty() && text.find_first_of(L" \t\n\v\"") == text.npos) return text;
    return Translated(L"TQQuoteWindowsArgument", [&] {
        std::wstring quoted = L"\"";
        std::size_t backslashes = 0;
        for (const wchar_t c : text) {
            if (c == L'"') quoted.append(backslashes + 1, L'\\');
            backslashes = c == L'\\' ? backslashes + 1 : 0;
            quoted += c;
        }
        quoted.append(backslashes, L'\\');
        return quoted += L'"';
    });
}

TQString TQQuoteWindowsProgram(_TQTextT<wchar_t> program) {
    constexpr auto Where = L"TQQuoteWindowsProgram";
    const std::wstring_view text = WithoutZero(program.View(), Where);
    const std::size_t quote = text.find(L'"');
    if (quote != text.npos) RefuseAt(Where, L"quotation mark", quote);
    return TQString(L"\"") + text + L"\"";
}

TQStringArray TQSplitWindowsCommandLine(_TQTextT<wchar_t> text) {
    constexpr auto Where = L"TQSplitWindowsCommandLine";
    // It gives the running program for the empty text.
    if (WithoutZero(text.View(), Where).empty()) return {};
    int count = 0;
    const TQUniqueHandle<_TQLocalMemClose> memory(CommandLineToArgvW(TQString(text.View()).c_str(), &count));
    if (!memory) TQStdExceptions::ThrowLastError(Where);
    return TQStringArray(std::span(static_cast<wchar_t**>(memory.Get()), static_cast<std::size_t>(count)));
}

TQString TQQuoteShellWord(_TQTextT<wchar_t> word) {
    const std::wstring_view text = WithoutZero(word.View(), L"TQQuoteShellWord");
    if (!text.empty() && std::all_of(text.begin(), text.end(), [](wchar_t c) { return ShellPlain.Has(c); }))
        return text;
    TQString quoted = text;
    quoted.Replace(L"'", L"'\\''");
    return L"'" + quoted + L"'";
}

TQStringArray TQSplitShellCommandLine(_TQTextT<wchar_t> text) {
    const std::wstring_view line = text.View();
    TQStringArray words;
    Translated(L"TQSplitShellCommandLine", [&] {
        for (std::size_t at = 0;;) {
            while (at < line.size() && IsShellBlank(line[at]))
                ++at;
            if (at == line.size()) return;
            std::wstring word;
            at = ReadShellWord(line, at, word);
            words.Add(TQString(std::move(word)));
        }
    });
    return words;
}

}  // namespace Quellan::Corvel
