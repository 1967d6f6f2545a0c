// Characters without regard to case, one by one and the same in every locale.
#pragma once

#include <string_view>

namespace Quellan::Platform {

wchar_t ToUpper(wchar_t character) noexcept;
wchar_t ToLower(wchar_t character) noexcept;

// Negative, zero or positive. The order is that of UTF-16 code units, of upper-case letters when case is
// ignored.
int CompareOrdinal(std::wstring_view left, std::wstring_view right, bool ignoreCase) noexcept;

}  // namespace Quellan::Platform
