#include "TQLib/platform/StructuredExceptions.h"

#include "TQLib/platform/linux/base/FaultHandlers.h"
#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/Futex.h"
#include "TQLib/platform/linux/base/Lock.h"
#include "TQLib/platform/linux/base/Process.h"
#include "TQLib/platform/linux/objects/SharedObject.h"
#include "TQLib/platform/linux/process/ExceptionRecords.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <exception>
#include <gnu/lib-names.h>
#include <iterator>
#include <link.h>
#include <memory>
#include <pthread.h>
#include <span>
#include <string_view>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>
#include <utility>

namespace Quellan::Platform {

// TrapTrampoline.S
extern "C" void TQTrapTrampoline();
// Called by the trampoline, on the faulting stack.
extern "C" [[noreturn, gnu::visibility("hidden")]] void TQCallTranslator(void* trapFrame);

namespace {

// What a fault leaves on the faulting stack. The trampoline is entered with the stack pointer at it and has
// the unwinder find the interrupted registers in `resume`.
struct alignas(16) TrapFrame {
    CONTEXT resume;  // differs from `context` after a call that failed: there it stands within the call
    CONTEXT context;
    EXCEPTION_RECORD record;
    EXCEPTION_POINTERS pointers;
};

// What the handler knows of the thread. Initial-exec, because other thread-local storage may be allocated
// when it is first used, which a signal handler must not do.
struct ThreadTrap {
    StructuredExceptionTranslator translator = nullptr;
    DWORD64 guardBegin = 0, stackBegin = 0;
};
TQ_THERE_WITH_THREAD constinit thread_local ThreadTrap t_trap;

struct PreviousHandler {
    struct sigaction action {};
    std::atomic<bool> spent = false;  // it asked to be called once only, and was
};
constinit std::array<PreviousHandler, SIGSEGV + 1> g_previous;  // by signal; SIGSEGV is the highest of them
constinit bool g_throwFromHandler = false;

struct CodeRange {
    DWORD64 begin = 0, end = 0;
    bool Holds(DWORD64 pc) const { return begin <= pc && pc < end; }
};

// Code that may hold a lock: the C library, and the allocator where a library of its own replaces it.
constinit std::array<CodeRange, 2> g_lockingCode;

// The functions of the C library that are given the caller's pointers and take no locks.
constexpr const char* MemoryFunctions[] = {"memcpy",  "memmove", "memset",  "memcmp",  "memchr",
                                           "strlen",  "strnlen", "strcpy",  "strncpy", "strcmp",
                                           "strncmp", "strchr",  "wcslen",  "wcsnlen", "wcscpy",
                                           "wcscmp",  "wcschr",  "wmemcpy", "wmemset", "wmemcmp"};
constexpr DWORD64 MemoryFunctionBytes = 2048;  // their symbols do not tell; larger than any of them
constinit std::array<CodeRange, std::size(MemoryFunctions)> g_memoryFunctions;

constexpr DWORD64 RedZoneBytes = 128;
constexpr DWORD64 ThrowRoomBytes = 16 * 1024;   // what a throw may need of the stack
constexpr DWORD64 HandlerRoomBytes = 8 * 1024;  // what the handler's own calls may need
constexpr DWORD64 MainThreadGuardBytes =
    64 * 1024;  // the kernel keeps more than this free below the main stack
constexpr ULONG_PTR IoDeviceErrorStatus = 0xC0000185;
constexpr ULONG_PTR UnknownAddress = ~ULONG_PTR{0};

DWORD64 AddressOf(const void* pointer) {
    return reinterpret_cast<std::uintptr_t>(pointer);
}
void* PointerTo(DWORD64 address) {
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(address));
}

template <class T>
T Load(DWORD64 address) {
    T value;
    std::memcpy(&value, PointerTo(address), sizeof value);
    return value;
}

struct Access {
    ULONG_PTR kind;
    ULONG_PTR address;
};

#if defined(__x86_64__)

constexpr DWORD64 StackFault = 12, ProtectionFault = 13, PageFault = 14;
constexpr DWORD64 DirectionFlag = 0x400;

// In the order of their numbers in instructions, which is also CONTEXT's.
constexpr int IntegerRegisters[] = {REG_RAX, REG_RCX, REG_RDX, REG_RBX, REG_RSP, REG_RBP, REG_RSI, REG_RDI,
                                    REG_R8,  REG_R9,  REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15};
static_assert(offsetof(CONTEXT, Rip) == sizeof(DWORD64) * std::size(IntegerRegisters));

DWORD64 Register(const ucontext_t& machine, int index) {
    return static_cast<DWORD64>(machine.uc_mcontext.gregs[index]);
}

CONTEXT ContextOf(const ucontext_t& machine) {
    DWORD64 integers[std::size(IntegerRegisters)];
    std::ranges::transform(IntegerRegisters, integers, [&](int index) { return Register(machine, index); });
    CONTEXT context{};
    std::memcpy(&context, integers, sizeof integers);
    context.Rip = Register(machine, REG_RIP);
    context.EFlags = Register(machine, REG_EFL);
    return context;
}

DWORD64& ProgramCounter(CONTEXT& context) {
    return context.Rip;
}
DWORD64& StackPointer(CONTEXT& context) {
    return context.Rsp;
}

void StepBackIntoCall(CONTEXT& context) {
    context.Rip = Load<DWORD64>(context.Rsp) - 1;
    context.Rsp += sizeof(DWORD64);
}

void ContinueAt(ucontext_t& machine, DWORD64 pc, DWORD64 sp) {
    auto& registers = machine.uc_mcontext.gregs;
    registers[REG_RIP] = static_cast<greg_t>(pc);
    registers[REG_RSP] = static_cast<greg_t>(sp);
    registers[REG_EFL] &= ~static_cast<greg_t>(DirectionFlag);  // as every function expects it
}

bool IsAccessViolation(int signal, const ucontext_t& machine) {
    return signal == SIGSEGV || (signal == SIGBUS && Register(machine, REG_TRAPNO) == StackFault);
}

// An address that is none (not canonical) reaches the program without its value. Valgrind tells no error
// bits, so the address decides too.
Access FaultingAccess(const siginfo_t& info, const ucontext_t& machine) {
    constexpr DWORD64 WriteBit = 2, FetchBit = 16;
    const DWORD64 trap = Register(machine, REG_TRAPNO);
    if (trap == StackFault || trap == ProtectionFault) return {EXCEPTION_READ_FAULT, UnknownAddress};
    const DWORD64 error = trap == PageFault ? Register(machine, REG_ERR) : 0;
    const DWORD64 address = AddressOf(info.si_addr);
    if (error & FetchBit || address == Register(machine, REG_RIP)) return {EXCEPTION_EXECUTE_FAULT, address};
    return {error & WriteBit ? EXCEPTION_WRITE_FAULT : EXCEPTION_READ_FAULT, address};
}

// The processor reports a quotient that does not fit in the same way as a division by zero; the divisor,
// decoded from the instruction, tells them apart. Instructions of other forms count as division by zero.
bool DividesByZero(const ucontext_t& machine) {
    constexpr BYTE OperandSizePrefix = 0x66, DivideByte = 0xF6, Divide = 0xF7;
    DWORD64 at = Register(machine, REG_RIP);
    unsigned width = 4, rex = 0;
    if (Load<BYTE>(at) == OperandSizePrefix) {
        width = 2;
        ++at;
    }
    if ((Load<BYTE>(at) & 0xF0) == 0x40) rex = Load<BYTE>(at++);
    if (rex & 8) width = 8;
    const BYTE opcode = Load<BYTE>(at++);
    if (opcode != DivideByte && opcode != Divide) return true;
    if (opcode == DivideByte) width = 1;

    const unsigned form = Load<BYTE>(at++), mode = form >> 6, operand = form & 7;
    const auto integer = [&](unsigned number) { return Register(machine, IntegerRegisters[number]); };
    DWORD64 divisor;
    if (mode == 3) {
        const bool highByte = width == 1 && !rex && operand >= 4;  // ah, ch, dh, bh
        divisor = highByte ? integer(operand - 4) >> 8 : integer(operand | (rex & 1) << 3);
    } else {
        DWORD64 address = 0;
        const bool absolute = mode == 0 && operand == 5;  // or relative to the next instruction
        bool noBase = absolute;
        unsigned base = operand;
        if (operand == 4) {
            const unsigned scaled = Load<BYTE>(at++), index = (scaled >> 3 & 7) | (rex & 2) << 2;
            base = scaled & 7;
            noBase = mode == 0 && base == 5;
            if (index != 4) address = integer(index) << (scaled >> 6);
        }
        if (!noBase) address += integer(base | (rex & 1) << 3);
        if (mode == 1) {
            address += static_cast<DWORD64>(Load<signed char>(at++));
        } else if (mode == 2 || noBase) {
            address += static_cast<DWORD64>(Load<std::int32_t>(at));
            at += 4;
        }
        if (absolute) address += at;
        divisor = 0;
        std::memcpy(&divisor, PointerTo(address), width);
    }
    return (divisor & (~DWORD64{0} >> (64 - 8 * width))) == 0;
}

// A pending x87 exception would fault again at the next floating-point instruction of the catch block.
void ClearPendingFloatingPointFaults(ucontext_t& machine) {
    constexpr std::uint16_t X87Exceptions = 0x80FF;
    constexpr std::uint32_t SseExceptions = 0x3F;
    if (auto* state = machine.uc_mcontext.fpregs) {
        state->swd = static_cast<std::uint16_t>(state->swd & ~X87Exceptions);
        state->mxcsr &= ~SseExceptions;
    }
}

#elif defined(__aarch64__)

CONTEXT ContextOf(const ucontext_t& machine) {
    CONTEXT context{};
    std::ranges::copy(machine.uc_mcontext.regs, context.X);
    context.Sp = machine.uc_mcontext.sp;
    context.Pc = machine.uc_mcontext.pc;
    context.Cpsr = machine.uc_mcontext.pstate;
    return context;
}

DWORD64& ProgramCounter(CONTEXT& context) {
    return context.Pc;
}
DWORD64& StackPointer(CONTEXT& context) {
    return context.Sp;
}

void StepBackIntoCall(CONTEXT& context) {
    context.Pc = context.X[30] - 4;
}

void ContinueAt(ucontext_t& machine, DWORD64 pc, DWORD64 sp) {
    machine.uc_mcontext.pc = pc;
    machine.uc_mcontext.sp = sp;
}

bool IsAccessViolation(int signal, const ucontext_t&) {
    return signal == SIGSEGV;
}

// The kernel appends the syndrome register to the saved state; an emulator may leave it out, and then a data
// access counts as a read.
Access FaultingAccess(const siginfo_t&, const ucontext_t& machine) {
    constexpr DWORD SyndromeRecord = 0x45535201;
    constexpr DWORD64 FetchFromUser = 0x20, Fetch = 0x21, WriteBit = 0x40;
    struct Header {
        DWORD magic, size;
    };
    const Access read{EXCEPTION_READ_FAULT, machine.uc_mcontext.fault_address};
    const Access write{EXCEPTION_WRITE_FAULT, read.address};
    const Access execute{EXCEPTION_EXECUTE_FAULT, read.address};
    if (machine.uc_mcontext.pc == read.address) return execute;
    const DWORD64 begin = AddressOf(machine.uc_mcontext.__reserved);
    const DWORD64 end = begin + sizeof machine.uc_mcontext.__reserved;
    for (DWORD64 at = begin; at + sizeof(Header) <= end;) {
        const auto header = Load<Header>(at);
        if (header.magic == SyndromeRecord) {
            const auto syndrome = Load<DWORD64>(at + sizeof(Header));
            const DWORD64 kind = syndrome >> 26 & 0x3F;
            return kind == FetchFromUser || kind == Fetch ? execute : syndrome & WriteBit ? write : read;
        }
        if (header.magic == 0 || header.size < sizeof(Header)) break;
        at += header.size;
    }
    return read;
}

bool DividesByZero(const ucontext_t&) {
    return true;
}
void ClearPendingFloatingPointFaults(ucontext_t&) {}

#endif

DWORD ArithmeticCode(int reason, const ucontext_t& machine) {
    switch (reason) {
        case FPE_INTDIV:
            return DividesByZero(machine) ? EXCEPTION_INT_DIVIDE_BY_ZERO : EXCEPTION_INT_OVERFLOW;
        case FPE_INTOVF:
            return EXCEPTION_INT_OVERFLOW;
        case FPE_FLTDIV:
            return EXCEPTION_FLT_DIVIDE_BY_ZERO;
        case FPE_FLTOVF:
            return EXCEPTION_FLT_OVERFLOW;
        case FPE_FLTUND:
            return EXCEPTION_FLT_UNDERFLOW;
        case FPE_FLTRES:
            return EXCEPTION_FLT_INEXACT_RESULT;
        case FPE_FLTSUB:
            return EXCEPTION_ARRAY_BOUNDS_EXCEEDED;
        default:
            return EXCEPTION_FLT_INVALID_OPERATION;
    }
}

EXCEPTION_RECORD RecordOf(int signal, const siginfo_t& info, const ucontext_t& machine, void* pc) {
    EXCEPTION_RECORD record{};
    record.ExceptionAddress = pc;
    if (IsAccessViolation(signal, machine)) {
        record.ExceptionCode = EXCEPTION_ACCESS_VIOLATION;
        record.NumberParameters = 2;
    } else if (signal == SIGBUS && info.si_code == BUS_ADRALN) {
        record.ExceptionCode = EXCEPTION_DATATYPE_MISALIGNMENT;
    } else if (signal == SIGBUS) {
        record.ExceptionCode = EXCEPTION_IN_PAGE_ERROR;
        record.NumberParameters = 3;
        record.ExceptionInformation[2] = IoDeviceErrorStatus;
    } else if (signal == SIGFPE) {
        record.ExceptionCode = ArithmeticCode(info.si_code, machine);
    } else {
        const bool privileged = info.si_code == ILL_PRVOPC || info.si_code == ILL_PRVREG;
        record.ExceptionCode = privileged ? EXCEPTION_PRIV_INSTRUCTION : EXCEPTION_ILLEGAL_INSTRUCTION;
    }
    if (record.NumberParameters) {
        const Access access = FaultingAccess(info, machine);
        record.ExceptionInformation[0] = access.kind;
        record.ExceptionInformation[1] = access.address;
    }
    return record;
}

// One line on the standard error, without allocation and locks.
void Report(const EXCEPTION_RECORD& record, std::string_view reason) noexcept {
    char line[160];
    char* end = line;
    const auto text = [&](std::string_view part) { end = std::ranges::copy(part, end).out; };
    const auto number = [&](DWORD64 value) { end = std::to_chars(end, std::end(line), value, 16).ptr; };
    text("TQLib: exception 0x");
    number(record.ExceptionCode);
    text(" at 0x");
    number(AddressOf(record.ExceptionAddress));
    text(reason);
    const int lastError = errno;
    [[maybe_unused]] const auto written = write(STDERR_FILENO, line, static_cast<std::size_t>(end - line));
    errno = lastError;
}

// Does what would have happened without this library.
void CallPreviousHandler(int signal, siginfo_t* info, ucontext_t* machine) {
    auto& [action, spent] = g_previous[static_cast<std::size_t>(signal)];
    const bool sent = info->si_code <= 0;
    if (action.sa_handler == SIG_IGN && sent) return;
    const bool hasFunction = action.sa_handler != SIG_IGN && action.sa_handler != SIG_DFL;
    const bool once = static_cast<unsigned int>(action.sa_flags) & SA_RESETHAND;
    if (hasFunction && !(once && spent.exchange(true))) {
        // It may leave by a jump and must not take our mask along.
        sigset_t mask;
        sigorset(&mask, &action.sa_mask, &machine->uc_sigmask);
        if (!(action.sa_flags & SA_NODEFER)) sigaddset(&mask, signal);
        pthread_sigmask(SIG_SETMASK, &mask, nullptr);
        if (action.sa_flags & SA_SIGINFO)
            action.sa_sigaction(signal, info, machine);
        else
            action.sa_handler(signal);
        return;
    }
    // A fault cannot be ignored. Back in the faulting instruction it happens again and ends the process
    // there, which is where a core dump should stand; a signal sent by somebody must be sent again.
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    sigaction(signal, &standard, nullptr);
    if (sent) raise(signal);
}

bool MayHoldLock(DWORD64 pc) {
    const auto holdsPc = [pc](const CodeRange& range) { return range.Holds(pc); };
    return std::ranges::any_of(g_lockingCode, holdsPc) && std::ranges::none_of(g_memoryFunctions, holdsPc);
}

bool IsStackExhausted(DWORD64 sp, const EXCEPTION_RECORD& record) {
    const CodeRange guard{t_trap.guardBegin, t_trap.stackBegin};
    const CodeRange lastPages{t_trap.guardBegin, t_trap.stackBegin + ThrowRoomBytes};
    return lastPages.Holds(sp) || (record.NumberParameters && guard.Holds(record.ExceptionInformation[1]));
}

// Below what the interrupted code uses. If the handler runs on the same stack (no alternate stack, or the
// fault was on it), the kernel's record of the fault lies there, and the place is below the handler instead.
TrapFrame* PlaceTrapFrame(DWORD64 sp, const stack_t& alternate) {
    const DWORD64 handler = AddressOf(TQ_FRAME_ADDRESS);
    const DWORD64 alternateBegin = AddressOf(alternate.ss_sp);
    const CodeRange alternateStack{alternateBegin, alternateBegin + alternate.ss_size};
    const bool sameStack = alternateStack.Holds(handler) == alternateStack.Holds(sp);
    const DWORD64 below = sameStack ? handler - HandlerRoomBytes : sp - RedZoneBytes;
    return static_cast<TrapFrame*>(PointerTo((below - sizeof(TrapFrame)) & ~DWORD64{alignof(TrapFrame) - 1}));
}

void OnSignal(int signal, siginfo_t* info, void* state) {
    auto* machine = static_cast<ucontext_t*>(state);
    if (signal == SIGBUS && info->si_code > 0 && MendSharedPage(info->si_addr)) return;
    if (!t_trap.translator || info->si_code <= 0) {
        CallPreviousHandler(signal, info, machine);
        return;
    }
    CONTEXT context = ContextOf(*machine);
    const DWORD64 pc = ProgramCounter(context), sp = StackPointer(context);
    EXCEPTION_RECORD record = RecordOf(signal, *info, *machine, PointerTo(pc));
    const bool exhausted = IsStackExhausted(sp, record);
    if (exhausted || MayHoldLock(pc)) {
        Report(record, exhausted ? " left too little stack to throw: stack overflow\n"
                                 : " is not translated: the C library may hold a lock\n");
        CallPreviousHandler(signal, info, machine);
        return;
    }

    CONTEXT resume = context;
    if (record.NumberParameters && record.ExceptionInformation[1] == pc) StepBackIntoCall(resume);
    ClearPendingFloatingPointFaults(*machine);
    if (g_throwFromHandler) {
        ContinueAt(*machine, ProgramCounter(resume), StackPointer(resume));
        pthread_sigmask(SIG_SETMASK, &machine->uc_sigmask, nullptr);
        TrapFrame frame{resume, context, record, {}};
        TQCallTranslator(&frame);
    }
    auto* frame =
        std::construct_at(PlaceTrapFrame(sp, machine->uc_stack), TrapFrame{resume, context, record, {}});
    ContinueAt(*machine, AddressOf(reinterpret_cast<const void*>(&TQTrapTrampoline)), AddressOf(frame));
}

// The executable segment that holds `function`; empty if that is the program's own.
CodeRange SegmentOf(const void* function) {
    struct Search {
        DWORD64 function;
        CodeRange found;
        bool inProgram = true;
    } search{AddressOf(function), {}};
    dl_iterate_phdr(
        [](dl_phdr_info* module, std::size_t, void* context) {
            auto& sought = *static_cast<Search*>(context);
            const bool inProgram = std::exchange(sought.inProgram, false);  // it comes first
            for (const ElfW(Phdr) & part : std::span(module->dlpi_phdr, module->dlpi_phnum)) {
                const DWORD64 begin = module->dlpi_addr + part.p_vaddr;
                const CodeRange segment{begin, begin + part.p_memsz};
                if (part.p_type != PT_LOAD || !segment.Holds(sought.function)) continue;
                if (!inProgram) sought.found = segment;
                return 1;
            }
            return 0;
        },
        &search);
    return search.found;
}

void FindLockingCode() {
    g_lockingCode[0] = SegmentOf(dlsym(RTLD_DEFAULT, "malloc"));
    void* library = dlopen(LIBC_SO, RTLD_LAZY | RTLD_NOLOAD);
    if (!library) return;
    g_lockingCode[1] = SegmentOf(dlsym(library, "gnu_get_libc_version"));
    std::ranges::transform(MemoryFunctions, g_memoryFunctions.begin(), [library](const char* name) {
        const DWORD64 begin = AddressOf(dlsym(library, name));
        return CodeRange{begin, begin + MemoryFunctionBytes};
    });
    dlclose(library);
}

bool ShallThrowFromHandler() {
    const auto contains = [](const char* variable, std::string_view part) {
        const char* value = std::getenv(variable);
        return value && std::string_view(value).find(part) != std::string_view::npos;
    };
    return contains("TQLIB_TRAP", "direct") ||
           contains("LD_PRELOAD", "vgpreload");  // the latter is valgrind's
}

bool InstallHandlers() noexcept {
    FindLockingCode();
    g_throwFromHandler = ShallThrowFromHandler();
    struct sigaction ours {};
    ours.sa_sigaction = OnSignal;
    ours.sa_flags = SA_SIGINFO | SA_ONSTACK;
    // A second signal's handler could overwrite what the first leaves on the stack.
    sigfillset(&ours.sa_mask);
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
        sigaction(signal, nullptr, &g_previous[static_cast<std::size_t>(signal)].action);
        sigaction(signal, &ours, nullptr);
    }
    return true;
}

