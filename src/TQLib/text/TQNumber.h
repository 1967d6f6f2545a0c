// Numbers from text and text from numbers: exact, the same for every locale and on both platforms.
//
// A whole number is an optional sign, a minus for signed types alone, and digits of a base from 2 to 36, letters in
// either case. The base 0 lets the text choose: 16 behind 0x, 8 behind 0o, 2 behind 0b, or else 10. A real number is an
// optional sign, decimal digits, maybe with a point before, between or behind them, and maybe e and an exponent; or inf,
// infinity or nan in any case. It becomes the nearest value of its type. Nothing else belongs to a number: no blank in
// front, no thousands, no digits beyond ASCII.
//
// Any thread may call these; no memory is needed, but by `TQTryParse` for a wide real number of more than 64
// characters and by `TQParse` for what it throws.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/text/TQString.h"
#include "TQLib/text/internal/DigitPairs.h"

#include <array>
#include <concepts>
#include <cstddef>
#include <cstring>
#include <limits>
#include <string_view>
#include <type_traits>

namespace Quellan::Corvel {

template <class T>
concept TQInteger =
    std::integral<T> && !std::same_as<T, bool> && !std::same_as<T, char> && !std::same_as<T, wchar_t> &&
    !std::same_as<T, char8_t> && !std::same_as<T, char16_t> && !std::same_as<T, char32_t>;
template <class T>
concept TQReal = std::same_as<T, float> || std::same_as<T, double>;

enum class TQNumberFault : BYTE { NoFault, NoNumber, Overflow, Underflow };

// What a text begins with.
template <class T>
struct TQParsed {
    // Where the number is too large, the nearest value of the type, which is infinite for real numbers; where it is
    // so small that 0 is nearest, that 0; where there is none, 0.
    T value{};
    // The characters that are the number, behind which the text goes on; too large and too small ones too.
    std::size_t length = 0;
    TQNumberFault fault = TQNumberFault::NoNumber;

    explicit operator bool() const noexcept { return fault == TQNumberFault::NoFault; }
};

// The value without its sign, cut to the larger of two limits.
struct _TQMagnitude {
    ULONGLONG value = 0;
    std::size_t length = 0;
    TQNumberFault fault = TQNumberFault::NoNumber;
    bool isNegative = false;
};
// A `mostNegative` of 0 allows no minus. Throws 87 (ERROR_INVALID_PARAMETER) for a base that there is not.
TQLIB_API _TQMagnitude _TQReadMagnitude(std::wstring_view text, unsigned base, ULONGLONG most,
                                        ULONGLONG mostNegative);
TQLIB_API _TQMagnitude _TQReadMagnitude(std::string_view text, unsigned base, ULONGLONG most,
                                        ULONGLONG mostNegative);
TQLIB_API void _TQReadReal(std::wstring_view text, TQParsed<double>& parsed);
TQLIB_API void _TQReadReal(std::wstring_view text, TQParsed<float>& parsed);
TQLIB_API void _TQReadReal(std::string_view text, TQParsed<double>& parsed);
TQLIB_API void _TQReadReal(std::string_view text, TQParsed<float>& parsed);
[[noreturn]] TQLIB_API void _TQThrowNoNumber(std::wstring_view text, TQNumberFault fault);
[[noreturn]] TQLIB_API void _TQThrowNoNumber(std::string_view text, TQNumberFault fault);

// 10 and more for what is no digit.
template <class C>
constexpr ULONGLONG _TQDecimalOf(C c) noexcept {
    return static_cast<std::make_unsigned_t<C>>(c) - ULONGLONG{'0'};
}

template <class T>
concept _TQNumberText =
    std::is_convertible_v<const T&, _TQTextT<wchar_t>> || std::is_convertible_v<const T&, _TQTextT<char>>;
template <_TQNumberText T>
using _TQTextOf =
    std::conditional_t<std::is_convertible_v<const T&, _TQTextT<wchar_t>>, _TQTextT<wchar_t>, _TQTextT<char>>;

// The number that `text` begins with; a null text is the empty one. Throws 87 (ERROR_INVALID_PARAMETER) for a base that
// there is not, and nothing for what the text is.
template <TQInteger T, _TQNumberText Text>
[[nodiscard]] TQParsed<T> TQTryParse(const Text& text, unsigned base = 10) {
    constexpr ULONGLONG Most = std::numeric_limits<T>::max();
    constexpr std::size_t CertainDecimals = 19;  // fit 64 bits
    const auto view = _TQTextOf<Text>(text).View();
    if (base == 10 && !view.empty()) {
        const bool isNegative = std::is_signed_v<T> && view[0] == '-';
        const std::size_t begin = isNegative || view[0] == '+' ? 1 : 0;
        const std::size_t stop =
            view.size() < begin + CertainDecimals ? view.size() : begin + CertainDecimals;
        ULONGLONG value = 0;
        std::size_t at = begin;
        for (ULONGLONG digit; at != stop && (digit = _TQDecimalOf(view[at])) < 10; ++at)
            value = value * 10 + digit;
        if (at != begin && (at != stop || at == view.size()) && value <= Most + (isNegative ? 1 : 0))
            return {static_cast<T>(isNegative ? 0 - value : value), at, TQNumberFault::NoFault};
    }
    // All that is not an everyday number.
    const _TQMagnitude read = _TQReadMagnitude(view, base, Most, std::is_signed_v<T> ? Most + 1 : 0);
    return {static_cast<T>(read.isNegative ? 0 - read.value : read.value), read.length, read.fault};
}
template <TQReal T, _TQNumberText Text>
[[nodiscard]] TQParsed<T> TQTryParse(const Text& text) {
    TQParsed<T> parsed;
    _TQReadReal(_TQTextOf<Text>(text).View(), parsed);
    return parsed;
}

// The number that the whole of `text` is. Throws 13 (ERROR_INVALID_DATA) for other text, 534
// (ERROR_ARITHMETIC_OVERFLOW) for a number too large or too small for its type; the message has the text.
template <TQInteger T, _TQNumberText Text>
[[nodiscard]] T TQParse(const Text& text, unsigned base = 10) {
    const auto view = _TQTextOf<Text>(text).View();
    const TQParsed<T> parsed = TQTryParse<T>(view, base);
    if (!parsed || parsed.length != view.size())
        _TQThrowNoNumber(view, parsed.length == view.size() ? parsed.fault : TQNumberFault::NoNumber);
    return parsed.value;
}
template <TQReal T, _TQNumberText Text>
[[nodiscard]] T TQParse(const Text& text) {
    const auto view = _TQTextOf<Text>(text).View();
    const TQParsed<T> parsed = TQTryParse<T>(view);
    if (!parsed || parsed.length != view.size())
        _TQThrowNoNumber(view, parsed.length == view.size() ? parsed.fault : TQNumberFault::NoNumber);
    return parsed.value;
}

// Writes the decimal digits in front of `end` and returns where they begin.
template <class C>
C* _TQPutDecimal(C* end, ULONGLONG value) noexcept {
    const auto putPair = [&](ULONGLONG pair) {
        end -= 2;
        std::memcpy(end, &DigitPairs<C>[2 * pair], 2 * sizeof(C));
    };
    for (; value >= 100; value /= 100)
        putPair(value % 100);
    if (value >= 10) {
        putPair(value);
        return end;
    }
    *--end = static_cast<C>('0' + value);
    return end;
}

// A number's text, held without memory: `text += TQNumberText(5)`, `TQString(TQNumberText(5))`. Whole numbers in any
// base with small letters, real ones with as few digits as give back the same value.
template <class C>
class _TQNumberTextT {
  public:
    // Throws 87 (ERROR_INVALID_PARAMETER) for a base that is not from 2 to 36.
    template <TQInteger T>
    TQ_ALWAYS_INLINE explicit _TQNumberTextT(T value, unsigned base = 10) {
        const ULONGLONG magnitude =
            value < 0 ? ULONGLONG{0} - static_cast<ULONGLONG>(value) : static_cast<ULONGLONG>(value);
        C* const end = m_text.data() + m_text.size();
        SetBegin(base == 10 ? _TQPutDecimal(end, magnitude) : PutDigits(magnitude, base), value < 0);
    }
    explicit _TQNumberTextT(double value) noexcept;
    explicit _TQNumberTextT(float value) noexcept;
    _TQNumberTextT(const _TQNumberTextT&) = delete;
    _TQNumberTextT& operator=(const _TQNumberTextT&) = delete;

