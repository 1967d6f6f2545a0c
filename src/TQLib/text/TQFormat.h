// printf-style formatting by the Windows rules on both platforms, into a caller's buffer or (text/TQString.h)
// a string.
//
// In wide text %s and %c take wide arguments and %S, %C, %hs, %hc narrow ones; in narrow text it is the other
// way round; %ls, %ws and %lc are wide in both. Sizes cut an integer to their width: hh 8, h 16, none, l and
// I32 32, ll, I64 and j 64, I, z and t a pointer's. %p prints sixteen upper-case digits. There is no %n.
// docs/formatting.md has all.
//
// A format written in the source is checked against its arguments by the compiler. A format that comes from
// elsewhere is given to a function whose name says Runtime: it never reads past its arguments and prints <?>
// for a conversion that does not fit its argument, has none, or does not exist.
//
// One width or precision is at most `TQFormatMaxField` and a result at most `TQFormatMaxLength` characters;
// more throws by `TQStdExceptions::ThrowOverflowError`. Narrow text is UTF-8 wherever it meets wide text. A
// null text pointer prints "(null)". Any thread may format; nothing is shared and the C library's locale has
// no influence.
#pragma once

#include "TQLib/platform/Types.h"

#include <array>
#include <bit>
#include <concepts>
#include <span>
#include <string_view>
#include <type_traits>

namespace Quellan::Corvel {

inline constexpr int TQFormatMaxField = 1 << 20;
inline constexpr std::size_t TQFormatMaxLength = std::size_t{1} << 24;

// One argument of a format: its kind and its value. Text is borrowed and must outlive the formatting call,
// which it does as part of the same expression.
struct TQFormatArg {
    enum class Kind : BYTE { Integer, Real, WidePointer, WideView, NarrowPointer, NarrowView, Pointer };

    template <class T>
    static consteval Kind KindOf();
    template <class T>
    [[nodiscard]] static TQFormatArg From(const T& value) noexcept;

    Kind kind;
    union {
        ULONGLONG integer;
        double real;
        const void* pointer;
    };
    // Characters behind `pointer`, of the two views alone.
    std::size_t length = 0;
};

// One conversion specification of a format, as written: what stands between % and the conversion letter.
struct _TQFormatSpec {
    enum Flag : BYTE {
        Left = 1,
        Zero = 2,
        Plus = 4,
        Blank = 8,
        Alternate = 16,
        WidthArgument = 32,
        PrecisionArgument = 64
    };
    enum class Size : WORD { Natural, Byte, Short, Long, Int64, Pointer, Wide, LongDouble };

    // Reads what stands behind a %; returns where the format goes on. The conversion is 0
    // where the format ends too early; numbers past `TQFormatMaxField` stay just above it.
    template <class C>
    constexpr const C* Parse(const C* at) noexcept;
    // Whether an argument of this kind can be printed by this conversion in wide or narrow text.
    [[nodiscard]] constexpr bool Takes(TQFormatArg::Kind kind, bool wideFormat) const noexcept;
    // Whether %s, %S, %c, %C take wide text here.
    [[nodiscard]] constexpr bool TakesWide(bool wideFormat) const noexcept;
    [[nodiscard]] constexpr bool Has(Flag flag) const noexcept { return (flags & flag) != 0; }
    [[nodiscard]] constexpr bool HasStars() const noexcept {
        return (flags & (WidthArgument | PrecisionArgument)) != 0;
    }
    // Left alignment overrules zeros.
    [[nodiscard]] constexpr bool ZeroFills() const noexcept { return (flags & (Left | Zero)) == Zero; }

    BYTE flags = 0;
    char conversion = 0;
    Size size = Size::Natural;
    int width = 0;
    int precision = -1;  // -1: none given
};

// A part of a format that the compiler has taken apart: text to copy and the conversion behind it.
struct _TQFormatPiece {
    DWORD literal;  // characters of text
    DWORD length;   // characters of both
    _TQFormatSpec spec;
};

// A format that the compiler has checked against the types of its arguments; made from a string literal or
// another constant, implicitly.
template <class C, class... Args>
class TQFormatText {
  public:
    consteval TQFormatText(const C* text);

    [[nodiscard]] constexpr const C* Text() const noexcept { return m_text; }
    // The pieces before the first %%, or all.
    [[nodiscard]] constexpr std::span<const _TQFormatPiece> Pieces() const noexcept {
        return {m_pieces.data(), m_count};
    }

