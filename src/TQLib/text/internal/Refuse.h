// Refusing text from outside with a message that shows it.
#pragma once

#include "TQLib/platform/Types.h"

#include <cstddef>
#include <string_view>

namespace Quellan::Corvel {

// Throws a `TQCoreException` with `code`; its message is `format`, in which %s is the text, shortened where it is long.
[[noreturn]] void RefuseText(DWORD code, const wchar_t* format, std::wstring_view text);
[[noreturn]] void RefuseText(DWORD code, const wchar_t* format, std::string_view text);

// Throws 13 (ERROR_INVALID_DATA) with the message "`where`: `what` at offset `offset`.".
[[noreturn]] void RefuseAt(const wchar_t* where, const wchar_t* what, std::size_t offset);

}  // namespace Quellan::Corvel
