#include "TQLib/platform/linux/process/Tokens.h"

#include "TQLib/platform/ActingUser.h"
#include "TQLib/platform/linux/accounts/AccountNames.h"
#include "TQLib/platform/linux/accounts/Packer.h"
#include "TQLib/platform/linux/accounts/PrivilegeNames.h"
#include "TQLib/platform/linux/accounts/WellKnownSids.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Process.h"
#include "TQLib/platform/linux/objects/ThreadObject.h"

#include <linux/capability.h>

namespace Quellan::Platform {

namespace {

constexpr std::uint64_t AllCapabilities = ~std::uint64_t{0};
constexpr DWORD CountingGroup = SE_GROUP_MANDATORY | SE_GROUP_ENABLED_BY_DEFAULT | SE_GROUP_ENABLED;

struct Group {
    SidValue sid;
    DWORD attributes;
};

SidValue FixedSid(WELL_KNOWN_SID_TYPE type) noexcept {
    return FindWellKnownSid(type)->Sid();
}

// What a token says, shared by its duplicates. Immutable.
struct TokenContent {
    Identity identity;
    std::uint64_t privileges;  // bit n stands for privilege n
    std::uint64_t enabled;

    // 1460 (ERROR_TIMEOUT). May throw std::bad_alloc.
    DWORD FindGroups(std::vector<Group>& groups) const;
};

DWORD TokenContent::FindGroups(std::vector<Group>& groups) const {
    std::vector<DWORD> ids = identity.groups;
    if (std::ranges::find(ids, identity.group) == ids.end()) ids.insert(ids.begin(), identity.group);
    bool isAdministrator = false;
    if (DWORD code = FindIsAdministrator(identity.user, ids, isAdministrator, DirectoryDeadline()))
        return code;
    for (const DWORD id : ids)
        if (const auto sid = SidOfAccount({.isGroup = true, .id = id}))
            groups.push_back({*sid, CountingGroup});
    for (const auto type : {WinWorldSid, WinAuthenticatedUserSid, WinBuiltinUsersSid})
        groups.push_back({FixedSid(type), CountingGroup});
    const DWORD administrator =
        identity.user == 0 ? CountingGroup | SE_GROUP_OWNER : SE_GROUP_USE_FOR_DENY_ONLY;
    if (isAdministrator) groups.push_back({FixedSid(WinBuiltinAdministratorsSid), administrator});
    return ERROR_SUCCESS;
}

}  // namespace

class Token : public Object {
  public:
    static constexpr ObjectKind Kind{.name = "token",
                                     .closedByCloseHandle = true,
                                     .rights = {.read = READ_CONTROL | TOKEN_QUERY,
                                                .write = READ_CONTROL | TOKEN_ADJUST_PRIVILEGES |
                                                         TOKEN_ADJUST_GROUPS | TOKEN_ADJUST_DEFAULT,
                                                .execute = READ_CONTROL | TOKEN_IMPERSONATE,
                                                .all = TOKEN_ALL_ACCESS}};

    Token(std::shared_ptr<const TokenContent> content, TOKEN_TYPE type, SECURITY_IMPERSONATION_LEVEL level)
        : Object(Kind), m_content(std::move(content)), m_type(type), m_level(level) {}

    const std::shared_ptr<const TokenContent>& Content() const noexcept { return m_content; }
    TOKEN_TYPE Type() const noexcept { return m_type; }
    SECURITY_IMPERSONATION_LEVEL Level() const noexcept { return m_level; }

