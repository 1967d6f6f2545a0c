// What an operation throws, so that a test reads EXPECT_EQ(ThrownCode([&] { buffer.At(3); }), 1413).
#pragma once

#include "TQLib/core/TQException.h"

#include <string>
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

// The message of the library exception that `operation` throws, in the log's language; empty when it throws
// nothing.
template <class Operation>
std::wstring ThrownText(Operation&& operation) {
    try {
        std::forward<Operation>(operation)();
    } catch (const TQCoreException& failure) {
        return failure.ExcMsg(TQStrResDestination::Log).Std();
    }
    return {};
}

}  // namespace Quellan::Corvel::Test
