#include "TQLib/platform/Win32.h"
#include "support/FailCall.h"

#include <cstring>

// Calls are redirected in a module's import table. A slot of the table that is under watch points to one of
// the stubs below; the stub asks FaultStubTarget and then jumps to the function meant, with every argument
// register as it was, or returns the planned result. The stubs are code of this program, so a thread that is
// inside one while the table is put back stays safe.

namespace Quellan::Corvel::Test {

namespace {

// An import under watch. Once given to a slot the record stays with it; `users` counts the living plans.
struct WatchedImport {
    void** slot;
    void* original;
    HMODULE module;
    const char* function;  // in the module's import table
    unsigned users;
};

// A fault of what `module` imports as `function`, or as `twin`: calls of both are counted together.
struct PlannedFault {
    HMODULE module;
    const char* function;
    const char* twin;
    unsigned nth;
    DWORD code;
    std::uintptr_t result;
    DWORD thread = GetCurrentThreadId();
    unsigned calls = 0;
    PlannedFault* next = nullptr;

    bool Concerns(const char* name) const noexcept {
        return std::strcmp(name, function) == 0 || (twin && std::strcmp(name, twin) == 0);
    }
    bool Concerns(const WatchedImport& import) const noexcept {
        return import.module == module && Concerns(import.function);
    }
};

constexpr unsigned MaxWatchedImports = 192;  // as many as there are stubs
WatchedImport g_imports[MaxWatchedImports];
PlannedFault* g_plans = nullptr;
SRWLOCK g_lock = SRWLOCK_INIT;  // guards both; taken inside hooked calls, so nothing is called under it

class Lock {
  public:
    Lock() noexcept { AcquireSRWLockExclusive(&g_lock); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    ~Lock() { ReleaseSRWLockExclusive(&g_lock); }
};

}  // namespace

// Where the call of import `index` goes; null to return `*result` instead.
extern "C" void* FaultStubTarget(unsigned index, std::uintptr_t* result) noexcept {
    DWORD lastError = GetLastError();
    void* target = nullptr;
    {
        const Lock lock;
        const WatchedImport& import = g_imports[index];
        target = import.original;
        for (PlannedFault* plan = g_plans; plan; plan = plan->next) {
            if (plan->thread != GetCurrentThreadId() || !plan->Concerns(import)) continue;
            ++plan->calls;
            if (plan->nth != plan->calls && plan->nth != FailCall::EveryCall) continue;
            lastError = plan->code;
            *result = plan->result;
            target = nullptr;
        }
    }
    SetLastError(lastError);
    return target;
}

extern "C" const char FaultStubs[];
constexpr std::size_t FaultStubSize = 16;

// The common part saves the argument registers (rcx, rdx, r8, r9 and xmm0 to xmm3), keeps 32 bytes of home
// space for the callee and one word for the result.
asm(R"(
    .text
    .balign 16
FaultStubCommon:
    .seh_proc FaultStubCommon
    subq $152, %rsp
    .seh_stackalloc 152
    .seh_endprologue
    movq %rcx, 40(%rsp)
    movq %rdx, 48(%rsp)
    movq %r8, 56(%rsp)
    movq %r9, 64(%rsp)
    movups %xmm0, 80(%rsp)
    movups %xmm1, 96(%rsp)
    movups %xmm2, 112(%rsp)
    movups %xmm3, 128(%rsp)
    movl %eax, %ecx
    leaq 32(%rsp), %rdx
    call FaultStubTarget
    movq 40(%rsp), %rcx
    movq 48(%rsp), %rdx
    movq 56(%rsp), %r8
    movq 64(%rsp), %r9
    movups 80(%rsp), %xmm0
    movups 96(%rsp), %xmm1
    movups 112(%rsp), %xmm2
    movups 128(%rsp), %xmm3
    testq %rax, %rax
    jz 1f
    addq $152, %rsp
    jmp *%rax
1:  movq 32(%rsp), %rax
    addq $152, %rsp
    ret
    .seh_endproc
    .balign 16
    .globl FaultStubs
FaultStubs:
    .set index, 0
    .rept 192
    .balign 16
    movl $index, %eax
    jmp FaultStubCommon
    .set index, index + 1
    .endr
)");

namespace {

void WriteSlot(void** slot, void* value) noexcept {
    DWORD protection = 0;
    VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &protection);
    *static_cast<void* volatile*>(slot) = value;
    VirtualProtect(slot, sizeof *slot, protection, &protection);
}

// Puts the import in `slot` under watch; the caller holds the lock. False when there are too many.
bool Watch(void** slot, HMODULE module, const char* function) noexcept {
    for (unsigned i = 0; i < MaxWatchedImports; ++i) {
        WatchedImport& import = g_imports[i];
        if (import.slot && import.slot != slot) continue;
        if (!import.slot) import = {slot, *slot, module, function, 0};
        if (import.users++ == 0) WriteSlot(slot, const_cast<char*>(FaultStubs) + i * FaultStubSize);
        return true;
    }
    return false;
}

// Ends one plan's watch of an import; the caller holds the lock.
void Unwatch(WatchedImport& import) noexcept {
    if (--import.users == 0) WriteSlot(import.slot, import.original);
}

template <class T>
T* At(HMODULE module, std::size_t offset) noexcept {
    return reinterpret_cast<T*>(reinterpret_cast<char*>(module) + offset);
}

// Calls `visit(name, slot)` for each import by name.
template <class Visit>
void ForEachImport(HMODULE module, Visit visit) {
    const auto* headers =
        At<IMAGE_NT_HEADERS>(module, static_cast<std::size_t>(At<IMAGE_DOS_HEADER>(module, 0)->e_lfanew));
    const auto& directory = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    for (auto* from = At<IMAGE_IMPORT_DESCRIPTOR>(module, directory.VirtualAddress); from->Name; ++from) {
        const auto* names = At<IMAGE_THUNK_DATA>(module, from->OriginalFirstThunk);
        auto* slots = At<void*>(module, from->FirstThunk);
        for (std::size_t i = 0; names[i].u1.AddressOfData; ++i) {
            if (IMAGE_SNAP_BY_ORDINAL(names[i].u1.Ordinal)) continue;
            const auto* name = At<IMAGE_IMPORT_BY_NAME>(module, names[i].u1.AddressOfData)->Name;
            visit(reinterpret_cast<const char*>(name), &slots[i]);
        }
    }
}

// `Base` with its plan at work, from construction to destruction.
template <class Base>
class ImportPlan : public Base {
  public:
    explicit ImportPlan(PlannedFault planned) : m_planned(planned) {
        bool watched = false;
        {
            const Lock lock;
            ForEachImport(m_planned.module, [&](const char* name, void** slot) {
                if (m_planned.Concerns(name)) watched = Watch(slot, m_planned.module, name);
            });
            m_planned.next = g_plans;
            g_plans = &m_planned;
        }
        EXPECT_TRUE(watched) << m_planned.function << " is not imported, or too many functions are watched";
    }
    ~ImportPlan() override {
        const Lock lock;
        PlannedFault** link = &g_plans;  // other threads' plans may stand in front
        while (*link != &m_planned)
            link = &(*link)->next;
        *link = m_planned.next;
        for (WatchedImport& import : g_imports)
            if (import.slot && m_planned.Concerns(import)) Unwatch(import);
    }
    unsigned Calls() const noexcept override { return m_planned.calls; }

  private:
    PlannedFault m_planned;
};

}  // namespace

bool FailCall::CanWatch(const char* function) {
    bool isImported = false;
    ForEachImport(GetModuleHandleW(L"TQLib.dll"),
                  [&](const char* name, void**) { isImported |= std::strcmp(name, function) == 0; });
    return isImported;
}

FailCall::FailCall(const char* function, DWORD code, unsigned nth, std::uintptr_t result)
    : Fault(function, nth,
            std::make_unique<ImportPlan<Plan>>(
                PlannedFault{GetModuleHandleW(L"TQLib.dll"), function, nullptr, nth, code, result})) {}

// Every operator new is in the runtime library and stands on the two functions that this library imports: so
// its own allocations, for strings that grow, are seen as well.
FailAllocation::FailAllocation(unsigned nth)
    : Fault("operator new", nth,
            std::make_unique<ImportPlan<Plan>>(PlannedFault{GetModuleHandleW(L"libstdc++-6.dll"), "malloc",
                                                            "_aligned_malloc", nth, ERROR_OUTOFMEMORY, 0})) {}

}  // namespace Quellan::Corvel::Test
