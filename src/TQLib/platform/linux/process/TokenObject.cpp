#include "TQLib/platform/linux/process/TokenObject.h"

#include "TQLib/platform/linux/accounts/AccountNames.h"
#include "TQLib/platform/linux/accounts/WellKnownSids.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/objects/ThreadObject.h"

#include <algorithm>

namespace Quellan::Platform {

namespace {

constexpr DWORD OptionalGroup = SE_GROUP_ENABLED_BY_DEFAULT | SE_GROUP_ENABLED;
constexpr DWORD CountingGroup = SE_GROUP_MANDATORY | OptionalGroup;

constexpr DWORD LevelOfUser(DWORD user) noexcept {
    return user == 0 ? SECURITY_MANDATORY_HIGH_RID : SECURITY_MANDATORY_MEDIUM_RID;
}

// Of tokens and of their changes.
std::uint64_t NextTokenNumber() noexcept {
    static constinit std::atomic<std::uint64_t> last = 0;
    return ++last;
}

}  // namespace

TokenContent::TokenContent(Identity acting, std::uint64_t permitted) noexcept
    : identity(std::move(acting)),
      powers(identity.user, {identity.capabilities, permitted}),
      level(LevelOfUser(identity.user)) {}

std::optional<SidValue> TokenContent::User() const noexcept {
    return SidOfAccount({.isGroup = false, .id = identity.user});
}

std::optional<SidValue> TokenContent::Group() const noexcept {
    return SidOfAccount({.isGroup = true, .id = identity.group});
}

bool TokenContent::IsDenying(const SidValue& sid) const noexcept {
    return std::ranges::find(denying, sid) != denying.end();
}

DWORD TokenContent::FindGroups(std::vector<TokenGroup>& groups) const {
    std::vector<DWORD> ids{identity.group};
    for (const auto* some : {&identity.groups, &disabledGroups})
        std::ranges::copy_if(*some, std::back_inserter(ids), [&](DWORD id) { return id != identity.group; });
    bool isAdministrator = false;
    if (DWORD code = FindIsAdministrator(identity.user, ids, isAdministrator, DirectoryDeadline()))
        return code;
    for (const DWORD id : ids) {
        const auto sid = SidOfAccount({.isGroup = true, .id = id});
        const bool isDisabled = std::ranges::find(disabledGroups, id) != disabledGroups.end();
        const DWORD attributes = id == identity.group ? CountingGroup
                                 : isDisabled         ? SE_GROUP_ENABLED_BY_DEFAULT
                                                      : OptionalGroup;
        if (sid) groups.push_back({*sid, attributes, id});
    }
    const auto add = [&](WELL_KNOWN_SID_TYPE type, DWORD attributes) {
        groups.push_back({FindWellKnownSid(type)->Sid(), attributes, std::nullopt});
    };
    for (const auto type : {WinWorldSid, WinAuthenticatedUserSid, WinBuiltinUsersSid})
        add(type, CountingGroup);
    if (isAdministrator)
        add(WinBuiltinAdministratorsSid,
            identity.user == 0 ? CountingGroup | SE_GROUP_OWNER : DWORD{SE_GROUP_USE_FOR_DENY_ONLY});
    for (TokenGroup& group : groups)
        if (IsDenying(group.sid)) group.attributes = SE_GROUP_USE_FOR_DENY_ONLY;
    return ERROR_SUCCESS;
}

bool TokenContent::IsKeptByKernel() const noexcept {
    const auto isOfSystem = [](const SidValue& sid) { return AccountOfSid(&sid).has_value(); };
    return !isRestricted && level == LevelOfUser(identity.user) && std::ranges::none_of(denying, isOfSystem);
}

// That a thread acts by a token.
struct Token::Worn {
    Worn() = default;
    Worn(std::shared_ptr<Token> worn, ContentPtr& content) noexcept : token(std::move(worn)) {
        if (!token) return;
        const Guard lock(token->m_lock);
        ++token->m_threads;
        content = token->m_content;
    }
    Worn(const Worn&) = delete;
    Worn& operator=(const Worn&) = delete;
    ~Worn() {
        if (!token) return;
        const Guard lock(token->m_lock);
        --token->m_threads;
    }

    static thread_local Worn t_worn;

    std::shared_ptr<Token> token;
};

thread_local Token::Worn Token::Worn::t_worn;

Token::Token(ContentPtr content, TOKEN_TYPE type, SECURITY_IMPERSONATION_LEVEL level) noexcept
    : Object(Kind),
      m_type(type),
      m_level(level),
      m_id(NextTokenNumber()),
      m_isOfProcess(!content),
      m_content(std::move(content)) {}

const std::shared_ptr<Token>& Token::OfProcess() {
    static const auto token = std::make_shared<Token>(nullptr, TokenPrimary, SecurityAnonymous);
    return token;
}

std::shared_ptr<Token> Token::OfThread() noexcept {
    return Worn::t_worn.token;
}

Token::ContentPtr Token::Content() const {
    ContentPtr kept;
    {
        const Guard lock(m_lock);
        kept = m_content;
    }
    if (!m_isOfProcess) return kept;
    const auto content = std::make_shared<TokenContent>(ProcessIdentity(), ProcessCapabilities().permitted);
    if (kept) {
        content->powers.LimitKept(kept->powers);
        content->owner = kept->owner;
        content->primaryGroup = kept->primaryGroup;
        content->list = kept->list;
        content->modified = kept->modified;
    }
    return content;
}

DWORD Token::Replace(const ContentPtr& before, std::shared_ptr<TokenContent> after) {
    after->modified = NextTokenNumber();
    const bool isWorn = Worn::t_worn.token.get() == this;
    if ((isWorn || m_isOfProcess) && !after->IsKeptByKernel()) return ERROR_NOT_SUPPORTED;
    ContentPtr replaced;
    {
        const Guard lock(m_lock);
        if ((m_content ? m_content->modified : 0) != before->modified) return ERROR_BUSY;
        if (m_threads > (isWorn ? 1u : 0u)) return ERROR_NOT_SUPPORTED;
        if (m_isOfProcess) {
            const Capabilities& wanted = after->powers.OfKernel();
            if (wanted != before->powers.OfKernel())
                if (DWORD code = SetProcessCapabilities(wanted)) return code;
        }
        replaced = std::exchange(m_content, after);
    }
    if (!isWorn) return ERROR_SUCCESS;
    const DWORD code = WithMemory([&] { return ActAs({after, &after->identity}); });
    if (code) {
        const Guard lock(m_lock);
        m_content.swap(replaced);
    }
    return code;
}

DWORD Token::PutOn(std::shared_ptr<Token> token) {
    Thread* const thread = Thread::Current();
    if (!thread) return ERROR_NOT_ENOUGH_MEMORY;
    ContentPtr content;
    Worn next(std::move(token), content);
    if (content && !content->IsKeptByKernel()) return ERROR_NOT_SUPPORTED;
    std::shared_ptr<const Identity> identity;
    if (content) identity = {content, &content->identity};
    if (DWORD code = ActAs(std::move(identity))) return code;
    thread->SetToken(next.token);
    std::swap(Worn::t_worn.token, next.token);
    return ERROR_SUCCESS;
}

}  // namespace Quellan::Platform
