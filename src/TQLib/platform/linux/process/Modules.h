// Modules by the platform's calls: loading, finding, enumerating.
//
// A module's name may end in ".dll" or have no extension, as on Windows: "X.dll" and "X" stand for "X.so" and
// "libX.so", and for "X.dll" itself last. Other names are taken as they are. A name without a folder is
// searched beside the executable, then beside this library, then by the dynamic loader; one with a folder
// lies where it says. Loaded modules are compared without regard to case, and a version behind ".so" does not
// matter.
//
// An HMODULE is the address at which the module's image lies, with the lowest bits set for data files as on
// the platform. It is looked up before it is used: one that is no module (any more) fails with 126
// (ERROR_MOD_NOT_FOUND).
#pragma once

#include "TQLib/platform/linux/base/Base.h"

namespace Quellan::Platform {

using FARPROC = std::intptr_t (*)();

inline constexpr DWORD DONT_RESOLVE_DLL_REFERENCES = 0x00000001;
inline constexpr DWORD LOAD_LIBRARY_AS_DATAFILE = 0x00000002;
inline constexpr DWORD LOAD_LIBRARY_AS_IMAGE_RESOURCE = 0x00000020;
inline constexpr DWORD LOAD_LIBRARY_SEARCH_APPLICATION_DIR = 0x00000200;
inline constexpr DWORD LOAD_LIBRARY_SEARCH_SYSTEM32 = 0x00000800;
inline constexpr DWORD LOAD_LIBRARY_SEARCH_DEFAULT_DIRS = 0x00001000;

inline constexpr DWORD GET_MODULE_HANDLE_EX_FLAG_PIN = 0x00000001;
inline constexpr DWORD GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT = 0x00000002;
inline constexpr DWORD GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS = 0x00000004;

// Null with 126 when the module or one that it needs is not found, 127 (ERROR_PROC_NOT_FOUND) when a function
// that it needs is not, 193 (ERROR_BAD_EXE_FORMAT) for a file that is no module of this machine, 5
// (ERROR_ACCESS_DENIED) for one that may not be read, 87 (ERROR_INVALID_PARAMETER) for a null name.
TQLIB_API HMODULE LoadLibraryW(const wchar_t* name) noexcept;
// As `LoadLibraryW` with the flags above, `file` null; other flags give 87. The first three load a data file:
// it is mapped, none of its code runs and it serves for its messages alone, be it a module of this machine,
// of another, or of Windows; it is missing with 2 (ERROR_FILE_NOT_FOUND) and empty with 1006
// (ERROR_FILE_INVALID). A search flag limits the search to what it names.
TQLIB_API HMODULE LoadLibraryExW(const wchar_t* name, HANDLE file, DWORD flags) noexcept;
// Undoes one load; what was not loaded by these calls stays. Null gives 6 (ERROR_INVALID_HANDLE).
TQLIB_API BOOL FreeLibrary(HMODULE module) noexcept;

// A loaded module, not a data file; null is the executable. The module is not kept loaded.
TQLIB_API HMODULE GetModuleHandleW(const wchar_t* name) noexcept;
// The same, and the module stays loaded until it is freed, or for good with the pin, or is not kept at all;
// with FROM_ADDRESS the module that holds the address given as name. 87 for a null result, unknown flags and
// a pin together with an unchanged count.
TQLIB_API BOOL GetModuleHandleExW(DWORD flags, const wchar_t* name, HMODULE* module) noexcept;

// The full path of a loaded module; null is the executable. Returns its number of characters. When the buffer
// is too small it is filled, terminated, and `size` returned with 122 (ERROR_INSUFFICIENT_BUFFER). The
// executable's is the one that it had when this library was loaded; 0 with 3 (ERROR_PATH_NOT_FOUND) where it
// could not be found out then.
TQLIB_API DWORD GetModuleFileNameW(HMODULE module, wchar_t* buffer, DWORD size) noexcept;

// A function or object that the module itself exports; null is the executable. 127 when there is none of that
// name; ordinals do not exist here.
TQLIB_API FARPROC GetProcAddress(HMODULE module, const char* name) noexcept;

// Writes as many loaded modules as `size` bytes hold, the executable first, and the bytes that all of them
// need. The process can only be the calling one's pseudo handle, any other gives 6; null pointers give 998
// (ERROR_NOACCESS).
TQLIB_API BOOL EnumProcessModules(HANDLE process, HMODULE* modules, DWORD size, DWORD* needed) noexcept;
// The file name of a loaded module, cut to the buffer; null is the executable. Returns its number of
// characters, 0 with 6 for an unknown module or process.
TQLIB_API DWORD GetModuleBaseNameW(HANDLE process, HMODULE module, wchar_t* buffer, DWORD size) noexcept;

}  // namespace Quellan::Platform
