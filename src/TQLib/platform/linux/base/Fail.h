// How a layer function ends: it hands the code of its inner function to the last error.
#pragma once

#include "TQLib/platform/linux/base/Errors.h"

#include <new>

namespace Quellan::Platform {

// Sets the last error and returns the caller's failure value.
template <class T>
T Fail(DWORD code, T result) noexcept {
    SetLastError(code);
    return result;
}

// Calls an inner function that allocates: memory that is missing is a code like any other.
template <class Call>
DWORD WithMemory(Call call) noexcept {
    try {
        return call();
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}

}  // namespace Quellan::Platform
