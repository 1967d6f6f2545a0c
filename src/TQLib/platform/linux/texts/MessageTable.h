// Reading a message table: the platform's MESSAGE_RESOURCE_DATA, as message compilers write it. Its bytes
// come from a file and are not trusted; docs/formats/message-table.md describes them.
#pragma once

#include "TQLib/platform/Types.h"

#include <span>
#include <string>

namespace Quellan::Platform {

// Sets `text` to the text of message `id` with its inserts and escapes as they stand; `text` is unchanged on
// failure. Returns 0, 317 (ERROR_MR_MID_NOT_FOUND) when the table has no such message, or 13
// (ERROR_INVALID_DATA) when the way to it leads out of the table.
TQLIB_API DWORD FindMessage(std::span<const std::byte> table, DWORD id, std::wstring& text);

}  // namespace Quellan::Platform
