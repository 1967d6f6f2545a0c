// What is known of the well-known identifiers.
#pragma once

#include "platform/linux/internal/SidValue.h"

#include <span>

namespace Quellan::Corvel::Platform {

enum class SidPlace {
    Fixed,    // the same everywhere
    Domain,   // an account domain and the one sub-authority
    Session,  // one for each logon session, S-1-5-5-x-y; the entry stands for the prefix
};

struct WellKnownSid {
    SidPlace place = SidPlace::Fixed;
    BYTE authority = 0;
    BYTE count = 0;
    DWORD subAuthorities[6]{};
    const wchar_t* alias = L"";  // two letters, or none
    const wchar_t* name = L"";   // of fixed ones
    const wchar_t* domain = L"";
    SID_NAME_USE use = SidTypeWellKnownGroup;

    SidValue Sid() const noexcept;  // of fixed ones
    bool Is(const void* sid) const noexcept;
};

// By WELL_KNOWN_SID_TYPE.
std::span<const WellKnownSid> WellKnownSids() noexcept;

// Null for what is no type.
const WellKnownSid* FindWellKnownSid(WELL_KNOWN_SID_TYPE type) noexcept;

}  // namespace Quellan::Corvel::Platform
