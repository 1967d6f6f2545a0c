// Where a log goes that has no place of its own.
#pragma once

#include <string>

namespace Quellan::Platform {

// A folder in which the process's user may make files and nobody else can have made one before: on Linux the
// folder "log" of his lasting state, made where it is missing, on Windows his folder for temporary files.
// Empty where there is none. May throw std::bad_alloc.
std::wstring FolderForLogs();

}  // namespace Quellan::Platform
