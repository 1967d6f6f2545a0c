// Text beyond its single units: full case, comparison without regard to case, order by numbers, normalisation,
// width.
#pragma once

#include "TQLib/text/TQString.h"

#include <cstddef>
#include <string_view>

namespace Quellan::Corvel {

// All by the tables of Unicode 15.0 that are part of the library: the same on both platforms and in every locale.
// Text is UTF-16 where wchar_t has 16 bits and UTF-32 where it has 32; an unpaired surrogate or a value that is no
// character is kept as it is.
//
// Failures: what returns a string throws 14 (ERROR_OUTOFMEMORY) and 111 (ERROR_BUFFER_OVERFLOW); what is
// noexcept allocates nothing. Threads: at will.
class TQLIB_API TQUnicode {
  public:
    // One character may become up to three (U+00DF becomes SS), so that the length may change. Sigma is the final
    // one at the end of a word. Rules of a language, as that of Turkish for the dot, are not applied.
    [[nodiscard]] static TQString ToUpperFull(std::wstring_view text);
    [[nodiscard]] static TQString ToLowerFull(std::wstring_view text);
    // The form in which texts are equal that differ in case alone; no text to be shown.
    [[nodiscard]] static TQString FoldCase(std::wstring_view text);

    // Below, equal to or above 0: the order of the code points of both texts, for `CompareNoCase` of the folded
    // ones. No text is normalised first.
    [[nodiscard]] static int CompareNoCase(std::wstring_view a, std::wstring_view b) noexcept;

    enum class Case { Exact, Ignored };
    // As people sort names of files: runs of the digits 0 to 9, however long, are compared as numbers, and
    // everything else by code points. Texts that are equal so far are ordered by the zeros before their first
    // number that has more of them in one: fewer come first ("a1" < "a01" < "a2").
    [[nodiscard]] static int CompareNatural(std::wstring_view a, std::wstring_view b,
                                            Case how = Case::Exact) noexcept;

    // Composed is NFC, a character for a letter with its marks where there is one; Decomposed is NFD.
    enum class Form { Composed, Decomposed };
    [[nodiscard]] static TQString Normalise(std::wstring_view text, Form form);
    // Throws 14 (ERROR_OUTOFMEMORY), as text with marks may have to be normalised to know.
    [[nodiscard]] static bool IsNormalised(std::wstring_view text, Form form);

    // Columns of a terminal: 2 for the wide and full-width characters of East Asia and for emoji, 0 for marks,
    // controls, invisible characters of format and the vowels and finals of Hangul that join the consonant
    // before them, 1 for all others, those of ambiguous width among them. The width of a text is the sum over its
    // characters: a sequence of emoji that is shown as one counts each of them.
    [[nodiscard]] static unsigned Width(char32_t character) noexcept;
    [[nodiscard]] static std::size_t Width(std::wstring_view text) noexcept;
};

}  // namespace Quellan::Corvel
