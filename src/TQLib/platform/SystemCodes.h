// The numbers and names of system codes, the same on both platforms: for tools that show or look up a code.
// The texts of codes come from FormatMessageW.
#pragma once

#include "TQLib/platform/Types.h"

#include <span>
#include <string_view>
#include <vector>

namespace Quellan::Platform {

enum class SystemCodeFamily { Win32, HResult, NtStatus };

struct SystemCode {
    DWORD code;
    SystemCodeFamily family;
    unsigned int nameBegin;  // bytes into the names of all codes

    TQLIB_API const wchar_t* Name() const noexcept;
};

// Every code known, family by family in the order of the enumeration, by number within each.
TQLIB_API std::span<const SystemCode> SystemCodes() noexcept;

// The code of that name, in whatever case it is written; null when the name is unknown.
TQLIB_API const SystemCode* FindSystemCode(std::wstring_view name) noexcept;

// The family's code of that number; null when the number is unknown.
const SystemCode* FindSystemCode(SystemCodeFamily family, DWORD code) noexcept;

// Every family's name of a number, in the order of the enumeration. A Win32 code wrapped as an HRESULT
// (0x8007....) is also found under its own number, as the last one.
TQLIB_API std::vector<SystemCode> SystemCodesOf(DWORD code);

// The code for a value of `std::system_category`, which on Linux is an errno value.
#if defined(_WIN32)
inline DWORD CodeOfSystem(int value) noexcept {
    return static_cast<DWORD>(value);
}
#else
DWORD CodeOfSystem(int value) noexcept;
#endif

}  // namespace Quellan::Platform
