// What tokens tell of themselves.
#include "TQLib/platform/linux/accounts/Packer.h"
#include "TQLib/platform/linux/accounts/WellKnownSids.h"
#include "TQLib/platform/linux/base/Descriptor.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/process/TokenObject.h"

#include <algorithm>
#include <charconv>
#include <fcntl.h>
#include <limits>
#include <unistd.h>

namespace Quellan::Platform {

namespace {

struct Answer {
    const Token& token;
    const TokenContent& content;
    const std::vector<TokenGroup>& groups;  // where they are asked for
};

// That of the system's audit; 0 where nobody has logged on.
DWORD AuditSession() noexcept {
    const Descriptor file(open("/proc/self/sessionid", O_RDONLY | O_CLOEXEC));
    char text[16];
    const ssize_t size = file ? read(file.Get(), text, sizeof text) : 0;
    DWORD session = 0;
    if (size > 0) std::from_chars(text, text + size, session);
    return session == std::numeric_limits<DWORD>::max() ? 0 : session;
}

LUID NumberOf(std::uint64_t number) noexcept {
    return {static_cast<DWORD>(number), static_cast<LONG>(number >> 32)};
}

SidValue LevelSid(DWORD level) noexcept {
    return SidValue(16, {level});
}

void AppendAllowing(std::vector<BYTE>& list, const SidValue& sid) {
    const ACCESS_ALLOWED_ACE entry{
        .Header = {.AceType = ACCESS_ALLOWED_ACE_TYPE,
                   .AceFlags = 0,
                   .AceSize = static_cast<WORD>(offsetof(ACCESS_ALLOWED_ACE, SidStart) + sid.Length())},
        .Mask = GENERIC_ALL,
        .SidStart = 0};
    const auto* const head = reinterpret_cast<const BYTE*>(&entry);
    list.insert(list.end(), head, head + offsetof(ACCESS_ALLOWED_ACE, SidStart));
    const auto* const block = reinterpret_cast<const BYTE*>(&sid);
    list.insert(list.end(), block, block + sid.Length());
}

// The user and the system may do everything.
std::vector<BYTE> FirstList(const TokenContent& content) {
    std::vector<BYTE> list(sizeof(ACL));
    const auto user = content.User();
    if (user) AppendAllowing(list, *user);
    AppendAllowing(list, FindWellKnownSid(WinLocalSystemSid)->Sid());
    const ACL head{.AclRevision = ACL_REVISION,
                   .Sbz1 = 0,
                   .AclSize = static_cast<WORD>(list.size()),
                   .AceCount = static_cast<WORD>(user ? 2 : 1),
                   .Sbz2 = 0};
    std::memcpy(list.data(), &head, sizeof head);
    return list;
}

// Each function places its structure first.

DWORD PackSid(Packer& packer, const std::optional<SidValue>& sid, PSID* at) noexcept {
    if (!sid) return ERROR_NONE_MAPPED;
    const PSID place = packer.Sid(*sid);
    if (at) *at = place;
    return ERROR_SUCCESS;
}

DWORD PackUser(const TokenContent& content, Packer& packer) noexcept {
    auto* const user = packer.Array<TOKEN_USER>(1);
    const auto sid = content.User();
    if (user && sid && content.IsDenying(*sid)) user->User.Attributes = SE_GROUP_USE_FOR_DENY_ONLY;
    return PackSid(packer, sid, user ? &user->User.Sid : nullptr);
}

DWORD PackOwner(const TokenContent& content, Packer& packer) noexcept {
    auto* const owner = packer.Array<TOKEN_OWNER>(1);
    return PackSid(packer, content.owner ? content.owner : content.User(), owner ? &owner->Owner : nullptr);
}

DWORD PackPrimaryGroup(const TokenContent& content, Packer& packer) noexcept {
    auto* const group = packer.Array<TOKEN_PRIMARY_GROUP>(1);
    return PackSid(packer, content.primaryGroup ? content.primaryGroup : content.Group(),
                   group ? &group->PrimaryGroup : nullptr);
}

DWORD PackList(const TokenContent& content, Packer& packer) {
    auto* const place = packer.Array<TOKEN_DEFAULT_DACL>(1);
    const std::vector<BYTE> list = content.list ? *content.list : FirstList(content);
    if (list.empty()) return ERROR_SUCCESS;
    auto* const block = packer.Array<DWORD>((list.size() + sizeof(DWORD) - 1) / sizeof(DWORD));
    if (block) std::memcpy(block, list.data(), list.size());
    if (place) place->DefaultDacl = reinterpret_cast<ACL*>(block);
    return ERROR_SUCCESS;
}

void PackGroups(const std::vector<TokenGroup>& groups, Packer& packer) noexcept {
    auto* const count = packer.Array<DWORD>(1);
    if (count) *count = static_cast<DWORD>(groups.size());
    auto* const entries = packer.Array<SID_AND_ATTRIBUTES>(groups.size());
    for (std::size_t i = 0; i < groups.size(); ++i) {
        const PSID sid = packer.Sid(groups[i].sid);
        if (entries) entries[i] = {sid, groups[i].attributes};
    }
}

void PackRestricting(const TokenContent& content, Packer& packer) {
    constexpr DWORD Restricting = SE_GROUP_MANDATORY | SE_GROUP_ENABLED_BY_DEFAULT | SE_GROUP_ENABLED;
    std::vector<TokenGroup> groups;
    for (const SidValue& sid : content.restricting)
        groups.push_back({sid, Restricting, std::nullopt});
    PackGroups(groups, packer);
}

std::size_t CountOfPrivileges(const Powers& powers) noexcept {
    return static_cast<std::size_t>(
        std::ranges::count_if(Privileges(), [&](const Privilege& known) { return powers.Holds(known); }));
}

void PackPrivileges(const Powers& powers, Packer& packer) noexcept {
    auto* const count = packer.Array<DWORD>(1);
    if (count) *count = static_cast<DWORD>(CountOfPrivileges(powers));
    for (const Privilege& known : Privileges()) {
        if (!powers.Holds(known)) continue;
        auto* const entry = packer.Array<LUID_AND_ATTRIBUTES>(1);
        constexpr DWORD Enabled = SE_PRIVILEGE_ENABLED | SE_PRIVILEGE_ENABLED_BY_DEFAULT;
        if (entry) *entry = {{known.number, 0}, powers.Enables(known) ? Enabled : 0};
    }
}

void PackLabel(const TokenContent& content, Packer& packer) noexcept {
    auto* const label = packer.Array<TOKEN_MANDATORY_LABEL>(1);
    const PSID sid = packer.Sid(LevelSid(content.level));
    if (label) label->Label = {sid, SE_GROUP_INTEGRITY | SE_GROUP_INTEGRITY_ENABLED};
}

template <class T>
void PackValue(Packer& packer, T value) noexcept {
    if (auto* const place = packer.Array<T>(1)) *place = value;
}

void PackStatistics(const Answer& answer, Packer& packer) noexcept {
    const DWORD session = AuditSession();
    TOKEN_STATISTICS statistics{};
    statistics.TokenId = NumberOf(answer.token.Id());
    statistics.AuthenticationId = {answer.content.identity.user, static_cast<LONG>(session)};
    statistics.ExpirationTime.QuadPart = std::numeric_limits<LONGLONG>::max();
    statistics.TokenType = answer.token.Type();
    statistics.ImpersonationLevel = answer.token.Level();
    statistics.GroupCount = static_cast<DWORD>(answer.groups.size());
    statistics.PrivilegeCount = static_cast<DWORD>(CountOfPrivileges(answer.content.powers));
    statistics.ModifiedId = NumberOf(answer.content.modified);
    PackValue(packer, statistics);
}

DWORD Pack(const Answer& answer, TOKEN_INFORMATION_CLASS type, Packer& packer) {
    const TokenContent& content = answer.content;
    switch (type) {
        case TokenUser:
            return PackUser(content, packer);
        case TokenGroups:
            PackGroups(answer.groups, packer);
            return ERROR_SUCCESS;
        case TokenPrivileges:
            PackPrivileges(content.powers, packer);
            return ERROR_SUCCESS;
        case TokenOwner:
            return PackOwner(content, packer);
        case TokenPrimaryGroup:
            return PackPrimaryGroup(content, packer);
        case TokenDefaultDacl:
            return PackList(content, packer);
        case TokenSource:
            PackValue(packer, TOKEN_SOURCE{{'T', 'Q', 'L', 'i', 'b'}, {}});
            return ERROR_SUCCESS;
        case TokenType:
            PackValue(packer, answer.token.Type());
            return ERROR_SUCCESS;
        case TokenImpersonationLevel:
            if (answer.token.Type() != TokenImpersonation) return ERROR_INVALID_PARAMETER;
            PackValue(packer, answer.token.Level());
            return ERROR_SUCCESS;
        case TokenStatistics:
            PackStatistics(answer, packer);
            return ERROR_SUCCESS;
        case TokenRestrictedSids:
            PackRestricting(content, packer);
            return ERROR_SUCCESS;
        case TokenSessionId:
            PackValue(packer, AuditSession());
            return ERROR_SUCCESS;
        case TokenElevationType:
            PackValue(packer, TokenElevationTypeDefault);
            return ERROR_SUCCESS;
        case TokenLinkedToken:
            return ERROR_NO_SUCH_LOGON_SESSION;
        case TokenElevation:
            PackValue(packer, TOKEN_ELEVATION{content.identity.user == 0});
            return ERROR_SUCCESS;
        case TokenHasRestrictions:
            PackValue(packer, DWORD{content.isRestricted || !content.denying.empty()});
            return ERROR_SUCCESS;
        case TokenIntegrityLevel:
            PackLabel(content, packer);
            return ERROR_SUCCESS;
        case TokenUIAccess:
            PackValue(packer, DWORD{0});
            return ERROR_SUCCESS;
        case TokenMandatoryPolicy:
            PackValue(packer, TOKEN_MANDATORY_POLICY{TOKEN_MANDATORY_POLICY_NO_WRITE_UP});
            return ERROR_SUCCESS;
    }
    return ERROR_INVALID_PARAMETER;
}

// Finds out the size with `pack(packer)` and fills the block by it where that fits.
DWORD PackInto(void* information, DWORD size, DWORD& needed, auto pack) {
    Packer counter;
    if (DWORD code = pack(counter)) return code;
    needed = static_cast<DWORD>(counter.Size());
    if (!information || size < needed) return ERROR_INSUFFICIENT_BUFFER;
    Packer packer(information);
    return pack(packer);
}

DWORD ReadInformation(const Token& token, TOKEN_INFORMATION_CLASS type, void* information, DWORD size,
                      DWORD& needed) {
    const Token::ContentPtr content = token.Content();
    std::vector<TokenGroup> groups;
    if (type == TokenGroups || type == TokenStatistics)
        if (DWORD code = content->FindGroups(groups)) return code;
    const Answer answer{token, *content, groups};
    return PackInto(information, size, needed, [&](Packer& packer) { return Pack(answer, type, packer); });
}

// Of whom the calling thread acts as, without a handle. Its user is told without making a content: programs
// that ask who they are ask often.
DWORD ReadEffectiveInformation(TOKEN_INFORMATION_CLASS type, void* information, DWORD size, DWORD& needed) {
    const auto own = Token::OfThread();
    if (own || type != TokenUser)
        return ReadInformation(own ? *own : *Token::OfProcess(), type, information, size, needed);
    Identity process;
    process.user = ProcessUser();
    const TokenContent content(std::move(process), 0);
    return PackInto(information, size, needed, [&](Packer& packer) { return PackUser(content, packer); });
}

bool IsList(const ACL& list) noexcept {
    if (list.AclRevision < ACL_REVISION || list.AclRevision > ACL_REVISION_DS) return false;
    std::size_t at = sizeof(ACL);
    for (unsigned i = 0; i < list.AceCount; ++i) {
        ACE_HEADER entry;
        if (at + sizeof entry > list.AclSize) return false;
        std::memcpy(&entry, reinterpret_cast<const BYTE*>(&list) + at, sizeof entry);
        at += entry.AceSize;
        if (entry.AceSize < sizeof entry || at > list.AclSize) return false;
    }
    return at <= list.AclSize;
}

DWORD SetOwner(TokenContent& content, const SidValue& owner) {
    std::vector<TokenGroup> groups;
    if (DWORD code = content.FindGroups(groups)) return code;
    const bool isOwner = content.User() == owner || std::ranges::any_of(groups, [&](const TokenGroup& group) {
                             return group.attributes & SE_GROUP_OWNER && group.sid == owner;
                         });
    if (!isOwner || content.IsDenying(owner)) return ERROR_INVALID_OWNER;
    content.owner = owner;
    return ERROR_SUCCESS;
}

DWORD SetPrimaryGroup(TokenContent& content, const SidValue& group) {
    std::vector<TokenGroup> groups;
    if (DWORD code = content.FindGroups(groups)) return code;
    if (std::ranges::find(groups, group, &TokenGroup::sid) == groups.end())
        return ERROR_INVALID_PRIMARY_GROUP;
    content.primaryGroup = group;
    return ERROR_SUCCESS;
}

DWORD SetLevel(TokenContent& content, const SidValue& label) noexcept {
    const DWORD level = label.subAuthorities[0];
    if (label != LevelSid(level)) return ERROR_INVALID_SID;
    if (level > content.level) return ERROR_PRIVILEGE_NOT_HELD;
    content.level = level;
    return ERROR_SUCCESS;
}

// Information that is an identifier is one structure whose first member is its address.
DWORD SetBySid(Token& token, const void* sid, auto set) {
    if (!IsSid(sid)) return ERROR_INVALID_SID;
    const SidValue value(sid);
    return ChangeToken(token, [&](TokenContent& content) { return set(content, value); });
}

DWORD WriteInformation(Token& token, TOKEN_INFORMATION_CLASS type, const void* information, DWORD size) {
    const bool isKnown = type == TokenOwner || type == TokenPrimaryGroup || type == TokenDefaultDacl ||
                         type == TokenIntegrityLevel;
    if (!isKnown || !information) return ERROR_INVALID_PARAMETER;
    if (size < sizeof(void*)) return ERROR_BAD_LENGTH;
    const void* address;
    std::memcpy(&address, information, sizeof address);
    switch (type) {
        case TokenOwner:
            return SetBySid(token, address, SetOwner);
        case TokenPrimaryGroup:
            return SetBySid(token, address, SetPrimaryGroup);
        case TokenIntegrityLevel:
            return SetBySid(token, address, SetLevel);
        default:
            break;
    }
    std::vector<BYTE> list;
    if (address) {
        const auto& head = *static_cast<const ACL*>(address);
        if (!IsList(head)) return ERROR_INVALID_ACL;
        const auto* const bytes = static_cast<const BYTE*>(address);
        list.assign(bytes, bytes + head.AclSize);
    }
    return ChangeToken(token, [&](TokenContent& content) {
        content.list = list;
        return DWORD{ERROR_SUCCESS};
    });
}

}  // namespace

BOOL GetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS type, void* information, DWORD size,
                         DWORD* needed) noexcept {
    if (DWORD code = FaultDue("GetTokenInformation")) return Fail(code, FALSE);
    if (!needed) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    const DWORD right = type == TokenSource ? TOKEN_QUERY_SOURCE : TOKEN_QUERY;
    const DWORD code =
        token == GetCurrentThreadEffectiveToken()
            ? WithMemory([&] { return ReadEffectiveInformation(type, information, size, *needed); })
            : WithToken(token, right, [&](const Token& used) {
                  return ReadInformation(used, type, information, size, *needed);
              });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL SetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS type, void* information, DWORD size) noexcept {
    if (DWORD code = FaultDue("SetTokenInformation")) return Fail(code, FALSE);
    const DWORD code = WithToken(token, TOKEN_ADJUST_DEFAULT, [&](Token& used) {
        return WriteInformation(used, type, information, size);
    });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL IsTokenRestricted(HANDLE token) noexcept {
    if (DWORD code = FaultDue("IsTokenRestricted")) return Fail(code, FALSE);
    bool isRestricted = false;
    const DWORD code = WithToken(token, TOKEN_QUERY, [&](const Token& used) {
        isRestricted = used.Content()->isRestricted;
        return DWORD{ERROR_SUCCESS};
    });
    return isRestricted ? TRUE : Fail(code, FALSE);
}

}  // namespace Quellan::Platform
