#include "TQLib/text/TQFormat.h"

#include "TQLib/platform/Utf.h"
#include "TQLib/text/internal/DigitPairs.h"
#include "TQLib/text/memory/TQStdExceptions.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <string>

namespace Quellan::Corvel {
namespace {

using Spec = _TQFormatSpec;
using Kind = TQFormatArg::Kind;

constexpr std::size_t Ignored = std::numeric_limits<std::size_t>::max();

constexpr auto PowersOfTen = [] {
    std::array<ULONGLONG, 20> powers{1};
    for (std::size_t i = 1; i < powers.size(); ++i) {
        powers[i] = powers[i - 1] * 10;
    }
    return powers;
}();

constexpr unsigned BitsOf(Spec::Size size) {
    switch (size) {
        case Spec::Size::Byte:
            return 8;
        case Spec::Size::Short:
            return 16;
        case Spec::Size::Int64:
            return 64;
        case Spec::Size::Pointer:
            return 8 * sizeof(void*);
        default:
            return 32;
    }
}

// The digits of a number without its sign, d.ddd times ten to the power of `exponent`; zero has none.
// Infinity and NaN stand in it by their names, rounded as if these were digits: that is what the Windows
// runtime does and how "1.#INF" becomes "1.#J" with two places.
struct Decimal {
    // All digits, exactly.
    void SetExact(double value);
    // Hexadecimal digits, one before the point and at most `places` behind it; returns the exponent of two.
    int SetHexadecimal(double value, int places, bool upper);
    // Keeps `keep` digits, rounding a half away from zero.
    void RoundTo(int keep);
    void DropTrailingZeros();

    // The smallest number has 1074 places behind "0.", the largest 309 before the point.
    std::array<char, 2 + 1074> digits;
    int count = 0;
    int exponent = 0;

  private:
    void SetSpecial(double value);
};

constexpr int MantissaBits = 52;
constexpr int MantissaDigits = MantissaBits / 4;
constexpr int ExponentBias = 1023;
constexpr int ExponentSpecial = 2047;

ULONGLONG MantissaOf(double value) {
    return std::bit_cast<ULONGLONG>(value) & ((1ull << MantissaBits) - 1);
}
int ExponentOf(double value) {
    return static_cast<int>(std::bit_cast<ULONGLONG>(value) >> MantissaBits) & ExponentSpecial;
}

void Decimal::SetSpecial(double value) {
    const std::string_view name = MantissaOf(value) == 0 ? "1#INF" : std::signbit(value) ? "1#IND" : "1#QNAN";
    count = static_cast<int>(name.copy(digits.data(), name.size()));
}

void Decimal::SetExact(double value) {
    if (ExponentOf(value) == ExponentSpecial) return SetSpecial(value);
    if (value == 0) return;
    const int exponentBits = ExponentOf(value);
    const ULONGLONG mantissa = MantissaOf(value) | (exponentBits == 0 ? 0 : 1ull << MantissaBits);
    const int lowestBit =
        std::max(exponentBits, 1) - ExponentBias - MantissaBits + std::countr_zero(mantissa);
    // With as many places as the lowest bit needs, nothing is rounded.
    const int places = std::max(0, -lowestBit);
    char* const begin = digits.data();
    char* const end =
        std::to_chars(begin, begin + digits.size(), std::fabs(value), std::chars_format::fixed, places).ptr;
    char* const point = std::find(begin, end, '.');
    char* const first = std::find_if(begin, end, [](char c) { return c >= '1' && c <= '9'; });
    exponent = static_cast<int>(point - first) - (first < point ? 1 : 0);
    count = static_cast<int>(std::copy(first, std::remove(first, end, '.'), begin) - begin);
}

int Decimal::SetHexadecimal(double value, int places, bool upper) {
    if (ExponentOf(value) == ExponentSpecial) {
        SetSpecial(value);
        RoundTo(1 + places);
        return 0;
    }
    const int exponentBits = ExponentOf(value);
    ULONGLONG mantissa = MantissaOf(value) | (exponentBits == 0 ? 0 : 1ull << MantissaBits);
    if (places < MantissaDigits) mantissa += 1ull << (MantissaBits - 4 * places - 1);
    for (int shift = MantissaBits; shift >= 0; shift -= 4) {
        const char* const symbols = upper ? "0123456789ABCDEF" : "0123456789abcdef";
        digits[static_cast<std::size_t>(count++)] = symbols[(mantissa >> shift) & 15];
    }
    count = std::min(count, 1 + places);
    return value == 0 ? 0 : std::max(exponentBits, 1) - ExponentBias;
}

void Decimal::RoundTo(int keep) {
    if (keep >= count) return;
    count = std::max(keep, 0);
    if (keep < 0 || digits[static_cast<std::size_t>(keep)] < '5') return;
    char* at = digits.data() + keep;
    while (at != digits.data() && at[-1] == '9') {
        *--at = '0';
    }
    if (at != digits.data()) {
        ++at[-1];
        return;
    }
    // All nines, or nothing kept: the next power of ten.
    digits[0] = '1';
    count = std::max(keep, 1);
    ++exponent;
}

void Decimal::DropTrailingZeros() {
    while (count > 0 && digits[static_cast<std::size_t>(count - 1)] == '0') {
        --count;
    }
}

// The exponent of a printed number: a letter, a sign and at least `least` digits. Lives as long as the
// object.
class ExponentText {
  public:
    ExponentText(char letter, int exponent, int least) {
        m_text[0] = letter;
        m_text[1] = exponent < 0 ? '-' : '+';
        int rest = std::abs(exponent);
        const int digits = std::max({least, 1 + (rest >= 10) + (rest >= 100) + (rest >= 1000)});
        m_length = 2 + static_cast<std::size_t>(digits);
        for (std::size_t i = m_length; i > 2; rest /= 10) {
            m_text[--i] = static_cast<char>('0' + rest % 10);
        }
    }
    operator std::string_view() const { return {m_text.data(), m_length}; }

