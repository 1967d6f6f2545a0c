// Structured exceptions as C++ exceptions, thread by thread.
#pragma once

#include "platform/Types.h"

struct _EXCEPTION_POINTERS;

namespace Quellan::Corvel::Platform {

// Called on the faulting thread, outside of any signal or exception handler, as if by the faulting instruction: it
// throws the C++ exception that stands for the fault. `code` is the exception code; the record and the context
// behind `pointers` live until the translator is left. A translator that returns ends the process.
using StructuredExceptionTranslator = void (*)(unsigned int code, _EXCEPTION_POINTERS* pointers);

// Sets the calling thread's translator and returns the one it had. While a thread has none (null, as every thread
// starts), a fault on it does what it would have done without this library: earlier handlers run, or the process ends.
TQLIB_API StructuredExceptionTranslator SetStructuredExceptionTranslator(StructuredExceptionTranslator translator);

}  // namespace Quellan::Corvel::Platform
