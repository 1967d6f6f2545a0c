#include "TQLib/platform/linux/accounts/Policy.h"

#include "TQLib/platform/linux/accounts/AccountNames.h"
#include "TQLib/platform/linux/accounts/Packer.h"
#include "TQLib/platform/linux/accounts/PolicyStore.h"
#include "TQLib/platform/linux/accounts/PrivilegeNames.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/HandleTable.h"
#include "TQLib/platform/linux/base/Memory.h"
#include "TQLib/platform/linux/base/Wide.h"

namespace Quellan::Platform {

namespace {

class Policy : public Object {
  public:
    static constexpr ObjectKind Kind{.name = "policy", .closedByCloseHandle = false};

    Policy() : Object(Kind) {}
};

struct Translation {
    DWORD status;
    DWORD code;
};

constexpr Translation Translations[] = {
    {STATUS_SUCCESS, ERROR_SUCCESS},
    {STATUS_UNSUCCESSFUL, ERROR_GEN_FAILURE},
    {STATUS_INVALID_HANDLE, ERROR_INVALID_HANDLE},
    {STATUS_INVALID_PARAMETER, ERROR_INVALID_PARAMETER},
    {STATUS_NO_MEMORY, ERROR_NOT_ENOUGH_MEMORY},
    {STATUS_ACCESS_DENIED, ERROR_ACCESS_DENIED},
    {STATUS_BUFFER_TOO_SMALL, ERROR_INSUFFICIENT_BUFFER},
    {STATUS_OBJECT_NAME_NOT_FOUND, ERROR_FILE_NOT_FOUND},
    {STATUS_OBJECT_PATH_NOT_FOUND, ERROR_PATH_NOT_FOUND},
    {STATUS_NO_SUCH_PRIVILEGE, ERROR_NO_SUCH_PRIVILEGE},
    {STATUS_PRIVILEGE_NOT_HELD, ERROR_PRIVILEGE_NOT_HELD},
    {STATUS_NO_SUCH_USER, ERROR_NO_SUCH_USER},
    {STATUS_NONE_MAPPED, ERROR_NONE_MAPPED},
    {STATUS_INVALID_SID, ERROR_INVALID_SID},
    {STATUS_DISK_FULL, ERROR_DISK_FULL},
    {STATUS_INSUFFICIENT_RESOURCES, ERROR_NO_SYSTEM_RESOURCES},
    {STATUS_MEDIA_WRITE_PROTECTED, ERROR_WRITE_PROTECT},
    {STATUS_NOT_SUPPORTED, ERROR_NOT_SUPPORTED},
    {STATUS_INTERNAL_DB_CORRUPTION, ERROR_INTERNAL_DB_CORRUPTION},
    {STATUS_INTERNAL_ERROR, ERROR_INTERNAL_ERROR},
    {STATUS_TOO_MANY_OPENED_FILES, ERROR_TOO_MANY_OPEN_FILES},
    {RPC_NT_SERVER_UNAVAILABLE, RPC_S_SERVER_UNAVAILABLE},
};

NTSTATUS NtStatus(DWORD status) noexcept {
    return static_cast<NTSTATUS>(status);
}

NTSTATUS StatusOf(DWORD code) noexcept {
    const auto* const found = std::ranges::find(Translations, code, &Translation::code);
    return NtStatus(found == std::end(Translations) ? STATUS_UNSUCCESSFUL : found->status);
}

std::wstring_view TextOf(const LSA_UNICODE_STRING& text) noexcept {
    return {text.Buffer, text.Length / sizeof(wchar_t)};
}

DWORD CheckAccount(LSA_HANDLE handle, const void* account, ACCESS_MASK access) noexcept {
    const HandleRef<Policy> policy(handle);
    if (!policy) return ERROR_INVALID_HANDLE;
    if (access & ~policy.Access()) return ERROR_ACCESS_DENIED;
    // One without sub-authorities has no text that could be read again.
    return IsSid(account) && SubAuthoritiesOf(account) != 0 ? ERROR_SUCCESS : ERROR_INVALID_SID;
}

DWORD ReadNames(const LSA_UNICODE_STRING* rights, ULONG count, RightNames& names) {
    if (!rights && count != 0) return ERROR_INVALID_PARAMETER;
    for (ULONG i = 0; i < count; ++i) {
        const wchar_t* const known = rights[i].Buffer ? FindAccountRight(TextOf(rights[i])) : nullptr;
        if (!known) return ERROR_NO_SUCH_PRIVILEGE;
        names.push_back(ToUtf8(known));
    }
    return ERROR_SUCCESS;
}

DWORD PackRights(const RightNames& names, LSA_UNICODE_STRING*& rights) {
    std::vector<std::wstring> texts;
    for (const std::string& name : names)
        texts.push_back(ToWide(name));
    const auto pack = [&](Packer& packer) {
        auto* const entries = packer.Array<LSA_UNICODE_STRING>(texts.size());
        for (std::size_t i = 0; i < texts.size(); ++i) {
            wchar_t* const text = packer.Text(texts[i]);
            const auto size = static_cast<WORD>(texts[i].size() * sizeof(wchar_t));
            if (entries) entries[i] = {size, static_cast<WORD>(size + sizeof(wchar_t)), text};
        }
    };
    Packer counter;
    pack(counter);
    void* const block = LocalAlloc(LMEM_FIXED, counter.Size());
    if (!block) return ERROR_NOT_ENOUGH_MEMORY;
    Packer packer(block);
    pack(packer);
    rights = static_cast<LSA_UNICODE_STRING*>(block);
    return ERROR_SUCCESS;
}

// What a caller gets for an account without rights, which here is not an account that is unknown.
NTSTATUS StatusOfRights(DWORD code) noexcept {
    return code == ERROR_NONE_MAPPED ? NtStatus(STATUS_OBJECT_NAME_NOT_FOUND) : StatusOf(code);
}

}  // namespace

NTSTATUS LsaOpenPolicy(LSA_UNICODE_STRING* system, LSA_OBJECT_ATTRIBUTES* attributes, ACCESS_MASK access,
                       LSA_HANDLE* policy) noexcept {
    if (DWORD code = FaultDue("LsaOpenPolicy")) return StatusOf(code);
    if (!attributes || !policy) return NtStatus(STATUS_INVALID_PARAMETER);
    const DWORD code = WithMemory([&] {
        const std::wstring name(system && system->Buffer ? TextOf(*system) : std::wstring_view());
        if (!IsThisMachine(name.c_str())) return DWORD{RPC_S_SERVER_UNAVAILABLE};
        return NewHandle<Policy>(*policy, access & MAXIMUM_ALLOWED ? POLICY_ALL_ACCESS : access);
    });
    return StatusOf(code);
}

NTSTATUS LsaClose(LSA_HANDLE policy) noexcept {
    return StatusOf(CloseHandleOf(policy, &Policy::Kind));
}

NTSTATUS LsaEnumerateAccountRights(LSA_HANDLE policy, PSID account, LSA_UNICODE_STRING** rights,
                                   ULONG* count) noexcept {
    if (DWORD code = FaultDue("LsaEnumerateAccountRights")) return StatusOf(code);
    if (!rights || !count) return NtStatus(STATUS_INVALID_PARAMETER);
    return StatusOfRights(WithMemory([&] {
        RightNames names;
        DWORD code = CheckAccount(policy, account, POLICY_LOOKUP_NAMES);
        if (!code) code = ReadRights(SidValue(account), names);
        if (!code && names.empty()) code = ERROR_NONE_MAPPED;
        if (!code) code = PackRights(names, *rights);
        if (!code) *count = static_cast<ULONG>(names.size());
        return code;
    }));
}

NTSTATUS LsaAddAccountRights(LSA_HANDLE policy, PSID account, LSA_UNICODE_STRING* rights,
                             ULONG count) noexcept {
    if (DWORD code = FaultDue("LsaAddAccountRights")) return StatusOf(code);
    return StatusOf(WithMemory([&] {
        RightNames names;
        DWORD code = CheckAccount(policy, account, POLICY_LOOKUP_NAMES | POLICY_CREATE_ACCOUNT);
        if (!code) code = ReadNames(rights, count, names);
        return code ? code : AddRights(SidValue(account), names);
    }));
}

NTSTATUS LsaRemoveAccountRights(LSA_HANDLE policy, PSID account, BOOLEAN all, LSA_UNICODE_STRING* rights,
                                ULONG count) noexcept {
    if (DWORD code = FaultDue("LsaRemoveAccountRights")) return StatusOf(code);
    return StatusOfRights(WithMemory([&] {
        RightNames names;
        DWORD code = CheckAccount(policy, account, POLICY_LOOKUP_NAMES);
        if (!code && !all) code = ReadNames(rights, count, names);
        if (code) return code;
        return all ? RemoveAllRights(SidValue(account)) : RemoveRights(SidValue(account), names);
    }));
}

NTSTATUS LsaFreeMemory(void* buffer) noexcept {
    LocalFree(buffer);
    return NtStatus(STATUS_SUCCESS);
}

ULONG LsaNtStatusToWinError(NTSTATUS status) noexcept {
    const auto* const found =
        std::ranges::find(Translations, static_cast<DWORD>(status), &Translation::status);
    return found == std::end(Translations) ? ERROR_MR_MID_NOT_FOUND : found->code;
}

}  // namespace Quellan::Platform
