// The mounted file systems, as the kernel lists them.
#pragma once

#include "TQLib/platform/Types.h"

#include <string>
#include <string_view>

namespace Quellan::Platform {

struct Mount {
    std::string folder;
    std::string type;
    unsigned major = 0;
    unsigned minor = 0;
};

// Reads one line of /proc/PID/mountinfo. False for what is none.
bool ParseMount(std::string_view line, Mount& mount);

// The mount that an existing file or folder is on. May throw std::bad_alloc.
DWORD FindMountOf(const char* path, Mount& mount);

// One of the platform's DRIVE values, by the file system's type and the kernel's word on the device. May
// throw std::bad_alloc.
UINT DriveTypeOf(const Mount& mount);

}  // namespace Quellan::Platform
