#include "TQLib/platform/StructuredExceptions.h"

#include "TQLib/platform/Platform.h"

#include <algorithm>
#include <array>
#include <exception>
#include <iterator>
#include <memory>
#include <new>
#include <utility>

// GCC has no structured exception handling of its own, but its C++ exceptions unwind by the platform's
// tables. So a vectored handler, the first to see a fault, sends the thread on to the trampoline, whose
// unwind information says that it interrupted the faulting instruction, and the translator throws from there.

extern "C" void TQTrapTrampoline();
extern "C" [[noreturn]] void TQCallTranslator(void* threadTrap);

namespace Quellan::Platform {
namespace {

struct ThreadTrap {
    DWORD64 resumeRip = 0;  // the trampoline reads these two by their offsets
    DWORD64 resumeRsp = 0;
    StructuredExceptionTranslator translator = nullptr;
    EXCEPTION_RECORD record{};
    CONTEXT context{};
};
static_assert(offsetof(ThreadTrap, resumeRip) == 0 && offsetof(ThreadTrap, resumeRsp) == 8);

struct Function {
    DWORD64 module = 0;  // filled in with `entry`, so it comes first
    PRUNTIME_FUNCTION entry;

    explicit Function(DWORD64 pc) : entry(RtlLookupFunctionEntry(pc, &module, nullptr)) {}
    DWORD64 Begin() const { return module + entry->BeginAddress; }
    DWORD64 End() const { return module + entry->EndAddress; }
    DWORD PrologueBytes() const { return reinterpret_cast<const BYTE*>(module + entry->UnwindData)[1]; }
};

// Made by the first thread that sets a translator. The library stays loaded from then on, because the system
// keeps pointers into it.
struct Trap {
    // Fiber-local, which is thread-local with an end: compiler-made thread-local storage is allocated when it
    // is first used, which the handler must not do.
    DWORD slot =
        FlsAlloc([](void* thread) { std::unique_ptr<ThreadTrap>(static_cast<ThreadTrap*>(thread)).reset(); });
    std::array<void*, 3> systemModules{};
    DWORD64 raiseException = 0;

