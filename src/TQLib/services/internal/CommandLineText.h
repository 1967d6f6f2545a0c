// Command lines.
#pragma once

#include "TQLib/text/TQStringArray.h"

namespace Quellan::Corvel {

// A program's path, in quotation marks, and arguments, quoted so that the program gets them as they are here.
TQString CommandLineText(const TQString& program, const TQStringArray& arguments);

}  // namespace Quellan::Corvel