// Alternate stacks of a thread each, above a page that nobody may touch. Threads that have ended leave some
// of them to those that come.
class AlternateStacks {
  public:
    // Null without memory.
    static std::byte* Take() noexcept {
        {
            const Guard lock(s_lock);
            if (s_free) {
                --s_freeCount;
                return std::exchange(s_free, *reinterpret_cast<std::byte**>(s_free));
            }
        }
        const std::size_t page = PageSize();
        void* const block =
            mmap(nullptr, page + Size(), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
        if (block == MAP_FAILED) return nullptr;
        std::byte* const stack = static_cast<std::byte*>(block) + page;
        if (mprotect(stack, Size(), PROT_READ | PROT_WRITE) == 0) return stack;
        munmap(block, page + Size());
        return nullptr;
    }

    static void Return(std::byte* stack) noexcept {
        {
            const Guard lock(s_lock);
            if (s_freeCount < MostFree) {
                ++s_freeCount;
                *reinterpret_cast<std::byte**>(stack) = std::exchange(s_free, stack);
                return;
            }
        }
        munmap(stack - PageSize(), PageSize() + Size());
    }

    static std::size_t Size() noexcept {
        static const std::size_t size =
            (static_cast<std::size_t>(sysconf(_SC_SIGSTKSZ)) + RoomBytes + PageSize() - 1) / PageSize() *
            PageSize();
        return size;
    }

  private:
    static constexpr std::size_t RoomBytes = 64 * 1024;
    static constexpr std::size_t MostFree = 16;

    static std::size_t PageSize() noexcept {
        static const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        return size;
    }

    static constinit inline ShortLock s_lock;
    static inline const ForkLock<s_lock> s_forkLock{ForkOrder::AlternateStacks};
    static constinit inline std::byte* s_free TQ_GUARDED_BY(s_lock) =
        nullptr;  // each begins with the next one
    static constinit inline std::size_t s_freeCount TQ_GUARDED_BY(s_lock) = 0;
};

// Gives the thread an alternate stack unless it has one, and takes the trap away before the stack goes.
// Without memory for it the thread does without: faults are translated all the same, only a stack overflow
// ends without a report.
class ThreadSetup {
  public:
    ThreadSetup() {
        FindStack();
        m_stack = AlternateStacks::Take();
        if (!m_stack) return;
        stack_t ours{}, before{};
        ours.ss_sp = m_stack;
        ours.ss_size = AlternateStacks::Size();
        const bool isSet = sigaltstack(&ours, &before) == 0;
        if (isSet && before.ss_flags & SS_DISABLE) return;
        if (isSet) sigaltstack(&before, nullptr);
        AlternateStacks::Return(std::exchange(m_stack, nullptr));
    }
    ~ThreadSetup() {
        t_trap = {};
        if (!m_stack) return;
        stack_t none{}, current{};
        none.ss_flags = SS_DISABLE;
        // Somebody may have given the thread another one.
        if (sigaltstack(&none, &current) == 0 && current.ss_sp != m_stack) sigaltstack(&current, nullptr);
        AlternateStacks::Return(m_stack);
    }
    ThreadSetup(const ThreadSetup&) = delete;
    ThreadSetup& operator=(const ThreadSetup&) = delete;

