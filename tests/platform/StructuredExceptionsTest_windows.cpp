#include "TQLib/platform/Win32.h"
#include "platform/StructuredExceptionsFaults.h"

#include <debugapi.h>
#include <stdexcept>

// A read of the address in rcx whose second and third byte, taken alone, are the end of a function: pop,
// return. An unwinder that believed them would return to a function with a frame so large that it misses the
// catch.
asm(R"(
    .text
    .seh_proc LargeFrame
LargeFrame:
    subq $4096, %rsp
    .seh_stackalloc 4096
    .seh_endprologue
    nop
WithinLargeFrame:
    nop
    addq $4096, %rsp
    ret
    .seh_endproc
    .seh_proc ReadThatEndsLikeAFunction
ReadThatEndsLikeAFunction:
    pushq %rbx
    .seh_pushreg %rbx
    subq $32, %rsp
    .seh_stackalloc 32
    .seh_endprologue
    leaq WithinLargeFrame(%rip), %rax
    movq %rax, (%rsp)
    movq %rax, 8(%rsp)
    leaq 61(%rcx), %rax
    movl -61(%rax), %ebx
    movl %ebx, %eax
    addq $32, %rsp
    popq %rbx
    ret
    .seh_endproc
)");
extern "C" int ReadThatEndsLikeAFunction(const int* from);

namespace Faults {

Page::Page(Access access)
    : m_address(VirtualAlloc(nullptr, 4096, MEM_RESERVE | MEM_COMMIT,
                             access == Access::None ? PAGE_NOACCESS : PAGE_READONLY)) {
    if (!m_address) throw std::runtime_error("VirtualAlloc");
}
Page::~Page() {
    VirtualFree(m_address, 0, MEM_RELEASE);
}

const void* ProgramCounterOf(const CONTEXT& context) {
    return reinterpret_cast<const void*>(context.Rip);
}

bool DiedOfAccessViolation(int status) {
    return static_cast<DWORD>(status) == EXCEPTION_ACCESS_VIOLATION;
}
bool DiedOfRaised(DWORD code, int status) {
    return static_cast<DWORD>(status) == code;
}

namespace {

TEST(StructuredExceptionsOnWindows, FaultsThatTheSystemHandlesItselfAreLeftToIt) {
    const Translated translated;
    const Page noAccess(Page::Access::None);
    EXPECT_TRUE(IsBadReadPtr(noAccess.At(0), 4));
    EXPECT_TRUE(IsBadStringPtrW(reinterpret_cast<const wchar_t*>(noAccess.At(0)), 4));
}

TEST(StructuredExceptionsOnWindows, InstructionThatLooksLikeTheEndOfAFunctionIsUnwoundAsWhatItIs) {
    const Translated translated;
    const Page noAccess(Page::Access::None);
    EXPECT_THAT(FaultOf([&] { ReadThatEndsLikeAFunction(noAccess.At(0)); }),
                IsFault(EXCEPTION_ACCESS_VIOLATION, EXCEPTION_READ_FAULT, NumberOf(noAccess.At(0))));
}

TEST(StructuredExceptionsOnWindows, DebugOutputIsNotTranslated) {
    const Translated translated;
    OutputDebugStringW(L"raises an exception inside");
}

}  // namespace
}  // namespace Faults