  private:
    const std::shared_ptr<const TokenContent> m_content;
    const TOKEN_TYPE m_type;
    const SECURITY_IMPERSONATION_LEVEL m_level;  // of a token for impersonation
};

namespace {

DWORD GrantedAccess(DWORD access) noexcept {
    return MapRights(Token::Kind.rights, access);
}

std::shared_ptr<const TokenContent> ProcessContent() {
    const Capabilities capabilities = ProcessCapabilities();
    return std::make_shared<const TokenContent>(TokenContent{
        ProcessIdentity(), PrivilegesOf(capabilities.permitted), PrivilegesOf(capabilities.effective)});
}

DWORD WithToken(HANDLE handle, DWORD access, auto use) noexcept {
    const HandleRef<Token> token(handle);
    if (!token) return ERROR_INVALID_HANDLE;
    if (access & ~token.Access()) return ERROR_ACCESS_DENIED;
    return WithMemory([&] { return use(*token); });
}

// The calling thread gets the token together with the identity, or neither.
DWORD Impersonate(std::shared_ptr<Token> token) {
    Thread* const thread = Thread::Current();
    if (!thread) return ERROR_NOT_ENOUGH_MEMORY;
    if (token && token->Level() < SecurityImpersonation) return ERROR_BAD_IMPERSONATION_LEVEL;
    if (DWORD code = ActAs(token ? &token->Content()->identity : nullptr)) return code;
    thread->SetToken(std::move(token));
    return ERROR_SUCCESS;
}

DWORD ImpersonateContent(const std::shared_ptr<const TokenContent>& content,
                         SECURITY_IMPERSONATION_LEVEL level) {
    return Impersonate(std::make_shared<Token>(content, TokenImpersonation, level));
}

bool IsLevel(SECURITY_IMPERSONATION_LEVEL level) noexcept {
    return level >= SecurityAnonymous && level <= SecurityDelegation;
}

DWORD FindThreadToken(HANDLE handle, std::shared_ptr<Object>& token) noexcept {
    constexpr DWORD QueryAccess = THREAD_QUERY_INFORMATION | THREAD_QUERY_LIMITED_INFORMATION;
    if (handle == GetCurrentThread()) {
        Thread* const current = Thread::Current();
        if (!current) return ERROR_NOT_ENOUGH_MEMORY;
        token = current->Token();
        return ERROR_SUCCESS;
    }
    const HandleRef<Thread> thread(handle);
    if (!thread) return ERROR_INVALID_HANDLE;
    if (!(thread.Access() & QueryAccess)) return ERROR_ACCESS_DENIED;
    token = thread->Token();
    return ERROR_SUCCESS;
}

// Classes of information. Each function places its structure first.

DWORD PackSid(Packer& packer, const std::optional<SidValue>& sid, PSID* at) noexcept {
    if (!sid) return ERROR_NONE_MAPPED;
    const PSID place = packer.Sid(*sid);
    if (at) *at = place;
    return ERROR_SUCCESS;
}

DWORD PackUser(const TokenContent& content, Packer& packer) noexcept {
    auto* const user = packer.Array<TOKEN_USER>(1);
    return PackSid(packer, SidOfAccount({.isGroup = false, .id = content.identity.user}),
                   user ? &user->User.Sid : nullptr);
}

DWORD PackOwner(const TokenContent& content, Packer& packer) noexcept {
    auto* const owner = packer.Array<TOKEN_OWNER>(1);
    return PackSid(packer, SidOfAccount({.isGroup = false, .id = content.identity.user}),
                   owner ? &owner->Owner : nullptr);
}

DWORD PackPrimaryGroup(const TokenContent& content, Packer& packer) noexcept {
    auto* const group = packer.Array<TOKEN_PRIMARY_GROUP>(1);
    return PackSid(packer, SidOfAccount({.isGroup = true, .id = content.identity.group}),
                   group ? &group->PrimaryGroup : nullptr);
}

void PackGroups(const std::vector<Group>& groups, Packer& packer) noexcept {
    auto* const count = packer.Array<DWORD>(1);
    if (count) *count = static_cast<DWORD>(groups.size());
    auto* const entries = packer.Array<SID_AND_ATTRIBUTES>(groups.size());
    for (std::size_t i = 0; i < groups.size(); ++i) {
        const PSID sid = packer.Sid(groups[i].sid);
        if (entries) entries[i] = {sid, groups[i].attributes};
    }
}

void PackPrivileges(const TokenContent& content, Packer& packer) noexcept {
    auto* const count = packer.Array<DWORD>(1);
    std::size_t held = 0;
    for (const Privilege& known : Privileges()) {
        if (!(content.privileges >> known.number & 1)) continue;
        auto* const entry = packer.Array<LUID_AND_ATTRIBUTES>(1);
        constexpr DWORD Enabled = SE_PRIVILEGE_ENABLED | SE_PRIVILEGE_ENABLED_BY_DEFAULT;
        if (entry) *entry = {{known.number, 0}, content.enabled >> known.number & 1 ? Enabled : 0};
        ++held;
    }
    if (count) *count = static_cast<DWORD>(held);
}

void PackLabel(const TokenContent& content, Packer& packer) noexcept {
    auto* const label = packer.Array<TOKEN_MANDATORY_LABEL>(1);
    const auto level = content.identity.user == 0 ? WinHighLabelSid : WinMediumLabelSid;
    const PSID sid = packer.Sid(FixedSid(level));
    if (label) label->Label = {sid, SE_GROUP_INTEGRITY | SE_GROUP_INTEGRITY_ENABLED};
}

template <class T>
void PackValue(Packer& packer, T value) noexcept {
    if (auto* const place = packer.Array<T>(1)) *place = value;
}

DWORD Pack(const Token& token, TOKEN_INFORMATION_CLASS type, const std::vector<Group>& groups,
           Packer& packer) noexcept {
    const TokenContent& content = *token.Content();
    switch (type) {
        case TokenUser:
            return PackUser(content, packer);
        case TokenGroups:
            PackGroups(groups, packer);
            return ERROR_SUCCESS;
        case TokenPrivileges:
            PackPrivileges(content, packer);
            return ERROR_SUCCESS;
        case TokenOwner:
            return PackOwner(content, packer);
        case TokenPrimaryGroup:
            return PackPrimaryGroup(content, packer);
        case TokenType:
            PackValue(packer, token.Type());
            return ERROR_SUCCESS;
        case TokenImpersonationLevel:
            if (token.Type() != TokenImpersonation) return ERROR_INVALID_PARAMETER;
            PackValue(packer, token.Level());
            return ERROR_SUCCESS;
        case TokenElevation:
            PackValue(packer, TOKEN_ELEVATION{content.identity.user == 0});
            return ERROR_SUCCESS;
        case TokenIntegrityLevel:
            PackLabel(content, packer);
            return ERROR_SUCCESS;
    }
    return ERROR_INVALID_PARAMETER;
}

DWORD ReadInformation(const Token& token, TOKEN_INFORMATION_CLASS type, void* information, DWORD size,
                      DWORD& needed) {
    std::vector<Group> groups;
    if (type == TokenGroups)
        if (DWORD code = token.Content()->FindGroups(groups)) return code;
    Packer counter;
    if (DWORD code = Pack(token, type, groups, counter)) return code;
    needed = static_cast<DWORD>(counter.Size());
    if (!information || size < needed) return ERROR_INSUFFICIENT_BUFFER;
    Packer packer(information);
    return Pack(token, type, groups, packer);
}

// Of whom the calling thread acts as, without a handle. Its user is told without making a token: programs
// that ask who they are ask often.
DWORD ReadEffectiveInformation(TOKEN_INFORMATION_CLASS type, void* information, DWORD size, DWORD& needed) {
    Thread* const thread = Thread::Current();
    const auto own = thread ? std::static_pointer_cast<Token>(thread->Token()) : nullptr;
    if (own) return ReadInformation(*own, type, information, size, needed);
    if (type != TokenUser)
        return ReadInformation(Token(ProcessContent(), TokenPrimary, SecurityAnonymous), type, information,
                               size, needed);
    const TokenContent content{{.user = ProcessUser(), .group = 0, .groups = {}}, 0, 0};
    Packer counter;
    if (DWORD code = PackUser(content, counter)) return code;
    needed = static_cast<DWORD>(counter.Size());
    if (!information || size < needed) return ERROR_INSUFFICIENT_BUFFER;
    Packer packer(information);
    return PackUser(content, packer);
}

bool IsEmptyPassword(const wchar_t* text) noexcept {
    return !text || !*text;
}

DWORD LogOn(const wchar_t* name, const wchar_t* domain, DWORD type, HANDLE& token) {
    if (!IsThisMachine(domain)) return ERROR_LOGON_FAILURE;
    const Deadline deadline = DirectoryDeadline();
    UserRecord user;
    std::vector<DWORD> groups;
    DWORD code = FindUserNamed(name, user, deadline);
    if (code == ERROR_NONE_MAPPED) return ERROR_LOGON_FAILURE;
    if (!code) code = FindGroupsOf(user, groups, deadline);
    if (code) return code;
    const std::uint64_t privileges = PrivilegesOf(user.id == 0 ? AllCapabilities : 0);
    const auto content = std::make_shared<const TokenContent>(
        TokenContent{{user.id, user.group, std::move(groups)}, privileges, privileges});
    return NewHandle<Token>(token, TOKEN_ALL_ACCESS, content,
                            type == LOGON32_LOGON_NETWORK ? TokenImpersonation : TokenPrimary,
                            SecurityImpersonation);
}

DWORD CheckMembership(const TokenContent& content, const void* sid, BOOL& isMember) {
    std::vector<Group> groups;
    if (DWORD code = content.FindGroups(groups)) return code;
    const auto user = SidOfAccount({.isGroup = false, .id = content.identity.user});
    isMember = (user && AreEqual(&*user, sid)) || std::ranges::any_of(groups, [&](const Group& group) {
                   return group.attributes & SE_GROUP_ENABLED && AreEqual(&group.sid, sid);
               });
    return ERROR_SUCCESS;
}

}  // namespace

BOOL OpenProcessToken(HANDLE process, DWORD access, HANDLE* token) noexcept {
    if (DWORD code = FaultDue("OpenProcessToken")) return Fail(code, FALSE);
    if (process != GetCurrentProcess()) return Fail(ERROR_NOT_SUPPORTED, FALSE);
    if (!token) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    const DWORD code = WithMemory([&] {
        return NewHandle<Token>(*token, GrantedAccess(access), ProcessContent(), TokenPrimary,
                                SecurityAnonymous);
    });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL OpenThreadToken(HANDLE thread, DWORD access, BOOL, HANDLE* token) noexcept {
    if (DWORD code = FaultDue("OpenThreadToken")) return Fail(code, FALSE);
    if (!token) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    std::shared_ptr<Object> found;
    DWORD code = FindThreadToken(thread, found);
    if (!code && !found) code = ERROR_NO_TOKEN;
    if (!code) code = InsertHandle(std::move(found), GrantedAccess(access), *token);
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL GetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS type, void* information, DWORD size,
                         DWORD* needed) noexcept {
    if (DWORD code = FaultDue("GetTokenInformation")) return Fail(code, FALSE);
    if (!needed) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    const DWORD code =
        token == GetCurrentThreadEffectiveToken()
            ? WithMemory([&] { return ReadEffectiveInformation(type, information, size, *needed); })
            : WithToken(token, TOKEN_QUERY, [&](const Token& used) {
                  return ReadInformation(used, type, information, size, *needed);
              });
    return code ? Fail(code, FALSE) : TRUE;
}

// The same question as GetTokenInformation's for a user.
DWORD FindActingUser(UserKey& key) noexcept {
    if (DWORD code = FaultDue("GetTokenInformation")) return code;
    key = {ActingUser(), true};
    return ERROR_SUCCESS;
}

BOOL DuplicateTokenEx(HANDLE token, DWORD access, SECURITY_ATTRIBUTES*, SECURITY_IMPERSONATION_LEVEL level,
                      TOKEN_TYPE type, HANDLE* duplicate) noexcept {
    if (DWORD code = FaultDue("DuplicateTokenEx")) return Fail(code, FALSE);
    if (!duplicate || !IsLevel(level) || (type != TokenPrimary && type != TokenImpersonation))
        return Fail(ERROR_INVALID_PARAMETER, FALSE);
    const HandleRef<Token> first(token);
    if (!first) return Fail(ERROR_INVALID_HANDLE, FALSE);
    if (!(first.Access() & TOKEN_DUPLICATE)) return Fail(ERROR_ACCESS_DENIED, FALSE);
    const bool isRaised = first->Type() == TokenImpersonation && level > first->Level();
    if (isRaised) return Fail(ERROR_BAD_IMPERSONATION_LEVEL, FALSE);
    const DWORD granted = access ? GrantedAccess(access) : first.Access();
    const DWORD code = NewHandle<Token>(*duplicate, granted, first->Content(), type, level);
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL LogonUserW(const wchar_t* user, const wchar_t* domain, const wchar_t* password, DWORD type,
                DWORD provider, HANDLE* token) noexcept {
    if (DWORD code = FaultDue("LogonUserW")) return Fail(code, FALSE);
    if (!user || !token || type < LOGON32_LOGON_INTERACTIVE || type > LOGON32_LOGON_SERVICE ||
        provider != LOGON32_PROVIDER_DEFAULT)
        return Fail(ERROR_INVALID_PARAMETER, FALSE);
    if (!(ProcessCapabilities().effective >> CAP_SETUID & 1)) return Fail(ERROR_PRIVILEGE_NOT_HELD, FALSE);
    if (!IsEmptyPassword(password)) return Fail(ERROR_NOT_SUPPORTED, FALSE);
    const DWORD code = WithMemory([&] { return LogOn(user, domain, type, *token); });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL SetThreadToken(HANDLE* thread, HANDLE token) noexcept {
    if (DWORD code = FaultDue("SetThreadToken")) return Fail(code, FALSE);
    if (thread && *thread != GetCurrentThread()) {
        const HandleRef<Thread> given(*thread);
        if (!given) return Fail(ERROR_INVALID_HANDLE, FALSE);
        if (&*given != Thread::Current()) return Fail(ERROR_NOT_SUPPORTED, FALSE);
    }
    if (!token) return RevertToSelf();
    const HandleRef<Token> given(token);
    if (!given) return Fail(ERROR_INVALID_HANDLE, FALSE);
    if (!(given.Access() & TOKEN_IMPERSONATE)) return Fail(ERROR_ACCESS_DENIED, FALSE);
    if (given->Type() != TokenImpersonation) return Fail(ERROR_BAD_TOKEN_TYPE, FALSE);
    const DWORD code = WithMemory([&] { return ImpersonateContent(given->Content(), given->Level()); });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL RevertToSelf() noexcept {
    if (DWORD code = FaultDue("RevertToSelf")) return Fail(code, FALSE);
    const DWORD code = WithMemory([] { return Impersonate(nullptr); });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL ImpersonateLoggedOnUser(HANDLE token) noexcept {
    if (DWORD code = FaultDue("ImpersonateLoggedOnUser")) return Fail(code, FALSE);
    const HandleRef<Token> given(token);
    if (!given) return Fail(ERROR_INVALID_HANDLE, FALSE);
    const bool isPrimary = given->Type() == TokenPrimary;
    const DWORD wanted = TOKEN_QUERY | (isPrimary ? TOKEN_DUPLICATE : 0);
    if (wanted & ~given.Access()) return Fail(ERROR_ACCESS_DENIED, FALSE);
    const DWORD code = WithMemory([&] {
        return ImpersonateContent(given->Content(), isPrimary ? SecurityImpersonation : given->Level());
    });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL ImpersonateSelf(SECURITY_IMPERSONATION_LEVEL level) noexcept {
    if (DWORD code = FaultDue("ImpersonateSelf")) return Fail(code, FALSE);
    if (!IsLevel(level)) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    const DWORD code = WithMemory([&] { return ImpersonateContent(ProcessContent(), level); });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL CheckTokenMembership(HANDLE token, PSID sid, BOOL* isMember) noexcept {
    if (DWORD code = FaultDue("CheckTokenMembership")) return Fail(code, FALSE);
    if (!isMember) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    if (!IsSid(sid)) return Fail(ERROR_INVALID_SID, FALSE);
    DWORD code;
    if (token) {
        code = WithToken(token, TOKEN_QUERY, [&](const Token& used) {
            if (used.Type() != TokenImpersonation) return DWORD{ERROR_NO_IMPERSONATION_TOKEN};
            return CheckMembership(*used.Content(), sid, *isMember);
        });
    } else {
        code = WithMemory([&] {
            Thread* const thread = Thread::Current();
            const auto own = thread ? std::static_pointer_cast<Token>(thread->Token()) : nullptr;
            return CheckMembership(own ? *own->Content() : *ProcessContent(), sid, *isMember);
        });
    }
    return code ? Fail(code, FALSE) : TRUE;
}

}  // namespace Quellan::Platform
