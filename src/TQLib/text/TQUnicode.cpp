#include "TQLib/text/TQUnicode.h"

#include "TQLib/platform/UnicodeData.h"
#include "TQLib/text/internal/CodePoints.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace Quellan::Corvel {

namespace {

using Platform::AppendCode;
using Platform::CodeReader;
using Platform::CodeRun;

constexpr char32_t LastAscii = 0x7F;
constexpr char32_t Sigma = 0x3A3;
constexpr char32_t FinalSigma = 0x3C2;

// Below these no character has marks' classes, and all are kept by composing and by decomposing.
constexpr char32_t FirstNotComposed = 0x300;
constexpr char32_t FirstNotDecomposed = 0xC0;

// What is looked at together: the fixed number lets the compiler make vector instructions of it.
constexpr std::ptrdiff_t BlockSize = 16;

constexpr bool IsIn(char32_t code, char32_t first, char32_t end) noexcept {
    return code - first < end - first;
}

constexpr bool IsSyllable(char32_t code) noexcept {
    return IsIn(code, 0xAC00, 0xD7A4);
}

// Punctuation and the ideographs: long runs of characters without case, classes and parts.
constexpr bool IsPlain(char32_t code) noexcept {
    return IsIn(code, 0x2002, 0x20D0) || IsIn(code, 0x3400, 0xA48D);
}

constexpr bool HasNoCase(char32_t code) noexcept {
    return IsPlain(code) || IsSyllable(code);
}

constexpr bool IsPlainComposed(char32_t code) noexcept {
    return code < FirstNotComposed || IsPlain(code) || IsSyllable(code);
}

constexpr bool IsPlainDecomposed(char32_t code) noexcept {
    return code < FirstNotDecomposed || IsPlain(code);
}

using UnsignedUnit = std::make_unsigned_t<wchar_t>;

// Whether all units of the block at `units` are characters that `test` holds for.
template <class Test>
bool IsBlockOf(const wchar_t* units, Test test) noexcept {
    bool isAll = true;
    for (std::ptrdiff_t i = 0; i < BlockSize; ++i)
        isAll &= test(static_cast<UnsignedUnit>(units[i]));
    return isAll;
}

// Text that grows at its end, with room made for many characters at once.
class GrownText {
  public:
    explicit GrownText(std::size_t size) : m_text(size + Room, L'\0') {}

    // For a block, each of whose characters becomes up to four of two units.
    void MakeRoom() {
        if (m_text.size() - m_used < Room) m_text.resize(m_text.size() + m_text.size() / 2 + Room);
    }

    void Put(char32_t code) noexcept {
        PutCodePoint<wchar_t>(code, [this](wchar_t unit) { m_text[m_used++] = unit; });
    }

    // Where a block may be written.
    [[nodiscard]] wchar_t* End() noexcept { return m_text.data() + m_used; }
    void Grow(std::size_t units) noexcept { m_used += units; }

    [[nodiscard]] std::size_t Size() const noexcept { return m_used; }
    void CutTo(std::size_t size) noexcept { m_used = size; }

    TQString Take() {
        m_text.resize(m_used);
        return std::move(m_text);
    }

  private:
    static constexpr std::size_t Room = BlockSize * 4 * 2;

