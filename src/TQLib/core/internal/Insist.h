// What must be done where nothing can be thrown: in closers, and in what wakes a thread that waits.
#pragma once

#include "TQLib/platform/Platform.h"

#include <initializer_list>

namespace Quellan::Corvel {

// Calls made on an object that the caller keeps. No lock of the library is held around them; none of them
// leaves the last error alone where a call failed.

constexpr DWORD InsistAgainMs = 1;

// Makes `call` until it answers yes. What fails a hundred times fails for good, and is left then.
template <class Call>
void Insist(Call call) noexcept {
    constexpr int MostTries = 100;
    for (int tries = 1; !call() && tries < MostTries; ++tries)
        Sleep(InsistAgainMs);
}

inline void SetSurely(HANDLE event) noexcept {
    Insist([event] { return SetEvent(event); });
}

// Waits until one of the objects is signalled and returns its place. A wait that fails has told nothing, so
// the caller could neither go on nor go back: it is begun anew.
inline DWORD AwaitSurely(std::initializer_list<HANDLE> objects) noexcept {
    const auto count = static_cast<DWORD>(objects.size());
    DWORD place;
    while ((place = WaitForMultipleObjects(count, objects.begin(), FALSE, INFINITE)) == WAIT_FAILED)
        Sleep(InsistAgainMs);
    return place;
}

}  // namespace Quellan::Corvel
