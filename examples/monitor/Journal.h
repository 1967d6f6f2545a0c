// What monitor has to tell.
#pragma once

#include "TQLib/TQLib.h"

// The store of monitor's own messages, which are in English and German.
constexpr unsigned int MessageStore = 1;

// Writes lines to the console and a record of `source` to the application's log. Either is done without where
// it can't be had. For any thread.
void Tell(Quellan::Corvel::TQLogLevel level, const Quellan::Corvel::STLString& source,
          const Quellan::Corvel::TQString& lines);

// Tells of a failure and of what led to it: the console in the user's language, the log as a log block of
// `where` with the causes below.
void Tell(const Quellan::Corvel::TQCoreException& failure, const Quellan::Corvel::STLString& source,
          const wchar_t* where);
