// The words of `tq service` that say how services are installed, and what all its words have in common.
#pragma once

#include "Command.h"
#include "TQLib/platform/Win32.h"

namespace tq {

int Create(Arguments& arguments, Quellan::Corvel::TQConsole& out);
int Config(Arguments& arguments, Quellan::Corvel::TQConsole& out);
int Failure(Arguments& arguments, Quellan::Corvel::TQConsole& out);

// Throw UsageError where the text is none.
DWORD ParseNumber(const Quellan::Corvel::TQString& text, const wchar_t* what, DWORD last);
DWORD ParseSeconds(const Quellan::Corvel::TQString& text);  // milliseconds
[[noreturn]] void ThrowUnknownOption(const Quellan::Corvel::TQString& option);

}  // namespace tq
