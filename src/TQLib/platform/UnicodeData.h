// What Unicode 15.0 says of single characters, the same on both platforms and in every locale. Every value may be
// asked for; one that is no character has no case, no parts and the width 1. Nothing here throws or allocates.
// The tables are made by tools/unicode/make-tables.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace Quellan::Platform {

constexpr bool WideIsUtf16 = sizeof(wchar_t) == 2;

// The characters that one becomes.
struct CodeRun {
    std::array<char32_t, 4> codes;
    std::size_t size;

    [[nodiscard]] const char32_t* begin() const noexcept { return codes.data(); }
    [[nodiscard]] const char32_t* end() const noexcept { return codes.data() + size; }
};

// One character for one.
char32_t SimpleUpper(char32_t code) noexcept;
char32_t SimpleLower(char32_t code) noexcept;

// Up to three characters for one. Folding makes characters equal that differ in case alone.
CodeRun FullUpper(char32_t code) noexcept;
CodeRun FullLower(char32_t code) noexcept;
CodeRun FullFold(char32_t code) noexcept;

// The place among the marks behind one letter; 0 for what is no such mark.
unsigned CombiningClass(char32_t code) noexcept;

// The canonical parts of a character, which have none themselves: itself where it has none.
CodeRun Decompose(char32_t code) noexcept;

// The character of two parts, 0 where there is none.
char32_t Compose(char32_t first, char32_t second) noexcept;

// Bits.
enum CharacterTraits : unsigned {
    HasNoWidth = 1,
    IsWide = 2,
    IsCased = 4,
    IsCaseIgnorable = 8,       // as apostrophes and marks are, within a word
    IsNeverComposed = 0x10,    // not found in composed text (NFC)
    MayBeComposed = 0x20,      // in composed text becomes one with some of the characters before it
    IsNotComposedText = 0x30,  // either
    IsDecomposed = 0x40,       // has parts, and is not found in decomposed text (NFD)
    HasClass = 0x80,           // a combining class above 0
};
unsigned TraitsOf(char32_t code) noexcept;

// Reads wide text by characters. An unpaired surrogate counts as a character.
class CodeReader {
  public:
    explicit CodeReader(std::wstring_view text) noexcept : m_at(text.data()), m_end(m_at + text.size()) {}

    [[nodiscard]] bool IsAtEnd() const noexcept { return m_at == m_end; }
    [[nodiscard]] const wchar_t* Place() const noexcept { return m_at; }

    char32_t Next() noexcept {
        const wchar_t unit = *m_at++;
        if constexpr (WideIsUtf16) {
            const auto first = static_cast<char16_t>(unit);
            if ((first & 0xFC00) == 0xD800 && m_at != m_end && (*m_at & 0xFC00) == 0xDC00)
                return 0x10000 + ((first & 0x3FFu) << 10) + (static_cast<char16_t>(*m_at++) & 0x3FFu);
            return first;
        } else {
            return static_cast<char32_t>(unit);
        }
    }

  private:
    const wchar_t* m_at;
    const wchar_t* m_end;
};

// Throws as the string does.
inline void AppendCode(std::wstring& text, char32_t code) {
    if (WideIsUtf16 && code > 0xFFFF && code <= 0x10FFFF) {
        text += static_cast<wchar_t>(0xD7C0 + (code >> 10));
        code = 0xDC00 | (code & 0x3FF);
    }
    text += static_cast<wchar_t>(code);
}

}  // namespace Quellan::Platform
