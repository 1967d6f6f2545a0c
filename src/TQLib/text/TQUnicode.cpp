#include "TQLib/text/TQUnicode.h"

#include "TQLib/platform/UnicodeData.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <algorithm>
#include <string>
#include <type_traits>
#include <utility>

namespace Quellan::Corvel {

namespace {

using Platform::AppendCode;
using Platform::CodeReader;
using Platform::CodeRun;

constexpr char32_t LastAscii = 0x7F;
constexpr char32_t Sigma = 0x3A3;
constexpr char32_t FinalSigma = 0x3C2;

// Everything below is unchanged by normalisation, and so are no marks.
constexpr char32_t FirstNotComposed = 0x300;
constexpr char32_t FirstNotDecomposed = 0xC0;

TQString Mapped(std::wstring_view text, CodeRun (*map)(char32_t)) {
    std::wstring result;
    result.reserve(text.size());
    for (CodeReader reader(text); !reader.IsAtEnd();)
        for (const char32_t code : map(reader.Next()))
            AppendCode(result, code);
    return result;
}

// Whether what follows goes on with the word.
bool BeginsWithCased(CodeReader reader) noexcept {
    while (!reader.IsAtEnd()) {
        const unsigned traits = Platform::TraitsOf(reader.Next());
        if (!(traits & Platform::IsCaseIgnorable)) return traits & Platform::IsCased;
    }
    return false;
}

// The characters of a text one by one, folded if case is to be ignored.
class FoldedReader {
  public:
    FoldedReader(std::wstring_view text, bool isFolded) noexcept : m_reader(text), m_isFolded(isFolded) {
        Go();
    }

    [[nodiscard]] bool IsAtEnd() const noexcept { return m_next == m_run.size; }
    [[nodiscard]] char32_t Peek() const noexcept { return m_run.codes[m_next]; }
    [[nodiscard]] bool IsAtDigit() const noexcept { return !IsAtEnd() && Peek() - U'0' < 10; }

    void Go() noexcept {
        if (m_next + 1 < m_run.size) {
            ++m_next;
            return;
        }
        m_next = 0;
        m_run.size = m_reader.IsAtEnd() ? 0 : 1;
        if (m_run.size == 0) return;
        const char32_t code = m_reader.Next();
        if (!m_isFolded)
            m_run.codes[0] = code;
        else if (code <= LastAscii)
            m_run.codes[0] = code - U'A' < 26 ? code + (U'a' - U'A') : code;
        else
            m_run = Platform::FullFold(code);
    }

    // Returns their number.
    std::size_t SkipZeros() noexcept {
        std::size_t count = 0;
        for (; !IsAtEnd() && Peek() == U'0'; Go())
            ++count;
        return count;
    }

