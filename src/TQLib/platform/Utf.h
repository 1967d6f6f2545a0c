// Conversion between UTF-8 and the platform's wide text (UTF-16 where wchar_t has 16 bits, UTF-32 where it
// has 32): the one place where text changes its form. Invalid UTF-8, unpaired surrogates and values that are
// no code point become U+FFFD here and never travel on. Nothing here throws or allocates.
#pragma once

#include "TQLib/platform/Types.h"

#include <span>
#include <string_view>

namespace Quellan::Platform {

// The number of wide characters that `text` has once converted.
TQLIB_API std::size_t WideLength(std::string_view text) noexcept;

// The number of UTF-8 bytes that `text` has once converted.
TQLIB_API std::size_t Utf8Length(std::wstring_view text) noexcept;

// Whether converting `text` would replace nothing.
TQLIB_API bool IsValidText(std::string_view text) noexcept;
TQLIB_API bool IsValidText(std::wstring_view text) noexcept;

// The size of what `text` begins with of valid text: all of it, or up to what would be replaced first.
TQLIB_API std::size_t ValidLength(std::string_view text) noexcept;
TQLIB_API std::size_t ValidLength(std::wstring_view text) noexcept;

// Converts into `out`, which must hold the result (`WideLength` characters, `text.size()` always suffice);
// returns the number of characters written. No terminator is added.
TQLIB_API std::size_t Utf8ToWide(std::string_view text, std::span<wchar_t> out) noexcept;

// Copies what `text` begins with of the characters that ASCII prints, U+0020 to U+007E, into `out`, which must
// hold `text.size()` bytes; returns their number. They are the same bytes in each ANSI code page.
TQLIB_API std::size_t CopyPrintable(std::wstring_view text, char* out) noexcept;

// Converts into `out`, which must hold the result (`Utf8Length` bytes, `text.size()` * 4 always suffice);
// returns the number of bytes written. No terminator is added.
TQLIB_API std::size_t WideToUtf8(std::wstring_view text, std::span<char> out) noexcept;

}  // namespace Quellan::Platform
