// The code that an operation throws, so that a test reads EXPECT_EQ(ThrownCode([&] { buffer.At(3); }), 1413).
#pragma once

#include "TQLib/core/TQException.h"

#include <utility>

namespace Quellan::Corvel::Test {

// The error code of the library exception that `operation` throws, 0 when it throws nothing. Any other
// exception is let through and fails the test.
template <class Operation>
DWORD ThrownCode(Operation&& operation) {
    try {
        std::forward<Operation>(operation)();
    } catch (const TQCoreException& failure) {
        return static_cast<DWORD>(failure.COMErrCode());
    }
    return 0;
}

}  // namespace Quellan::Corvel::Test
