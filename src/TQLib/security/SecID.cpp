#include "TQLib/security/SecID.h"

#include "TQLib/core/internal/About.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/security/TQSecThreadToken.h"
#include "TQLib/security/internal/NetBuffer.h"
#include "TQLib/security/internal/TokenInformation.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <cwchar>
#include <string>

namespace Quellan::Sarvek {

using Corvel::_TQwString;
using Corvel::About;
using Corvel::TQStdExceptions;
using Corvel::TQSysException;
using Corvel::Translated;

namespace {

constexpr DWORD SmallestPage = 4096;

// Identifiers in memory of their greatest size.
struct SidBuffer {
    alignas(DWORD) BYTE bytes[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof bytes;
};

PSID ForCall(const void* sid) noexcept {
    return const_cast<void*>(sid);
}

const wchar_t* ReadableOr(const wchar_t* text, const wchar_t* substitute) noexcept {
    return IsBadStringPtrW(text, ~std::uintptr_t{0}) ? substitute : text;
}

// A buffer that is empty is none: not all systems ask for its size then.
wchar_t* BufferOf(std::wstring& text) noexcept {
    return text.empty() ? nullptr : text.data();
}

struct FoundAccount {
    std::wstring name;
    std::wstring domain;
    int use = SidTypeUnknown;
};

FoundAccount LookUpAccount(PSID sid, const wchar_t* system) {
    FoundAccount account;
    for (;;) {
        auto nameSize = static_cast<DWORD>(account.name.size());
        auto domainSize = static_cast<DWORD>(account.domain.size());
        SID_NAME_USE use{};
        const bool isFound = LookupAccountSidW(system, sid, BufferOf(account.name), &nameSize,
                                               BufferOf(account.domain), &domainSize, &use) != FALSE;
        const DWORD code = isFound ? ERROR_SUCCESS : GetLastError();
        if (code == ERROR_NONE_MAPPED) return {};
        if (!isFound && code != ERROR_INSUFFICIENT_BUFFER) throw TQSysException(code, L"SecID::LookupName");
        account.name.resize(nameSize);
        account.domain.resize(domainSize);
        account.use = use;
        if (isFound) return account;
    }
}

// False where there is no such account.
bool LookUpSid(const wchar_t* account, const wchar_t* system, SidBuffer& sid) {
    for (std::wstring domain;;) {
        auto domainSize = static_cast<DWORD>(domain.size());
        SID_NAME_USE use{};
        if (LookupAccountNameW(system, account, sid.bytes, &sid.size, BufferOf(domain), &domainSize, &use))
            return true;
        const DWORD code = GetLastError();
        if (code == ERROR_NONE_MAPPED) return false;
        if (code != ERROR_INSUFFICIENT_BUFFER) throw TQSysException(code, L"SecID::LoadAccountName");
        domain.resize(domainSize);
    }
}

bool Write(const _TQwString& text, std::FILE* stream) {
    if (std::fwide(stream, 0) < 0) {
        const Corvel::_TQaString bytes = text.ToUtf8();
        return std::fwrite(bytes.c_str(), 1, bytes.Length(), stream) == bytes.Length();
    }
    char encoded[MB_LEN_MAX];
    return std::ranges::all_of(text.View(), [&](wchar_t c) {
        std::mbstate_t start{};
        const bool isInLocale = std::wcrtomb(encoded, c, &start) != static_cast<std::size_t>(-1);
        return std::fputwc(isInLocale ? c : L'?', stream) != WEOF;
    });
}

_TQwString ComputerName() {
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 1];
    DWORD size = MAX_COMPUTERNAME_LENGTH + 1;
    if (!GetComputerNameW(name, &size)) TQSysException::ThrowLastError(L"SecID::IsMachineDomain");
    return _TQwString(name, size);
}

}  // namespace

// The platform need not look at all of the block.
bool SecID::IsIdentifier(const void* sid) noexcept {
    if (!IsValidSid(ForCall(sid))) return false;
    const auto begin = reinterpret_cast<std::uintptr_t>(sid);
    const DWORD length = LengthOf(static_cast<const BYTE*>(sid));
    return begin / SmallestPage == (begin + length - 1) / SmallestPage || !IsBadReadPtr(sid, length);
}

const wchar_t* SecID::SystemName(const wchar_t* system) noexcept {
    return system ? ReadableOr(system, L"") : nullptr;
}

BYTE* SecID::Allocated(DWORD size) {
    return Translated(L"SecID::SecID", [&] { return std::allocator<BYTE>().allocate(size); });
}

SecID::Block SecID::Copied(const void* sid) {
    if (!sid) return {nullptr, false};
    const DWORD length = LengthOf(static_cast<const BYTE*>(sid));
    BYTE* const block = Allocated(length);
    // Most have five sub-authorities or fewer. For any length the compiler copies by one instruction, which
    // takes longer than the memory for the block.
    constexpr DWORD Step = 16;
    if (length >= Step && length <= 2 * Step) {
        std::memcpy(block, sid, Step);
        std::memcpy(block + length - Step, static_cast<const BYTE*>(sid) + length - Step, Step);
    } else {
        std::memcpy(block, sid, length);
    }
    return {block, false};
}

SecID::Block SecID::DoAllocation(const SecIDAuth& authority, const std::array<DWORD, MaxParts>& parts,
                                 std::size_t count) {
    SID_IDENTIFIER_AUTHORITY bytes;
    std::ranges::copy(authority.Values(), bytes.Value);
    PSID sid = nullptr;
    if (!AllocateAndInitializeSid(&bytes, static_cast<BYTE>(count), parts[0], parts[1], parts[2], parts[3],
                                  parts[4], parts[5], parts[6], parts[7], &sid))
        TQSysException::ThrowLastError(L"SecID::DoAllocation");
    return {static_cast<BYTE*>(sid), true};
}

SecID::Block SecID::LoadAccountName(const wchar_t* account, const wchar_t* system) {
    constexpr const wchar_t* Where = L"SecID::LoadAccountName";
    const wchar_t* const name = ReadableOr(account, nullptr);
    if (!name) TQStdExceptions::ThrowParameterInvalidError(Where);
    const wchar_t* const machine = SystemName(system);
    const auto look = [&] {
        SidBuffer sid;
        if (LookUpSid(name, machine, sid)) return Copied(sid.bytes);
        // Where the platform has the second spelling for the accounts of a directory alone.
        const std::wstring_view text = name;
        const std::size_t at = text.rfind(L'@');
        if (at != text.npos && text.find(L'\\') == text.npos) {
            const auto other = std::wstring(text.substr(at + 1)).append(L"\\").append(text.substr(0, at));
            if (LookUpSid(other.c_str(), machine, sid)) return Copied(sid.bytes);
        }
        throw TQSysException(ERROR_NONE_MAPPED, Where);
    };
    return About(name, [&] { return Translated(Where, look); });
}

SecID::SecID(const void* sid, bool defaulted) : SecID(defaulted) {
    *this = sid;
}

SecID::SecID(const SecID& domain, DWORD rid) {
    const BYTE count = domain.SubAuthorityCount();
    if (domain.IsNull() || count == SID_MAX_SUB_AUTHORITIES)
        throw TQSysException(ERROR_INVALID_SID, L"SecID::SecID");
    m_block = Allocated(domain.Length() + DWORD{sizeof rid});
    std::memcpy(m_block, domain.Address(), domain.Length());
    std::memcpy(m_block + domain.Length(), &rid, sizeof rid);
    m_block[1] = static_cast<BYTE>(count + 1);
}

SecID::SecID(const SecIDAuth& authority, const std::vector<DWORD>& subAuthorities) {
    std::array<DWORD, MaxParts> parts{};
    const std::size_t count = std::min(subAuthorities.size(), MaxParts);
    std::copy_n(subAuthorities.begin(), count, parts.begin());
    *this = SecID(DoAllocation(authority, parts, count), false);
}

SecID::SecID(const wchar_t* account, const wchar_t* system, bool defaulted)
    : SecID(LoadAccountName(account, system), defaulted) {}

SecID::SecID(const SecID& other) : SecID(Copied(other.Address()), other.m_isDefaulted) {}

SecID& SecID::operator=(const SecID& other) {
    if (this != &other) *this = SecID(other);
    return *this;
}

SecID& SecID::operator=(const void* sid) {
    if (sid && !IsIdentifier(sid)) throw TQSysException(ERROR_INVALID_SID, L"SecID::SecID");
    return *this = SecID(Copied(sid), m_isDefaulted);
}

SecID::~SecID() {
    DeleteSID();
}

void SecID::DeleteSID() noexcept {
    m_findings.reset();
    if (m_isPlatforms) {
        const Corvel::_TQLastErrorKeeper keeper;
        FreeSid(m_block);
    } else if (m_block) {
        std::allocator<BYTE>().deallocate(m_block, Length());
    }
    m_block = nullptr;
    m_isPlatforms = false;
}

SecID SecID::WellKnownDomainID(int type, const void* domainSid, bool defaulted) {
    SidBuffer sid;
    if (!CreateWellKnownSid(static_cast<WELL_KNOWN_SID_TYPE>(type), ForCall(domainSid), sid.bytes, &sid.size))
        TQSysException::ThrowLastError(L"SecID::WellKnownDomainID");
    return SecID(Copied(sid.bytes), defaulted);
}

const SecID& SecID::NullSID() noexcept {
    static const SecID null;
    return null;
}

SecID SecID::UserDomainSID() {
    NetBuffer buffer;
    if (DWORD code = NetWkstaUserGetInfo(nullptr, 1, buffer.Put()))
        throw TQSysException(code, L"SecID::UserDomainSID");
    return SecID(buffer.As<WKSTA_USER_INFO_1>()->wkui1_logon_domain);
}

SecID SecID::MachDomainSID() {
    NetBuffer buffer;
    if (DWORD code = NetWkstaGetInfo(nullptr, 100, buffer.Put()))
        throw TQSysException(code, L"SecID::MachDomainSID");
    return SecID(buffer.As<WKSTA_INFO_100>()->wki100_langroup);
}

bool SecID::UserIsAdmin(bool withDenied) {
    bool isAdmin = false;
    TQSecThreadToken::ProcImpersonate([&] {
        const TokenHandle own = OpenOwnToken();
        const TokenInformation information(own.Get(), TokenGroups);
        const auto& token = information.As<TOKEN_GROUPS>();
        const SecID administrators(WinBuiltinAdministratorsSid);
        const DWORD wanted = SE_GROUP_ENABLED | (withDenied ? SE_GROUP_USE_FOR_DENY_ONLY : 0);
        for (DWORD i = 0; i < token.GroupCount; ++i)
            isAdmin |= token.Groups[i].Attributes & wanted && administrators == token.Groups[i].Sid;
    });
    return isAdmin;
}

DWORD SecID::SubAuthorityValue(BYTE index) const {
    if (index >= SubAuthorityCount()) TQStdExceptions::ThrowIndexError(L"SecID::SubAuthorityValue");
    DWORD value;
    std::memcpy(&value, m_block + HeaderSize + index * sizeof value, sizeof value);
    return value;
}

SecIDAuth SecID::IDAuthority() const noexcept {
    SID_IDENTIFIER_AUTHORITY authority{};
    if (m_block) std::memcpy(&authority, m_block + 2, sizeof authority);
    return authority;
}

SecID::Findings& SecID::Kept() const {
    if (!m_findings) m_findings = Translated(L"SecID", [] { return std::make_unique<Findings>(); });
    return *m_findings;
}

const SecID::Account& SecID::LookupName(const wchar_t* system) const {
    static const Account ofNull;
    if (IsNull()) return ofNull;
    std::unique_ptr<Account>& kept = Kept().account;
    if (kept) return *kept;
    const wchar_t* const machine = SystemName(system);
    TQSecThreadToken::ProcImpersonate([&] {
        kept = About([this] { return String(); },
                     [&] {
                         return Translated(L"SecID::LookupName", [&] {
                             FoundAccount found = LookUpAccount(Address(), machine);
                             return std::make_unique<Account>(
                                 Account{std::move(found.name), std::move(found.domain), {}, found.use});
                         });
                     });
    });
    return *kept;
}

const _TQwString& SecID::String() const {
    constexpr const wchar_t* Failed = L"SID to string conversion failed";
    if (m_findings && !m_findings->text.IsEmpty()) return m_findings->text;
    if (IsNull()) throw TQSysException(ERROR_INVALID_SID, Failed);
    Findings& kept = Kept();
    wchar_t* text = nullptr;
    if (!ConvertSidToStringSidW(Address(), &text)) TQSysException::ThrowLastError(Failed);
    const Corvel::TQUniqueHandle<Corvel::_TQLocalMemClose> owner(text);
    return kept.text.Assign(text);
}

const _TQwString& SecID::Name(const wchar_t* system, bool useStringIfUnnamed) const {
    const Account& found = LookupName(system);
    if (!found.name.IsEmpty()) return found.name;
    if (useStringIfUnnamed) return String();
    return found.use == SidTypeDomain ? found.domain : found.name;
}

const _TQwString& SecID::Domain(const wchar_t* system) const {
    return LookupName(system).domain;
}

int SecID::Use(const wchar_t* system) const {
    return LookupName(system).use;
}

const wchar_t* SecID::UseDesc(const wchar_t* system) const {
    return GetUseDesc(Use(system));
}

bool SecID::IsUserDefinedType(const wchar_t* system) const {
    const int use = Use(system);
    return use == SidTypeUser || use == SidTypeGroup || use == SidTypeDeletedAccount ||
           use == SidTypeInvalid || use == SidTypeUnknown;
}

bool SecID::IsLabelID() const {
    return Use() == SidTypeLabel;
}

const _TQwString& SecID::FullName(bool nameFirst, const wchar_t* system, bool userDefinedOnly) const {
    const Account& found = LookupName(system);
    if (found.name.IsEmpty()) return String();
    if (found.domain.IsEmpty()) return found.name;
    const bool isNameFirst = nameFirst && (!userDefinedOnly || IsUserDefinedType(system));
    _TQwString& text = Kept().account->fullNames[isNameFirst];
    if (text.IsEmpty())
        text = isNameFirst ? _TQwString::Format(L"%s@%s", found.name.View(), found.domain.View())
                           : _TQwString::Format(L"%s\\%s", found.domain.View(), found.name.View());
    return text;
}

SecID SecID::DomainSID() const {
    constexpr const wchar_t* Failed = L"SID domain could not be determined";
    if (IsNull()) throw TQSysException(ERROR_INVALID_SID, Failed);
    SidBuffer domain;
    if (!GetWindowsAccountDomainSid(Address(), domain.bytes, &domain.size))
        TQSysException::ThrowLastError(Failed);
    return SecID(Copied(domain.bytes), false);
}

bool SecID::IsMachineDomain() const {
    if (IsNull()) return false;
    const _TQwString machine = ComputerName();
    if (Domain().CompareNoCase(machine) == 0) return true;
    // An account that has no name may be the machine's all the same.
    SidBuffer domain;
    return GetWindowsAccountDomainSid(Address(), domain.bytes, &domain.size) &&
           SecID(machine.c_str()) == domain.bytes;
}

bool SecID::IsWellKnown(int type) const noexcept {
    return !IsNull() && IsWellKnownSid(Address(), static_cast<WELL_KNOWN_SID_TYPE>(type));
}

void SecID::DumpToFile(const wchar_t* caption, std::FILE* stream) const {
    const wchar_t* const title = ReadableOr(caption, L"");
    const Account& found = LookupName(nullptr);
    _TQwString account;
    if (!found.name.IsEmpty() && !found.domain.IsEmpty())
        account = _TQwString::Format(L"[%s\\%s]", found.domain.View(), found.name.View());
    else if (!found.name.IsEmpty())
        account = _TQwString::Format(L"[%s]", found.name.View());
    if (!Write(_TQwString::Format(L"%s\r\n%s%s(%s)", title, String().View(), account.View(),
                                  GetUseDesc(found.use)),
               stream))
        throw TQSysException(ERROR_WRITE_FAULT, L"SecID::DumpToFile");
}

bool operator==(const SecID& left, const void* right) noexcept {
    return (left <=> right) == 0;
}

std::partial_ordering operator<=>(const SecID& left, const void* right) noexcept {
    const Corvel::_TQLastErrorKeeper keeper;
    if (right && !SecID::IsIdentifier(right)) return std::partial_ordering::unordered;
    return SecID::Order(left.m_block, static_cast<const BYTE*>(right));
}

}  // namespace Quellan::Sarvek
