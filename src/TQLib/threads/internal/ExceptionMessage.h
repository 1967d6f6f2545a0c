// What is said of an exception that ended a step of a thread or an item of work.
#pragma once

#include "TQLib/core/TQWin32Exception.h"
#include "TQLib/text/TQString.h"

namespace Quellan::Corvel {

// The message alone, or where it can't be looked up the reason for that.
TQString MessageOf(const _TQWin32Exception& e) noexcept;
// For an exception of which at most a text is known; null says that there is none.
TQString Described(const wchar_t* context, const char* text) noexcept;

}  // namespace Quellan::Corvel
