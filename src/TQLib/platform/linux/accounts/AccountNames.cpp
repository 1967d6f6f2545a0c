#include "TQLib/platform/linux/accounts/AccountNames.h"

#include "TQLib/platform/linux/accounts/ServiceSids.h"
#include "TQLib/platform/linux/accounts/WellKnownSids.h"
#include "TQLib/platform/linux/base/Case.h"
#include "TQLib/platform/linux/base/ComputerName.h"
#include "TQLib/platform/linux/base/Wide.h"

namespace Quellan::Platform {

namespace {

constexpr std::string_view AdministrativeGroups[] = {"sudo", "wheel", "admin"};

bool AreSame(std::wstring_view left, std::wstring_view right) noexcept {
    return CompareOrdinal(left, right, true) == 0;
}

bool IsMachineName(std::wstring_view name) {
    return name == L"." || AreSame(name, ComputerName());
}

// A question that may still be put in another way.
bool IsOpen(DWORD code) noexcept {
    return code == ERROR_NONE_MAPPED;
}

std::wstring ToLowerCase(std::wstring_view text) {
    std::wstring lower(text);
    std::ranges::transform(lower, lower.begin(), ToLower);
    return lower;
}

// By a name that finds it again: where a user has the same one, or may have it for all that the directory
// says in time, with its kind.
DWORD ToNameOfGroup(const GroupRecord& group, AccountName& name, Deadline deadline) {
    bool isLocal = false;
    UserRecord user;
    if (DWORD code = ReadIsLocalGroup(group.id, isLocal)) return code;
    const std::wstring_view kind = IsOpen(FindUser(group.name, user, deadline)) ? L"" : GroupKind;
    name = {std::wstring(kind) + ToWide(group.name), ComputerName(), isLocal ? SidTypeAlias : SidTypeGroup};
    return ERROR_SUCCESS;
}

AccountName ToNameOfUser(const UserRecord& user) {
    return {ToWide(user.name), ComputerName(), SidTypeUser};
}

DWORD ToSid(AccountId account, SidValue& sid) noexcept {
    const auto found = SidOfAccount(account);
    if (!found) return ERROR_NONE_MAPPED;
    sid = *found;
    return ERROR_SUCCESS;
}

struct Answer {
    SidValue& sid;
    AccountName& name;
    Deadline deadline;
};

DWORD FindUserExactly(const std::wstring& text, const Answer& answer) {
    UserRecord user;
    if (DWORD code = FindUser(ToUtf8(text), user, answer.deadline)) return code;
    answer.name = ToNameOfUser(user);
    return ToSid({.isGroup = false, .id = user.id}, answer.sid);
}

DWORD FindGroupExactly(const std::wstring& text, const Answer& answer) {
    GroupRecord group;
    if (DWORD code = FindGroup(ToUtf8(text), group, answer.deadline)) return code;
    if (DWORD code = ToNameOfGroup(group, answer.name, answer.deadline)) return code;
    return ToSid({.isGroup = true, .id = group.id}, answer.sid);
}

DWORD FindAccountExactly(const std::wstring& text, const Answer& answer) {
    const DWORD code = FindUserExactly(text, answer);
    return IsOpen(code) ? FindGroupExactly(text, answer) : code;
}

using FindExactly = DWORD (*)(const std::wstring& text, const Answer& answer);

// The system's names have a case, the platform's have none.
DWORD FindInAnyCase(FindExactly find, std::wstring_view text, const Answer& answer) {
    const std::wstring name(text);
    const DWORD code = find(name, answer);
    if (!IsOpen(code)) return code;
    const std::wstring lower = ToLowerCase(text);
    return lower == name ? code : find(lower, answer);
}

DWORD FindAccount(std::wstring_view text, const Answer& answer) {
    if (text.empty()) return ERROR_NONE_MAPPED;
    if (text.starts_with(UserKind))
        return FindInAnyCase(FindUserExactly, text.substr(UserKind.size()), answer);
    if (text.starts_with(GroupKind))
        return FindInAnyCase(FindGroupExactly, text.substr(GroupKind.size()), answer);
    return FindInAnyCase(FindAccountExactly, text, answer);
}

DWORD ToWellKnown(const WellKnownSid& known, const Answer& answer) {
    answer.sid = known.Sid();
    answer.name = {known.name, known.domain, known.use};
    return ERROR_SUCCESS;
}

// The identifiers of logon sessions, S-1-5-5-x-y.
constexpr std::wstring_view SessionName = L"LogonSessionId_", SessionDomain = L"NT AUTHORITY";

bool FindSessionName(const void* sid, AccountName& name) {
    if (!FindWellKnownSid(WinLogonIdsSid)->Is(sid)) return false;
    name = {std::wstring(SessionName) + std::to_wstring(SubAuthorityOf(sid, 1)) + L'_' +
                std::to_wstring(SubAuthorityOf(sid, 2)),
            std::wstring(SessionDomain), SidTypeLogonSession};
    return true;
}

DWORD FindSession(std::wstring_view text, const Answer& answer) {
    SidValue sid;
    if (!text.starts_with(SessionName)) return ERROR_NONE_MAPPED;
    std::wstring numbers(text.substr(SessionName.size()));
    std::ranges::replace(numbers, L'_', L'-');
    if (!ParseSid(L"S-1-5-5-" + numbers, sid) || !FindSessionName(&sid, answer.name) ||
        answer.name.name != text)
        return ERROR_NONE_MAPPED;
    answer.sid = sid;
    return ERROR_SUCCESS;
}

constexpr std::wstring_view ServiceDomain = L"NT SERVICE";

DWORD FindServiceName(const void* sid, AccountName& name) {
    if (SubAuthoritiesOf(sid) != SECURITY_SERVICE_ID_RID_COUNT || AuthorityOf(sid) != 5 ||
        SubAuthorityOf(sid, 0) != SECURITY_SERVICE_ID_BASE_RID)
        return ERROR_NONE_MAPPED;
    name = {FindInstalledService(SidValue(sid)), std::wstring(ServiceDomain), SidTypeWellKnownGroup};
    return name.name.empty() ? ERROR_NONE_MAPPED : ERROR_SUCCESS;
}

// A well-known name or the machine's own. `isSame` compares names.
template <class Compare>
DWORD FindFixedName(std::wstring_view text, const Answer& answer, Compare isSame) {
    for (const WellKnownSid& known : WellKnownSids())
        if (*known.name && isSame(text, known.name)) return ToWellKnown(known, answer);
    const std::wstring machine = ComputerName();
    if (!isSame(text, machine)) return ERROR_NONE_MAPPED;
    answer.sid = MachineDomain();
    answer.name = {L"", machine, SidTypeDomain};
    return ERROR_SUCCESS;
}

DWORD FindInDomain(std::wstring_view domain, std::wstring_view name, const Answer& answer) {
    if (IsMachineName(domain)) return FindAccount(name, answer);
    for (const WellKnownSid& known : WellKnownSids())
        if (*known.name && known.use != SidTypeDomain && AreSame(domain, known.domain) &&
            AreSame(name, known.name) && !domain.empty())
            return ToWellKnown(known, answer);
    if (AreSame(domain, SessionDomain)) return FindSession(name, answer);
    if (!AreSame(domain, ServiceDomain)) return ERROR_NONE_MAPPED;
    answer.sid = SidOfService(name);
    return FindServiceName(&answer.sid, answer.name);
}

// The exact spelling of either kind comes before other spellings: there are users "proxy" and groups "users",
// which are not the well-known PROXY and Users.
DWORD FindWithoutDomain(std::wstring_view text, const Answer& answer) {
    DWORD code = FindFixedName(text, answer, std::equal_to<std::wstring_view>());
    if (IsOpen(code)) code = FindAccountExactly(std::wstring(text), answer);
    if (IsOpen(code)) code = FindFixedName(text, answer, AreSame);
    return IsOpen(code) ? FindAccount(text, answer) : code;
}

}  // namespace

bool IsThisMachine(const wchar_t* system) noexcept {
    std::wstring_view name(system ? system : L"");
    while (name.starts_with(L'\\'))
        name.remove_prefix(1);
    try {
        return name.empty() || AreSame(name, L"localhost") || IsMachineName(name);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

DWORD FindNameOf(const void* sid, AccountName& name, Deadline deadline) {
    for (const WellKnownSid& known : WellKnownSids()) {
        if (!*known.name || !known.Is(sid)) continue;
        name = {known.name, known.domain, known.use};
        return ERROR_SUCCESS;
    }
    if (FindSessionName(sid, name)) return ERROR_SUCCESS;
    if (AreEqual(sid, &MachineDomain())) {
        name = {L"", ComputerName(), SidTypeDomain};
        return ERROR_SUCCESS;
    }
    const auto account = AccountOfSid(sid);
    if (!account) return FindServiceName(sid, name);
    if (account->isGroup) {
        GroupRecord group;
        const DWORD code = FindGroup(account->id, group, deadline);
        return code ? code : ToNameOfGroup(group, name, deadline);
    }
    UserRecord user;
    if (DWORD code = FindUser(account->id, user, deadline)) return code;
    name = ToNameOfUser(user);
    return ERROR_SUCCESS;
}

DWORD FindSidOf(std::wstring_view text, SidValue& sid, AccountName& name, Deadline deadline) {
    const Answer answer{sid, name, deadline};
    if (text.empty()) return ERROR_NONE_MAPPED;
    const std::size_t slash = text.find(L'\\');
    DWORD code = ERROR_NONE_MAPPED;
    if (slash != text.npos) code = FindInDomain(text.substr(0, slash), text.substr(slash + 1), answer);
    // A directory may have names with either sign in them.
    if (IsOpen(code)) code = FindWithoutDomain(text, answer);
    const std::size_t at = text.rfind(L'@');
    if (IsOpen(code) && slash == text.npos && at != text.npos)
        code = FindInDomain(text.substr(at + 1), text.substr(0, at), answer);
    return code;
}

DWORD FindUserNamed(std::wstring_view name, UserRecord& user, Deadline deadline) {
    if (name.empty()) return ERROR_NONE_MAPPED;
    const DWORD code = FindUser(ToUtf8(name), user, deadline);
    return IsOpen(code) ? FindUser(ToUtf8(ToLowerCase(name)), user, deadline) : code;
}

DWORD ReadIsLocalGroup(DWORD id, bool& isLocal) {
    std::vector<GroupRecord> groups;
    if (DWORD code = ReadLocalGroups(groups)) return code;
    isLocal = std::ranges::find(groups, id, &GroupRecord::id) != groups.end();
    return ERROR_SUCCESS;
}

DWORD FindAdministrativeGroups(std::vector<DWORD>& ids, Deadline deadline) {
    std::vector<DWORD> found;
    for (const std::string_view name : AdministrativeGroups) {
        GroupRecord group;
        const DWORD code = FindGroup(name, group, deadline);
        if (code == ERROR_SUCCESS)
            found.push_back(group.id);
        else if (!IsOpen(code))
            return code;
    }
    ids = std::move(found);
    return ERROR_SUCCESS;
}

DWORD FindIsAdministrator(DWORD user, const std::vector<DWORD>& groups, bool& isOne, Deadline deadline) {
    isOne = user == 0;
    if (isOne) return ERROR_SUCCESS;
    std::vector<DWORD> administrative;
    if (DWORD code = FindAdministrativeGroups(administrative, deadline)) return code;
    isOne = std::ranges::find_first_of(groups, administrative) != groups.end();
    return ERROR_SUCCESS;
}

}  // namespace Quellan::Platform
