// Throwing the library's standard failures from any floor, without the exception classes themselves.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Corvel {

// Every function throws a `TQCoreException` (`ThrowMemAllocError` a `TQException`) with the code given beside
// it and never returns. `where` names the failing operation and becomes the message; null gives an empty one.
class TQLIB_API TQStdExceptions {
  public:
    // The calling thread's last error.
    [[noreturn]] static void ThrowLastError(const wchar_t* where);
    // 111, ERROR_BUFFER_OVERFLOW.
    [[noreturn]] static void ThrowOverflowError(const wchar_t* where);
    // 13, ERROR_INVALID_DATA.
    [[noreturn]] static void ThrowDataInvalidError(const wchar_t* where);
    // 1413, ERROR_INVALID_INDEX.
    [[noreturn]] static void ThrowIndexError(const wchar_t* where);
    // 5, ERROR_ACCESS_DENIED.
    [[noreturn]] static void ThrowAccessError(const wchar_t* where);
    // 1, ERROR_INVALID_FUNCTION.
    [[noreturn]] static void ThrowBadFuncError(const wchar_t* where);
    // 14, ERROR_OUTOFMEMORY. Throws without any allocation of the library's own where memory is exhausted.
    [[noreturn]] static void ThrowMemAllocError(const wchar_t* where);
    // 87, ERROR_INVALID_PARAMETER.
    [[noreturn]] static void ThrowParameterInvalidError(const wchar_t* where);
    // The exception for a failure of which nothing is known: code 0x8000FFFF, E_UNEXPECTED.
    [[noreturn]] static void ThrowUnknown(const wchar_t* where);

    // Throws the `TQException` kept in reserve for the time when memory is exhausted, made when the library was
    // loaded: code 14 (ERROR_OUTOFMEMORY), no message. What is thrown is a copy that tells this process and
    // thread; it needs no memory but its own, which the C++ runtime keeps in reserve.
    [[noreturn]] static void ThrowReserved();

  protected:
    TQStdExceptions() = default;
};

}  // namespace Quellan::Corvel
