#include "TQLib/text/TQString.h"

#include "TQLib/platform/Platform.h"
#include "TQLib/platform/Utf.h"
#include "TQLib/text/internal/CharacterSet.h"
#include "TQLib/text/internal/CodePoints.h"
#include "TQLib/text/memory/TQStdExceptions.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

namespace Quellan::Corvel {
namespace {

template <class C>
constexpr std::array<C, 6> WhiteSpace = {' ', '\t', '\n', '\v', '\f', '\r'};

template <class C>
constexpr std::basic_string_view<C> WhiteSpaceView{WhiteSpace<C>.data(), WhiteSpace<C>.size()};

template <class C>
constexpr bool IsAscii(C c) {
    return static_cast<std::make_unsigned_t<C>>(c) < 0x80;
}

template <class C>
bool IsAscii(std::basic_string_view<C> text) {
    return std::all_of(text.begin(), text.end(), [](C c) { return IsAscii(c); });
}

template <class C>
constexpr C UpperAscii(C c) {
    return c >= C{'a'} && c <= C{'z'} ? static_cast<C>(c - ('a' - 'A')) : c;
}

template <class C>
constexpr C LowerAscii(C c) {
    return c >= C{'A'} && c <= C{'Z'} ? static_cast<C>(c + ('a' - 'A')) : c;
}

// The length as the platform's calls take it.
int CallLength(std::size_t length, const wchar_t* where) {
    if (length > static_cast<std::size_t>(std::numeric_limits<int>::max()))
        TQStdExceptions::ThrowOverflowError(where);
    return static_cast<int>(length);
}

// Text in one case. The mapping takes one character to one, so positions stay.
template <class C>
std::basic_string<C> InUpper(std::basic_string_view<C> text) {
    std::basic_string<C> result(text);
    std::transform(result.begin(), result.end(), result.begin(), &UpperAscii<C>);
    if constexpr (std::is_same_v<C, wchar_t>) {
        if (!IsAscii(text))
            CharUpperBuffW(result.data(),
                           static_cast<DWORD>(CallLength(result.size(), L"TQString::ToUpper")));
    }
    return result;
}

template <class C>
std::basic_string<C> InLower(std::basic_string_view<C> text) {
    std::basic_string<C> result(text);
    std::transform(result.begin(), result.end(), result.begin(), &LowerAscii<C>);
    if constexpr (std::is_same_v<C, wchar_t>) {
        if (!IsAscii(text))
            CharLowerBuffW(result.data(),
                           static_cast<DWORD>(CallLength(result.size(), L"TQString::ToLower")));
    }
    return result;
}

// The platform's order, for text whose case ASCII does not tell.
int RestOrderNoCase(std::wstring_view a, std::wstring_view b) {
    constexpr auto Where = L"TQString::CompareNoCase";
    const int order = CompareStringOrdinal(a.data(), CallLength(a.size(), Where), b.data(),
                                           CallLength(b.size(), Where), TRUE);
    if (order == 0) TQStdExceptions::ThrowLastError(Where);
    return order - CSTR_EQUAL;
}

// A character in upper case, as `InUpper` has it.
template <class C>
C UpperOf(C c) {
    if (IsAscii(c)) return UpperAscii(c);
    if constexpr (std::is_same_v<C, wchar_t>) CharUpperBuffW(&c, 1);
    return c;
}

template <class C>
bool AreSameNoCase(C a, C b) {
    return a == b || UpperOf(a) == UpperOf(b);
}

template <class C>
std::size_t FindNoCaseIn(std::basic_string_view<C> text, std::basic_string_view<C> what, std::size_t from) {
    if (from > text.size() || what.size() > text.size() - from) return text.npos;
    if (what.empty()) return from;
    const C upper = UpperOf(what[0]);
    const C lower = LowerAscii(upper);
    const auto last = text.end() - static_cast<std::ptrdiff_t>(what.size());
    for (auto at = text.begin() + static_cast<std::ptrdiff_t>(from); at <= last; ++at) {
        if (*at != upper && *at != lower && (IsAscii(*at) || UpperOf(*at) != upper)) continue;
        if (std::equal(what.begin() + 1, what.end(), at + 1, &AreSameNoCase<C>))
            return static_cast<std::size_t>(at - text.begin());
    }
    return text.npos;
}

// Each star takes as little as it can; only the last one is ever given more.
template <class C, class AreSame>
bool MatchesPattern(std::basic_string_view<C> text, std::basic_string_view<C> pattern, AreSame areSame) {
    std::size_t at = 0;
    std::size_t wanted = 0;
    std::size_t behindStar = pattern.npos;
    std::size_t starEnd = 0;
    while (at < text.size()) {
        const C next = wanted < pattern.size() ? pattern[wanted] : C{};
        if (next == C{'*'}) {
            behindStar = ++wanted;
            if (behindStar == pattern.size()) return true;
            starEnd = at;
        } else if (wanted < pattern.size() && (next == C{'?'} || areSame(next, text[at]))) {
            ++wanted;
            ++at;
            continue;
        } else if (behindStar != pattern.npos) {
            wanted = behindStar;
            ++starEnd;
        } else {
            return false;
        }
        // To the next character that what stands behind the star can begin with.
        if constexpr (std::is_same_v<AreSame, std::equal_to<C>>) {
            if (pattern[wanted] != C{'?'} && pattern[wanted] != C{'*'})
                starEnd = std::min(text.find(pattern[wanted], starEnd), text.size());
        }
        at = starEnd;
    }
    return pattern.find_first_not_of(C{'*'}, wanted) == pattern.npos;
}

template <class C>
int OrderNoCase(std::basic_string_view<C> a, std::basic_string_view<C> b) {
    const std::size_t common = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < common; ++i) {
        if constexpr (std::is_same_v<C, wchar_t>) {
            if (!IsAscii(a[i]) || !IsAscii(b[i])) return RestOrderNoCase(a.substr(i), b.substr(i));
        }
        const auto upperA = static_cast<std::make_unsigned_t<C>>(UpperAscii(a[i]));
        const auto upperB = static_cast<std::make_unsigned_t<C>>(UpperAscii(b[i]));
        if (upperA != upperB) return upperA < upperB ? -1 : 1;
    }
    return a.size() < b.size() ? -1 : a.size() > b.size() ? 1 : 0;
}

}  // namespace

