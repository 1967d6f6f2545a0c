// What monitor has to tell.
#pragma once

#include "TQLib.h"

// Writes lines to the console and a record of `source` to the application's log. Where the log can't be had,
// the console has them alone. For any thread.
void Tell(Quellan::Corvel::TQLogLevel level, const Quellan::Corvel::STLString& source,
          const Quellan::Corvel::TQString& lines);
