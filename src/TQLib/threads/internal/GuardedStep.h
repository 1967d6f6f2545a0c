// The guard around what a thread or a service runs.
#pragma once

#include "TQLib/core/TQException.h"
#include "TQLib/text/TQString.h"

namespace Quellan::Corvel {

constexpr unsigned int UnknownExceptionCode = static_cast<unsigned int>(0x8000FFFF);  // E_UNEXPECTED

// Writes an exception that was caught in a thread to the system event log, as 0xCFFF4001.
void LogAsCaught(const TQCoreException& e, const wchar_t* where) noexcept;
// Writes what is known of one that is not of the library there, as 0xCFFF4002.
void LogAsUnhandled(const wchar_t* text) noexcept;

// Inside a catch clause: logs the exception being handled, a library exception as 0xCFFF4001, anything else
// as 0xCFFF4002, with the context; its text becomes the message. Returns its code.
unsigned int LogGuarded(const wchar_t* context, TQString& message) noexcept;

// Runs one step. An exception ends the step alone: it is logged, its text becomes the message and its code
// the step's value.
template <class Step>
unsigned int Guarded(const wchar_t* context, TQString& message, Step step) noexcept {
    try {
        return step();
    } catch (...) {
        return LogGuarded(context, message);
    }
}

// How a step without a value went.
struct Outcome {
    bool isDone = false;    // nothing was thrown
    unsigned int code = 0;  // of the exception
};

// The same for a step without a value, where nobody needs the message.
template <class Step>
Outcome Guarded(const wchar_t* context, Step step) noexcept {
    Outcome outcome;
    TQString message;
    outcome.code = Guarded(context, message, [&] {
        step();
        outcome.isDone = true;
        return 0u;
    });
    return outcome;
}

}  // namespace Quellan::Corvel
