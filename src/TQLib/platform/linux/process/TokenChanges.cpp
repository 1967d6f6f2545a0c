// Tokens that may less than they could.
#include "TQLib/platform/linux/accounts/Packer.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/process/TokenObject.h"

#include <algorithm>
#include <span>

namespace Quellan::Platform {

namespace {

// Writes what a change has replaced. Without a place for it there is nothing to write.
DWORD WritePrevious(void* previous, DWORD size, DWORD* needed, auto pack) {
    Packer counter;
    pack(counter);
    if (needed) *needed = previous ? static_cast<DWORD>(counter.Size()) : 0;
    if (!previous) return ERROR_SUCCESS;
    if (size < counter.Size()) return ERROR_INSUFFICIENT_BUFFER;
    Packer packer(previous);
    pack(packer);
    return ERROR_SUCCESS;
}

// Whether all were held.
bool ChangePowers(Powers& powers, std::span<const LUID_AND_ATTRIBUTES> wanted) noexcept {
    bool isAll = true;
    for (const LUID_AND_ATTRIBUTES& entry : wanted) {
        const Privilege* const privilege = FindPrivilege(entry.Luid);
        if (!privilege || !powers.Holds(*privilege))
            isAll = false;
        else if (entry.Attributes & SE_PRIVILEGE_REMOVED)
            powers.Remove(*privilege);
        else if (entry.Attributes & SE_PRIVILEGE_ENABLED)
            powers.Enable(*privilege);
        else
            powers.Disable(*privilege);
    }
    return isAll;
}

void DisableAll(Powers& powers) noexcept {
    for (const Privilege& known : Privileges())
        if (powers.Holds(known)) powers.Disable(known);
}

// Those that are held and not in the state that they were in.
std::vector<LUID_AND_ATTRIBUTES> ChangedPrivileges(const Powers& before, const Powers& after) {
    std::vector<LUID_AND_ATTRIBUTES> changed;
    for (const Privilege& known : Privileges())
        if (after.Holds(known) && before.Enables(known) != after.Enables(known))
            changed.push_back({{known.number, 0}, before.Enables(known) ? SE_PRIVILEGE_ENABLED : 0});
    return changed;
}

void PackChanged(const std::vector<LUID_AND_ATTRIBUTES>& changed, Packer& packer) noexcept {
    auto* const count = packer.Array<DWORD>(1);
    if (count) *count = static_cast<DWORD>(changed.size());
    auto* const entries = packer.Array<LUID_AND_ATTRIBUTES>(changed.size());
    if (entries) std::ranges::copy(changed, entries);
}

void PackChanged(const std::vector<TokenGroup>& changed, Packer& packer) noexcept {
    auto* const count = packer.Array<DWORD>(1);
    if (count) *count = static_cast<DWORD>(changed.size());
    auto* const entries = packer.Array<SID_AND_ATTRIBUTES>(changed.size());
    for (std::size_t i = 0; i < changed.size(); ++i) {
        const PSID sid = packer.Sid(changed[i].sid);
        if (entries) entries[i] = {sid, changed[i].attributes};
    }
}

// Moves a group of the system between those that count and those that do not.
void SwitchGroup(TokenContent& content, DWORD id, bool isEnabled) {
    auto& from = isEnabled ? content.disabledGroups : content.identity.groups;
    auto& to = isEnabled ? content.identity.groups : content.disabledGroups;
    std::erase(from, id);
    to.push_back(id);
}

DWORD ChangeGroups(TokenContent& content, std::span<const SID_AND_ATTRIBUTES> wanted, bool& isAll,
                   std::vector<TokenGroup>& changed) {
    std::vector<TokenGroup> groups;
    if (DWORD code = content.FindGroups(groups)) return code;
    for (const SID_AND_ATTRIBUTES& entry : wanted) {
        if (!IsSid(entry.Sid)) return ERROR_INVALID_SID;
        const auto group = std::ranges::find(groups, SidValue(entry.Sid), &TokenGroup::sid);
        if (group == groups.end()) {
            isAll = false;
            continue;
        }
        const bool isEnabled = (entry.Attributes & SE_GROUP_ENABLED) != 0;
        if (isEnabled == ((group->attributes & SE_GROUP_ENABLED) != 0)) continue;
        if (group->attributes & SE_GROUP_USE_FOR_DENY_ONLY) return ERROR_CANT_ENABLE_DENY_ONLY;
        if (group->attributes & SE_GROUP_MANDATORY) return ERROR_CANT_DISABLE_MANDATORY;
        changed.push_back(*group);
        SwitchGroup(content, *group->id, isEnabled);
        group->attributes ^= SE_GROUP_ENABLED;
    }
    return ERROR_SUCCESS;
}

// Puts all groups back.
DWORD ResetGroups(TokenContent& content, std::vector<TokenGroup>& changed) {
    std::vector<TokenGroup> groups;
    if (DWORD code = content.FindGroups(groups)) return code;
    for (const TokenGroup& group : groups) {
        const auto& disabled = content.disabledGroups;
        if (!group.id || std::ranges::find(disabled, *group.id) == disabled.end()) continue;
        changed.push_back(group);
        SwitchGroup(content, *group.id, true);
    }
    return ERROR_SUCCESS;
}

struct Restriction {
    DWORD flags;
    std::span<const SID_AND_ATTRIBUTES> disabled;
    std::span<const LUID_AND_ATTRIBUTES> deleted;
    std::span<const SID_AND_ATTRIBUTES> restricting;
};

DWORD DisableSids(TokenContent& content, std::span<const SID_AND_ATTRIBUTES> sids) {
    std::vector<TokenGroup> groups;
    if (DWORD code = content.FindGroups(groups)) return code;
    for (const SID_AND_ATTRIBUTES& entry : sids) {
        if (!IsSid(entry.Sid)) return ERROR_INVALID_SID;
        const SidValue sid(entry.Sid);
        const bool isOfToken =
            content.User() == sid || std::ranges::find(groups, sid, &TokenGroup::sid) != groups.end();
        if (isOfToken && !content.IsDenying(sid)) content.denying.push_back(sid);
    }
    return ERROR_SUCCESS;
}

DWORD DeletePrivileges(TokenContent& content, const Restriction& restriction) {
    constexpr DWORD ChangeNotify = 23;
    for (const LUID_AND_ATTRIBUTES& entry : restriction.deleted) {
        const Privilege* const privilege = FindPrivilege(entry.Luid);
        if (!privilege) return ERROR_NO_SUCH_PRIVILEGE;
        content.powers.Remove(*privilege);
    }
    if (restriction.flags & DISABLE_MAX_PRIVILEGE)
        for (const Privilege& known : Privileges())
            if (known.number != ChangeNotify) content.powers.Remove(known);
    content.ApplyPowers();
    return ERROR_SUCCESS;
}

DWORD RestrictSids(TokenContent& content, const Restriction& restriction) {
    if (restriction.restricting.empty()) return ERROR_SUCCESS;
    std::vector<SidValue> sids;
    for (const SID_AND_ATTRIBUTES& entry : restriction.restricting) {
        if (!IsSid(entry.Sid)) return ERROR_INVALID_SID;
        const SidValue sid(entry.Sid);
        const auto& before = content.restricting;
        if (!content.isRestricted || std::ranges::find(before, sid) != before.end()) sids.push_back(sid);
    }
    // What was restricted for all rights before stays so.
    content.isWriteRestricted =
        restriction.flags & WRITE_RESTRICTED && (!content.isRestricted || content.isWriteRestricted);
    content.isRestricted = true;
    content.restricting = std::move(sids);
    return ERROR_SUCCESS;
}

DWORD Restrict(TokenContent& content, const Restriction& restriction) {
    if (DWORD code = DisableSids(content, restriction.disabled)) return code;
    if (DWORD code = DeletePrivileges(content, restriction)) return code;
    return RestrictSids(content, restriction);
}

}  // namespace

BOOL AdjustTokenPrivileges(HANDLE token, BOOL disableAll, TOKEN_PRIVILEGES* wanted, DWORD size,
                           TOKEN_PRIVILEGES* previous, DWORD* needed) noexcept {
    if (DWORD code = FaultDue("AdjustTokenPrivileges")) return Fail(code, FALSE);
    if ((!disableAll && !wanted) || (previous && !needed)) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    bool isAll = true;
    const DWORD rights = TOKEN_ADJUST_PRIVILEGES | (previous ? TOKEN_QUERY : 0);
    const DWORD code = WithToken(token, rights, [&](Token& used) {
        return ChangeToken(used, [&](TokenContent& content) {
            const Powers before = content.powers;
            if (disableAll)
                DisableAll(content.powers);
            else
                isAll = ChangePowers(content.powers, {wanted->Privileges, wanted->PrivilegeCount});
            content.ApplyPowers();
            const auto changed = ChangedPrivileges(before, content.powers);
            return WritePrevious(previous, size, needed,
                                 [&](Packer& packer) { PackChanged(changed, packer); });
        });
    });
    SetLastError(!code && !isAll ? DWORD{ERROR_NOT_ALL_ASSIGNED} : code);
    return code == ERROR_SUCCESS;
}

BOOL AdjustTokenGroups(HANDLE token, BOOL reset, TOKEN_GROUPS* wanted, DWORD size, TOKEN_GROUPS* previous,
                       DWORD* needed) noexcept {
    if (DWORD code = FaultDue("AdjustTokenGroups")) return Fail(code, FALSE);
    if ((!reset && !wanted) || (previous && !needed)) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    bool isAll = true;  // of the last attempt
    const DWORD rights = TOKEN_ADJUST_GROUPS | (previous ? TOKEN_QUERY : 0);
    const DWORD code = WithToken(token, rights, [&](Token& used) {
        if (used.IsOfProcess()) return DWORD{ERROR_NOT_SUPPORTED};
        return ChangeToken(used, [&](TokenContent& content) {
            std::vector<TokenGroup> changed;
            isAll = true;
            const DWORD failure =
                reset ? ResetGroups(content, changed)
                      : ChangeGroups(content, {wanted->Groups, wanted->GroupCount}, isAll, changed);
            if (failure) return failure;
            return WritePrevious(previous, size, needed,
                                 [&](Packer& packer) { PackChanged(changed, packer); });
        });
    });
    SetLastError(!code && !isAll ? DWORD{ERROR_NOT_ALL_ASSIGNED} : code);
    return code == ERROR_SUCCESS;
}

BOOL CreateRestrictedToken(HANDLE token, DWORD flags, DWORD disabledCount, SID_AND_ATTRIBUTES* disabled,
                           DWORD deletedCount, LUID_AND_ATTRIBUTES* deleted, DWORD restrictingCount,
                           SID_AND_ATTRIBUTES* restricting, HANDLE* restricted) noexcept {
    if (DWORD code = FaultDue("CreateRestrictedToken")) return Fail(code, FALSE);
    const bool lacks = (disabledCount && !disabled) || (deletedCount && !deleted) ||
                       (restrictingCount && !restricting) || !restricted;
    if (lacks || flags & ~(DISABLE_MAX_PRIVILEGE | WRITE_RESTRICTED))
        return Fail(ERROR_INVALID_PARAMETER, FALSE);
    const HandleRef<Token> first(token);
    if (!first) return Fail(ERROR_INVALID_HANDLE, FALSE);
    if (!(first.Access() & TOKEN_DUPLICATE)) return Fail(ERROR_ACCESS_DENIED, FALSE);
    const DWORD code = WithMemory([&] {
        auto content = std::make_shared<TokenContent>(*first->Content());
        const Restriction restriction{
            flags, {disabled, disabledCount}, {deleted, deletedCount}, {restricting, restrictingCount}};
        if (DWORD failure = Restrict(*content, restriction)) return failure;
        return NewHandle<Token>(*restricted, first.Access(), std::move(content), first->Type(),
                                first->Level());
    });
    return code ? Fail(code, FALSE) : TRUE;
}

}  // namespace Quellan::Platform