    // In decimal, with `separator` between each three digits: 1,234,567.
    template <TQInteger T>
    [[nodiscard]] static _TQNumberTextT Grouped(T value, C separator = C{','}) {
        return _TQNumberTextT(
            value < 0 ? ULONGLONG{0} - static_cast<ULONGLONG>(value) : static_cast<ULONGLONG>(value),
            value < 0, separator);
    }
    // A number of bytes for the eye, in the largest unit of 1,024 that it reaches, rounded to one decimal that is left out
    // where it is 0: 512 B, 1.5 GB, 16 EB.
    [[nodiscard]] static _TQNumberTextT Bytes(ULONGLONG count) noexcept;

    // Valid as long as this object; not terminated.
    [[nodiscard]] TQ_ALWAYS_INLINE std::basic_string_view<C> View() const noexcept {
        return {m_text.data() + m_begin, m_length};
    }
    TQ_ALWAYS_INLINE operator std::basic_string_view<C>() const noexcept { return View(); }

  private:
    struct BytesTag {};
    _TQNumberTextT(ULONGLONG magnitude, bool isNegative, C separator) noexcept;
    _TQNumberTextT(ULONGLONG count, BytesTag) noexcept;

    template <class T>
    void SetReal(T value) noexcept;
    [[nodiscard]] C* PutDigits(ULONGLONG magnitude, unsigned base);
    TQ_ALWAYS_INLINE void SetBegin(C* begin, bool isNegative) noexcept {
        if (isNegative) *--begin = C{'-'};
        m_begin = static_cast<std::size_t>(begin - m_text.data());
        m_length = m_text.size() - m_begin;
    }

    // Whole numbers stand at its end; 64 binary digits and a sign are the longest.
    std::array<C, 66> m_text;
    std::size_t m_begin = 0;
    std::size_t m_length = 0;
};

extern template class TQLIB_API _TQNumberTextT<wchar_t>;
extern template class TQLIB_API _TQNumberTextT<char>;

using TQNumberText = _TQNumberTextT<wchar_t>;
using TQaNumberText = _TQNumberTextT<char>;

}  // namespace Quellan::Corvel
