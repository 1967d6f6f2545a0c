// Handles of every kind.
#pragma once

#include "TQLib/platform/linux/files/SecurityDescriptors.h"

namespace Quellan::Platform {

inline constexpr DWORD HANDLE_FLAG_INHERIT = 1;
inline constexpr DWORD HANDLE_FLAG_PROTECT_FROM_CLOSE = 2;

// Ends the handle's life at once and the object's with the last call that still uses it. 6
// (ERROR_INVALID_HANDLE) for a handle that is stale, was closed or never was one, or whose kind has a closing
// call of its own (FindClose, CloseEventLog, DeregisterEventSource). Pseudo handles are left alone, with
// success.
TQLIB_API BOOL CloseHandle(HANDLE handle) noexcept;
// No handle of this layer is inherited or protected: the flags of a valid handle are always 0.
TQLIB_API BOOL GetHandleInformation(HANDLE handle, DWORD* flags) noexcept;

inline constexpr DWORD DUPLICATE_CLOSE_SOURCE = 1;
inline constexpr DWORD DUPLICATE_SAME_ACCESS = 2;

// A second handle of the same object, for the calling process from the calling process; both process handles
// are GetCurrentProcess(). It grants `access`, or with DUPLICATE_SAME_ACCESS what the first grants: 5
// (ERROR_ACCESS_DENIED) for a right that objects of the kind do not have, and for a right to a file's
// contents that the first does not grant. The pseudo handle of the calling thread becomes a real one. With
// DUPLICATE_CLOSE_SOURCE the first is closed, whatever else happens. 6 (ERROR_INVALID_HANDLE), 50
// (ERROR_NOT_SUPPORTED) for other processes, for a handle of the process itself and for an inherited handle,
// 87 (ERROR_INVALID_PARAMETER) for other options.
TQLIB_API BOOL DuplicateHandle(HANDLE fromProcess, HANDLE source, HANDLE toProcess, HANDLE* target,
                               DWORD access, BOOL inherit, DWORD options) noexcept;

// Whether both are handles of one object. The last error is set only where one of them is invalid: 6
// (ERROR_INVALID_HANDLE), and FALSE. A pseudo handle equals itself alone.
TQLIB_API BOOL CompareObjectHandles(HANDLE first, HANDLE second) noexcept;

// The descriptor of what a handle names, as GetFileSecurityW and SetFileSecurityW do for files, which need no right of
// the handle here. Reading that of a named event, mutex or semaphore takes READ_CONTROL and setting it WRITE_DAC, 5
// (ERROR_ACCESS_DENIED); its DACL alone can be set, by the user whose it is. 50 (ERROR_NOT_SUPPORTED) for other parts,
// for objects without a name, for the kinds that have no rights, and for a list with entries of kinds that have
// another layout where it is read. Of what this process has alone it says that its user may do everything. 6
// (ERROR_INVALID_HANDLE), also for pseudo handles, 122 (ERROR_INSUFFICIENT_BUFFER) with `needed`.
TQLIB_API BOOL GetKernelObjectSecurity(HANDLE handle, SECURITY_INFORMATION wanted,
                                       PSECURITY_DESCRIPTOR descriptor, DWORD size, DWORD* needed) noexcept;
TQLIB_API BOOL SetKernelObjectSecurity(HANDLE handle, SECURITY_INFORMATION given,
                                       PSECURITY_DESCRIPTOR descriptor) noexcept;

}  // namespace Quellan::Platform