  private:
    std::array<char, 6> m_text;
    std::size_t m_length;
};

// What stands in front of a number's digits: a sign and a radix, both of which may be missing.
class Prefix {
  public:
    explicit Prefix(char sign) {
        if (sign) m_text[m_length++] = sign;
    }
    void Add(char first, char second) {
        m_text[m_length++] = first;
        m_text[m_length++] = second;
    }
    std::string_view View() const { return {m_text.data(), m_length}; }

  private:
    std::array<char, 3> m_text;
    std::size_t m_length = 0;
};

// Takes the characters of a result, writes those that fit and counts the others.
template <class C>
class Output {
  public:
    explicit Output(std::span<C> out)
        : m_begin(out.data()),
          m_at(out.data()),
          m_end(out.empty() ? out.data() : out.data() + out.size() - 1),
          m_terminate(!out.empty()) {}

    void Put(C c) {
        if (m_at != m_end) {
            *m_at++ = c;
        } else {
            ++m_lost;
        }
    }

    void Put(const C* text, std::size_t length) {
        const std::size_t fits = std::min(length, Room());
        m_at = std::copy_n(text, fits, m_at);
        if (fits != length) m_lost += length - fits;
    }

    // A few characters, without the cost of a call for copying.
    void PutFew(const C* text, std::size_t length) {
        if (length > Room()) return Put(text, length);
        C* at = m_at;
        for (const C* const end = text + length; text != end; ++text) {
            *at++ = *text;
        }
        m_at = at;
    }

    // Room for `length` characters that the caller writes, or null where there is not so much.
    C* Take(std::size_t length) {
        if (length > Room()) return nullptr;
        C* const taken = m_at;
        m_at += length;
        return taken;
    }

    // ASCII text.
    void PutAscii(std::string_view text) {
        for (const char c : text) {
            Put(static_cast<C>(c));
        }
    }

    void Fill(C c, std::size_t count) {
        const std::size_t fits = std::min(count, Room());
        m_at = std::fill_n(m_at, fits, c);
        if (fits != count) m_lost += count - fits;
    }

    // Puts what stands before the next % or the end of `text` and returns where that is.
    const C* PutLiteral(const C* text) {
        C* at = m_at;
        for (; *text != C{'%'} && *text != C{}; ++text) {
            if (at == m_end) {
                ++m_lost;
            } else {
                *at++ = *text;
            }
        }
        m_at = at;
        return text;
    }

