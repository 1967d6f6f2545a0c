// What the library asks of the compiler beyond C++20, all of it: here, in Compiler.cpp and in the assembly files
// beside the code that they belong to. A new compiler is taught here.
#pragma once

#include <cstdint>

#if !defined(__GNUC__)
#error "The words of this compiler have to be written down here"
#endif

// The export mark.
#if defined(_WIN32)
#if defined(TQ_BUILDING_LIBRARY)
#define TQLIB_API __declspec(dllexport)
#else
#define TQLIB_API __declspec(dllimport)
#endif
#else
#define TQLIB_API __attribute__((visibility("default")))
#endif

// Marks for the compiler's thread-safety analysis: which lock guards a member, what a function does to a
// lock. A mark without a lock means the object itself. Compilers without the analysis (all but clang) complain
// about its attributes.
#if defined(__clang__)
#define TQ_THREAD_SAFETY(...) __attribute__((__VA_ARGS__))
#else
#define TQ_THREAD_SAFETY(...)
#endif

#define TQ_LOCK_CLASS TQ_THREAD_SAFETY(capability("lock"))
#define TQ_GUARD_CLASS TQ_THREAD_SAFETY(scoped_lockable)
#define TQ_GUARDED_BY(lock) TQ_THREAD_SAFETY(guarded_by(lock))
#define TQ_REQUIRES(lock) TQ_THREAD_SAFETY(requires_capability(lock))
#define TQ_ACQUIRES(...) TQ_THREAD_SAFETY(acquire_capability(__VA_ARGS__))
#define TQ_ACQUIRES_SHARED(lock) TQ_THREAD_SAFETY(acquire_shared_capability(lock))
#define TQ_ACQUIRES_IF_TRUE TQ_THREAD_SAFETY(try_acquire_capability(true))
#define TQ_RELEASES(...) TQ_THREAD_SAFETY(release_generic_capability(__VA_ARGS__))
#define TQ_NOT_ANALYSED TQ_THREAD_SAFETY(no_thread_safety_analysis)

// How a function is compiled.
#define TQ_NOINLINE [[gnu::noinline]]
#define TQ_ALWAYS_INLINE [[gnu::always_inline]]
// A function with instructions that not every processor of the kind has: called only where there are.
#if defined(__x86_64__)
#define TQ_FOR_SSSE3 __attribute__((target("ssse3")))
#define TQ_HAS_SSSE3 (__builtin_cpu_supports("ssse3") != 0)
#endif
// A function that runs when the module is loaded, and an object that is made then: before all others.
#define TQ_RUN_AT_LOAD [[gnu::constructor(101)]]
#define TQ_MADE_AT_LOAD [[gnu::init_priority(101)]]
// A declaration of something that may be missing; its address is null then.
#define TQ_MAY_BE_MISSING [[gnu::weak]]
// Thread-local storage that is there with the thread, and costs no call: other one may be allocated when it is
// first used.
#define TQ_THERE_WITH_THREAD [[gnu::tls_model("initial-exec")]]
// `union`, for one with a part that is a struct without a name.
#define TQ_UNION_OF_NAMELESS __extension__ union

// Addresses, of the function that they stand in: its frame, where it returns to, the stack pointer before its
// call.
#define TQ_FRAME_ADDRESS __builtin_frame_address(0)
#define TQ_RETURN_ADDRESS __builtin_return_address(0)
#define TQ_STACK_BEFORE_CALL __builtin_dwarf_cfa()

namespace Quellan::Compiler {

// For a loop that waits for another core.
inline void Pause() noexcept {
#if defined(__x86_64__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

// Memory that is soon read, or written.
inline void PrefetchToRead(const void* memory) noexcept {
    __builtin_prefetch(memory);
}
inline void PrefetchToWrite(const void* memory) noexcept {
    __builtin_prefetch(memory, 1);
}

// The compiler takes it that somebody looks at the memory now, and leaves no write to it out.
inline void ShowMemory(const void* memory) noexcept {
    asm volatile("" : : "r"(memory) : "memory");
}

// The compiler knows nothing of the value from here on.
inline void Forget(unsigned char& value) noexcept {
    asm volatile("" : "+r"(value));
}

// Clears the registers through which memory is copied. A copied secret stays in them, and whoever saves
// registers on the stack (the dynamic linker at the first call of a function, a signal) would leave it there.
void ClearCopyRegisters() noexcept;

// Asks valgrind, which takes instructions that do nothing, in an order that no compiler makes, for a request.
// 0 from anything else.
std::uint64_t AskValgrind(const std::uint64_t (&request)[6]) noexcept;

// What std::type_info::name() says, as it is written in C++; null where that cannot be told. For std::free.
char* ReadableTypeName(const char* name) noexcept;

}  // namespace Quellan::Compiler
