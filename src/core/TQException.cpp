#include "core/TQException.h"
#include "core/TQStdExceptions.h"
#include "platform/Win32.h"
namespace Quellan::Corvel {
TQCoreException::~TQCoreException() = default;
TQException::~TQException() = default;
void TQStdExceptions::ThrowLastError(const wchar_t*) { throw TQCoreException(GetLastError()); }
void TQStdExceptions::ThrowOverflowError(const wchar_t*) { throw TQCoreException(111); }
void TQStdExceptions::ThrowDataInvalidError(const wchar_t*) { throw TQCoreException(13); }
void TQStdExceptions::ThrowIndexError(const wchar_t*) { throw TQCoreException(1413); }
void TQStdExceptions::ThrowAccessError(const wchar_t*) { throw TQCoreException(5); }
void TQStdExceptions::ThrowBadFuncError(const wchar_t*) { throw TQCoreException(1); }
void TQStdExceptions::ThrowMemAllocError(const wchar_t*) { throw TQException(14); }
void TQStdExceptions::ThrowParameterInvalidError(const wchar_t*) { throw TQCoreException(87); }
void TQStdExceptions::ThrowUnknown(const wchar_t*) { throw TQCoreException(0x8000FFFFu); }
}
