// Security identifiers inside the layer: reading blocks of the published form, and a value that needs no
// allocation. Blocks need no alignment.
#pragma once

#include "TQLib/platform/linux/accounts/Sids.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>

namespace Quellan::Platform {

constexpr DWORD SidHeaderSize = 8;

constexpr DWORD SidLength(BYTE subAuthorities) noexcept {
    return SidHeaderSize + subAuthorities * DWORD{sizeof(DWORD)};
}

// These read what the block says of itself; whether that is sensible is for `IsSid` to tell first.
inline BYTE SubAuthoritiesOf(const void* sid) noexcept {
    return static_cast<const BYTE*>(sid)[1];
}

inline DWORD LengthOf(const void* sid) noexcept {
    return SidLength(SubAuthoritiesOf(sid));
}

inline std::uint64_t AuthorityOf(const void* sid) noexcept {
    std::uint64_t value = 0;
    for (unsigned i = 2; i < SidHeaderSize; ++i)
        value = value << 8 | static_cast<const BYTE*>(sid)[i];
    return value;
}

inline DWORD SubAuthorityOf(const void* sid, unsigned index) noexcept {
    DWORD value;
    std::memcpy(&value, static_cast<const BYTE*>(sid) + SidLength(static_cast<BYTE>(index)), sizeof value);
    return value;
}

// Whether the block at an address that can be read is an identifier.
inline bool IsSid(const void* sid) noexcept {
    return sid && *static_cast<const BYTE*>(sid) == SID_REVISION &&
           SubAuthoritiesOf(sid) <= SID_MAX_SUB_AUTHORITIES;
}

// Of two identifiers.
inline bool AreEqual(const void* left, const void* right) noexcept {
    return SubAuthoritiesOf(left) == SubAuthoritiesOf(right) && std::memcmp(left, right, LengthOf(left)) == 0;
}

// An identifier, laid out as the published block.
struct SidValue {
    BYTE revision = SID_REVISION;
    BYTE count = 0;
    SID_IDENTIFIER_AUTHORITY authority{};
    DWORD subAuthorities[SID_MAX_SUB_AUTHORITIES]{};

    constexpr SidValue() = default;
    constexpr SidValue(BYTE number, std::initializer_list<DWORD> values)
        : count(static_cast<BYTE>(values.size())), authority{{0, 0, 0, 0, 0, number}} {
        std::copy(values.begin(), values.end(), subAuthorities);
    }
    // Copies a block that is an identifier.
    explicit SidValue(const void* sid) noexcept { std::memcpy(this, sid, LengthOf(sid)); }

    constexpr DWORD Length() const noexcept { return SidLength(count); }
    // For calls that take what they only read as not constant.
    PSID Get() const noexcept { return const_cast<SidValue*>(this); }
    // The identifier with one more sub-authority; it must have room for that.
    constexpr SidValue With(DWORD rid) const noexcept {
        SidValue result = *this;
        result.subAuthorities[result.count++] = rid;
        return result;
    }
    bool operator==(const SidValue& other) const noexcept { return AreEqual(this, &other); }
};
static_assert(sizeof(SidValue) == SECURITY_MAX_SID_SIZE);

std::string SidText(const void* sid);  // may throw std::bad_alloc

// Reads that form, 1 to 15 sub-authorities. False, with `sid` unchanged, for everything else.
bool ParseSid(std::wstring_view text, SidValue& sid) noexcept;

}  // namespace Quellan::Platform