  private:
    static void FindStack() {
        pthread_attr_t attributes;
        if (pthread_getattr_np(pthread_self(), &attributes) != 0) return;
        void* begin = nullptr;
        std::size_t size = 0, guard = 0;
        pthread_attr_getstack(&attributes, &begin, &size);
        pthread_attr_getguardsize(&attributes, &guard);
        pthread_attr_destroy(&attributes);
        if (GetCurrentThreadId() == GetCurrentProcessId()) guard = MainThreadGuardBytes;
        t_trap.stackBegin = AddressOf(begin);
        t_trap.guardBegin = t_trap.stackBegin - guard;
    }

    std::byte* m_stack = nullptr;
};

}  // namespace

void CatchFaults() noexcept {
    [[maybe_unused]] static const bool installed = InstallHandlers();
}

StructuredExceptionTranslator SetStructuredExceptionTranslator(StructuredExceptionTranslator translator) {
    if (translator) {
        CatchFaults();
        [[maybe_unused]] thread_local const ThreadSetup setup;
    }
    return std::exchange(t_trap.translator, translator);
}

extern "C" void TQCallTranslator(void* trapFrame) {
    using namespace Quellan::Platform;
    auto& frame = *static_cast<TrapFrame*>(trapFrame);
    frame.pointers = {&frame.record, &frame.context};
    t_trap.translator(frame.record.ExceptionCode, &frame.pointers);
    std::terminate();
}

void RaiseException(DWORD code, DWORD flags, DWORD count, const ULONG_PTR* arguments) {
    using namespace Quellan::Platform;
    constexpr DWORD SystemBit = 0x10000000;
    EXCEPTION_RECORD record{};
    record.ExceptionCode = code & ~SystemBit;
    record.ExceptionFlags = flags & EXCEPTION_NONCONTINUABLE;
    record.ExceptionAddress = TQ_RETURN_ADDRESS;
    record.NumberParameters = arguments ? std::min(count, EXCEPTION_MAXIMUM_PARAMETERS) : 0;
    std::copy_n(arguments, record.NumberParameters, record.ExceptionInformation);
    CONTEXT context{};
    ProgramCounter(context) = AddressOf(record.ExceptionAddress);
    StackPointer(context) = AddressOf(TQ_STACK_BEFORE_CALL);
    if (t_trap.translator && ReachesTranslator(record.ExceptionCode, record.ExceptionFlags)) {
        EXCEPTION_POINTERS pointers{&record, &context};
        t_trap.translator(record.ExceptionCode, &pointers);
        std::terminate();
    }
    Report(record, " was raised and nobody translates it\n");
    std::abort();
}

}  // namespace Quellan::Platform
