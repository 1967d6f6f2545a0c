// What is known of the well-known identifiers.
#pragma once

#include "TQLib/platform/linux/accounts/SidValue.h"

#include <span>

namespace Quellan::Platform {

enum class SidPlace {
    Fixed,    // the same everywhere
    Domain,   // an account domain and the one sub-authority
    Nowhere,  // a type that is published and that the platform refuses
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

// By WELL_KNOWN_SID_TYPE, then those that have a name and no type.
std::span<const WellKnownSid> WellKnownSids() noexcept;

// Null for what is no type, and for one that is refused.
const WellKnownSid* FindWellKnownSid(WELL_KNOWN_SID_TYPE type) noexcept;

}  // namespace Quellan::Platform
