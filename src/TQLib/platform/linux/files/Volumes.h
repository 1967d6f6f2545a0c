// Where files lie: mounted file systems in the place of drives.
#pragma once

#include "TQLib/platform/linux/base/Base.h"

namespace Quellan::Platform {

inline constexpr UINT DRIVE_UNKNOWN = 0;
inline constexpr UINT DRIVE_NO_ROOT_DIR = 1;
inline constexpr UINT DRIVE_REMOVABLE = 2;
inline constexpr UINT DRIVE_FIXED = 3;
inline constexpr UINT DRIVE_REMOTE = 4;
inline constexpr UINT DRIVE_CDROM = 5;
inline constexpr UINT DRIVE_RAMDISK = 6;

// The folder on which the file system is mounted that a file of this name is on or would be on, with a final
// '/'. Of a name that leads nowhere the nearest folder that is there counts. 206
// (ERROR_FILENAME_EXCED_RANGE) for a buffer of fewer than the characters needed.
TQLIB_API BOOL GetVolumePathNameW(const wchar_t* name, wchar_t* volume, DWORD size) noexcept;

// Of the file system that holds the folder `root`, null for the current one: in memory, from another machine,
// on a medium that the kernel says can be removed, on an optical one, and fixed for all others.
// DRIVE_NO_ROOT_DIR where there is no such folder.
TQLIB_API UINT GetDriveTypeW(const wchar_t* root) noexcept;

}  // namespace Quellan::Platform
