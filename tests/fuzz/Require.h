// What a fuzz target demands of what it has read.
#pragma once

#include <cstdlib>

inline void Require(bool condition) {
    if (!condition) std::abort();
}
