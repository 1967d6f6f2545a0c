// Structured exceptions as C++ exceptions, thread by thread.
//
// While a thread has a translator, faults of its own code (access violations, in-page errors, arithmetic
// faults, illegal instructions) and `RaiseException` on it call the translator, and what that throws unwinds
// like any other C++ exception. Destructors between the fault and its catch run in code compiled with this
// library's usage options
// (-fnon-call-exceptions -fasynchronous-unwind-tables). As with every C++ exception, a fault that would leave
// a noexcept function or a destructor ends the process in std::terminate; that includes memcpy, strlen and
// their kin called directly, which the compiler takes for functions that never throw.
//
// Never translated, always as without this library: stack overflow (on Linux reported on the standard error
// first), breakpoints, exceptions that are not errors or belong to another language's runtime
// (`ReachesTranslator`), and faults within the system's own code: on Windows memory faults in ntdll, kernel32
// and kernelbase, which the system means to handle itself; on Linux every fault in the C library except in
// its memory and string functions, because a lock may be held there.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Platform {

// Called on the faulting thread, outside of any signal or exception handler, as if by the faulting
// instruction: it throws the C++ exception that stands for the fault. `code` is the exception code; the
// record and the context behind `pointers` live until the translator is left. A translator that returns ends
// the process.
using StructuredExceptionTranslator = void (*)(unsigned int code, _EXCEPTION_POINTERS* pointers);

// Sets the calling thread's translator and returns the one it had. While a thread has none (null, as every
// thread starts and ends), a fault on it does what it would have done without this library: earlier handlers
// run, or the process ends. Throws std::bad_alloc, with nothing changed, where there is no memory for the
// thread's first translator.
TQLIB_API StructuredExceptionTranslator
SetStructuredExceptionTranslator(StructuredExceptionTranslator translator);

// Whether an exception of this code and these flags may reach a translator: it can be continued, it is an
// error by its severity bits, or a misaligned or guarded access, and neither a stack overflow nor a C++ or
// managed exception.
constexpr bool ReachesTranslator(unsigned int code, unsigned int flags) noexcept {
    constexpr unsigned int NonContinuable = 1, ErrorSeverity = 3;
    constexpr unsigned int GuardPage = 0x80000001, Misalignment = 0x80000002, StackOverflow = 0xC00000FD;
    constexpr unsigned int MicrosoftCpp = 0xE06D7363, Managed = 0xE0434352, OldManaged = 0xE0434F4D;
    if (flags & NonContinuable) return false;
    if (code == GuardPage || code == Misalignment) return true;
    return code >> 30 == ErrorSeverity && code != StackOverflow && code != MicrosoftCpp && code != Managed &&
           code != OldManaged;
}

}  // namespace Quellan::Platform