    std::size_t Finish() {
        if (m_terminate) *m_at = C{};
        const std::size_t length = static_cast<std::size_t>(m_at - m_begin) + m_lost;
        if (length > TQFormatMaxLength) TQStdExceptions::ThrowOverflowError(L"FormatTo");
        return length;
    }

  private:
    std::size_t Room() const { return static_cast<std::size_t>(m_end - m_at); }

    C* const m_begin;
    C* m_at;
    C* const m_end;
    std::size_t m_lost = 0;
    const bool m_terminate;
};

template <class C>
class Formatter {
  public:
    Formatter(std::span<C> out, std::span<const TQFormatArg> args)
        : m_out(out), m_next(args.data()), m_last(args.data() + args.size()) {}

    std::size_t Run(const C* format, std::span<const _TQFormatPiece> pieces) {
        for (const _TQFormatPiece& piece : pieces) {
            m_out.PutFew(format, piece.literal);
            format += piece.length;
            if (piece.spec.HasStars()) {
                ConvertUnchecked(piece.spec);
            } else {
                Convert(piece.spec, *m_next++);
            }
        }
        for (;;) {
            format = m_out.PutLiteral(format);
            if (*format == C{}) return m_out.Finish();
            if (*++format == C{'%'}) {
                m_out.Put(*format++);
            } else {
                Spec spec;
                format = spec.Parse(format);
                ConvertUnchecked(spec);
            }
        }
    }

  private:
    static constexpr bool IsWide = std::is_same_v<C, wchar_t>;
    using Other = std::conditional_t<IsWide, char, wchar_t>;

    const TQFormatArg* Next() { return m_next == m_last ? nullptr : m_next++; }

    // Reads the arguments of the two stars; returns whether both are there and are integers.
    bool ReadStars(Spec& spec) {
        bool fits = true;
        if (spec.Has(Spec::WidthArgument)) {
            const TQFormatArg* const arg = Next();
            fits = arg && arg->kind == Kind::Integer;
            LONGLONG width = fits ? static_cast<std::int32_t>(arg->integer) : 0;
            if (width < 0) {
                spec.flags |= Spec::Left;
                width = -width;
            }
            spec.width = static_cast<int>(std::min<LONGLONG>(width, TQFormatMaxField + 1));
        }
        if (spec.Has(Spec::PrecisionArgument)) {
            const TQFormatArg* const arg = Next();
            const bool isInteger = arg && arg->kind == Kind::Integer;
            fits = fits && isInteger;
            spec.precision = isInteger ? std::max(-1, static_cast<std::int32_t>(arg->integer)) : -1;
        }
        return fits;
    }

    // Converts by a conversion that the compiler has not seen, or not all of. All its arguments are used
    // up even where one does not fit, so that those behind it keep their places.
    TQ_NOINLINE void ConvertUnchecked(Spec spec) {
        const bool starsFit = ReadStars(spec);
        const TQFormatArg* const arg = spec.conversion != 0 ? Next() : nullptr;
        if (!starsFit || !arg || !spec.Takes(arg->kind, IsWide)) return m_out.PutAscii("<?>");
        if (spec.width > TQFormatMaxField || spec.precision > TQFormatMaxField) {
            TQStdExceptions::ThrowOverflowError(L"FormatTo");
        }
        Convert(spec, *arg);
    }

    // Part of the loop over checked pieces by force: the call would be a tenth of the instructions. The rarer
    // and larger functions stay out of it.
    TQ_ALWAYS_INLINE void Convert(const Spec& spec, const TQFormatArg& arg) {
        switch (spec.conversion) {
            case 's':
            case 'S':
                if (spec.TakesWide(IsWide) == IsWide) {
                    PutOwn(spec, TextOf<C>(spec, arg));
                } else {
                    PutOther(spec, TextOf<Other>(spec, arg));
                }
                break;
            case 'c':
            case 'C':
                if (spec.TakesWide(IsWide) == IsWide) {
                    const C c = static_cast<C>(arg.integer);
                    PutOwn(spec, {&c, 1});
                } else {
                    const Other c = static_cast<Other>(arg.integer);
                    PutOther(spec, {&c, 1});
                }
                break;
            case 'd':
            case 'i':
                PutSigned(spec, arg.integer);
                break;
            case 'u':
            case 'x':
            case 'X':
            case 'o':
                PutUnsigned(spec, arg.integer);
                break;
            case 'p':
                PutAddress(spec, reinterpret_cast<std::uintptr_t>(arg.pointer));
                break;
            default:
                PutReal(spec, arg.real);
                break;
        }
    }

