#include "TQLib/text/TQNumber.h"

#include "TQLib/platform/Platform.h"
#include "TQLib/text/internal/Refuse.h"
#include "TQLib/text/memory/TQStdExceptions.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <string>
#include <system_error>

namespace Quellan::Corvel {
namespace {

constexpr unsigned MostBase = 36;
constexpr unsigned NoDigit = 99;

// The value of each character of ASCII as a digit.
constexpr std::array<BYTE, 128> DigitValues = [] {
    std::array<BYTE, 128> values{};
    values.fill(NoDigit);
    for (BYTE i = 0; i < 10; ++i)
        values['0' + std::size_t{i}] = i;
    for (BYTE i = 0; i < 26; ++i)
        values['a' + std::size_t{i}] = values['A' + std::size_t{i}] = static_cast<BYTE>(10 + i);
    return values;
}();

// A wide character beyond ASCII must not be cut into a digit.
template <class C>
unsigned DigitOf(C c) noexcept {
    const auto code = static_cast<std::make_unsigned_t<C>>(c);
    return code < DigitValues.size() ? DigitValues[code] : NoDigit;
}

// How many digits of any base fit 64 bits for certain.
constexpr std::size_t CertainDigits = 12;

template <class C>
_TQMagnitude ReadMagnitude(std::basic_string_view<C> text, unsigned base, ULONGLONG most,
                           ULONGLONG mostNegative) {
    if (base == 1 || base > MostBase)
        TQStdExceptions::ThrowParameterInvalidError(L"TQTryParse: base is not 0 and not from 2 to 36.");
    _TQMagnitude read;
    const C* at = text.data();
    const C* const end = at + text.size();
    if (at != end && (*at == C{'-'} || *at == C{'+'})) {
        if (*at == C{'-'} && mostNegative == 0) return read;
        read.isNegative = *at++ == C{'-'};
    }
    if (base == 0) {
        base = 10;
        if (end - at > 2 && *at == C{'0'}) {
            const C mark = static_cast<C>(at[1] | 0x20);
            const unsigned marked = mark == C{'x'} ? 16 : mark == C{'o'} ? 8 : mark == C{'b'} ? 2 : 0;
            // A prefix without digits is the number 0.
            if (marked != 0 && DigitOf(at[2]) < marked) {
                base = marked;
                at += 2;
            }
        }
    }
    const C* const begin = at;
    ULONGLONG value = 0;
    const C* const stop = at + std::min(static_cast<std::size_t>(end - at), CertainDigits);
    for (unsigned digit; at != stop && (digit = DigitOf(*at)) < base; ++at)
        value = value * base + digit;
    // The digits are read to their end, whatever becomes of the value.
    bool isOver = false;
    for (unsigned digit; at != end && (digit = DigitOf(*at)) < base; ++at) {
        isOver = isOver || value > (std::numeric_limits<ULONGLONG>::max() - digit) / base;
        if (!isOver) value = value * base + digit;
    }
    if (at == begin) return {};
    const ULONGLONG limit = read.isNegative ? mostNegative : most;
    isOver = isOver || value > limit;
    read.value = isOver ? limit : value;
    read.length = static_cast<std::size_t>(at - text.data());
    read.fault = isOver ? TQNumberFault::Overflow : TQNumberFault::NoFault;
    return read;
}

// Whether a number that its type cannot hold is too large, and not too small: whether its first digit that is not 0
// stands before the point, once the exponent has moved that.
bool IsTooLarge(std::string_view number) noexcept {
    constexpr long long Most = 1'000'000'000'000'000;  // far beyond any text, far below an overflow
    const std::size_t mark = number.find_first_of("eE");
    const std::string_view digits = number.substr(0, mark);
    const std::size_t point = std::min(digits.find('.'), digits.size());
    const std::size_t first = digits.find_first_of("123456789");
    const auto places =
        static_cast<long long>(point) - static_cast<long long>(first) + (first > point ? 1 : 0);
    long long exponent = 0;
    bool isNegative = false;
    for (const char c : number.substr(std::min(mark, number.size() - 1) + 1)) {
        if (c == '-') isNegative = true;
        if (c >= '0' && c <= '9') exponent = std::min(exponent * 10 + (c - '0'), Most);
    }
    return places + (isNegative ? -exponent : exponent) > 0;
}

template <class T>
void ReadNarrowReal(std::string_view text, TQParsed<T>& parsed) noexcept {
    const bool hasPlus = text.size() > 1 && text[0] == '+' && text[1] != '-';
    const char* const begin = text.data() + (hasPlus ? 1 : 0);
    const auto [end, error] = std::from_chars(begin, text.data() + text.size(), parsed.value);
    if (error == std::errc::invalid_argument) return;
    parsed.length = static_cast<std::size_t>(end - text.data());
    parsed.fault = TQNumberFault::NoFault;
    if (error != std::errc::result_out_of_range) return;
    const bool isTooLarge = IsTooLarge({begin, end});
    parsed.value =
        std::copysign(isTooLarge ? std::numeric_limits<T>::infinity() : T{0}, *begin == '-' ? T{-1} : T{1});
    parsed.fault = isTooLarge ? TQNumberFault::Overflow : TQNumberFault::Underflow;
}

// What is beyond ASCII becomes what no number has.
char NumberCharacter(wchar_t c) noexcept {
    const auto code = static_cast<std::make_unsigned_t<wchar_t>>(c);
    return code < 0x80 ? static_cast<char>(code) : '\xFF';
}

template <class T>
void ReadWideReal(std::wstring_view text, TQParsed<T>& parsed) {
    constexpr std::size_t ShortLength = 64;
    std::array<char, ShortLength> buffer;
    const std::size_t copied = std::min(text.size(), ShortLength);
    std::transform(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(copied), buffer.begin(),
                   &NumberCharacter);
    if (copied == text.size()) return ReadNarrowReal({buffer.data(), copied}, parsed);
    // All that a number is made of, at least: letters are in its words, parentheses behind nan.
    const auto end = std::find_if(text.begin(), text.end(), [](wchar_t c) {
        return DigitOf(c) == NoDigit &&
               std::string_view("+-._()").find(NumberCharacter(c)) == std::string_view::npos;
    });
    if (end - text.begin() < static_cast<std::ptrdiff_t>(ShortLength))
        return ReadNarrowReal({buffer.data(), copied}, parsed);
    Translated(L"TQTryParse", [&] {
        std::string narrow(static_cast<std::size_t>(end - text.begin()), '\0');
        std::transform(text.begin(), end, narrow.begin(), &NumberCharacter);
        ReadNarrowReal(narrow, parsed);
    });
}

template <class C>
[[noreturn]] void ThrowNoNumber(std::basic_string_view<C> text, TQNumberFault fault) {
    if (fault == TQNumberFault::NoNumber)
        RefuseText(ERROR_INVALID_DATA, L"TQParse: \"%s\" is no such number.", text);
    RefuseText(ERROR_ARITHMETIC_OVERFLOW,
               fault == TQNumberFault::Overflow ? L"TQParse: \"%s\" is too large for its type."
                                                : L"TQParse: \"%s\" is too small for its type.",
               text);
}

constexpr std::string_view ByteUnits[] = {" B", " KB", " MB", " GB", " TB", " PB", " EB"};

}  // namespace

_TQMagnitude _TQReadMagnitude(std::wstring_view text, unsigned base, ULONGLONG most, ULONGLONG mostNegative) {
    return ReadMagnitude(text, base, most, mostNegative);
}
_TQMagnitude _TQReadMagnitude(std::string_view text, unsigned base, ULONGLONG most, ULONGLONG mostNegative) {
    return ReadMagnitude(text, base, most, mostNegative);
}
void _TQReadReal(std::wstring_view text, TQParsed<double>& parsed) {
    ReadWideReal(text, parsed);
}
void _TQReadReal(std::wstring_view text, TQParsed<float>& parsed) {
    ReadWideReal(text, parsed);
}
void _TQReadReal(std::string_view text, TQParsed<double>& parsed) {
    ReadNarrowReal(text, parsed);
}
void _TQReadReal(std::string_view text, TQParsed<float>& parsed) {
    ReadNarrowReal(text, parsed);
}
void _TQThrowNoNumber(std::wstring_view text, TQNumberFault fault) {
    ThrowNoNumber(text, fault);
}
void _TQThrowNoNumber(std::string_view text, TQNumberFault fault) {
    ThrowNoNumber(text, fault);
}

template <class C>
template <class T>
void _TQNumberTextT<C>::SetReal(T value) noexcept {
    std::array<char, 32> narrow{};  // the shortest text of a double has at most 24 characters
    const char* const end = std::to_chars(narrow.data(), narrow.data() + narrow.size(), value).ptr;
    m_length = static_cast<std::size_t>(end - narrow.data());
    // All of them: a fixed number is a few vector instructions.
    for (std::size_t i = 0; i < narrow.size(); ++i)
        m_text[i] = static_cast<C>(narrow[i]);
}

template <class C>
_TQNumberTextT<C>::_TQNumberTextT(double value) noexcept {
    SetReal(value);
}

template <class C>
_TQNumberTextT<C>::_TQNumberTextT(float value) noexcept {
    SetReal(value);
}

template <class C>
C* _TQNumberTextT<C>::PutDigits(ULONGLONG magnitude, unsigned base) {
    if (base < 2 || base > MostBase)
        TQStdExceptions::ThrowParameterInvalidError(L"TQNumberText: base is not from 2 to 36.");
    C* at = m_text.data() + m_text.size();
    do {
        *--at = static_cast<C>("0123456789abcdefghijklmnopqrstuvwxyz"[magnitude % base]);
        magnitude /= base;
    } while (magnitude != 0);
    return at;
}

template <class C>
_TQNumberTextT<C>::_TQNumberTextT(ULONGLONG magnitude, bool isNegative, C separator) noexcept {
    C* at = m_text.data() + m_text.size();
    for (; separator != C{} && magnitude >= 1000; magnitude /= 1000) {
        at = _TQPutDecimal(at, 1000 + magnitude % 1000);
        *at = separator;  // in place of the 1, which has kept the zeros
    }
    SetBegin(_TQPutDecimal(at, magnitude), isNegative);
}

template <class C>
_TQNumberTextT<C>::_TQNumberTextT(ULONGLONG count, BytesTag) noexcept {
    unsigned unit = count == 0 ? 0 : static_cast<unsigned>(std::bit_width(count) - 1) / 10;
    ULONGLONG tenths = 0;
    ULONGLONG whole = count;
    if (unit != 0) {
        const unsigned shift = unit * 10;
        whole = count >> shift;
        const ULONGLONG part = count & ((ULONGLONG{1} << shift) - 1);
        tenths = (part * 10 + (ULONGLONG{1} << (shift - 1))) >> shift;
        if (tenths == 10) ++whole, tenths = 0;
        if (whole == 1024) ++unit, whole = 1;
    }
    C* at = std::copy_backward(ByteUnits[unit].begin(), ByteUnits[unit].end(), m_text.data() + m_text.size());
    if (tenths != 0) {
        at = _TQPutDecimal(at, tenths);
        *--at = C{'.'};
    }
    SetBegin(_TQPutDecimal(at, whole), false);
}

template <class C>
_TQNumberTextT<C> _TQNumberTextT<C>::Bytes(ULONGLONG count) noexcept {
    return _TQNumberTextT(count, BytesTag());
}

template class _TQNumberTextT<wchar_t>;
template class _TQNumberTextT<char>;

}  // namespace Quellan::Corvel
