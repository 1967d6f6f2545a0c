// The library's string classes: wide text for its interfaces, narrow text (UTF-8) for the outside.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/text/TQFormat.h"
#include "TQLib/text/memory/TQStdExceptions.h"

#include <array>
#include <compare>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Quellan::Corvel {

template <class T, class C>
concept _TQShowsView =
    std::is_convertible_v<const T&, std::basic_string_view<C>> && !std::is_convertible_v<const T&, const C*>;

// Text that is passed to a string's members: anything that shows a view, or a pointer to terminated text, of
// which a null stands for the empty text. Borrowed for the call.
template <class C>
class _TQTextT {
  public:
    _TQTextT(const C* text) noexcept {
        if (text) m_view = text;
    }
    template <_TQShowsView<C> T>
    _TQTextT(const T& text) noexcept : m_view(text) {}

    [[nodiscard]] std::basic_string_view<C> View() const noexcept { return m_view; }

  private:
    std::basic_string_view<C> m_view;
};

template <class C>
class _TQStringT;

// Text that is not one of the string classes itself.
template <class T, class C>
concept _TQOtherText = std::is_convertible_v<const T&, _TQTextT<C>> && !std::is_base_of_v<_TQStringT<C>, T>;

// A string with value semantics that owns its characters. It may hold any characters, zeros included; members
// that take positions count units of `C`. A null pointer given as text is the empty text; any other pointer
// is trusted.
//
// Failures: exhausted memory throws by `TQStdExceptions::ThrowMemAllocError`, a length past the largest by
// `ThrowOverflowError`, a position outside of the string by `ThrowIndexError`; the string is unchanged then.
//
// Threads: different strings at will; one string from several threads as long as none changes it.
//
// Case is mapped character by character, the same for every locale: wide text by the platform's upper- and
// lower-case tables, narrow text in its ASCII letters alone.
//
// A string is a contiguous range of its characters, which cannot be changed through it. Put into a stream of the
// standard library it is the stream's kind of text: UTF-8 stands for the other one.
template <class C>
class _TQStringT {
  public:
    using value_type = C;

    // What searches return for "not found", and as a count "up to the end".
    static constexpr std::size_t NotFound = std::basic_string_view<C>::npos;

    _TQStringT() noexcept = default;
    _TQStringT(const C* text);
    // The first `length` characters behind `text`, which may be null if there are none; throws 87
    // (ERROR_INVALID_PARAMETER) for a null text of more.
    _TQStringT(const C* text, std::size_t length);
    _TQStringT(std::basic_string_view<C> text);
    _TQStringT(const std::basic_string<C>& text);
    // Takes over the standard library's string.
    _TQStringT(std::basic_string<C>&& text) noexcept;
    _TQStringT(const _TQStringT& other);
    _TQStringT(_TQStringT&& other) noexcept = default;
    _TQStringT& operator=(const _TQStringT& other);
    _TQStringT& operator=(_TQStringT&& other) noexcept = default;
    virtual ~_TQStringT();

    // What is defined here is made part of the caller even without optimisation: a DLL does not export it, and whoever
    // includes this leaves it to the DLL.

    // Terminated; valid until the string changes.
    [[nodiscard]] TQ_ALWAYS_INLINE const C* c_str() const noexcept { return m_text.c_str(); }
    [[nodiscard]] TQ_ALWAYS_INLINE std::size_t Length() const noexcept { return m_text.size(); }
    [[nodiscard]] TQ_ALWAYS_INLINE bool IsEmpty() const noexcept { return m_text.empty(); }
    [[nodiscard]] TQ_ALWAYS_INLINE std::basic_string_view<C> View() const noexcept { return m_text; }
    TQ_ALWAYS_INLINE operator std::basic_string_view<C>() const noexcept { return m_text; }
    [[nodiscard]] TQ_ALWAYS_INLINE const C* begin() const noexcept { return m_text.data(); }
    [[nodiscard]] TQ_ALWAYS_INLINE const C* end() const noexcept { return m_text.data() + m_text.size(); }