template <class C>
_TQStringT<C>::_TQStringT(const C* text) : _TQStringT(_TQTextT<C>(text).View()) {}

template <class C>
_TQStringT<C>::_TQStringT(const C* text, std::size_t length)
    : _TQStringT(std::basic_string_view<C>(text, text ? length : 0)) {
    if (!text && length) TQStdExceptions::ThrowParameterInvalidError(L"TQString::TQString");
}

template <class C>
_TQStringT<C>::_TQStringT(std::basic_string_view<C> text)
    : m_text(Translated(L"TQString::TQString", [&] { return std::basic_string<C>(text); })) {}

template <class C>
_TQStringT<C>::_TQStringT(const std::basic_string<C>& text) : _TQStringT(std::basic_string_view<C>(text)) {}

template <class C>
_TQStringT<C>::_TQStringT(std::basic_string<C>&& text) noexcept : m_text(std::move(text)) {}

template <class C>
_TQStringT<C>::_TQStringT(const _TQStringT& other) : _TQStringT(other.View()) {}

template <class C>
_TQStringT<C>& _TQStringT<C>::operator=(const _TQStringT& other) {
    return Assign(other);
}

template <class C>
_TQStringT<C>::~_TQStringT() = default;

template <class C>
_TQStringT<C>& _TQStringT<C>::Assign(_TQTextT<C> text) {
    Translated(L"TQString::Assign", [&] { m_text.assign(text.View()); });
    return *this;
}

template <class C>
_TQStringT<C>& _TQStringT<C>::Append(_TQTextT<C> text) {
    Translated(L"TQString::Append", [&] { m_text.append(text.View()); });
    return *this;
}

template <class C>
_TQStringT<C>& _TQStringT<C>::operator+=(_TQTextT<C> text) {
    return Append(text);
}

template <class C>
void _TQStringT<C>::GrowForCharacters() {
    constexpr std::size_t FewCharacters = 31;
    Translated(L"TQString::Append", [&] {
        m_text.reserve(std::max(FewCharacters, std::min(2 * m_text.capacity(), m_text.max_size())));
    });
    if (m_text.size() == m_text.capacity()) TQStdExceptions::ThrowOverflowError(L"TQString::Append");
}

