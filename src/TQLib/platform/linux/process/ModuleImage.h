// The message tables inside a module: in the notes of an ELF image, or in the resources of a Windows module
// that is loaded as a data file. The bytes are not trusted; docs/formats/message-table.md describes both.
#pragma once

#include "TQLib/platform/Types.h"

#include <functional>
#include <span>

namespace Quellan::Platform {

// Which of a module's tables: its messages, or its strings, which lie in tables of the same form. Windows
// modules keep their strings in another form, which is not read.
enum class TableKind : DWORD { Messages = 1, Strings = 2 };

// Called with each table found, in the order of the image.
using MessageTableVisitor = std::function<void(LANGID language, std::span<const std::byte> table)>;

// The tables in a run of ELF notes whose entries are aligned to `alignment` bytes, 4 or 8. What is malformed
// ends the visit and is left out.
void VisitNotes(std::span<const std::byte> notes, std::size_t alignment, const MessageTableVisitor& visit,
                TableKind kind = TableKind::Messages);

// The tables of a module file. Returns 0, 193 (ERROR_BAD_EXE_FORMAT) when it is no module of either kind, or
// 13 (ERROR_INVALID_DATA) when its structure leads out of the file.
TQLIB_API DWORD VisitModuleFile(std::span<const std::byte> file, const MessageTableVisitor& visit,
                                TableKind kind = TableKind::Messages);

// Whether the file is an ELF module that this process could load.
bool IsLoadableModule(std::span<const std::byte> file) noexcept;

}  // namespace Quellan::Platform