    // The text of an argument, cut to the precision; a pointer is not read past the precision.
    template <class D>
    static std::basic_string_view<D> TextOf(const Spec& spec, const TQFormatArg& arg) {
        static constexpr D Null[] = {'(', 'n', 'u', 'l', 'l', ')', 0};
        const D* text = static_cast<const D*>(arg.pointer);
        const std::size_t limit = spec.precision < 0 ? Ignored : static_cast<std::size_t>(spec.precision);
        if (arg.kind == Kind::WideView || arg.kind == Kind::NarrowView)
            return {text, std::min(arg.length, limit)};
        if (!text) text = Null;
        if (limit == Ignored) return text;
        std::size_t length = 0;
        while (length < limit && text[length] != D{}) {
            ++length;
        }
        return {text, length};
    }

    // Puts `length` characters, which `put` writes, in a field of the width.
    template <class Content>
    void PutField(const Spec& spec, std::size_t length, C padding, Content put) {
        const auto width = static_cast<std::size_t>(spec.width);
        const std::size_t pad = width > length ? width - length : 0;
        if (pad != 0 && !spec.Has(Spec::Left)) m_out.Fill(padding, pad);
        put();
        if (pad != 0 && spec.Has(Spec::Left)) m_out.Fill(C{' '}, pad);
    }

    static C TextPadding(const Spec& spec) { return spec.ZeroFills() ? C{'0'} : C{' '}; }

    void PutOwn(const Spec& spec, std::basic_string_view<C> text) {
        if (spec.width == 0) return m_out.Put(text.data(), text.size());
        PutField(spec, text.size(), TextPadding(spec), [&] { m_out.Put(text.data(), text.size()); });
    }

    void PutOther(const Spec& spec, std::basic_string_view<Other> text) {
        const std::size_t length = spec.width == 0 ? 0 : ConvertedLength(text);
        PutField(spec, length, TextPadding(spec), [&] { PutConverted(text); });
    }

    static std::size_t ConvertedLength(std::string_view text) { return Platform::WideLength(text); }
    static std::size_t ConvertedLength(std::wstring_view text) { return Platform::Utf8Length(text); }

    // Converts by pieces that cannot be part of a longer character: a lead byte with at most three bytes
    // behind it.
    void PutConverted(std::string_view text) {
        while (!text.empty()) {
            std::size_t size = 1;
            while (size < std::min<std::size_t>(4, text.size()) &&
                   (static_cast<unsigned char>(text[size]) & 0xC0) == 0x80) {
                ++size;
            }
            std::array<C, 4> wide;
            if (size == 1 && static_cast<unsigned char>(text[0]) < 0x80) {
                m_out.Put(static_cast<C>(text[0]));
            } else {
                m_out.Put(wide.data(), Platform::Utf8ToWide(text.substr(0, size), wide));
            }
            text.remove_prefix(size);
        }
    }

    void PutConverted(std::wstring_view text) {
        while (!text.empty()) {
            const bool isPair = text.size() > 1 && text[0] >= 0xD800 && text[0] <= 0xDBFF &&
                                text[1] >= 0xDC00 && text[1] <= 0xDFFF;
            const std::size_t size = isPair ? 2 : 1;
            std::array<C, 8> bytes;
            m_out.Put(bytes.data(), Platform::WideToUtf8(text.substr(0, size), bytes));
            text.remove_prefix(size);
        }
    }