template <class C>
_TQStringT<C>& _TQStringT<C>::Insert(std::size_t position, _TQTextT<C> text) {
    if (position > Length()) TQStdExceptions::ThrowIndexError(L"TQString::Insert");
    Translated(L"TQString::Insert", [&] { m_text.insert(position, text.View()); });
    return *this;
}

template <class C>
_TQStringT<C>& _TQStringT<C>::Remove(std::size_t position, std::size_t count) {
    if (position > Length()) TQStdExceptions::ThrowIndexError(L"TQString::Remove");
    m_text.erase(position, count);
    return *this;
}

template <class C>
void _TQStringT<C>::Reserve(std::size_t length) {
    Translated(L"TQString::Reserve", [&] { m_text.reserve(length); });
}

template <class C>
_TQStringT<C> _TQStringT<C>::Left(std::size_t count) const {
    return View().substr(0, count);
}

template <class C>
_TQStringT<C> _TQStringT<C>::Right(std::size_t count) const {
    return View().substr(Length() - std::min(count, Length()));
}

template <class C>
_TQStringT<C> _TQStringT<C>::Mid(std::size_t position, std::size_t count) const {
    if (position > Length()) TQStdExceptions::ThrowIndexError(L"TQString::Mid");
    return View().substr(position, count);
}

template <class C>
std::size_t _TQStringT<C>::Find(_TQTextT<C> text, std::size_t from) const noexcept {
    return m_text.find(text.View(), from);
}

template <class C>
std::size_t _TQStringT<C>::FindNoCase(_TQTextT<C> text, std::size_t from) const noexcept {
    return FindNoCaseIn(View(), text.View(), from);
}

template <class C>
std::size_t _TQStringT<C>::ReverseFind(_TQTextT<C> text, std::size_t from) const noexcept {
    return m_text.rfind(text.View(), from);
}

template <class C>
std::size_t _TQStringT<C>::FindAny(_TQTextT<C> set, std::size_t from) const noexcept {
    return _TQCharacterSet<C>(set.View()).Find(View(), from);
}

template <class C>
std::size_t _TQStringT<C>::FindNotAny(_TQTextT<C> set, std::size_t from) const noexcept {
    return _TQCharacterSet<C>(set.View()).Find(View(), from, false);
}

template <class C>
bool _TQStringT<C>::Contains(_TQTextT<C> text) const noexcept {
    return Find(text) != NotFound;
}

template <class C>
bool _TQStringT<C>::ContainsNoCase(_TQTextT<C> text) const noexcept {
    return FindNoCase(text) != NotFound;
}

template <class C>
std::size_t _TQStringT<C>::Count(_TQTextT<C> text) const noexcept {
    const std::size_t length = text.View().size();
    if (length == 0) return 0;
    if (length == 1) return static_cast<std::size_t>(std::count(begin(), end(), text.View()[0]));
    std::size_t count = 0;
    for (std::size_t at = 0; (at = Find(text, at)) != NotFound; at += length)
        ++count;
    return count;
}

template <class C>
bool _TQStringT<C>::Matches(_TQTextT<C> pattern) const noexcept {
    return MatchesPattern(View(), pattern.View(), std::equal_to<C>());
}

template <class C>
bool _TQStringT<C>::MatchesNoCase(_TQTextT<C> pattern) const noexcept {
    return MatchesPattern(View(), pattern.View(), &AreSameNoCase<C>);
}

template <class C>
std::size_t _TQStringT<C>::Replace(_TQTextT<C> what, _TQTextT<C> with) {
    return ReplaceFound(what, with, [&](std::size_t from) { return Find(what, from); });
}

template <class C>
std::size_t _TQStringT<C>::ReplaceNoCase(_TQTextT<C> what, _TQTextT<C> with) {
    return ReplaceFound(what, with, [&](std::size_t from) { return FindNoCase(what, from); });
}

template <class C>
template <class Search>
std::size_t _TQStringT<C>::ReplaceFound(_TQTextT<C> what, _TQTextT<C> with, Search find) {
    if (what.View().empty()) return 0;
    return Translated(L"TQString::Replace", [&] {
        std::basic_string<C> result;
        std::size_t count = 0;
        std::size_t at = 0;
        for (std::size_t next; (next = find(at)) != NotFound; ++count) {
            result.append(m_text, at, next - at).append(with.View());
            at = next + what.View().size();
        }
        if (count == 0) return count;
        result.append(m_text, at);
        m_text = std::move(result);
        return count;
    });
}

