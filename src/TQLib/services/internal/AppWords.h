// The words on the command line of a program with services.
#pragma once

#include "TQLib/services/TQService.h"

#include <optional>
#include <vector>

namespace Quellan::Corvel {

// Does what the first argument says with the services of this process, and returns the exit code; none where
// the services are to run. With `takesArguments` they have arguments of their own.
std::optional<DWORD> RunAppWord(const TQStringArray& commandLine, std::vector<_TQService*> services,
                                bool takesArguments);

bool IsAppWord(const TQString& text);

}  // namespace Quellan::Corvel
