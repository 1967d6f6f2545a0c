// The standard library's failures as the library's own.
#pragma once

#include "TQLib/text/memory/TQStdExceptions.h"

#include <new>
#include <stdexcept>

namespace Quellan::Corvel {

// Does `work`; exhausted memory and a length past the largest are thrown as the library's exceptions.
template <class Work>
decltype(auto) Translated(const wchar_t* where, Work work) {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        TQStdExceptions::ThrowMemAllocError(where);
    } catch (const std::length_error&) {
        TQStdExceptions::ThrowOverflowError(where);
    }
}

}  // namespace Quellan::Corvel
