#include "TQLib/platform/linux/process/Tokens.h"

#include "TQLib/platform/ActingUser.h"
#include "TQLib/platform/linux/accounts/AccountNames.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Process.h"
#include "TQLib/platform/linux/objects/ThreadObject.h"
#include "TQLib/platform/linux/process/TokenObject.h"

#include <algorithm>
#include <linux/capability.h>

namespace Quellan::Platform {

namespace {

constexpr std::uint64_t EveryCapability = ~std::uint64_t{0};

DWORD GrantedAccess(DWORD access) noexcept {
    return MapRights(Token::Kind.rights, access);
}

DWORD ImpersonateContent(Token::ContentPtr content, SECURITY_IMPERSONATION_LEVEL level) {
    if (level < SecurityImpersonation) return ERROR_BAD_IMPERSONATION_LEVEL;
    return Token::PutOn(std::make_shared<Token>(std::move(content), TokenImpersonation, level));
}

// The token itself, so that it may be changed while the thread acts by it.
DWORD ImpersonateToken(Token& token) {
    if (token.Level() < SecurityImpersonation) return ERROR_BAD_IMPERSONATION_LEVEL;
    return Token::PutOn(token.shared_from_this());
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
    const std::uint64_t capabilities = user.id == 0 ? EveryCapability : 0;
    auto content = std::make_shared<const TokenContent>(
        Identity{user.id, user.group, std::move(groups), capabilities}, capabilities);
    return NewHandle<Token>(token, TOKEN_ALL_ACCESS, std::move(content),
                            type == LOGON32_LOGON_NETWORK ? TokenImpersonation : TokenPrimary,
                            SecurityImpersonation);
}

DWORD CheckMembership(const TokenContent& content, const void* sid, BOOL& isMember) {
    std::vector<TokenGroup> groups;
    if (DWORD code = content.FindGroups(groups)) return code;
    const SidValue wanted(sid);
    const bool isUser = content.User() == wanted && !content.IsDenying(wanted);
    const bool isEnabled = isUser || std::ranges::any_of(groups, [&](const TokenGroup& group) {
                               return group.attributes & SE_GROUP_ENABLED && group.sid == wanted;
                           });
    const bool isRestricted = content.isRestricted && !content.isWriteRestricted;
    isMember = isEnabled &&
               (!isRestricted || std::ranges::find(content.restricting, wanted) != content.restricting.end());
    return ERROR_SUCCESS;
}

}  // namespace

BOOL OpenProcessToken(HANDLE process, DWORD access, HANDLE* token) noexcept {
    if (DWORD code = FaultDue("OpenProcessToken")) return Fail(code, FALSE);
    if (process != GetCurrentProcess()) return Fail(ERROR_NOT_SUPPORTED, FALSE);
    if (!token) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    const DWORD code =
        WithMemory([&] { return InsertHandle(Token::OfProcess(), GrantedAccess(access), *token); });
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
    const bool isRaised =
        first->Type() == TokenImpersonation &&
        (type == TokenPrimary ? first->Level() < SecurityImpersonation : level > first->Level());
    if (isRaised) return Fail(ERROR_BAD_IMPERSONATION_LEVEL, FALSE);
    const DWORD granted = access ? GrantedAccess(access) : first.Access();
    const DWORD code =
        WithMemory([&] { return NewHandle<Token>(*duplicate, granted, first->Content(), type, level); });
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
    const DWORD code = WithMemory([&] { return ImpersonateToken(*given); });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL RevertToSelf() noexcept {
    if (DWORD code = FaultDue("RevertToSelf")) return Fail(code, FALSE);
    const DWORD code = WithMemory([] { return Token::PutOn(nullptr); });
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
        return isPrimary ? ImpersonateContent(given->Content(), SecurityImpersonation)
                         : ImpersonateToken(*given);
    });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL ImpersonateSelf(SECURITY_IMPERSONATION_LEVEL level) noexcept {
    if (DWORD code = FaultDue("ImpersonateSelf")) return Fail(code, FALSE);
    if (!IsLevel(level)) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    const DWORD code = WithMemory([&] { return ImpersonateContent(Token::OfProcess()->Content(), level); });
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
            const auto own = Token::OfThread();
            return CheckMembership(*(own ? own : Token::OfProcess())->Content(), sid, *isMember);
        });
    }
    return code ? Fail(code, FALSE) : TRUE;
}

}  // namespace Quellan::Platform