    Trap();
    ThreadTrap* OfThisThread() const noexcept;
};

const Trap& TheTrap() {
    static const Trap trap;
    return trap;
}

bool IsMemoryFault(DWORD code) {
    return code == EXCEPTION_ACCESS_VIOLATION || code == EXCEPTION_IN_PAGE_ERROR ||
           code == EXCEPTION_GUARD_PAGE || code == EXCEPTION_DATATYPE_MISALIGNMENT;
}

// Whether the unwinder would take the code at `at` for the last instructions of a function, where it calls no
// handlers: the stack pointer moved back, registers popped, then a return or a jump.
bool LooksLikeEpilogue(const BYTE* at) {
    const auto isRex = [](BYTE value) { return (value & 0xF0) == 0x40; };
    const auto isPop = [](BYTE value) { return (value & 0xF8) == 0x58; };
    for (;;) {
        if (isPop(at[0]))
            at += 1;
        else if (isRex(at[0]) && isPop(at[1]))
            at += 2;
        else
            break;
    }
    constexpr BYTE RexW = 0x48, Lea = 0x8D, AddByte = 0x83, AddLong = 0x81, ToStackPointer = 0xC4;
    if (at[0] == RexW)
        return (at[1] == Lea && (at[2] & 7) == 5) ||
               ((at[1] == AddByte || at[1] == AddLong) && at[2] == ToStackPointer);
    constexpr BYTE Ret = 0xC3, RetWithCount = 0xC2, Rep = 0xF3, Jump = 0xE9, ShortJump = 0xEB,
                   IndirectJump = 0xFF;
    return at[0] == Ret || at[0] == RetWithCount || at[0] == Jump || at[0] == ShortJump ||
           at[0] == IndirectJump || (at[0] == Rep && at[1] == Ret);
}

LONG CALLBACK OnException(EXCEPTION_POINTERS* exception) {
    const EXCEPTION_RECORD& record = *exception->ExceptionRecord;
    CONTEXT& context = *exception->ContextRecord;
    if (!ReachesTranslator(record.ExceptionCode, record.ExceptionFlags)) return EXCEPTION_CONTINUE_SEARCH;
    const Trap& trap = TheTrap();
    ThreadTrap* thread = trap.OfThisThread();
    if (!thread || !thread->translator) return EXCEPTION_CONTINUE_SEARCH;

    const Function function(context.Rip);
    void* module = nullptr;
    RtlPcToFileHeader(reinterpret_cast<void*>(context.Rip), &module);
    const bool inSystem = std::ranges::count(trap.systemModules, module) > 0;
    const bool raised = function.entry && function.Begin() == trap.raiseException;
    // IsBadReadPtr and its kin handle their own faults; what RaiseException is asked to raise is the
    // caller's.
    if (inSystem && !raised && IsMemoryFault(record.ExceptionCode)) return EXCEPTION_CONTINUE_SEARCH;

    thread->record = record;
    thread->record.ExceptionRecord = nullptr;
    thread->context = context;
    thread->resumeRip = context.Rip;
    thread->resumeRsp = context.Rsp;
    if (!function.entry && record.ExceptionCode == EXCEPTION_ACCESS_VIOLATION &&
        record.ExceptionInformation[1] == context.Rip) {
        // A call of something that is no code: the call itself shall have thrown.
        thread->resumeRip = *reinterpret_cast<const DWORD64*>(context.Rsp);
        thread->resumeRsp += sizeof(DWORD64);
    } else if (function.entry && !inSystem && context.Rip - function.Begin() >= function.PrologueBytes()) {
        // GCC's personality takes every address for a return address and looks one byte in front of it.
        DWORD64 within = context.Rip + 1;
        while (within < function.End() && LooksLikeEpilogue(reinterpret_cast<const BYTE*>(within)))
            ++within;
        if (within < function.End()) thread->resumeRip = within;
    }
    constexpr DWORD DirectionFlag = 0x400, TrapFlag = 0x100;
    context.EFlags &= ~(DirectionFlag | TrapFlag);
    context.Rcx = reinterpret_cast<DWORD64>(thread);
    context.Rsp &= ~DWORD64{15};
    context.Rip = reinterpret_cast<DWORD64>(&TQTrapTrampoline);
    return EXCEPTION_CONTINUE_EXECUTION;
}

Trap::Trap() {
    if (slot == FLS_OUT_OF_INDEXES) throw std::bad_alloc();
    HMODULE self;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                       reinterpret_cast<const wchar_t*>(&TQTrapTrampoline), &self);
    const HMODULE base = GetModuleHandleW(L"kernelbase");
    systemModules = {GetModuleHandleW(L"ntdll"), GetModuleHandleW(L"kernel32"), base};
    raiseException = reinterpret_cast<DWORD64>(GetProcAddress(base, "RaiseException"));
    if (!AddVectoredExceptionHandler(1, OnException)) throw std::bad_alloc();
}

ThreadTrap* Trap::OfThisThread() const noexcept {
    const DWORD lastError = GetLastError();
    auto* thread = static_cast<ThreadTrap*>(FlsGetValue(slot));
    SetLastError(lastError);
    return thread;
}

}  // namespace

StructuredExceptionTranslator SetStructuredExceptionTranslator(StructuredExceptionTranslator translator) {
    const Trap& trap = TheTrap();
    ThreadTrap* thread = trap.OfThisThread();
    if (!thread) {
        if (!translator) return nullptr;
        auto made = std::make_unique<ThreadTrap>();
        if (!FlsSetValue(trap.slot, made.get())) throw std::bad_alloc();
        thread = made.release();
    }
    return std::exchange(thread->translator, translator);
}

}  // namespace Quellan::Platform

extern "C" void TQCallTranslator(void* threadTrap) {
    // The next fault of the thread, perhaps within the translator, is recorded in the same place.
    const auto& trap = *static_cast<const Quellan::Platform::ThreadTrap*>(threadTrap);
    EXCEPTION_RECORD record = trap.record;
    CONTEXT context = trap.context;
    EXCEPTION_POINTERS pointers{&record, &context};
    trap.translator(record.ExceptionCode, &pointers);
    std::terminate();
}