    void PutSigned(const Spec& spec, ULONGLONG value) {
        const unsigned unused = 64 - BitsOf(spec.size);
        const auto number = static_cast<LONGLONG>(value << unused) >> unused;
        const auto magnitude = static_cast<ULONGLONG>(number < 0 ? -static_cast<ULONGLONG>(number)
                                                                 : static_cast<ULONGLONG>(number));
        PutInteger(spec, magnitude, SignOf(spec, number < 0));
    }

    void PutUnsigned(const Spec& spec, ULONGLONG value) {
        PutInteger(spec, value & (~0ull >> (64 - BitsOf(spec.size))), '\0');
    }

    void PutAddress(Spec spec, std::uintptr_t address) {
        spec.precision = 2 * sizeof(void*);
        spec.conversion = 'X';
        PutInteger(spec, address, '\0');
    }

    // 0 where no sign is printed.
    static char SignOf(const Spec& spec, bool negative) {
        return negative ? '-' : spec.Has(Spec::Plus) ? '+' : spec.Has(Spec::Blank) ? ' ' : '\0';
    }

    void PutInteger(const Spec& spec, ULONGLONG value, char sign) {
        const std::size_t length = value == 0 && spec.precision == 0 ? 0 : DigitsOf(value, spec.conversion);
        if (spec.flags == 0 && spec.width == 0 && spec.precision < 0) {
            if (sign) m_out.Put(static_cast<C>(sign));
            return PutDigits(value, length, spec.conversion);
        }
        Prefix prefix(sign);
        const bool alternate = spec.Has(Spec::Alternate) && value != 0;
        if (alternate && (spec.conversion == 'x' || spec.conversion == 'X')) prefix.Add('0', spec.conversion);
        const std::size_t before = prefix.View().size();
        const auto width = static_cast<std::size_t>(spec.width);
        std::size_t wanted = spec.precision < 0 ? 0 : static_cast<std::size_t>(spec.precision);
        if (spec.precision < 0 && spec.ZeroFills() && width > before) wanted = width - before;
        // # gives an octal number a leading zero.
        if (alternate && spec.conversion == 'o') wanted = std::max(wanted, length + 1);
        const std::size_t zeros = wanted > length ? wanted - length : 0;
        PutField(spec, before + zeros + length, C{' '}, [&] {
            m_out.PutAscii(prefix.View());
            m_out.Fill(C{'0'}, zeros);
            PutDigits(value, length, spec.conversion);
        });
    }

    static std::size_t DigitsOf(ULONGLONG value, char conversion) {
        const auto bits = static_cast<std::size_t>(std::bit_width(value | 1));
        switch (conversion) {
            case 'x':
            case 'X':
                return (bits + 3) / 4;
            case 'o':
                return (bits + 2) / 3;
            default: {
                const std::size_t least = bits * 1233 >> 12;  // the logarithm of two is about 1233 / 4096
                return value < PowersOfTen[least] ? std::max<std::size_t>(least, 1) : least + 1;
            }
        }
    }

    void PutDigits(ULONGLONG value, std::size_t length, char conversion) {
        if (C* const place = m_out.Take(length)) return WriteDigits(place, length, value, conversion);
        std::array<C, 22> digits;  // 64 bits in octal
        WriteDigits(digits.data(), length, value, conversion);
        m_out.Put(digits.data(), length);
    }

    static void WriteDigits(C* first, std::size_t length, ULONGLONG value, char conversion) {
        C* at = first + length;
        switch (conversion) {
            case 'x':
            case 'X':
                for (const char letter = conversion == 'x' ? 'a' : 'A'; at != first; value >>= 4) {
                    const int digit = static_cast<int>(value & 15);
                    *--at = static_cast<C>(digit < 10 ? '0' + digit : letter + digit - 10);
                }
                break;
            case 'o':
                for (; at != first; value >>= 3) {
                    *--at = static_cast<C>('0' + (value & 7));
                }
                break;
            default:
                for (; at - first >= 2; value /= 100) {
                    at -= 2;
                    std::copy_n(DigitPairs<C>.data() + 2 * (value % 100), 2, at);
                }
                if (at != first) *first = static_cast<C>('0' + value);
                break;
        }
    }

