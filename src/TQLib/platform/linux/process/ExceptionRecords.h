// Structured exceptions on Linux: the records that describe one, and raising one by hand.
//
// Faults arrive as signals (SIGSEGV, SIGBUS, SIGFPE, SIGILL), whose handlers are installed when the first
// thread of the process sets a translator (platform/StructuredExceptions.h). The handlers that were there
// before stay in charge of signals sent by somebody and of threads without a translator; they run on the
// thread's alternate stack. A handler installed later takes the faults away from the translators unless it
// calls the one it replaced.
//
// With the environment variable TQLIB_TRAP=direct, or under valgrind, the translator is called from within
// the signal handler: valgrind needs it, the sanitizers cannot stand it, and floating-point traps are off
// after it. Valgrind has to be given --vex-guest-chase=no --vex-iropt-register-updates=allregs-at-each-insn,
// or it tells the handler a wrong program counter.
//
// Differences from Windows: a privileged instruction is reported as the processor reports it here, a read of
// address ~0; a denormal operand as an underflow; on ARM64 integer division by zero does not fault.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Platform {

using ULONG_PTR = std::uintptr_t;

constexpr DWORD EXCEPTION_GUARD_PAGE = 0x80000001;
constexpr DWORD EXCEPTION_DATATYPE_MISALIGNMENT = 0x80000002;
constexpr DWORD EXCEPTION_BREAKPOINT = 0x80000003;
constexpr DWORD EXCEPTION_SINGLE_STEP = 0x80000004;
constexpr DWORD EXCEPTION_ACCESS_VIOLATION = 0xC0000005;
constexpr DWORD EXCEPTION_IN_PAGE_ERROR = 0xC0000006;
constexpr DWORD EXCEPTION_INVALID_HANDLE = 0xC0000008;
constexpr DWORD EXCEPTION_ILLEGAL_INSTRUCTION = 0xC000001D;
constexpr DWORD EXCEPTION_NONCONTINUABLE_EXCEPTION = 0xC0000025;
constexpr DWORD EXCEPTION_INVALID_DISPOSITION = 0xC0000026;
constexpr DWORD EXCEPTION_ARRAY_BOUNDS_EXCEEDED = 0xC000008C;
constexpr DWORD EXCEPTION_FLT_DENORMAL_OPERAND = 0xC000008D;
constexpr DWORD EXCEPTION_FLT_DIVIDE_BY_ZERO = 0xC000008E;
constexpr DWORD EXCEPTION_FLT_INEXACT_RESULT = 0xC000008F;
constexpr DWORD EXCEPTION_FLT_INVALID_OPERATION = 0xC0000090;
constexpr DWORD EXCEPTION_FLT_OVERFLOW = 0xC0000091;
constexpr DWORD EXCEPTION_FLT_STACK_CHECK = 0xC0000092;
constexpr DWORD EXCEPTION_FLT_UNDERFLOW = 0xC0000093;
constexpr DWORD EXCEPTION_INT_DIVIDE_BY_ZERO = 0xC0000094;
constexpr DWORD EXCEPTION_INT_OVERFLOW = 0xC0000095;
constexpr DWORD EXCEPTION_PRIV_INSTRUCTION = 0xC0000096;
constexpr DWORD EXCEPTION_STACK_OVERFLOW = 0xC00000FD;
constexpr DWORD EXCEPTION_POSSIBLE_DEADLOCK = 0xC0000194;

constexpr DWORD EXCEPTION_NONCONTINUABLE = 1;
constexpr DWORD EXCEPTION_MAXIMUM_PARAMETERS = 15;

// What `ExceptionInformation[0]` of an access violation or in-page error says about the access.
constexpr ULONG_PTR EXCEPTION_READ_FAULT = 0;
constexpr ULONG_PTR EXCEPTION_WRITE_FAULT = 1;
constexpr ULONG_PTR EXCEPTION_EXECUTE_FAULT = 8;

// Parameters: an access violation has the kind of access and the address; an in-page error has these and the
// status of the failed read or write, always 0xC0000185, because the kernel names no reason; other faults
// have none.
struct _EXCEPTION_RECORD {
    DWORD ExceptionCode;
    DWORD ExceptionFlags;
    _EXCEPTION_RECORD* ExceptionRecord;
    void* ExceptionAddress;
    DWORD NumberParameters;
    ULONG_PTR ExceptionInformation[EXCEPTION_MAXIMUM_PARAMETERS];
};
using EXCEPTION_RECORD = _EXCEPTION_RECORD;

// The integer registers at the fault, under the names they have on Windows but in a layout of their own.
// After `RaiseException` only the program counter and the stack pointer are filled in.
struct _CONTEXT {
#if defined(__x86_64__)
    DWORD64 Rax, Rcx, Rdx, Rbx, Rsp, Rbp, Rsi, Rdi, R8, R9, R10, R11, R12, R13, R14, R15;
    DWORD64 Rip;
    DWORD64 EFlags;
#elif defined(__aarch64__)
    DWORD64 X[31];
    DWORD64 Sp;
    DWORD64 Pc;
    DWORD64 Cpsr;
#else
#error "structured exceptions know x86-64 and ARM64"
#endif
};
using CONTEXT = _CONTEXT;

struct _EXCEPTION_POINTERS {
    EXCEPTION_RECORD* ExceptionRecord;
    CONTEXT* ContextRecord;
};
using EXCEPTION_POINTERS = _EXCEPTION_POINTERS;

// Raises a software exception on the calling thread: its translator is called with the code (bit 28 cleared,
// as it is reserved to the system), the flags, the address of the call and the arguments, of which those past
// the 15th are dropped. Without a translator, or where the exception may not reach it (`ReachesTranslator`),
// one line goes to the standard error and the process ends by SIGABRT. Never returns.
TQLIB_API void RaiseException(DWORD code, DWORD flags, DWORD count, const ULONG_PTR* arguments);

}  // namespace Quellan::Platform
