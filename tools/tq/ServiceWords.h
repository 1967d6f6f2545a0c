// The words of `tq service` that say how services are installed, and what all its words have in common.
#pragma once

#include "Command.h"

namespace tq {

int Create(Arguments& arguments, Quellan::Corvel::TQConsole& out);
int Config(Arguments& arguments, Quellan::Corvel::TQConsole& out);
int Failure(Arguments& arguments, Quellan::Corvel::TQConsole& out);

// In milliseconds; throws UsageError where the text is no number of seconds.
DWORD ParseSeconds(const Quellan::Corvel::TQString& text);
[[noreturn]] void ThrowUnknownOption(const Quellan::Corvel::TQString& option);

}  // namespace tq
