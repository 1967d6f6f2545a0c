// How a layer function ends: it hands the code of its inner function to the last error.
#pragma once

#include "platform/linux/Errors.h"

namespace Quellan::Corvel::Platform {

// Sets the last error and returns the caller's failure value.
template <class T>
T Fail(DWORD code, T result) noexcept {
    SetLastError(code);
    return result;
}

}  // namespace Quellan::Corvel::Platform
