// The registry: keys with values and further keys in them, for all processes.
//
// HKEY_LOCAL_MACHINE is the machine's: everybody may read it as a rule and root may change it.
// HKEY_CURRENT_USER belongs to the user as whom the process runs. Names have no case and keep their spelling.
// docs/formats/registry.md says how keys and values lie on disk.
//
// Several processes may use the registry at once: a value is the old one or the new one, whoever is killed at
// whatever moment, and changes are on the disk when a call returns. What may be done is the file system's
// affair, asked when a key is opened for changes and again by each change; a thread that impersonates is
// checked as that user.
//
// These calls return a code, 0 (ERROR_SUCCESS) or what each says, and leave the last error alone. Beside that
// any of them: 6 (ERROR_INVALID_HANDLE), 5 (ERROR_ACCESS_DENIED) for a handle that does not grant what the
// call needs and for what the caller may not do, 1018 (ERROR_KEY_DELETED), 1015 (ERROR_REGISTRY_CORRUPT), 8
// (ERROR_NOT_ENOUGH_MEMORY), 87 (ERROR_INVALID_PARAMETER) for arguments that are missing or not allowed.
// Texts in values are the platform's wide characters; sizes of data count bytes, sizes of names characters.
#pragma once

#include "TQLib/platform/linux/files/SecurityDescriptors.h"

