// Faults to order, and translating them into one exception class.
#pragma once

#include "TQLib/platform/StructuredExceptions.h"
#include "TQLib/platform/Win32.h"

#include <cstdint>
#include <gmock/gmock.h>
#include <optional>
#include <ostream>
#include <vector>

namespace Faults {

struct Fault {
    DWORD code;
    DWORD flags;
    void* address;
    std::vector<ULONG_PTR> parameters;

    friend void PrintTo(const Fault& fault, std::ostream* out) {
        *out << "0x" << std::hex << fault.code << " flags " << fault.flags << " at " << fault.address
             << std::dec << " parameters " << testing::PrintToString(fault.parameters);
    }
};

inline void ThrowFault(unsigned int code, EXCEPTION_POINTERS* pointers) {
    const EXCEPTION_RECORD& record = *pointers->ExceptionRecord;
    throw Fault{static_cast<DWORD>(code),
                record.ExceptionFlags,
                record.ExceptionAddress,
                {record.ExceptionInformation, record.ExceptionInformation + record.NumberParameters}};
}

// The calling thread translates while this lives.
class Translated {
  public:
    explicit Translated(Quellan::Platform::StructuredExceptionTranslator translator = ThrowFault)
        : m_previous(Quellan::Platform::SetStructuredExceptionTranslator(translator)) {}
    ~Translated() { Quellan::Platform::SetStructuredExceptionTranslator(m_previous); }
    Translated(const Translated&) = delete;
    Translated& operator=(const Translated&) = delete;

  private:
    Quellan::Platform::StructuredExceptionTranslator m_previous;
};

// The fault that `action` ends with, if any. Its translator must be ThrowFault.
template <class Action>
std::optional<Fault> FaultOf(Action action) {
    try {
        action();
    } catch (const Fault& fault) {
        return fault;
    }
    return std::nullopt;
}

template <class... Parameters>
auto IsFault(DWORD code, Parameters... parameters) {
    return testing::Optional(
        testing::AllOf(testing::Field("code", &Fault::code, code),
                       testing::Field("parameters", &Fault::parameters,
                                      testing::ElementsAre(static_cast<ULONG_PTR>(parameters)...))));
}

inline ULONG_PTR NumberOf(const volatile void* pointer) {
    return reinterpret_cast<ULONG_PTR>(pointer);
}

// The compiler must neither see what these do nor conclude that they cannot throw; the sanitizers must not
// stop them before the processor does.
[[gnu::noipa, gnu::no_sanitize("undefined")]] inline int Read(const volatile int* from) {
    return *from;
}
[[gnu::noipa, gnu::no_sanitize("undefined")]] inline void Write(volatile int* to) {
    *to = 1;
}
[[gnu::noipa, gnu::no_sanitize("undefined")]] inline int Divide(int dividend, int divisor) {
    return dividend / divisor;
}
[[gnu::noipa, gnu::no_sanitize("undefined")]] inline int Call(int (*function)()) {
    return function() + 1;
}
[[gnu::noipa]] inline void ExecuteIllegalInstruction() {
#if defined(__aarch64__)
    asm volatile("udf #0");
#else
    asm volatile("ud2");
#endif
}
inline int ReadNearNull() {
    return Read(reinterpret_cast<const int*>(64));
}

// A page that may be read or not be touched at all.
class Page {
  public:
    enum class Access { None, ReadOnly };

    explicit Page(Access access);
    ~Page();
    Page(const Page&) = delete;
    Page& operator=(const Page&) = delete;
    int* At(std::size_t index) const { return static_cast<int*>(m_address) + index; }

  private:
    void* m_address;
};

const void* ProgramCounterOf(const CONTEXT& context);

// What a process's end looks like to EXPECT_EXIT: after an access violation that nobody translated, and after
// an unhandled RaiseException of `code`.
bool DiedOfAccessViolation(int status);
bool DiedOfRaised(DWORD code, int status);

// In a library of its own (StructuredExceptionsFrames.cpp): calls `callback` below frames with destructors,
// each of which counts.
int CallBelowDestructors(int (*callback)(), int& destroyed);
constexpr int DestructorsOnTheWay = 3;

}  // namespace Faults