  private:
    CodeReader m_reader;
    bool m_isFolded;
    CodeRun m_run{};
    std::size_t m_next = 0;
};

int Order(char32_t a, char32_t b) noexcept {
    return a < b ? -1 : a > b ? 1 : 0;
}

// Reads both numbers, which have no more zeros before them.
int NumberOrder(FoldedReader& a, FoldedReader& b) noexcept {
    int order = 0;  // of the first digits that differ, if there are as many
    for (; a.IsAtDigit() && b.IsAtDigit(); a.Go(), b.Go())
        if (order == 0) order = Order(a.Peek(), b.Peek());
    return a.IsAtDigit() ? 1 : b.IsAtDigit() ? -1 : order;
}

// How a character takes part in a form of normalisation.
struct Composing {
    static constexpr char32_t First = FirstNotComposed;
    static bool IsChanged(char32_t code) noexcept {
        return Platform::TraitsOf(code) & Platform::IsNotComposedText;
    }
};
struct Decomposing {
    static constexpr char32_t First = FirstNotDecomposed;
    static bool IsChanged(char32_t code) noexcept {
        const CodeRun parts = Platform::Decompose(code);
        return parts.size != 1 || parts.codes[0] != code;
    }
};

// Marks in the order of their classes, those of one class as they stand.
void SortMarks(std::u32string& text) {
    const auto isStarter = [](char32_t code) { return Platform::CombiningClass(code) == 0; };
    for (auto begin = text.begin(); begin != text.end();) {
        begin = std::find_if_not(begin, text.end(), isStarter);
        const auto end = std::find_if(begin, text.end(), isStarter);
        std::ranges::stable_sort(begin, end, {}, &Platform::CombiningClass);
        begin = end;
    }
}

// Makes one of each starter and the marks behind it that have a character together; a mark is kept from its starter
// by one of the same class or by another starter between them.
void Recompose(std::u32string& text) noexcept {
    std::size_t size = 0;
    std::size_t starter = std::u32string::npos;
    unsigned before = 0;
    for (const char32_t code : text) {
        const unsigned own = Platform::CombiningClass(code);
        const bool isNext =
            starter != std::u32string::npos && (starter + 1 == size || (before != 0 && before < own));
        if (const char32_t whole = isNext ? Platform::Compose(text[starter], code) : 0) {
            text[starter] = whole;
            continue;
        }
        if (own == 0) starter = size;
        before = own;
        text[size++] = code;
    }
    text.resize(size);
}

// Text falls into parts that are normalised by themselves: each begins with a starter that is not changed. `done`
// is called with parts that may not be normalised, in order: where they stand and what they become; what is not told
// of is normalised. Ends early when `done` returns false.
template <class Kind, class Done>
void NormaliseParts(std::wstring_view text, Done done) {
    std::u32string codes;
    const wchar_t* begin = text.data();  // of the part
    bool isChanged = false;
    unsigned before = 0;
    const auto finish = [&](const wchar_t* end) {
        if (!isChanged) return true;
        const std::wstring_view part(begin, static_cast<std::size_t>(end - begin));
        codes.clear();
        for (CodeReader reader(part); !reader.IsAtEnd();)
            for (const char32_t code : Platform::Decompose(reader.Next()))
                codes += code;
        SortMarks(codes);
        if constexpr (std::is_same_v<Kind, Composing>) Recompose(codes);
        return done(part, codes);
    };
    CodeReader reader(text);
    while (!reader.IsAtEnd()) {
        const wchar_t* const at = reader.Place();
        const char32_t code = reader.Next();
        const bool isKept = code < Kind::First || !Kind::IsChanged(code);
        const unsigned own = code < Kind::First ? 0 : Platform::CombiningClass(code);
        if (isKept && own == 0) {
            if (!finish(at)) return;
            begin = at;
            isChanged = false;
        } else if (!isKept || own < before) {
            isChanged = true;
        }
        before = own;
    }
    finish(reader.Place());
}

template <class Kind>
TQString Normalised(std::wstring_view text) {
    std::wstring result;
    result.reserve(text.size());
    const wchar_t* copied = text.data();
    NormaliseParts<Kind>(text, [&](std::wstring_view part, const std::u32string& codes) {
        result.append(copied, part.data());
        for (const char32_t code : codes)
            AppendCode(result, code);
        copied = part.data() + part.size();
        return true;
    });
    result.append(copied, text.data() + text.size());
    return result;
}

template <class Kind>
bool IsNormal(std::wstring_view text) {
    bool isNormal = true;
    NormaliseParts<Kind>(text, [&](std::wstring_view part, const std::u32string& codes) {
        CodeReader reader(part);
        isNormal = std::ranges::all_of(
                       codes, [&](char32_t code) { return !reader.IsAtEnd() && reader.Next() == code; }) &&
                   reader.IsAtEnd();
        return isNormal;
    });
    return isNormal;
}

}  // namespace

TQString TQUnicode::ToUpperFull(std::wstring_view text) {
    return Translated(L"TQUnicode::ToUpperFull", [&] { return Mapped(text, &Platform::FullUpper); });
}

TQString TQUnicode::ToLowerFull(std::wstring_view text) {
    return Translated(L"TQUnicode::ToLowerFull", [&] {
        std::wstring result;
        result.reserve(text.size());
        bool isInWord = false;
        for (CodeReader reader(text); !reader.IsAtEnd();) {
            const char32_t code = reader.Next();
            if (code == Sigma && isInWord && !BeginsWithCased(reader))
                AppendCode(result, FinalSigma);
            else
                for (const char32_t lower : Platform::FullLower(code))
                    AppendCode(result, lower);
            const unsigned traits = Platform::TraitsOf(code);
            if (!(traits & Platform::IsCaseIgnorable)) isInWord = traits & Platform::IsCased;
        }
        return TQString(std::move(result));
    });
}

TQString TQUnicode::FoldCase(std::wstring_view text) {
    return Translated(L"TQUnicode::FoldCase", [&] { return Mapped(text, &Platform::FullFold); });
}

int TQUnicode::CompareNoCase(std::wstring_view a, std::wstring_view b) noexcept {
    FoldedReader left(a, true);
    FoldedReader right(b, true);
    for (; !left.IsAtEnd() && !right.IsAtEnd(); left.Go(), right.Go())
        if (const int order = Order(left.Peek(), right.Peek())) return order;
    return right.IsAtEnd() ? !left.IsAtEnd() : -1;
}

int TQUnicode::CompareNatural(std::wstring_view a, std::wstring_view b, Case how) noexcept {
    FoldedReader left(a, how == Case::Ignored);
    FoldedReader right(b, how == Case::Ignored);
    int order = 0;  // of the zeros before the first number that has not as many
    while (!left.IsAtEnd() && !right.IsAtEnd()) {
        if (left.IsAtDigit() && right.IsAtDigit()) {
            const std::size_t leftZeros = left.SkipZeros();
            const std::size_t rightZeros = right.SkipZeros();
            if (const int numbers = NumberOrder(left, right)) return numbers;
            if (order == 0) order = leftZeros < rightZeros ? -1 : leftZeros > rightZeros ? 1 : 0;
            continue;
        }
        if (const int codes = Order(left.Peek(), right.Peek())) return codes;
        left.Go();
        right.Go();
    }
    return right.IsAtEnd() ? left.IsAtEnd() ? order : 1 : -1;
}

TQString TQUnicode::Normalise(std::wstring_view text, Form form) {
    return Translated(L"TQUnicode::Normalise", [&] {
        return form == Form::Composed ? Normalised<Composing>(text) : Normalised<Decomposing>(text);
    });
}

bool TQUnicode::IsNormalised(std::wstring_view text, Form form) {
    return Translated(L"TQUnicode::IsNormalised", [&] {
        return form == Form::Composed ? IsNormal<Composing>(text) : IsNormal<Decomposing>(text);
    });
}

unsigned TQUnicode::Width(char32_t character) noexcept {
    const unsigned traits = Platform::TraitsOf(character);
    return traits & Platform::HasNoWidth ? 0 : traits & Platform::IsWide ? 2 : 1;
}

std::size_t TQUnicode::Width(std::wstring_view text) noexcept {
    std::size_t width = 0;
    for (CodeReader reader(text); !reader.IsAtEnd();)
        width += Width(reader.Next());
    return width;
}

}  // namespace Quellan::Corvel