namespace Quellan::Platform {

using LSTATUS = LONG;
using REGSAM = DWORD;

// Open all the time; closing does nothing.
inline const HKEY HKEY_CURRENT_USER = reinterpret_cast<HKEY>(ULONG_PTR{0xFFFFFFFF80000001});
inline const HKEY HKEY_LOCAL_MACHINE = reinterpret_cast<HKEY>(ULONG_PTR{0xFFFFFFFF80000002});

inline constexpr DWORD REG_NONE = 0;
inline constexpr DWORD REG_SZ = 1;
inline constexpr DWORD REG_EXPAND_SZ = 2;
inline constexpr DWORD REG_BINARY = 3;
inline constexpr DWORD REG_DWORD = 4;
inline constexpr DWORD REG_DWORD_BIG_ENDIAN = 5;
inline constexpr DWORD REG_LINK = 6;
inline constexpr DWORD REG_MULTI_SZ = 7;
inline constexpr DWORD REG_QWORD = 11;

inline constexpr DWORD KEY_QUERY_VALUE = 0x0001;
inline constexpr DWORD KEY_SET_VALUE = 0x0002;
inline constexpr DWORD KEY_CREATE_SUB_KEY = 0x0004;
inline constexpr DWORD KEY_ENUMERATE_SUB_KEYS = 0x0008;
inline constexpr DWORD KEY_NOTIFY = 0x0010;
inline constexpr DWORD KEY_CREATE_LINK = 0x0020;
inline constexpr DWORD KEY_WOW64_64KEY = 0x0100;  // changes nothing: there is one view
inline constexpr DWORD KEY_READ = READ_CONTROL | KEY_QUERY_VALUE | KEY_ENUMERATE_SUB_KEYS | KEY_NOTIFY;
inline constexpr DWORD KEY_WRITE = READ_CONTROL | KEY_SET_VALUE | KEY_CREATE_SUB_KEY;
inline constexpr DWORD KEY_EXECUTE = KEY_READ;
inline constexpr DWORD KEY_ALL_ACCESS = STANDARD_RIGHTS_REQUIRED | 0x003F;

inline constexpr DWORD REG_OPTION_NON_VOLATILE = 0;

inline constexpr DWORD REG_CREATED_NEW_KEY = 1;
inline constexpr DWORD REG_OPENED_EXISTING_KEY = 2;

// Keys. A path is names of up to 255 characters with backslashes between them; 161 (ERROR_BAD_PATHNAME) for
// one that begins with a backslash. Making, opening and deleting subkeys needs no access of the handle.

// 2 (ERROR_FILE_NOT_FOUND). Without a path, a new handle of the key itself, or the same where that is open
// all the time. `access` may be generic rights and MAXIMUM_ALLOWED; 50 (ERROR_NOT_SUPPORTED) for options.
// On failure `opened` receives null.
TQLIB_API LSTATUS RegOpenKeyExW(HKEY key, const wchar_t* path, DWORD options, REGSAM access,
                                HKEY* opened) noexcept;
// Makes every key of the path that is missing. The class is not kept. 50 (ERROR_NOT_SUPPORTED) for options,
// security descriptors and inherited handles.
TQLIB_API LSTATUS RegCreateKeyExW(HKEY key, const wchar_t* path, DWORD reserved, wchar_t* className,
                                  DWORD options, REGSAM access, const SECURITY_ATTRIBUTES* security,
                                  HKEY* opened, DWORD* disposition) noexcept;
TQLIB_API LSTATUS RegCloseKey(HKEY key) noexcept;
// A key without subkeys: 5 (ERROR_ACCESS_DENIED) for others, 2 (ERROR_FILE_NOT_FOUND). An empty path deletes
// the key itself. Handles of the key give 1018 from then on.
TQLIB_API LSTATUS RegDeleteKeyExW(HKEY key, const wchar_t* path, REGSAM view, DWORD reserved) noexcept;
// The subkey with all that is in it, in one step; without a path all that is in the key itself, one after the
// other. 2 (ERROR_FILE_NOT_FOUND). The handle must grant DELETE, KEY_ENUMERATE_SUB_KEYS and KEY_QUERY_VALUE,
// without a path KEY_SET_VALUE too.
TQLIB_API LSTATUS RegDeleteTreeW(HKEY key, const wchar_t* path) noexcept;
// Changes are on the disk already.
TQLIB_API LSTATUS RegFlushKey(HKEY key) noexcept;
// Of this machine only: null or its name; others are 53 (ERROR_BAD_NETPATH). Only HKEY_LOCAL_MACHINE can be
// connected to, 6 (ERROR_INVALID_HANDLE) otherwise.
TQLIB_API LSTATUS RegConnectRegistryW(const wchar_t* machine, HKEY key, HKEY* connected) noexcept;

// Values. A name has up to 16,383 characters; null or the empty one is the key's unnamed value. Data has up
// to 16 MiB.

// 2 (ERROR_FILE_NOT_FOUND), 234 (ERROR_MORE_DATA) with type and size where the data is larger than the
// buffer. Without a buffer, type and size. Texts come as they were set, with or without a terminator. Needs
// KEY_QUERY_VALUE.
TQLIB_API LSTATUS RegQueryValueExW(HKEY key, const wchar_t* name, DWORD* reserved, DWORD* type, BYTE* data,
                                   DWORD* size) noexcept;
// Any type will do. 998 (ERROR_NOACCESS) for a size without data, 1450 (ERROR_NO_SYSTEM_RESOURCES) for too
// much. Needs KEY_SET_VALUE.
TQLIB_API LSTATUS RegSetValueExW(HKEY key, const wchar_t* name, DWORD reserved, DWORD type, const BYTE* data,
                                 DWORD size) noexcept;
// 2 (ERROR_FILE_NOT_FOUND). Needs KEY_SET_VALUE.
TQLIB_API LSTATUS RegDeleteValueW(HKEY key, const wchar_t* name) noexcept;

// What is in a key. The order stays while nothing changes. A walk through all indices from 0 on sees what is
// there from its beginning to its end once, whatever else comes and goes. 259 (ERROR_NO_MORE_ITEMS), 234
// (ERROR_MORE_DATA) where the name is longer than the buffer, or the data larger, with its size.

// `nameSize` is the buffer's size, then the length without the terminator. Classes are empty. Needs
// KEY_ENUMERATE_SUB_KEYS.
TQLIB_API LSTATUS RegEnumKeyExW(HKEY key, DWORD index, wchar_t* name, DWORD* nameSize, DWORD* reserved,
                                wchar_t* className, DWORD* classSize, FILETIME* lastWrite) noexcept;
// Needs KEY_QUERY_VALUE.
TQLIB_API LSTATUS RegEnumValueW(HKEY key, DWORD index, wchar_t* name, DWORD* nameSize, DWORD* reserved,
                                DWORD* type, BYTE* data, DWORD* size) noexcept;
// Each may be null. Lengths of names without terminators. The class and the security descriptor have none.
// Needs KEY_QUERY_VALUE.
TQLIB_API LSTATUS RegQueryInfoKeyW(HKEY key, wchar_t* className, DWORD* classSize, DWORD* reserved,
                                   DWORD* subkeys, DWORD* longestSubkey, DWORD* longestClass, DWORD* values,
                                   DWORD* longestValueName, DWORD* largestData, DWORD* securityDescriptor,
                                   FILETIME* lastWrite) noexcept;

// Who may do what with a key: its folder's owner, group and bits decide, of which the descriptor tells. They cannot be
// changed: 50 (ERROR_NOT_SUPPORTED), as for the SACL. `size` is the buffer's, then what is needed; 122
// (ERROR_INSUFFICIENT_BUFFER). Needs READ_CONTROL.
TQLIB_API LSTATUS RegGetKeySecurity(HKEY key, SECURITY_INFORMATION wanted, PSECURITY_DESCRIPTOR descriptor,
                                    DWORD* size) noexcept;
TQLIB_API LSTATUS RegSetKeySecurity(HKEY key, SECURITY_INFORMATION given,
                                    PSECURITY_DESCRIPTOR descriptor) noexcept;

}  // namespace Quellan::Platform
