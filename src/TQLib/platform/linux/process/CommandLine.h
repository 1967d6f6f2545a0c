// The command line of this process as one text, and its parts.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Platform {

// The arguments of this process, quoted so that `CommandLineToArgvW` gives them back. Owned by the layer.
// Null with 8 (ERROR_NOT_ENOUGH_MEMORY) where there is no memory for it at the first call; the next one tries
// again.
TQLIB_API const wchar_t* GetCommandLineW() noexcept;

// Splits a command line by the platform's rules of quotation marks and backslashes. The result is one block
// of local memory, to be released with `LocalFree`. An empty command line gives the path of the executable.
// Null with 87 for a null argument and with 14 where memory is exhausted.
TQLIB_API wchar_t** CommandLineToArgvW(const wchar_t* commandLine, int* argumentCount) noexcept;

}  // namespace Quellan::Platform
