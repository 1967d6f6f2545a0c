// The names of a locale's language; `TQLocale` shows them to users.
#pragma once

#include "TQLib/text/TQString.h"

namespace Quellan::Corvel {

// The full name, such as "en-US", and that of the language alone, such as "en"; both empty for an identifier
// that the platform does not know. Throw `TQSysException` with the platform's code for any other failure.
TQString LanguageName(LCID locale);
TQString LanguageBaseName(LCID locale);

}  // namespace Quellan::Corvel