    // Digits of a real number from the one at `from` on, with zeros where it has none.
    void PutPlaces(const Decimal& number, int from, int count) {
        const int before = std::clamp(-from, 0, count);
        m_out.Fill(C{'0'}, static_cast<std::size_t>(before));
        const int first = from + before;
        const int own = std::clamp(number.count - first, 0, count - before);
        if (own > 0) m_out.PutAscii({number.digits.data() + first, static_cast<std::size_t>(own)});
        m_out.Fill(C{'0'}, static_cast<std::size_t>(count - before - own));
    }

    // Puts a number with its digits from the one at `from` on: `integers` of them, then `places` behind the
    // point.
    void PutDecimal(const Spec& spec, bool negative, const Decimal& number, int from, int integers,
                    int places, char radix, std::string_view exponent) {
        Prefix prefix(SignOf(spec, negative));
        if (radix) prefix.Add('0', radix);
        const bool hasPoint = places > 0 || spec.Has(Spec::Alternate);
        const std::size_t body =
            static_cast<std::size_t>(integers + places) + (hasPoint ? 1 : 0) + exponent.size();
        const std::size_t length = prefix.View().size() + body;
        const auto width = static_cast<std::size_t>(spec.width);
        const std::size_t zeros = spec.ZeroFills() && width > length ? width - length : 0;
        PutField(spec, length + zeros, C{' '}, [&] {
            m_out.PutAscii(prefix.View());
            m_out.Fill(C{'0'}, zeros);
            PutPlaces(number, from, integers);
            if (hasPoint) m_out.Put(C{'.'});
            PutPlaces(number, from + integers, places);
            m_out.PutAscii(exponent);
        });
    }

    TQ_NOINLINE void PutReal(const Spec& spec, double value) {
        Decimal number;
        const bool negative = std::signbit(value);
        const bool upper = spec.conversion < 'a';
        if (spec.conversion == 'a' || spec.conversion == 'A') {
            const int places = spec.precision < 0 ? MantissaDigits : spec.precision;
            const int exponent = number.SetHexadecimal(value, places, upper);
            return PutDecimal(spec, negative, number, 0, 1, places, spec.conversion == 'A' ? 'X' : 'x',
                              ExponentText(upper ? 'P' : 'p', exponent, 1));
        }
        number.SetExact(value);
        int precision = spec.precision < 0 ? 6 : spec.precision;
        bool scientific = spec.conversion == 'e' || spec.conversion == 'E';
        if (scientific) {
            number.RoundTo(precision + 1);
        } else if (spec.conversion == 'f' || spec.conversion == 'F') {
            number.RoundTo(number.exponent + 1 + precision);
        } else {
            // %g counts significant digits, takes the shorter notation and drops trailing zeros.
            precision = std::max(precision, 1);
            number.RoundTo(precision);
            scientific = number.exponent < -4 || number.exponent >= precision;
            precision -= 1 + (scientific ? 0 : number.exponent);
            if (!spec.Has(Spec::Alternate)) {
                number.DropTrailingZeros();
                precision = std::clamp(number.count - 1 - (scientific ? 0 : number.exponent), 0, precision);
            }
        }
        if (scientific) {
            PutDecimal(spec, negative, number, 0, 1, precision, '\0',
                       ExponentText(upper ? 'E' : 'e', number.exponent, 3));
        } else {
            const int integers = std::max(number.exponent, 0) + 1;
            PutDecimal(spec, negative, number, number.exponent + 1 - integers, integers, precision, '\0', {});
        }
    }

    Output<C> m_out;
    const TQFormatArg* m_next;
    const TQFormatArg* const m_last;
};

}  // namespace

std::size_t FormatArgsTo(std::span<wchar_t> out, const wchar_t* format, std::span<const TQFormatArg> args,
                         std::span<const _TQFormatPiece> pieces) {
    return Formatter<wchar_t>(out, args).Run(format ? format : L"", pieces);
}

std::size_t FormatArgsTo(std::span<char> out, const char* format, std::span<const TQFormatArg> args,
                         std::span<const _TQFormatPiece> pieces) {
    return Formatter<char>(out, args).Run(format ? format : "", pieces);
}

}  // namespace Quellan::Corvel
