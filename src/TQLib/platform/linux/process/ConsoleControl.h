// The console's control events: what the signals that ask a process to end become.
//
//     SIGINT            CTRL_C_EVENT       Ctrl+C
//     SIGQUIT           CTRL_BREAK_EVENT   Ctrl+\ of a terminal
//     SIGHUP, SIGTERM   CTRL_CLOSE_EVENT   the terminal is closed; somebody asks the process to end
//
// The signals are caught from the first call of SetConsoleCtrlHandler on. One that the process was started to
// ignore, as by nohup or as a background command of a script, stays ignored.
#pragma once

#include "TQLib/platform/linux/base/Base.h"

namespace Quellan::Platform {

inline constexpr DWORD CTRL_C_EVENT = 0;
inline constexpr DWORD CTRL_BREAK_EVENT = 1;
inline constexpr DWORD CTRL_CLOSE_EVENT = 2;

// TRUE: the event is dealt with. FALSE: the next handler is asked.
using PHANDLER_ROUTINE = BOOL (*)(DWORD event);

// Adds a handler, or takes away the one added last of those that are `handler`: 87 (ERROR_INVALID_PARAMETER)
// where there is none. Each event calls the handlers on a new thread of its own, the one added last first,
// until one returns TRUE. Where none does, the signal does what it did before it was caught, which ends the
// process unless a signal handler of the application was there. After CTRL_CLOSE_EVENT it does so in any
// case: a handler that needs time to end the process in order returns only when that is done, for which the
// layer sets no limit.
//
// Without a handler: whether SIGINT is ignored, so that no handler is called for it, in this process and in
// those it starts. FALSE also ends an ignoring that the process was started with.
//
// A handler taken away while an event is under way may still be called for it. The child of a fork has no
// handlers. 8 (ERROR_NOT_ENOUGH_MEMORY).
TQLIB_API BOOL SetConsoleCtrlHandler(PHANDLER_ROUTINE handler, BOOL add) noexcept;

}  // namespace Quellan::Platform
