// What generic rights stand for.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Platform {

// The rights of one kind of objects. `all` are the rights there are.
struct GenericRights {
    DWORD read = 0;
    DWORD write = 0;
    DWORD execute = 0;
    DWORD all = 0;
};

// `access` with the rights that its generic ones stand for in their place; the others stay.
constexpr DWORD MapGenericRights(const GenericRights& rights, DWORD access) noexcept {
    constexpr DWORD All = 0x10000000;
    constexpr DWORD Execute = 0x20000000;
    constexpr DWORD Write = 0x40000000;
    constexpr DWORD Read = 0x80000000;
    return (access & ~(All | Execute | Write | Read)) | (access & All ? rights.all : 0) |
           (access & Execute ? rights.execute : 0) | (access & Write ? rights.write : 0) |
           (access & Read ? rights.read : 0);
}

}  // namespace Quellan::Platform