    // The character at `position`, which must be below `Length()`.
    [[nodiscard]] TQ_ALWAYS_INLINE C At(std::size_t position) const {
        if (position >= Length()) TQStdExceptions::ThrowIndexError(L"TQString::At");
        return m_text[position];
    }
    TQ_ALWAYS_INLINE C operator[](std::size_t position) const { return At(position); }
    TQ_ALWAYS_INLINE void SetAt(std::size_t position, C character) {
        if (position >= Length()) TQStdExceptions::ThrowIndexError(L"TQString::SetAt");
        m_text[position] = character;
    }

    _TQStringT& Assign(_TQTextT<C> text);
    _TQStringT& Append(_TQTextT<C> text);
    _TQStringT& operator+=(_TQTextT<C> text);
    TQ_ALWAYS_INLINE _TQStringT& operator+=(C character) {
        if (m_text.size() == m_text.capacity()) GrowForCharacters();
        m_text.push_back(character);
        return *this;
    }
    // `position` is at most `Length()`.
    _TQStringT& Insert(std::size_t position, _TQTextT<C> text);
    // Removes up to `count` characters from `position`, at most `Length()`.
    _TQStringT& Remove(std::size_t position, std::size_t count = NotFound);
    TQ_ALWAYS_INLINE void Clear() noexcept { m_text.clear(); }
    // Makes room for `length` characters in all, so that strings up to it need no memory.
    void Reserve(std::size_t length);

    // The first or last `count` characters, or all if there are fewer.
    [[nodiscard]] _TQStringT Left(std::size_t count) const;
    [[nodiscard]] _TQStringT Right(std::size_t count) const;
    // Up to `count` characters from `position`, at most `Length()`.
    [[nodiscard]] _TQStringT Mid(std::size_t position, std::size_t count = NotFound) const;

    // The position of the first occurrence at or behind `from`; `ReverseFind` of the last one that begins at
    // or before it; `NotFound` if there is none. The empty text occurs everywhere.
    [[nodiscard]] std::size_t Find(_TQTextT<C> text, std::size_t from = 0) const noexcept;
    [[nodiscard]] std::size_t FindNoCase(_TQTextT<C> text, std::size_t from = 0) const noexcept;
    [[nodiscard]] std::size_t ReverseFind(_TQTextT<C> text, std::size_t from = NotFound) const noexcept;
    // The position of the first character at or behind `from` that `set` has, or has not.
    [[nodiscard]] std::size_t FindAny(_TQTextT<C> set, std::size_t from = 0) const noexcept;
    [[nodiscard]] std::size_t FindNotAny(_TQTextT<C> set, std::size_t from = 0) const noexcept;
    [[nodiscard]] bool Contains(_TQTextT<C> text) const noexcept;
    [[nodiscard]] bool ContainsNoCase(_TQTextT<C> text) const noexcept;
    // How often `text` occurs, counted from left to right without overlaps; the empty text does not.
    [[nodiscard]] std::size_t Count(_TQTextT<C> text) const noexcept;
    // Whether the whole string is as `pattern` says, in which `*` stands for any characters, also none, `?` for one
    // character and every other for itself. Takes no memory, and at most time in proportion to the string's
    // length times that of the pattern.
    [[nodiscard]] bool Matches(_TQTextT<C> pattern) const noexcept;
    [[nodiscard]] bool MatchesNoCase(_TQTextT<C> pattern) const noexcept;
    // Replaces every occurrence of `what` from left to right and returns their number; an empty `what` has
    // none.
    std::size_t Replace(_TQTextT<C> what, _TQTextT<C> with);
    std::size_t ReplaceNoCase(_TQTextT<C> what, _TQTextT<C> with);

    // Removes the characters of `set` from one end or both; by default blank, tab, line feed, vertical tab,
    // form feed and carriage return.
    _TQStringT& TrimLeft();
    _TQStringT& TrimLeft(_TQTextT<C> set);
    _TQStringT& TrimRight();
    _TQStringT& TrimRight(_TQTextT<C> set);
    _TQStringT& Trim();
    _TQStringT& Trim(_TQTextT<C> set);

