// What monitor has to tell.
#pragma once

#include "TQLib/TQLib.h"

// Writes lines to the console and a record of `source` to the application's log. Either is done without where
// it can't be had. For any thread.
void Tell(Quellan::Corvel::TQLogLevel level, const Quellan::Corvel::STLString& source,
          const Quellan::Corvel::TQString& lines);
