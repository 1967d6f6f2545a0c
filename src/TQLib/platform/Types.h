// The platform's basic types, without the platform's headers: all that a public header needs. On Windows
// these are the system's own types, repeated word for word, so that <windows.h> may be included before or
// after; on Linux the same names stand for types of the same width, inside of `Quellan` alone, so that other
// headers with such names get in nobody's way. A DWORD has 32 bits on both, wchar_t has 16 on Windows (UTF-16)
// and 32 on Linux (UTF-32).
#pragma once

#include "TQLib/platform/Compiler.h"

#include <cstddef>
#include <cstdint>

#if defined(_WIN32)
using DWORD = unsigned long;
using LONG = long;
struct _ACE_HEADER;
struct _ACL;
struct _SECURITY_ATTRIBUTES;
struct _SID_AND_ATTRIBUTES;
struct _SID_IDENTIFIER_AUTHORITY;
using ACE_HEADER = _ACE_HEADER;
using ACL = _ACL;
using SECURITY_ATTRIBUTES = _SECURITY_ATTRIBUTES;
using SID_AND_ATTRIBUTES = _SID_AND_ATTRIBUTES;
using SID_IDENTIFIER_AUTHORITY = _SID_IDENTIFIER_AUTHORITY;
#else
static_assert(sizeof(wchar_t) == 4, "The library is built without -fshort-wchar, and so must its users be");
#if defined(_GLIBCXX_USE_CXX11_ABI)
static_assert(_GLIBCXX_USE_CXX11_ABI,
              "The library is built with the strings of C++11, and so must its users be");
#endif
namespace Quellan::Platform {
using DWORD = std::uint32_t;
using LONG = std::int32_t;
struct ACE_HEADER;
struct ACL;
struct SECURITY_ATTRIBUTES;
struct SID_AND_ATTRIBUTES;
struct SID_IDENTIFIER_AUTHORITY;
#endif
struct _EXCEPTION_POINTERS;
struct HINSTANCE__;
struct HKEY__;
struct SC_HANDLE__;

using ULONG = DWORD;
using HRESULT = LONG;
using BYTE = unsigned char;
using WORD = unsigned short;
// A macro for the same type in unixODBC's headers, which stays its own.
#pragma push_macro("BOOL")
#undef BOOL
using BOOL = int;
#pragma pop_macro("BOOL")
using UINT = unsigned int;
using WCHAR = wchar_t;
using ULONGLONG = unsigned long long;
using LONGLONG = long long;
using DWORD64 = unsigned long long;
using HMODULE = HINSTANCE__*;
using HANDLE = void*;
using HKEY = HKEY__*;
using SC_HANDLE = SC_HANDLE__*;
using LCID = DWORD;
using LANGID = unsigned short;
#if !defined(_WIN32)
}  // namespace Quellan::Platform
namespace Quellan {
using namespace Platform;
}
#endif