    // Puts `fill` in front of the text, or behind it, until it has `length` characters.
    _TQStringT& PadLeft(std::size_t length, C fill = C{' '});
    _TQStringT& PadRight(std::size_t length, C fill = C{' '});
    // Makes of the text `count` times the text.
    _TQStringT& Repeat(std::size_t count);

    [[nodiscard]] _TQStringT ToUpper() const;
    [[nodiscard]] _TQStringT ToLower() const;

    // Below, equal to or above 0, by the values of the characters, without regard to locale.
    [[nodiscard]] int Compare(_TQTextT<C> text) const noexcept;
    [[nodiscard]] int CompareNoCase(_TQTextT<C> text) const;
    [[nodiscard]] bool StartsWith(_TQTextT<C> text) const noexcept;
    [[nodiscard]] bool StartsWithNoCase(_TQTextT<C> text) const;
    [[nodiscard]] bool EndsWith(_TQTextT<C> text) const noexcept;
    [[nodiscard]] bool EndsWithNoCase(_TQTextT<C> text) const;

    // Formatting as text/TQFormat.h says; `FormatRuntime` for formats that are no constants, of which null is
    // empty. The arguments may refer to this string.
    template <class... Args>
    [[nodiscard]] static _TQStringT Format(TQFormatText<C, std::type_identity_t<Args>...> format,
                                           const Args&... args);
    template <class... Args>
    [[nodiscard]] static _TQStringT FormatRuntime(const C* format, const Args&... args);
    template <class... Args>
    _TQStringT& AppendFormat(TQFormatText<C, std::type_identity_t<Args>...> format, const Args&... args);

    // Wide text to and from UTF-8; what is no character becomes U+FFFD.
    [[nodiscard]] _TQStringT<char> ToUtf8() const requires std::is_same_v<C, wchar_t>;
    [[nodiscard]] static _TQStringT FromUtf8(_TQTextT<char> text) requires std::is_same_v<C, wchar_t>;
    template <class T>
    requires(std::is_convertible_v<const T&, std::u8string_view> && !std::is_null_pointer_v<T> &&
             std::is_same_v<C, wchar_t>) [[nodiscard]] static _TQStringT FromUtf8(const T& text) {
        const std::u8string_view view = text;
        return FromUtf8(std::string_view(reinterpret_cast<const char*>(view.data()), view.size()));
    }
    // Wide text to and from UTF-16 and UTF-32, in the same way.
    [[nodiscard]] std::u16string ToUtf16() const requires std::is_same_v<C, wchar_t>;
    [[nodiscard]] std::u32string ToUtf32() const requires std::is_same_v<C, wchar_t>;
    [[nodiscard]] static _TQStringT FromUtf16(std::u16string_view text) requires std::is_same_v<C, wchar_t>;
    [[nodiscard]] static _TQStringT FromUtf32(std::u32string_view text) requires std::is_same_v<C, wchar_t>;
    // Wide text to and from the system's ANSI code page, which is UTF-8 on Linux. A failure of the system
    // throws by `TQStdExceptions::ThrowLastError`.
    [[nodiscard]] _TQStringT<char> ToAnsi() const requires std::is_same_v<C, wchar_t>;
    [[nodiscard]] static _TQStringT FromAnsi(_TQTextT<char> text) requires std::is_same_v<C, wchar_t>;

