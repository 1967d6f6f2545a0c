// Tokens as objects.
#pragma once

#include "TQLib/platform/linux/accounts/PrivilegeNames.h"
#include "TQLib/platform/linux/accounts/SidValue.h"
#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/HandleTable.h"
#include "TQLib/platform/linux/base/Identity.h"
#include "TQLib/platform/linux/process/Tokens.h"

#include <optional>
#include <vector>

namespace Quellan::Platform {

// A group of a token; without a number of the system's for those that only the layer knows.
struct TokenGroup {
    SidValue sid;
    DWORD attributes;
    std::optional<DWORD> id;
};

// What a token says. Immutable once a token has it.
struct TokenContent {
    // Of whom the kernel knows, with the capabilities that he may have.
    TokenContent(Identity acting, std::uint64_t permitted) noexcept;

    Identity identity;  // as the kernel is to have it: without disabled groups
    Powers powers;
    std::vector<DWORD> disabledGroups;
    std::vector<SidValue> denying;  // what serves to deny only, of groups that could count
    std::vector<SidValue> restricting;
    bool isRestricted = false;
    bool isWriteRestricted = false;
    DWORD level;
    std::optional<SidValue> owner;          // none: the user
    std::optional<SidValue> primaryGroup;   // none: his group
    std::optional<std::vector<BYTE>> list;  // none: the one that it begins with; empty: no list
    std::uint64_t modified = 0;             // another number after each change

    // None for ids without an identifier.
    std::optional<SidValue> User() const noexcept;
    std::optional<SidValue> Group() const noexcept;
    bool IsDenying(const SidValue& sid) const noexcept;
    // 1460 (ERROR_TIMEOUT). May throw std::bad_alloc.
    DWORD FindGroups(std::vector<TokenGroup>& groups) const;
    // Whether the kernel keeps all of it for a thread.
    bool IsKeptByKernel() const noexcept;
    // After a change of the powers.
    void ApplyPowers() noexcept { identity.capabilities = powers.OfKernel().effective; }
};

// For several threads.
class Token : public Object, public std::enable_shared_from_this<Token> {
  public:
    static constexpr ObjectKind Kind{.name = "token",
                                     .closedByCloseHandle = true,
                                     .rights = {.read = READ_CONTROL | TOKEN_QUERY,
                                                .write = READ_CONTROL | TOKEN_ADJUST_PRIVILEGES |
                                                         TOKEN_ADJUST_GROUPS | TOKEN_ADJUST_DEFAULT,
                                                .execute = READ_CONTROL | TOKEN_IMPERSONATE,
                                                .all = TOKEN_ALL_ACCESS}};
    using ContentPtr = std::shared_ptr<const TokenContent>;

    // The one of the process. May throw std::bad_alloc.
    static const std::shared_ptr<Token>& OfProcess();
    // The one by which the calling thread acts, or null.
    static std::shared_ptr<Token> OfThread() noexcept;

    Token(ContentPtr content, TOKEN_TYPE type, SECURITY_IMPERSONATION_LEVEL level) noexcept;

    // Of the process's as the calling thread finds it at the moment. May throw std::bad_alloc.
    ContentPtr Content() const;
    TOKEN_TYPE Type() const noexcept { return m_type; }
    SECURITY_IMPERSONATION_LEVEL Level() const noexcept { return m_level; }
    std::uint64_t Id() const noexcept { return m_id; }
    bool IsOfProcess() const noexcept { return m_isOfProcess; }

    // Replaces the content by another one made from `before`, for the calling thread too where it acts by the
    // token: all of that or nothing. 50 (ERROR_NOT_SUPPORTED) where another thread acts by it, 170 (ERROR_BUSY)
    // where the content is not `before` any more, 1314 (ERROR_PRIVILEGE_NOT_HELD). May throw std::bad_alloc.
    DWORD Replace(const ContentPtr& before, std::shared_ptr<TokenContent> after);

    // Makes the calling thread act by the token, or with null as the process itself; as it did before on failure.
    // 50 (ERROR_NOT_SUPPORTED) for what the kernel does not keep. May throw std::bad_alloc.
    static DWORD PutOn(std::shared_ptr<Token> token);

  private:
    struct Worn;

    const TOKEN_TYPE m_type;
    const SECURITY_IMPERSONATION_LEVEL m_level;  // of a token for impersonation
    const std::uint64_t m_id;
    const bool m_isOfProcess;

    mutable ObjectLock<> m_lock;
    ContentPtr m_content TQ_GUARDED_BY(m_lock);    // null: of the process, and nothing has been changed
    unsigned m_threads TQ_GUARDED_BY(m_lock) = 0;  // that act by it
};

// Does `change` to a copy of the token's content, which it takes with a reference and for which it returns a code.
DWORD ChangeToken(Token& token, auto change) {
    DWORD code;
    do {
        const Token::ContentPtr before = token.Content();
        auto after = std::make_shared<TokenContent>(*before);
        code = change(*after);
        if (!code) code = token.Replace(before, std::move(after));
    } while (code == ERROR_BUSY);
    return code;
}

// Calls `use` with the token of a handle that grants `access`. 6 (ERROR_INVALID_HANDLE), 5 (ERROR_ACCESS_DENIED).
DWORD WithToken(HANDLE handle, DWORD access, auto use) noexcept {
    const HandleRef<Token> token(handle);
    if (!token) return ERROR_INVALID_HANDLE;
    if (access & ~token.Access()) return ERROR_ACCESS_DENIED;
    return WithMemory([&] { return use(*token); });
}

}  // namespace Quellan::Platform
