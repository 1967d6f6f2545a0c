// The look-ups of modules that the exceptions and the message stores need. `TQSysProc` shows them to users and
// says what each does and throws; failures are told as its own.
#pragma once

#include "TQLib/text/TQString.h"
#include "TQLib/text/memory/TQHandle.h"

#include <string_view>

namespace Quellan::Corvel {

using TQModule = TQHandle<_TQModuleClose>;

TQModule LoadModule(const TQString& name);
HMODULE FindLoadedModule(const TQString& baseName);
TQString ModuleFileName(HMODULE module);
TQString ModuleBaseName(HMODULE module);
TQString ModuleAt(const void* address);

std::wstring_view WithoutFolder(std::wstring_view path) noexcept;

}  // namespace Quellan::Corvel
