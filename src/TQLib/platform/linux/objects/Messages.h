// Messages posted to threads. The layer has no windows: a window handle is never valid.
#pragma once

#include "TQLib/platform/linux/objects/Waits.h"

namespace Quellan::Platform {

struct HWND__;
using HWND = HWND__*;
using WPARAM = std::uintptr_t;
using LPARAM = std::intptr_t;
using LRESULT = std::intptr_t;

struct POINT {
    LONG x;
    LONG y;
};

struct MSG {
    HWND hwnd;  // null
    UINT message;
    WPARAM wParam;
    LPARAM lParam;
    DWORD time;  // of posting, as GetTickCount tells it
    POINT pt;    // 0, 0
};

inline constexpr UINT WM_NULL = 0x0000;
inline constexpr UINT WM_QUIT = 0x0012;
inline constexpr UINT WM_USER = 0x0400;
inline constexpr UINT WM_APP = 0x8000;

inline constexpr UINT PM_NOREMOVE = 0x0000;
inline constexpr UINT PM_REMOVE = 0x0001;
inline constexpr UINT PM_NOYIELD = 0x0002;

inline constexpr DWORD QS_POSTMESSAGE = 0x0008;
inline constexpr DWORD QS_ALLPOSTMESSAGE = 0x0100;
inline constexpr DWORD QS_ALLEVENTS = 0x04BF;
inline constexpr DWORD QS_ALLINPUT = 0x04FF;

inline constexpr DWORD MWMO_WAITALL = 0x0001;
inline constexpr DWORD MWMO_ALERTABLE = 0x0002;
inline constexpr DWORD MWMO_INPUTAVAILABLE = 0x0004;

// A thread has a queue from the first time it looks for messages or waits for them until it ends. FALSE with
// 1444 (ERROR_INVALID_THREAD_ID) for a thread without a queue, 1816 (ERROR_NOT_ENOUGH_QUOTA) when it holds
// 10000 messages, 8 (ERROR_NOT_ENOUGH_MEMORY).
TQLIB_API BOOL PostThreadMessageW(DWORD thread, UINT message, WPARAM wParam, LPARAM lParam) noexcept;
// WM_QUIT will be the last message of those the calling thread has now and gets before it has taken them.
TQLIB_API void PostQuitMessage(int exitCode) noexcept;

// The first message from `first` to `last` (both 0 for all), if there is one; WM_QUIT is found in every
// range. The window is null or -1, both for a thread's messages: FALSE with 1400
// (ERROR_INVALID_WINDOW_HANDLE) for any other. With PM_NOREMOVE it stays in the queue. PM_NOYIELD changes
// nothing; FALSE with 87 (ERROR_INVALID_PARAMETER) for other flags.
TQLIB_API BOOL PeekMessageW(MSG* message, HWND window, UINT first, UINT last, UINT flags) noexcept;
// Waits for such a message and takes it. 0 for WM_QUIT, -1 for failures, otherwise 1.
TQLIB_API BOOL GetMessageW(MSG* message, HWND window, UINT first, UINT last) noexcept;
// There are no key strokes to translate: FALSE.
TQLIB_API BOOL TranslateMessage(const MSG* message) noexcept;
// There is no window to dispatch to: 0, with 1400 (ERROR_INVALID_WINDOW_HANDLE) when the message names one.
TQLIB_API LRESULT DispatchMessageW(const MSG* message) noexcept;

// Waits as WaitForMultipleObjectsEx does for at most 63 handles, and for new messages of the calling thread:
// WAIT_OBJECT_0 + count. A message is new until the thread has looked for messages, in whatever range, or
// such a wait has told of it; with MWMO_INPUTAVAILABLE every message in the queue counts. Without
// QS_POSTMESSAGE and QS_ALLPOSTMESSAGE in `wakeMask` messages don't end the wait. With MWMO_WAITALL all
// handles and a new message are needed. MWMO_ALERTABLE changes nothing: the layer has no asynchronous
// procedure calls. WAIT_FAILED with 87 (ERROR_INVALID_PARAMETER) for other flags or more handles.
TQLIB_API DWORD MsgWaitForMultipleObjectsEx(DWORD count, const HANDLE* handles, DWORD ms, DWORD wakeMask,
                                            DWORD flags) noexcept;

}  // namespace Quellan::Platform
