// What the process holds, to see that nothing is left behind.
#pragma once

#include <cstddef>

namespace Quellan::Corvel::Test {

struct Resources {
    std::size_t blocks;       // of operator new that are not freed; not counted on Windows
    std::size_t descriptors;  // on Windows: handles
    std::size_t threads;      // not counted on Windows

    static Resources Now();
    // Waits for what other threads still have to let go of. Fails the test, and names the difference, when more
    // than `before` is left after ten seconds.
    static void ComeBackTo(const Resources& before);
};

}  // namespace Quellan::Corvel::Test
