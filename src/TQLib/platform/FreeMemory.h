// Memory that the process has no use for.
#pragma once

namespace Quellan::Platform {

// Has the heap give the system back what is free in it. It takes a time that grows with the heap: only after
// very much was freed.
void ReturnFreeMemory() noexcept;

}  // namespace Quellan::Platform
