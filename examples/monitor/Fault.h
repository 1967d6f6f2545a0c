// A fault on demand.
#pragma once

#include <cstdint>

// Raises an access violation, to show what becomes of one.
inline void RaiseFault() {
    const volatile std::uintptr_t nowhere = 8;
    *reinterpret_cast<volatile int*>(nowhere) = 0;
}
