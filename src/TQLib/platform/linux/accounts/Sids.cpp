#include "TQLib/platform/linux/accounts/Sids.h"

#include "TQLib/platform/linux/accounts/AccountIds.h"
#include "TQLib/platform/linux/accounts/SidText.h"
#include "TQLib/platform/linux/accounts/WellKnownSids.h"
#include "TQLib/platform/linux/base/Case.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Memory.h"

#include <optional>

namespace Quellan::Platform {

namespace {

constexpr BYTE MostAllocated = 8;
constexpr std::size_t AliasSize = 2;
constexpr BYTE AccountDomainCount = 4;
constexpr BYTE BuiltinDomainCount = 1;

// How many of the first sub-authorities name the domain; 0 when it is neither kind of domain.
BYTE DomainCountOf(const void* sid) noexcept {
    const BYTE count = SubAuthoritiesOf(sid);
    if (AuthorityOf(sid) != SECURITY_NT_AUTHORITY.Value[5] || count == 0) return 0;
    const DWORD first = SubAuthorityOf(sid, 0);
    if (first == SECURITY_BUILTIN_DOMAIN_RID) return BuiltinDomainCount;
    return first == SECURITY_NT_NON_UNIQUE && count >= AccountDomainCount ? AccountDomainCount : 0;
}

// All but the number of sub-authorities, and the first of them.
bool BeginAlike(const void* left, const void* right, BYTE subAuthorities) noexcept {
    return AuthorityOf(left) == AuthorityOf(right) &&
           std::memcmp(static_cast<const BYTE*>(left) + SidHeaderSize,
                       static_cast<const BYTE*>(right) + SidHeaderSize, subAuthorities * sizeof(DWORD)) == 0;
}

// Into a caller's buffer of `size` bytes, which then holds what was needed.
DWORD PutSid(const SidValue& value, PSID sid, DWORD& size) noexcept {
    const DWORD given = size;
    size = value.Length();
    if (given < size) return ERROR_INSUFFICIENT_BUFFER;
    if (!sid) {
        size = given;
        return ERROR_INVALID_PARAMETER;
    }
    std::memcpy(sid, &value, value.Length());
    return ERROR_SUCCESS;
}

// As a new local block.
DWORD NewSid(const SidValue& value, PSID& sid) noexcept {
    sid = LocalAlloc(LMEM_FIXED, value.Length());
    if (!sid) return ERROR_NOT_ENOUGH_MEMORY;
    std::memcpy(sid, &value, value.Length());
    return ERROR_SUCCESS;
}

DWORD MakeWellKnown(const WellKnownSid* known, const void* domain, SidValue& sid) noexcept {
    if (!known || known->place == SidPlace::Session) return ERROR_INVALID_PARAMETER;
    if (known->place == SidPlace::Fixed) {
        sid = known->Sid();
        return ERROR_SUCCESS;
    }
    if (domain && (!IsSid(domain) || SubAuthoritiesOf(domain) == SID_MAX_SUB_AUTHORITIES))
        return ERROR_INVALID_PARAMETER;
    sid = (domain ? SidValue(domain) : MachineDomain()).With(known->subAuthorities[0]);
    return ERROR_SUCCESS;
}

bool ParseAlias(std::wstring_view text, SidValue& sid) noexcept {
    if (text.size() != AliasSize) return false;
    for (const WellKnownSid& known : WellKnownSids())
        if (CompareOrdinal(known.alias, text, true) == 0) return MakeWellKnown(&known, nullptr, sid) == 0;
    return false;
}

}  // namespace

BOOL IsValidSid(PSID sid) noexcept {
    if (IsBadReadPtr(sid, SidHeaderSize) || !IsSid(sid)) return FALSE;
    // Most lie within one page, about which the first question was already.
    const ULONG_PTR last = reinterpret_cast<ULONG_PTR>(sid) + LengthOf(sid) - 1;
    constexpr ULONG_PTR LeastPage = 4096;
    if (reinterpret_cast<ULONG_PTR>(sid) / LeastPage == last / LeastPage) return TRUE;
    return !IsBadReadPtr(sid, LengthOf(sid));
}

DWORD GetLengthSid(PSID sid) noexcept {
    return IsSid(sid) ? LengthOf(sid) : Fail(ERROR_INVALID_SID, DWORD{0});
}

DWORD GetSidLengthRequired(BYTE subAuthorities) noexcept {
    return SidLength(subAuthorities);
}

BOOL InitializeSid(PSID sid, SID_IDENTIFIER_AUTHORITY* authority, BYTE subAuthorities) noexcept {
    if (!sid || !authority || subAuthorities > SID_MAX_SUB_AUTHORITIES)
        return Fail(ERROR_INVALID_PARAMETER, FALSE);
    BYTE* const bytes = static_cast<BYTE*>(sid);
    bytes[0] = SID_REVISION;
    bytes[1] = subAuthorities;
    std::copy(std::begin(authority->Value), std::end(authority->Value), bytes + 2);
    return TRUE;
}

BOOL AllocateAndInitializeSid(SID_IDENTIFIER_AUTHORITY* authority, BYTE subAuthorities, DWORD first,
                              DWORD second, DWORD third, DWORD fourth, DWORD fifth, DWORD sixth,
                              DWORD seventh, DWORD eighth, PSID* sid) noexcept {
    if (DWORD code = FaultDue("AllocateAndInitializeSid")) return Fail(code, FALSE);
    if (!authority || !sid) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    if (subAuthorities > MostAllocated) return Fail(ERROR_INVALID_SID, FALSE);
    SidValue value(0, {first, second, third, fourth, fifth, sixth, seventh, eighth});
    value.authority = *authority;
    value.count = subAuthorities;
    const DWORD code = NewSid(value, *sid);
    return code ? Fail(code, FALSE) : TRUE;
}

PSID FreeSid(PSID sid) noexcept {
    return LocalFree(sid);
}

SID_IDENTIFIER_AUTHORITY* GetSidIdentifierAuthority(PSID sid) noexcept {
    if (!IsSid(sid)) return Fail(ERROR_INVALID_SID, nullptr);
    return reinterpret_cast<SID_IDENTIFIER_AUTHORITY*>(static_cast<BYTE*>(sid) + 2);
}

DWORD* GetSidSubAuthority(PSID sid, DWORD index) noexcept {
    if (!IsSid(sid)) return Fail(ERROR_INVALID_SID, nullptr);
    if (index >= SubAuthoritiesOf(sid)) return Fail(ERROR_INVALID_PARAMETER, nullptr);
    return reinterpret_cast<DWORD*>(static_cast<BYTE*>(sid) + SidLength(static_cast<BYTE>(index)));
}

BYTE* GetSidSubAuthorityCount(PSID sid) noexcept {
    if (!IsSid(sid)) return Fail(ERROR_INVALID_SID, nullptr);
    return static_cast<BYTE*>(sid) + 1;
}

BOOL CopySid(DWORD size, PSID target, PSID source) noexcept {
    if (DWORD code = FaultDue("CopySid")) return Fail(code, FALSE);
    if (!IsSid(source)) return Fail(ERROR_INVALID_SID, FALSE);
    if (size < LengthOf(source)) return Fail(ERROR_INSUFFICIENT_BUFFER, FALSE);
    if (!target) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    std::memmove(target, source, LengthOf(source));
    return TRUE;
}

BOOL EqualSid(PSID left, PSID right) noexcept {
    if (!IsSid(left) || !IsSid(right)) return Fail(ERROR_INVALID_SID, FALSE);
    return AreEqual(left, right) ? TRUE : Fail(ERROR_SUCCESS, FALSE);
}

BOOL EqualDomainSid(PSID left, PSID right, BOOL* equal) noexcept {
    if (!equal) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    if (!IsSid(left) || !IsSid(right)) return Fail(ERROR_INVALID_SID, FALSE);
    const BYTE leftCount = DomainCountOf(left);
    const BYTE rightCount = DomainCountOf(right);
    if (leftCount == 0 || rightCount == 0) return Fail(ERROR_NON_DOMAIN_SID, FALSE);
    *equal = leftCount == rightCount && BeginAlike(left, right, leftCount);
    if (!*equal) SetLastError(ERROR_SUCCESS);
    return TRUE;
}

BOOL GetWindowsAccountDomainSid(PSID sid, PSID domain, DWORD* size) noexcept {
    if (DWORD code = FaultDue("GetWindowsAccountDomainSid")) return Fail(code, FALSE);
    if (!IsSid(sid)) return Fail(ERROR_INVALID_SID, FALSE);
    if (!size) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    if (DomainCountOf(sid) != AccountDomainCount) return Fail(ERROR_NON_ACCOUNT_SID, FALSE);
    SidValue value(sid);
    value.count = AccountDomainCount;
    const DWORD code = PutSid(value, domain, *size);
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL CreateWellKnownSid(WELL_KNOWN_SID_TYPE type, PSID domain, PSID sid, DWORD* size) noexcept {
    if (DWORD code = FaultDue("CreateWellKnownSid")) return Fail(code, FALSE);
    if (!size) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    SidValue value;
    DWORD code = MakeWellKnown(FindWellKnownSid(type), domain, value);
    if (!code) code = PutSid(value, sid, *size);
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL IsWellKnownSid(PSID sid, WELL_KNOWN_SID_TYPE type) noexcept {
    const WellKnownSid* const known = FindWellKnownSid(type);
    return known && IsSid(sid) && known->Is(sid);
}

BOOL ConvertSidToStringSidW(PSID sid, wchar_t** text) noexcept {
    if (DWORD code = FaultDue("ConvertSidToStringSidW")) return Fail(code, FALSE);
    if (!text) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    if (!IsSid(sid)) return Fail(ERROR_INVALID_SID, FALSE);
    wchar_t form[MaxSidText];
    const std::size_t size = FormatSid(sid, form);
    *text = static_cast<wchar_t*>(LocalAlloc(LMEM_FIXED, (size + 1) * sizeof(wchar_t)));
    if (!*text) return Fail(ERROR_NOT_ENOUGH_MEMORY, FALSE);
    *std::copy_n(form, size, *text) = L'\0';
    return TRUE;
}

BOOL ConvertStringSidToSidW(const wchar_t* text, PSID* sid) noexcept {
    if (DWORD code = FaultDue("ConvertStringSidToSidW")) return Fail(code, FALSE);
    if (!text || !sid) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    SidValue value;
    if (!ParseAlias(text, value) && !ParseSid(text, value)) return Fail(ERROR_INVALID_SID, FALSE);
    const DWORD code = NewSid(value, *sid);
    return code ? Fail(code, FALSE) : TRUE;
}

}  // namespace Quellan::Platform