    std::wstring m_text;
    std::size_t m_used = 0;
};

// Each character as `map` has it; FirstLetter and the 25 behind it are the letters of ASCII that change their case.
template <char32_t FirstLetter>
TQString Mapped(std::wstring_view text, CodeRun (*map)(char32_t)) {
    const auto mapped = [](char32_t code) { return code ^ (code - FirstLetter < 26 ? 0x20u : 0u); };
    const auto isSimple = [](char32_t code) { return code <= LastAscii || HasNoCase(code); };
    GrownText result(text.size());
    CodeReader reader(text);
    const wchar_t* const end = text.data() + text.size();
    while (!reader.IsAtEnd()) {
        result.MakeRoom();
        const wchar_t* const block = reader.Place();
        if (end - block >= BlockSize && IsBlockOf(block, isSimple)) {
            wchar_t* const out = result.End();
            for (std::ptrdiff_t i = 0; i < BlockSize; ++i)
                out[i] = static_cast<wchar_t>(mapped(static_cast<UnsignedUnit>(block[i])));
            result.Grow(BlockSize);
            reader = CodeReader({block + BlockSize, end});
            continue;
        }
        while (!reader.IsAtEnd() && reader.Place() - block < BlockSize) {
            const char32_t code = reader.Next();
            if (isSimple(code))
                result.Put(mapped(code));
            else
                for (const char32_t part : map(code))
                    result.Put(part);
        }
    }
    return result.Take();
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
        else if (HasNoCase(code))
            m_run.codes[0] = code;
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

unsigned ClassOf(char32_t code) noexcept {
    constexpr char32_t FirstNotAbove = 0x315;  // behind the commonest marks, which all stand above the letter
    constexpr unsigned Above = 230;
    if (code < FirstNotComposed) return 0;
    return code < FirstNotAbove ? Above : Platform::CombiningClass(code);
}

// A character and its combining class.
struct Mark {
    char32_t code;
    unsigned order;
};

void AppendParts(std::vector<Mark>& marks, char32_t code) {
    for (const char32_t part : Platform::Decompose(code))
        marks.push_back({part, ClassOf(part)});
}

// Marks in the order of their classes, those of one class as they stand.
void SortMarks(std::vector<Mark>& text) {
    const auto isStarter = [](const Mark& mark) { return mark.order == 0; };
    for (auto begin = text.begin(); begin != text.end();) {
        begin = std::find_if_not(begin, text.end(), isStarter);
        const auto end = std::find_if(begin, text.end(), isStarter);
        if (!std::is_sorted(begin, end, [](const Mark& a, const Mark& b) { return a.order < b.order; }))
            std::ranges::stable_sort(begin, end, {}, &Mark::order);
        begin = end;
    }
}

// Makes one of each starter and the marks behind it that have a character together; a mark is kept from its starter
// by one of the same class or by another starter between them.
void Recompose(std::vector<Mark>& text) noexcept {
    std::size_t size = 0;
    std::size_t starter = text.size();
    unsigned before = 0;
    for (const Mark mark : text) {
        const bool isNext = starter != text.size() && (starter + 1 == size || before < mark.order);
        if (const char32_t whole = isNext ? Platform::Compose(text[starter].code, mark.code) : 0) {
            text[starter].code = whole;
            continue;
        }
        if (mark.order == 0) starter = size;
        before = mark.order;
        text[size++] = mark;
    }
    text.resize(size);
}

// Where the first character stands that composing may change or that has a class.
const wchar_t* FindNotPlain(const wchar_t* at, const wchar_t* end) noexcept {
    while (at != end) {
        if (end - at >= BlockSize && (IsBlockOf(at, [](char32_t code) { return code < FirstNotComposed; }) ||
                                      IsBlockOf(at, &IsPlainComposed))) {
            at += BlockSize;
            continue;
        }
        CodeReader reader({at, end});
        for (const wchar_t* const block = at; at != end && at - block < BlockSize; at = reader.Place()) {
            const char32_t code = reader.Next();
            if (IsPlainComposed(code)) continue;
            if (Platform::TraitsOf(code) & (Platform::IsNotComposedText | Platform::HasClass)) return at;
        }
    }
    return end;
}

// The place of the character before `at`, which is behind `begin`.
const wchar_t* CharacterBefore(const wchar_t* at, const wchar_t* begin) noexcept {
    --at;
    const bool isPair =
        Platform::WideIsUtf16 && at != begin && (*at & 0xFC00) == 0xDC00 && (at[-1] & 0xFC00) == 0xD800;
    return isPair ? at - 1 : at;
}

// What `part` becomes.
void ComposePart(std::wstring_view part, std::vector<Mark>& codes) {
    codes.clear();
    CodeReader reader(part);
    const char32_t first = reader.Next();
    const char32_t second = reader.IsAtEnd() ? 0 : reader.Next();
    // Mostly a letter and its mark. What two characters are one of is composed, whatever parts the first has.
    if (second != 0 && reader.IsAtEnd())
        if (const char32_t whole = Platform::Compose(first, second)) {
            codes.push_back({whole, 0});
            return;
        }
    for (reader = CodeReader(part); !reader.IsAtEnd();)
        AppendParts(codes, reader.Next());
    SortMarks(codes);
    Recompose(codes);
}

// Text falls into parts that are composed by themselves: each begins with a starter that is not changed. `done`
// is called with parts that may not be composed, in order: where they stand and what they become; what is not told
// of is composed. Ends early when `done` returns false.
template <class Done>
void ComposeParts(std::wstring_view text, Done done) {
    std::vector<Mark> codes;
    const wchar_t* const end = text.data() + text.size();
    for (const wchar_t* next = text.data(); (next = FindNotPlain(next, end)) != end;) {
        const wchar_t* const begin = next == text.data() ? next : CharacterBefore(next, text.data());
        CodeReader reader({next, end});
        bool isChanged = false;
        unsigned before = 0;
        for (next = end; !reader.IsAtEnd();) {
            const wchar_t* const at = reader.Place();
            const char32_t code = reader.Next();
            const unsigned traits = code < FirstNotComposed ? 0 : Platform::TraitsOf(code);
            if (!(traits & (Platform::IsNotComposedText | Platform::HasClass))) {
                next = at;
                break;
            }
            const unsigned own = traits & Platform::HasClass ? ClassOf(code) : 0;
            isChanged |= (traits & Platform::IsNotComposedText) || own < before;
            before = own;
        }
        if (!isChanged) continue;
        const std::wstring_view part(begin, static_cast<std::size_t>(next - begin));
        ComposePart(part, codes);
        if (!done(part, codes)) return;
    }
}

TQString Composed(std::wstring_view text) {
    std::wstring result;
    result.reserve(text.size());
    const wchar_t* copied = text.data();
    ComposeParts(text, [&](std::wstring_view part, const std::vector<Mark>& codes) {
        result.append(copied, part.data());
        for (const Mark mark : codes)
            AppendCode(result, mark.code);
        copied = part.data() + part.size();
        return true;
    });
    result.append(copied, text.data() + text.size());
    return result;
}

bool IsComposed(std::wstring_view text) {
    bool isComposed = true;
    ComposeParts(text, [&](std::wstring_view part, const std::vector<Mark>& codes) {
        CodeReader reader(part);
        isComposed =
            std::ranges::all_of(
                codes, [&](const Mark& mark) { return !reader.IsAtEnd() && reader.Next() == mark.code; }) &&
            reader.IsAtEnd();
        return isComposed;
    });
    return isComposed;
}

// Writes decomposed text. Marks are written as they come, and those of a starter are put in order behind the last one.
class Decomposer {
  public:
    explicit Decomposer(std::wstring_view text) : m_reader(text), m_result(text.size() + text.size() / 2) {
        const wchar_t* const end = text.data() + text.size();
        while (!m_reader.IsAtEnd()) {
            m_result.MakeRoom();
            const wchar_t* const block = m_reader.Place();
            if (end - block >= BlockSize && IsBlockOf(block, &IsPlainDecomposed)) {
                EndMarks();
                std::copy_n(block, BlockSize, m_result.End());
                m_result.Grow(BlockSize);
                m_reader = CodeReader({block + BlockSize, end});
                continue;
            }
            while (!m_reader.IsAtEnd() && m_reader.Place() - block < BlockSize)
                PutCharacter(m_reader.Next());
        }
        EndMarks();
    }

    TQString Take() { return m_result.Take(); }

  private:
    void PutCharacter(char32_t code) {
        if (IsPlainDecomposed(code)) {
            EndMarks();
            m_result.Put(code);
            return;
        }
        for (const char32_t part : Platform::Decompose(code))
            PutPart(part, ClassOf(part));
    }

    void PutPart(char32_t code, unsigned order) {
        if (order == 0)
            EndMarks();
        else if (m_before == 0)
            m_firstMark = m_result.Size();
        m_isOutOfOrder |= order != 0 && order < m_before;
        m_before = order;
        m_result.Put(code);
    }

    void EndMarks() {
        m_before = 0;
        if (m_isOutOfOrder) Sort();
    }

    void Sort() {
        m_isOutOfOrder = false;
        m_marks.clear();
        const std::size_t size = m_result.Size() - m_firstMark;
        for (CodeReader reader({m_result.End() - size, size}); !reader.IsAtEnd();) {
            const char32_t code = reader.Next();
            m_marks.push_back({code, ClassOf(code)});
        }
        std::ranges::stable_sort(m_marks, {}, &Mark::order);
        m_result.CutTo(m_firstMark);
        for (const Mark mark : m_marks)
            m_result.Put(mark.code);
    }

    CodeReader m_reader;
    GrownText m_result;
    unsigned m_before = 0;  // the class of the last character
    bool m_isOutOfOrder = false;
    std::size_t m_firstMark = 0;  // behind the last starter
    std::vector<Mark> m_marks;
};

bool IsDecomposed(std::wstring_view text) noexcept {
    unsigned before = 0;
    for (CodeReader reader(text); !reader.IsAtEnd();) {
        const char32_t code = reader.Next();
        const unsigned traits = IsPlainDecomposed(code) ? 0 : Platform::TraitsOf(code);
        const unsigned own = traits & Platform::HasClass ? ClassOf(code) : 0;
        if (traits & Platform::IsDecomposed || (own != 0 && own < before)) return false;
        before = own;
    }
    return true;
}

}  // namespace

TQString TQUnicode::ToUpperFull(std::wstring_view text) {
    return Translated(L"TQUnicode::ToUpperFull", [&] { return Mapped<U'a'>(text, &Platform::FullUpper); });
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
    return Translated(L"TQUnicode::FoldCase", [&] { return Mapped<U'A'>(text, &Platform::FullFold); });
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
    return Translated(L"TQUnicode::Normalise",
                      [&] { return form == Form::Composed ? Composed(text) : Decomposer(text).Take(); });
}

bool TQUnicode::IsNormalised(std::wstring_view text, Form form) {
    return Translated(L"TQUnicode::IsNormalised",
                      [&] { return form == Form::Composed ? IsComposed(text) : IsDecomposed(text); });
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