template <class C>
_TQStringT<C>& _TQStringT<C>::TrimLeft() {
    return TrimLeft(WhiteSpaceView<C>);
}

template <class C>
_TQStringT<C>& _TQStringT<C>::TrimLeft(_TQTextT<C> set) {
    m_text.erase(0, std::min(m_text.find_first_not_of(set.View()), Length()));
    return *this;
}

template <class C>
_TQStringT<C>& _TQStringT<C>::TrimRight() {
    return TrimRight(WhiteSpaceView<C>);
}

template <class C>
_TQStringT<C>& _TQStringT<C>::TrimRight(_TQTextT<C> set) {
    // The position is one below 0 where nothing stays.
    m_text.erase(m_text.find_last_not_of(set.View()) + 1);
    return *this;
}

template <class C>
_TQStringT<C>& _TQStringT<C>::Trim() {
    return Trim(WhiteSpaceView<C>);
}

template <class C>
_TQStringT<C>& _TQStringT<C>::Trim(_TQTextT<C> set) {
    return TrimRight(set).TrimLeft(set);
}

template <class C>
_TQStringT<C>& _TQStringT<C>::PadLeft(std::size_t length, C fill) {
    if (length > Length())
        Translated(L"TQString::PadLeft", [&] { m_text.insert(std::size_t{0}, length - Length(), fill); });
    return *this;
}

template <class C>
_TQStringT<C>& _TQStringT<C>::PadRight(std::size_t length, C fill) {
    if (length > Length()) Translated(L"TQString::PadRight", [&] { m_text.resize(length, fill); });
    return *this;
}

template <class C>
_TQStringT<C>& _TQStringT<C>::Repeat(std::size_t count) {
    if (count != 0 && Length() > m_text.max_size() / count)
        TQStdExceptions::ThrowOverflowError(L"TQString::Repeat");
    Translated(L"TQString::Repeat", [&] {
        std::basic_string<C> result;
        result.reserve(count * Length());
        for (; count != 0; --count)
            result += m_text;
        m_text = std::move(result);
    });
    return *this;
}

template <class C>
_TQStringT<C> _TQStringT<C>::ToUpper() const {
    return Translated(L"TQString::ToUpper", [&] { return InUpper(View()); });
}

template <class C>
_TQStringT<C> _TQStringT<C>::ToLower() const {
    return Translated(L"TQString::ToLower", [&] { return InLower(View()); });
}

template <class C>
int _TQStringT<C>::Compare(_TQTextT<C> text) const noexcept {
    return View().compare(text.View());
}

template <class C>
int _TQStringT<C>::CompareNoCase(_TQTextT<C> text) const {
    return OrderNoCase(View(), text.View());
}

template <class C>
bool _TQStringT<C>::StartsWith(_TQTextT<C> text) const noexcept {
    return View().starts_with(text.View());
}

template <class C>
bool _TQStringT<C>::StartsWithNoCase(_TQTextT<C> text) const {
    return OrderNoCase(View().substr(0, text.View().size()), text.View()) == 0;
}

template <class C>
bool _TQStringT<C>::EndsWith(_TQTextT<C> text) const noexcept {
    return View().ends_with(text.View());
}

template <class C>
bool _TQStringT<C>::EndsWithNoCase(_TQTextT<C> text) const {
    return OrderNoCase(View().substr(Length() - std::min(text.View().size(), Length())), text.View()) == 0;
}

template <class C>
void _TQStringT<C>::AppendArgs(const C* format, std::span<const TQFormatArg> args,
                               std::span<const _TQFormatPiece> pieces) {
    std::array<C, 256> buffer;
    const std::size_t length = FormatArgsTo(buffer, format, args, pieces);
    Translated(L"TQString::Format", [&] {
        if (length < buffer.size()) {
            m_text.append(buffer.data(), length);
            return;
        }
        // Not at once into the own text, which the arguments may refer to.
        std::basic_string<C> whole(length, C{});
        FormatArgsTo({whole.data(), length + 1}, format, args, pieces);
        m_text.append(whole);
    });
}

