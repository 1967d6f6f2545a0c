// What an operation throws, so that a test reads EXPECT_EQ(ThrownCode([&] { buffer.At(3); }), 1413).
#pragma once

#include "TQLib/platform/Types.h"

#include <functional>
#include <string>

namespace Quellan::Corvel::Test {

DWORD ThrownCodeOf(const std::function<void()>& operation);
std::wstring ThrownTextOf(const std::function<void()>& operation);

// The error code of the library exception that `operation` throws, 0 when it throws nothing. Any other
// exception is let through and fails the test. Allocates nothing.
template <class Operation>
DWORD ThrownCode(Operation&& operation) {
    return ThrownCodeOf(std::ref(operation));
}

// The message of the library exception that `operation` throws, in the log's language; empty when it throws
// nothing.
template <class Operation>
std::wstring ThrownText(Operation&& operation) {
    return ThrownTextOf(std::ref(operation));
}

}  // namespace Quellan::Corvel::Test
