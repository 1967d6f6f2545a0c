// The message tables of a module of this process, loaded as code or as a data file.
#pragma once

#include "TQLib/platform/linux/process/ModuleImage.h"

namespace Quellan::Platform {

// A null module is the executable. Returns 0, 1812 (ERROR_RESOURCE_DATA_NOT_FOUND) when `module` is none of
// this process, or what `VisitModuleFile` returns for a data file. The visitor must not load or free modules.
DWORD VisitModuleTables(HMODULE module, const MessageTableVisitor& visit, TableKind kind);

}  // namespace Quellan::Platform