namespace {

std::string Utf8Of(std::wstring_view text) {
    return Translated(L"TQString::ToUtf8", [&] {
        std::string bytes(Platform::Utf8Length(text), '\0');
        Platform::WideToUtf8(text, bytes);
        return bytes;
    });
}

std::wstring WideOf(std::string_view text) {
    return Translated(L"TQString::FromUtf8", [&] {
        std::wstring wide(Platform::WideLength(text), L'\0');
        Platform::Utf8ToWide(text, wide);
        return wide;
    });
}

template <class To, class From>
std::basic_string<To> CodePointsOf(std::basic_string_view<From> text, const wchar_t* where) {
    return Translated(where, [&] {
        std::basic_string<To> result;
        result.reserve(text.size());
        for (std::size_t at = 0; at < text.size();) {
            const CodePoint point = CodePointAt(text, at);
            PutCodePoint<To>(point.code, [&](To unit) { result += unit; });
            at += point.units;
        }
        return result;
    });
}

std::string AnsiOf(std::wstring_view text) {
    constexpr auto Where = L"TQString::ToAnsi";
    if (text.empty()) return {};
    const int length = CallLength(text.size(), Where);
    const int needed = WideCharToMultiByte(CP_ACP, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    if (needed == 0) TQStdExceptions::ThrowLastError(Where);
    return Translated(Where, [&] {
        std::string bytes(static_cast<std::size_t>(needed), '\0');
        if (WideCharToMultiByte(CP_ACP, 0, text.data(), length, bytes.data(), needed, nullptr, nullptr) ==
            0) {
            TQStdExceptions::ThrowLastError(Where);
        }
        return bytes;
    });
}

std::wstring WideOfAnsi(std::string_view text) {
    constexpr auto Where = L"TQString::FromAnsi";
    if (text.empty()) return {};
    const int length = CallLength(text.size(), Where);
    const int needed = MultiByteToWideChar(CP_ACP, 0, text.data(), length, nullptr, 0);
    if (needed == 0) TQStdExceptions::ThrowLastError(Where);
    return Translated(Where, [&] {
        std::wstring wide(static_cast<std::size_t>(needed), L'\0');
        if (MultiByteToWideChar(CP_ACP, 0, text.data(), length, wide.data(), needed) == 0) {
            TQStdExceptions::ThrowLastError(Where);
        }
        return wide;
    });
}

}  // namespace

// Some compilers make these for narrow text too, where nobody can call them: there they are empty.

template <class C>
_TQStringT<char> _TQStringT<C>::ToUtf8() const requires std::is_same_v<C, wchar_t> {
    if constexpr (std::is_same_v<C, wchar_t>) return Utf8Of(View());
    return {};
}

template <class C>
_TQStringT<C> _TQStringT<C>::FromUtf8(_TQTextT<char> text) requires std::is_same_v<C, wchar_t> {
    if constexpr (std::is_same_v<C, wchar_t>) return WideOf(text.View());
    return {};
}

template <class C>
std::u16string _TQStringT<C>::ToUtf16() const requires std::is_same_v<C, wchar_t> {
    return CodePointsOf<char16_t>(View(), L"TQString::ToUtf16");
}

template <class C>
std::u32string _TQStringT<C>::ToUtf32() const requires std::is_same_v<C, wchar_t> {
    return CodePointsOf<char32_t>(View(), L"TQString::ToUtf32");
}

template <class C>
_TQStringT<C> _TQStringT<C>::FromUtf16(std::u16string_view text) requires std::is_same_v<C, wchar_t> {
    return CodePointsOf<C>(text, L"TQString::FromUtf16");
}

template <class C>
_TQStringT<C> _TQStringT<C>::FromUtf32(std::u32string_view text) requires std::is_same_v<C, wchar_t> {
    return CodePointsOf<C>(text, L"TQString::FromUtf32");
}

template <class C>
_TQStringT<char> _TQStringT<C>::ToAnsi() const requires std::is_same_v<C, wchar_t> {
    if constexpr (std::is_same_v<C, wchar_t>) return AnsiOf(View());
    return {};
}

template <class C>
_TQStringT<C> _TQStringT<C>::FromAnsi(_TQTextT<char> text) requires std::is_same_v<C, wchar_t> {
    if constexpr (std::is_same_v<C, wchar_t>) return WideOfAnsi(text.View());
    return {};
}

template class _TQStringT<wchar_t>;
template class _TQStringT<char>;

TQString::~TQString() = default;

}  // namespace Quellan::Corvel
