// Telling the tools that look for data races in a program what the library's locks and waits order: such a
// tool sees neither the atomic words nor the sleeps of a library that was not built for it. A thread
// sanitizer of the program is told, and valgrind's helgrind; without them a call costs one look at a flag.
#pragma once

#include <cstddef>

namespace Quellan::Platform {

#if defined(_WIN32)

inline void TellReleased(const void*) noexcept {}
inline void TellAcquired(const void*) noexcept {}
inline void TellOwnMemory(const void*, std::size_t) noexcept {}

#else

// Whether there is such a tool; found out when the library is loaded.
extern bool g_hasRaceTool;
void TellToolReleased(const void* what) noexcept;
void TellToolAcquired(const void* what) noexcept;
void TellToolOwnMemory(const void* what, std::size_t size) noexcept;

// What the calling thread has done until now comes before what any thread does after it has told that it
// acquired `what`, an address and no more.
inline void TellReleased(const void* what) noexcept {
    if (g_hasRaceTool) [[unlikely]]
        TellToolReleased(what);
}
inline void TellAcquired(const void* what) noexcept {
    if (g_hasRaceTool) [[unlikely]]
        TellToolAcquired(what);
}
// Until it is given back the memory is changed by atomic steps and under locks that helgrind does not know.
inline void TellOwnMemory(const void* what, std::size_t size) noexcept {
    if (g_hasRaceTool) [[unlikely]]
        TellToolOwnMemory(what, size);
}

#endif

}  // namespace Quellan::Platform
