// The descriptors of named objects.
#pragma once

#include "TQLib/platform/linux/objects/Handles.h"

#include <span>
#include <sys/stat.h>
#include <vector>

namespace Quellan::Platform {

// What a new object has of the attributes' descriptor: bits for the file, which the kernel keeps, and the block in
// one piece that the layer asks at each opening; empty where no list is given, and the user then has all rights.
// The block has the list as it is given, and as owner and group the caller's where none are given. The bits let
// in whoever the list gives any of the rights to wait for the object or to change it. 50 (ERROR_NOT_SUPPORTED) for
// a list that bits cannot express, 1338 (ERROR_INVALID_SECURITY_DESCR), 1336 (ERROR_INVALID_ACL), 1337
// (ERROR_INVALID_SID). May throw std::bad_alloc.
struct ObjectSecurity {
    mode_t mode = 0600;
    std::vector<BYTE> block;
};
DWORD SecurityOfNewObject(const SECURITY_ATTRIBUTES* attributes, ObjectSecurity& security);
// The same for the list of a descriptor that an object gets which is there: the rest of its block, `before`, stays
// as it is; without one its owner is the user of its file. 1338 also without a list.
DWORD SecurityWithList(const void* descriptor, std::span<const BYTE> before, const struct stat& file,
                       ObjectSecurity& security);

}  // namespace Quellan::Platform
