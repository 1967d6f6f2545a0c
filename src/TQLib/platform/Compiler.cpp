#include "TQLib/platform/Compiler.h"

#include <cxxabi.h>

namespace Quellan::Compiler {

void ClearCopyRegisters() noexcept {
#if defined(__x86_64__)
    if (__builtin_cpu_supports("avx512f"))
        asm volatile(
            ".irp n,16,17,18,19,20,21,22,23,24,25,26,27,28,29,30,31\n\t"
            "vpxorq %%zmm\\n, %%zmm\\n, %%zmm\\n\n\t"
            ".endr" ::
                : "memory");
    if (__builtin_cpu_supports("avx")) {
        asm volatile("vzeroall" ::
                         : "memory", "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7", "xmm8",
                           "xmm9", "xmm10", "xmm11", "xmm12", "xmm13", "xmm14", "xmm15");
        return;
    }
    asm volatile(
        ".irp n,0,1,2,3,4,5,6,7\n\t"
        "pxor %%xmm\\n, %%xmm\\n\n\t"
        ".endr" ::
            : "memory", "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7");
#elif defined(__aarch64__)
    asm volatile(
        ".irp n,0,1,2,3,4,5,6,7,16,17,18,19,20,21,22,23,24,25,26,27,28,29,30,31\n\t"
        "movi v\\n\\().2d, #0\n\t"
        ".endr" ::
            : "memory", "v0", "v1", "v2", "v3", "v4", "v5", "v6", "v7", "v16", "v17", "v18", "v19", "v20",
              "v21", "v22", "v23", "v24", "v25", "v26", "v27", "v28", "v29", "v30", "v31");
#endif
}

std::uint64_t AskValgrind(const std::uint64_t (&request)[6]) noexcept {
#if defined(__x86_64__)
    std::uint64_t answer = 0;
    asm volatile("rolq $3, %%rdi; rolq $13, %%rdi; rolq $61, %%rdi; rolq $51, %%rdi; xchgq %%rbx, %%rbx"
                 : "+d"(answer)
                 : "a"(&request[0])
                 : "cc", "memory");
    return answer;
#elif defined(__aarch64__)
    register std::uint64_t answer asm("x3") = 0;
    register const std::uint64_t* asked asm("x4") = &request[0];
    asm volatile(
        "ror x12, x12, #3; ror x12, x12, #13; ror x12, x12, #51; ror x12, x12, #61; orr x10, x10, x10"
        : "+r"(answer)
        : "r"(asked)
        : "cc", "memory");
    return answer;
#else
    static_cast<void>(request);
    return 0;
#endif
}

char* ReadableTypeName(const char* name) noexcept {
    int status = 0;
    return abi::__cxa_demangle(name, nullptr, nullptr, &status);
}

}  // namespace Quellan::Compiler
