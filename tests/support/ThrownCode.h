// What an operation throws, so that a test reads EXPECT_EQ(ThrownCode([&] { buffer.At(3); }), 1413).
#pragma once

#include "TQLib/platform/Types.h"

#include <functional>
#include <string>
#include <utility>

namespace Quellan::Corvel::Test {

using Failure = std::pair<DWORD, std::wstring>;  // a code and a message

DWORD ThrownCodeOf(const std::function<void()>& operation);
Failure FailureOf(const std::function<void()>& operation);

// The error code of the library exception that `operation` throws, 0 when it throws nothing. Any other
// exception is let through and fails the test. Allocates nothing.
template <class Operation>
DWORD ThrownCode(Operation&& operation) {
    return ThrownCodeOf(std::ref(operation));
}

// That code and the message in the log's language, which is empty when `operation` throws nothing.
template <class Operation>
Failure Thrown(Operation&& operation) {
    return FailureOf(std::ref(operation));
}
template <class Operation>
std::wstring ThrownText(Operation&& operation) {
    return Thrown(operation).second;
}

}  // namespace Quellan::Corvel::Test