    // With text of any kind on one side.
    friend _TQStringT operator+(_TQStringT a, const _TQStringT& b) { return std::move(a += b); }
    template <_TQOtherText<C> T>
    friend _TQStringT operator+(_TQStringT a, const T& b) {
        return std::move(a += b);
    }
    template <_TQOtherText<C> T>
    friend _TQStringT operator+(const T& a, const _TQStringT& b) {
        return std::move(_TQStringT(_TQTextT<C>(a).View()) += b);
    }
    friend bool operator==(const _TQStringT& a, const _TQStringT& b) noexcept { return a.View() == b.View(); }
    template <_TQOtherText<C> T>
    friend bool operator==(const _TQStringT& a, const T& b) noexcept {
        return a.View() == _TQTextT<C>(b).View();
    }
    friend std::strong_ordering operator<=>(const _TQStringT& a, const _TQStringT& b) noexcept {
        return a.View() <=> b.View();
    }
    template <_TQOtherText<C> T>
    friend std::strong_ordering operator<=>(const _TQStringT& a, const T& b) noexcept {
        return a.View() <=> _TQTextT<C>(b).View();
    }

  protected:
    [[nodiscard]] TQ_ALWAYS_INLINE const std::basic_string<C>& Storage() const noexcept { return m_text; }

  private:
    // Where one character comes more are likely to follow.
    void GrowForCharacters();
    template <class Search>
    std::size_t ReplaceFound(_TQTextT<C> what, _TQTextT<C> with, Search find);
    void AppendArgs(const C* format, std::span<const TQFormatArg> args,
                    std::span<const _TQFormatPiece> pieces = {});

    std::basic_string<C> m_text;
};

template <class C>
template <class... Args>
_TQStringT<C> _TQStringT<C>::Format(TQFormatText<C, std::type_identity_t<Args>...> format,
                                    const Args&... args) {
    _TQStringT result;
    result.AppendFormat<Args...>(format, args...);
    return result;
}

template <class C>
template <class... Args>
_TQStringT<C> _TQStringT<C>::FormatRuntime(const C* format, const Args&... args) {
    const std::array<TQFormatArg, sizeof...(Args)> list{TQFormatArg::From(args)...};
    _TQStringT result;
    result.AppendArgs(format, list);
    return result;
}

template <class C>
template <class... Args>
_TQStringT<C>& _TQStringT<C>::AppendFormat(TQFormatText<C, std::type_identity_t<Args>...> format,
                                           const Args&... args) {
    const std::array<TQFormatArg, sizeof...(Args)> list{TQFormatArg::From(args)...};
    AppendArgs(format.Text(), list, format.Pieces());
    return *this;
}

extern template class TQLIB_API _TQStringT<wchar_t>;
extern template class TQLIB_API _TQStringT<char>;

template <class S, class Traits, class C>
requires(std::is_same_v<S, char> || std::is_same_v<S, wchar_t>) std::basic_ostream<S, Traits>
&operator<<(std::basic_ostream<S, Traits>& out, const _TQStringT<C>& text) {
    if constexpr (std::is_same_v<S, C>)
        return out << text.View();
    else if constexpr (std::is_same_v<S, char>)
        return out << text.ToUtf8().View();
    else
        return out << _TQStringT<wchar_t>::FromUtf8(text).View();
}

using _TQwString = _TQStringT<wchar_t>;
using _TQaString = _TQStringT<char>;

// The wide string that most interfaces take and return. Members that make a string return the base, which
// converts.
class TQLIB_API TQString : public _TQwString {
  public:
    using _TQwString::_TQwString;
    TQString() noexcept = default;
    TQString(const _TQwString& text) : _TQwString(text) {}
    TQString(_TQwString&& text) noexcept : _TQwString(std::move(text)) {}
    TQString(const TQString& other) = default;
    TQString(TQString&& other) noexcept = default;
    TQString& operator=(const TQString& other) = default;
    TQString& operator=(TQString&& other) noexcept = default;
    ~TQString() override;
};

}  // namespace Quellan::Corvel

template <class C>
struct std::hash<Quellan::Corvel::_TQStringT<C>> {
    std::size_t operator()(const Quellan::Corvel::_TQStringT<C>& text) const noexcept {
        return std::hash<std::basic_string_view<C>>{}(text.View());
    }
};

template <>
struct std::hash<Quellan::Corvel::TQString> : std::hash<Quellan::Corvel::_TQwString> {};