  private:
    const C* m_text;
    std::size_t m_count = 0;
    std::array<_TQFormatPiece, sizeof...(Args)> m_pieces{};
};

// Formats into `out`: at most out.size() - 1 characters and a terminator, nothing at all into an empty span.
// Returns the length of the whole result without terminator; it was cut off where that is not below
// out.size(). Allocates nothing. A cut may fall inside a character of several units.
template <class... Args>
std::size_t FormatTo(std::span<wchar_t> out, TQFormatText<wchar_t, std::type_identity_t<Args>...> format,
                     const Args&... args);
template <class... Args>
std::size_t FormatTo(std::span<char> out, TQFormatText<char, std::type_identity_t<Args>...> format,
                     const Args&... args);

// The same with the arguments collected, for any format. `pieces` must be those that the compiler made of
// this format for these arguments, or none.
TQLIB_API std::size_t FormatArgsTo(std::span<wchar_t> out, const wchar_t* format,
                                   std::span<const TQFormatArg> args,
                                   std::span<const _TQFormatPiece> pieces = {});
TQLIB_API std::size_t FormatArgsTo(std::span<char> out, const char* format, std::span<const TQFormatArg> args,
                                   std::span<const _TQFormatPiece> pieces = {});

template <class... Args>
std::size_t FormatTo(std::span<wchar_t> out, TQFormatText<wchar_t, std::type_identity_t<Args>...> format,
                     const Args&... args) {
    const std::array<TQFormatArg, sizeof...(Args)> list{TQFormatArg::From(args)...};
    return FormatArgsTo(out, format.Text(), list, format.Pieces());
}

template <class... Args>
std::size_t FormatTo(std::span<char> out, TQFormatText<char, std::type_identity_t<Args>...> format,
                     const Args&... args) {
    const std::array<TQFormatArg, sizeof...(Args)> list{TQFormatArg::From(args)...};
    return FormatArgsTo(out, format.Text(), list, format.Pieces());
}

template <class T>
consteval TQFormatArg::Kind TQFormatArg::KindOf() {
    using Value = std::decay_t<T>;
    if constexpr (std::is_integral_v<Value> || std::is_enum_v<Value>) {
        return Kind::Integer;
    } else if constexpr (std::is_floating_point_v<Value>) {
        return Kind::Real;
    } else if constexpr (std::is_same_v<Value, wchar_t*> || std::is_same_v<Value, const wchar_t*>) {
        return Kind::WidePointer;
    } else if constexpr (std::is_same_v<Value, char*> || std::is_same_v<Value, const char*>) {
        return Kind::NarrowPointer;
    } else if constexpr (std::is_pointer_v<Value> || std::is_null_pointer_v<Value>) {
        return Kind::Pointer;
    } else if constexpr (std::is_convertible_v<const Value&, std::wstring_view>) {
        return Kind::WideView;
    } else {
        static_assert(std::is_convertible_v<const Value&, std::string_view>,
                      "values of this type cannot be formatted");
        return Kind::NarrowView;
    }
}

template <class T>
TQFormatArg TQFormatArg::From(const T& value) noexcept {
    TQFormatArg arg;
    arg.kind = KindOf<T>();
    if constexpr (KindOf<T>() == Kind::Integer) {
        arg.integer = static_cast<ULONGLONG>(value);
    } else if constexpr (KindOf<T>() == Kind::Real) {
        arg.real = static_cast<double>(value);
    } else if constexpr (KindOf<T>() == Kind::WideView) {
        const std::wstring_view view = value;
        arg.pointer = view.data();
        arg.length = view.size();
    } else if constexpr (KindOf<T>() == Kind::NarrowView) {
        const std::string_view view = value;
        arg.pointer = view.data();
        arg.length = view.size();
    } else if constexpr (std::is_null_pointer_v<T>) {
        arg.pointer = nullptr;
    } else {
        // Function pointers and pointers to volatile objects have an address too.
        arg.pointer = std::bit_cast<const void*>(static_cast<std::decay_t<const T&>>(value));
    }
    return arg;
}

template <class C>
constexpr const C* _TQFormatSpec::Parse(const C* at) noexcept {
    const auto number = [&at](int& value) {
        value = 0;
        for (; *at >= C{'0'} && *at <= C{'9'}; ++at) {
            if (value <= TQFormatMaxField) value = value * 10 + static_cast<int>(*at - C{'0'});
        }
    };

    // Every flag, digit, point and star comes before the letters.
    if (*at < C{'A'}) {
        for (;; ++at) {
            if (*at == C{'-'}) {
                flags |= Left;
            } else if (*at == C{'0'}) {
                flags |= Zero;
            } else if (*at == C{'+'}) {
                flags |= Plus;
            } else if (*at == C{' '}) {
                flags |= Blank;
            } else if (*at == C{'#'}) {
                flags |= Alternate;
            } else {
                break;
            }
        }
        if (*at == C{'*'}) {
            flags |= WidthArgument;
            ++at;
        } else {
            number(width);
        }
        if (*at == C{'.'}) {
            if (*++at == C{'*'}) {
                flags |= PrecisionArgument;
                ++at;
            } else {
                number(precision);
            }
        }
    }
    switch (*at) {
        case C{'h'}:
            size = *++at == C{'h'} ? ++at, Size::Byte : Size::Short;
            break;
        case C{'l'}:
            size = *++at == C{'l'} ? ++at, Size::Int64 : Size::Long;
            break;
        case C{'I'}:
            ++at;
            if (at[0] == C{'6'} && at[1] == C{'4'}) {
                size = Size::Int64;
                at += 2;
            } else if (at[0] == C{'3'} && at[1] == C{'2'}) {
                size = Size::Long;
                at += 2;
            } else {
                size = Size::Pointer;
            }
            break;
        case C{'j'}:
            size = Size::Int64;
            ++at;
            break;
        case C{'z'}:
        case C{'t'}:
            size = Size::Pointer;
            ++at;
            break;
        case C{'w'}:
            size = Size::Wide;
            ++at;
            break;
        case C{'L'}:
            size = Size::LongDouble;
            ++at;
            break;
        default:
            break;
    }
    if (*at == C{}) return at;
    conversion = *at > C{'z'} || *at < C{'A'} ? '?' : static_cast<char>(*at);
    return at + 1;
}

constexpr bool _TQFormatSpec::TakesWide(bool wideFormat) const noexcept {
    if (size == Size::Short) return false;
    if (size == Size::Long || size == Size::Wide) return true;
    return (conversion == 's' || conversion == 'c') == wideFormat;
}

constexpr bool _TQFormatSpec::Takes(TQFormatArg::Kind kind, bool wideFormat) const noexcept {
    using Kind = TQFormatArg::Kind;
    switch (conversion) {
        case 'd':
        case 'i':
        case 'u':
        case 'x':
        case 'X':
        case 'o':
            return kind == Kind::Integer && size <= Size::Pointer;
        case 'c':
        case 'C':
            return kind == Kind::Integer &&
                   (size == Size::Natural || size == Size::Short || size == Size::Long || size == Size::Wide);
        case 's':
        case 'S':
            if (size != Size::Natural && size != Size::Short && size != Size::Long && size != Size::Wide)
                return false;
            return TakesWide(wideFormat) ? kind == Kind::WidePointer || kind == Kind::WideView
                                         : kind == Kind::NarrowPointer || kind == Kind::NarrowView;
        case 'p':
            return size == Size::Natural &&
                   (kind == Kind::Pointer || kind == Kind::WidePointer || kind == Kind::NarrowPointer);
        case 'e':
        case 'E':
        case 'f':
        case 'F':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            return kind == Kind::Real &&
                   (size == Size::Natural || size == Size::Long || size == Size::LongDouble);
        default:
            return false;
    }
}

template <class C, class... Args>
consteval TQFormatText<C, Args...>::TQFormatText(const C* text) : m_text(text) {
    constexpr std::array<TQFormatArg::Kind, sizeof...(Args)> kinds{TQFormatArg::KindOf<Args>()...};
    std::size_t used = 0;
    const auto take = [&] {
        if (used == kinds.size()) throw "the format has more conversions than arguments";
        return kinds[used++];
    };
    bool collecting = true;
    for (const C* begin = text; *text != C{};) {
        if (*text++ != C{'%'}) continue;
        if (*text == C{'%'}) {
            collecting = false;
            ++text;
            continue;
        }
        _TQFormatSpec spec;
        const C* const end = spec.Parse(text);
        if (spec.width > TQFormatMaxField || spec.precision > TQFormatMaxField) {
            throw "the width or precision is too large";
        }
        if ((spec.Has(_TQFormatSpec::WidthArgument) && take() != TQFormatArg::Kind::Integer) ||
            (spec.Has(_TQFormatSpec::PrecisionArgument) && take() != TQFormatArg::Kind::Integer)) {
            throw "'*' needs an integer";
        }
        if (!spec.Takes(take(), std::is_same_v<C, wchar_t>)) {
            throw "the conversion does not exist or does not fit its argument";
        }
        if (collecting) {
            m_pieces[m_count++] = {.literal = static_cast<DWORD>(text - 1 - begin),
                                   .length = static_cast<DWORD>(end - begin),
                                   .spec = spec};
        }
        begin = text = end;
    }
    if (used != kinds.size()) throw "the format has fewer conversions than arguments";
}

}  // namespace Quellan::Corvel
