#include "TQLib/security/SecToken.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/security/internal/TokenInformation.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <exception>
#include <iterator>
#include <utility>
#include <vector>

namespace Quellan::Sarvek {

using Corvel::TQString;
using Corvel::TQSysException;
using Corvel::Translated;

namespace {

static_assert(SecToken::MostAccess == MAXIMUM_ALLOWED);
static_assert(static_cast<int>(SecToken::Level::Delegation) == SecurityDelegation);

template <class T>
T ReadValue(HANDLE token, TOKEN_INFORMATION_CLASS type) {
    T value{};
    DWORD size = 0;
    if (!GetTokenInformation(token, type, &value, sizeof value, &size))
        TQSysException::ThrowLastError(L"GetTokenInformation");
    return value;
}

SecIDAttrArray ReadGroups(HANDLE token, TOKEN_INFORMATION_CLASS type) {
    const TokenInformation information(token, type);
    const auto& groups = information.As<TOKEN_GROUPS>();
    SecIDAttrArray array;
    for (DWORD i = 0; i < groups.GroupCount; ++i)
        array.Add(SecIDAttr(groups.Groups[i]));
    return array;
}

TQString NameOf(LUID privilege) {
    wchar_t name[64];  // the longest one has 41 characters
    DWORD size = static_cast<DWORD>(std::size(name));
    if (!LookupPrivilegeNameW(nullptr, &privilege, name, &size))
        TQSysException::ThrowLastError(L"LookupPrivilegeNameW");
    return name;
}

// The names of those that have one of the attributes, or of all.
SecPrivilegeSet NamesOf(const TOKEN_PRIVILEGES& privileges, DWORD attributes) {
    SecPrivilegeSet names;
    for (DWORD i = 0; i < privileges.PrivilegeCount; ++i)
        if (!attributes || privileges.Privileges[i].Attributes & attributes)
            names.Add(NameOf(privileges.Privileges[i].Luid));
    return names;
}

std::vector<LUID_AND_ATTRIBUTES> ValuesOf(const SecPrivilegeSet& names) {
    std::vector<LUID_AND_ATTRIBUTES> values(names.Count());
    for (std::size_t i = 0; i < names.Count(); ++i)
        if (!LookupPrivilegeValueW(nullptr, names[i].c_str(), &values[i].Luid))
            TQSysException::ThrowLastError(L"LookupPrivilegeValueW");
    return values;
}

// The addresses stay the array's.
std::vector<SID_AND_ATTRIBUTES> PairsOf(const SecIDArray& ids, DWORD attributes = 0) {
    std::vector<SID_AND_ATTRIBUTES> pairs;
    for (const SecID& id : ids)
        pairs.push_back({id.Address(), attributes});
    return pairs;
}

// A structure that ends in entries, with these.
template <class Structure, class Entry>
std::vector<std::max_align_t> WithEntries(const std::vector<Entry>& entries, std::size_t offset) {
    const std::size_t size = offset + entries.size() * sizeof(Entry);
    std::vector<std::max_align_t> block(std::max(size, sizeof(Structure)) / sizeof(std::max_align_t) + 1);
    *reinterpret_cast<DWORD*>(block.data()) = static_cast<DWORD>(entries.size());
    if (!entries.empty())
        std::memcpy(reinterpret_cast<std::byte*>(block.data()) + offset, entries.data(),
                    entries.size() * sizeof(Entry));
    return block;
}

std::uint64_t NumberOf(const LUID& value) noexcept {
    return value.LowPart | static_cast<std::uint64_t>(static_cast<DWORD>(value.HighPart)) << 32;
}

template <class T>
T* AddressIn(std::vector<T>& entries) noexcept {
    return entries.empty() ? nullptr : entries.data();
}

}  // namespace

SecToken::~SecToken() = default;

SecToken SecToken::OfProcess(DWORD access) {
    SecToken token;
    if (!OpenProcessToken(GetCurrentProcess(), access, token.m_handle.Put()))
        TQSysException::ThrowLastError(L"OpenProcessToken");
    return token;
}

SecToken SecToken::OfThread(DWORD access) {
    SecToken token;
    if (!OpenThreadToken(GetCurrentThread(), access, TRUE, token.m_handle.Put()) &&
        GetLastError() != ERROR_NO_TOKEN)
        TQSysException::ThrowLastError(L"OpenThreadToken");
    return token;
}

SecToken SecToken::Effective(DWORD access) {
    SecToken token = OfThread(access);
    return token ? std::move(token) : OfProcess(access);
}

SecToken SecToken::LogOn(const TQString& user, const TQString& domain, const wchar_t* password) {
    SecToken token;
    if (!LogonUserW(user.c_str(), domain.IsEmpty() ? L"." : domain.c_str(), password, LOGON32_LOGON_NETWORK,
                    LOGON32_PROVIDER_DEFAULT, token.m_handle.Put()))
        TQSysException::ThrowLastError(L"LogonUserW");
    return token;
}

SecIDAttr SecToken::User() const {
    return SecIDAttr(TokenInformation(Get(), TokenUser).As<TOKEN_USER>().User);
}

SecIDAttrArray SecToken::Groups() const {
    return ReadGroups(Get(), TokenGroups);
}

bool SecToken::IsMember(const SecID& id) const {
    const SecToken copy = IsPrimary() ? Duplicate(Level::Identification) : SecToken();
    BOOL isMember = FALSE;
    if (!CheckTokenMembership(copy ? copy.Get() : Get(), id.Address(), &isMember))
        TQSysException::ThrowLastError(L"CheckTokenMembership");
    return isMember != FALSE;
}

DWORD SecToken::SessionId() const {
    return ReadValue<DWORD>(Get(), TokenSessionId);
}

SecPrivilegeSet SecToken::Privileges() const {
    return NamesOf(TokenInformation(Get(), TokenPrivileges).As<TOKEN_PRIVILEGES>(), 0);
}

SecPrivilegeSet SecToken::EnabledPrivileges() const {
    return NamesOf(TokenInformation(Get(), TokenPrivileges).As<TOKEN_PRIVILEGES>(), SE_PRIVILEGE_ENABLED);
}

bool SecToken::IsElevated() const {
    return ReadValue<TOKEN_ELEVATION>(Get(), TokenElevation).TokenIsElevated != 0;
}

DWORD SecToken::IntegrityLevel() const {
    const SecIDAttr label(TokenInformation(Get(), TokenIntegrityLevel).As<TOKEN_MANDATORY_LABEL>().Label);
    return label.SID().SubAuthorityValue(0);
}

bool SecToken::IsRestricted() const {
    SetLastError(ERROR_SUCCESS);
    if (IsTokenRestricted(Get())) return true;
    if (GetLastError() != ERROR_SUCCESS) TQSysException::ThrowLastError(L"IsTokenRestricted");
    return false;
}

SecIDAttrArray SecToken::RestrictingIDs() const {
    return ReadGroups(Get(), TokenRestrictedSids);
}

SecID SecToken::Owner() const {
    return SecID(TokenInformation(Get(), TokenOwner).As<TOKEN_OWNER>().Owner);
}

SecID SecToken::PrimaryGroup() const {
    return SecID(TokenInformation(Get(), TokenPrimaryGroup).As<TOKEN_PRIMARY_GROUP>().PrimaryGroup);
}

std::optional<SecACL> SecToken::DefaultList() const {
    const TokenInformation information(Get(), TokenDefaultDacl);
    const ACL* const list = information.As<TOKEN_DEFAULT_DACL>().DefaultDacl;
    return list ? std::optional(SecACL(*list)) : std::nullopt;
}

bool SecToken::IsPrimary() const {
    return ReadValue<TOKEN_TYPE>(Get(), TokenType) == TokenPrimary;
}

SecToken::Level SecToken::ImpersonationLevel() const {
    if (IsPrimary()) return Level::Impersonation;
    return static_cast<Level>(ReadValue<SECURITY_IMPERSONATION_LEVEL>(Get(), TokenImpersonationLevel));
}

SecToken::Numbers SecToken::Statistics() const {
    const auto statistics = ReadValue<TOKEN_STATISTICS>(Get(), TokenStatistics);
    return {NumberOf(statistics.TokenId), NumberOf(statistics.AuthenticationId),
            NumberOf(statistics.ModifiedId)};
}

SecPrivilegeSet SecToken::Enable(const SecPrivilegeSet& names) {
    return Adjust(names, SE_PRIVILEGE_ENABLED);
}

SecPrivilegeSet SecToken::Disable(const SecPrivilegeSet& names) {
    return Adjust(names, 0);
}

SecPrivilegeSet SecToken::DisableAllPrivileges() {
    return Disable(Privileges());
}

void SecToken::Remove(const SecPrivilegeSet& names) {
    Adjust(names, SE_PRIVILEGE_REMOVED);
}

SecPrivilegeSet SecToken::Adjust(const SecPrivilegeSet& names, DWORD attributes) {
    constexpr const wchar_t* Where = L"AdjustTokenPrivileges";
    std::vector<std::max_align_t> block = Translated(Where, [&] {
        std::vector<LUID_AND_ATTRIBUTES> values = ValuesOf(names);
        for (LUID_AND_ATTRIBUTES& value : values)
            value.Attributes = attributes;
        return WithEntries<TOKEN_PRIVILEGES>(values, offsetof(TOKEN_PRIVILEGES, Privileges));
    });
    const SecPrivilegeSet held = Privileges();
    const SecPrivilegeSet before = EnabledPrivileges();
    SecPrivilegeSet changed;
    for (std::size_t i = 0; i < names.Count(); ++i) {
        if (!held.Contains(names[i])) throw TQSysException(ERROR_NOT_ALL_ASSIGNED, Where);
        if (before.Contains(names[i]) != (attributes == SE_PRIVILEGE_ENABLED)) changed.Add(names[i]);
    }
    auto* const wanted = reinterpret_cast<TOKEN_PRIVILEGES*>(block.data());
    if (!AdjustTokenPrivileges(Get(), FALSE, wanted, 0, nullptr, nullptr) || GetLastError() != ERROR_SUCCESS)
        TQSysException::ThrowLastError(Where);
    return changed;
}

void SecToken::EnableGroups(const SecIDArray& groups) {
    AdjustGroups(groups, SE_GROUP_ENABLED);
}

void SecToken::DisableGroups(const SecIDArray& groups) {
    AdjustGroups(groups, 0);
}

void SecToken::ResetGroups() {
    if (!AdjustTokenGroups(Get(), TRUE, nullptr, 0, nullptr, nullptr))
        TQSysException::ThrowLastError(L"AdjustTokenGroups");
}

void SecToken::AdjustGroups(const SecIDArray& groups, DWORD attributes) {
    constexpr const wchar_t* Where = L"AdjustTokenGroups";
    std::vector<std::max_align_t> block = Translated(Where, [&] {
        return WithEntries<TOKEN_GROUPS>(PairsOf(groups, attributes), offsetof(TOKEN_GROUPS, Groups));
    });
    auto* const wanted = reinterpret_cast<TOKEN_GROUPS*>(block.data());
    if (!AdjustTokenGroups(Get(), FALSE, wanted, 0, nullptr, nullptr) || GetLastError() != ERROR_SUCCESS)
        TQSysException::ThrowLastError(Where);
}

void SecToken::Set(int type, const void* information, std::size_t size) {
    if (!SetTokenInformation(Get(), static_cast<TOKEN_INFORMATION_CLASS>(type),
                             const_cast<void*>(information), static_cast<DWORD>(size)))
        TQSysException::ThrowLastError(L"SetTokenInformation");
}

void SecToken::SetOwner(const SecID& owner) {
    const TOKEN_OWNER information{owner.Address()};
    Set(TokenOwner, &information, sizeof information);
}

void SecToken::SetPrimaryGroup(const SecID& group) {
    const TOKEN_PRIMARY_GROUP information{group.Address()};
    Set(TokenPrimaryGroup, &information, sizeof information);
}

void SecToken::SetDefaultList(const std::optional<SecACL>& list) {
    Corvel::BYTEBuf block;
    if (list) block = list->Block();
    const TOKEN_DEFAULT_DACL information{list ? reinterpret_cast<ACL*>(block.Data()) : nullptr};
    Set(TokenDefaultDacl, &information, sizeof information);
}

void SecToken::SetIntegrityLevel(DWORD level) {
    const SecID label(SecIDAuth(SECURITY_MANDATORY_LABEL_AUTHORITY), level);
    const TOKEN_MANDATORY_LABEL information{{label.Address(), SE_GROUP_INTEGRITY}};
    Set(TokenIntegrityLevel, &information, sizeof information);
}

SecToken SecToken::Duplicate(Level level) const {
    return Duplicate(level, false);
}

SecToken SecToken::DuplicatePrimary() const {
    return Duplicate(Level::Impersonation, true);
}

SecToken SecToken::Duplicate(Level level, bool isPrimary) const {
    SecToken copy;
    if (!DuplicateTokenEx(Get(), MAXIMUM_ALLOWED, nullptr, static_cast<SECURITY_IMPERSONATION_LEVEL>(level),
                          isPrimary ? TokenPrimary : TokenImpersonation, copy.m_handle.Put()))
        TQSysException::ThrowLastError(L"DuplicateTokenEx");
    return copy;
}

SecToken SecToken::Restrict(const Less& less) const {
    constexpr const wchar_t* Where = L"CreateRestrictedToken";
    return Translated(Where, [&] {
        std::vector<LUID_AND_ATTRIBUTES> deleted = ValuesOf(less.privileges);
        std::vector<SID_AND_ATTRIBUTES> disabled = PairsOf(less.toDenyOnly),
                                        restricting = PairsOf(less.restricting);
        const DWORD flags =
            (less.allPrivileges ? DISABLE_MAX_PRIVILEGE : 0) | (less.restrictsWriting ? WRITE_RESTRICTED : 0);
        SecToken copy;
        if (!CreateRestrictedToken(Get(), flags, static_cast<DWORD>(disabled.size()), AddressIn(disabled),
                                   static_cast<DWORD>(deleted.size()), AddressIn(deleted),
                                   static_cast<DWORD>(restricting.size()), AddressIn(restricting),
                                   copy.m_handle.Put()))
            TQSysException::ThrowLastError(Where);
        return copy;
    });
}

SecImpersonation::SecImpersonation(const SecToken& token)
    : m_before(SecToken::OfThread(TOKEN_IMPERSONATE)), m_thread(GetCurrentThreadId()) {
    const SecToken copy = token.IsPrimary() ? token.Duplicate() : SecToken();
    if (!SetThreadToken(nullptr, copy ? copy.Get() : token.Get()))
        TQSysException::ThrowLastError(L"SetThreadToken");
}

// A thread that kept a token which its code believes to have left would have rights that nobody meant it to have.
SecImpersonation::~SecImpersonation() {
    const Corvel::_TQLastErrorKeeper keeper;
    if (m_thread != GetCurrentThreadId() || !SetThreadToken(nullptr, m_before.Get())) std::terminate();
}

}  // namespace Quellan::Sarvek
