// Security identifiers.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/security/SecIDAuth.h"
#include "TQLib/text/TQString.h"

#include <array>
#include <compare>
#include <concepts>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

namespace Quellan::Sarvek {

class NetBuffer;
class SecIDArray;
class SecPrivilegeSet;

// A security identifier: null, or the owner of one block of the platform's format, which is valid at all
// times. A value: copies have a block of their own. Equality and order are those of the blocks; a null
// identifier equals another one and comes before every other. Whether it is marked as defaulted plays no part
// in that.
//
// The text of an identifier and what the platform says of its account (name, domain, use) are found when
// first asked for and kept as long as the identifier holds the same block; the account is looked up once, on
// the system that is named then, and system names in later calls change nothing. Copies begin without either.
// A null system means this machine; one that cannot be read counts as an empty name. An identifier that the
// platform has no account for has empty names and the use SidTypeUnknown; that is no failure.
//
// Threads: an identifier that is not null belongs to one thread at a time, also when only asked, as it keeps
// what it finds. Null identifiers keep nothing.
//
// Failures: those of the platform are thrown as `TQSysException` with its code, exhausted memory with 14
// (ERROR_OUTOFMEMORY); the identifier is unchanged then. The classes (`IsAdminID` and its like, but for
// `IsWellKnown` and `IsIncludedWithEveryone`) and the order of identifiers ask neither the platform nor for
// memory.
//
// Types of well-known identifiers (WELL_KNOWN_SID_TYPE) and uses (SID_NAME_USE) are the platform's, passed as
// numbers.
class TQLIB_API SecID {
  public:
    // As many sub-authorities as an identifier made from its parts has at most.
    static constexpr std::size_t MaxParts = 8;

    // The null identifier.
    explicit SecID(bool defaulted = false) noexcept : m_isDefaulted(defaulted) {}
    // A copy of the block at that address; the null identifier for null. Throws 1337 (ERROR_INVALID_SID) for
    // an address that cannot be read and for what is no identifier; nothing is read behind its end.
    explicit SecID(const void* sid, bool defaulted = false);
    // The identifier of a domain with one sub-authority more. Throws 1337 (ERROR_INVALID_SID) where the
    // domain is null or has no room.
    SecID(const SecID& domain, DWORD rid);
    // From an authority and up to eight sub-authorities.
    template <std::convertible_to<DWORD>... SubAuthorities>
    requires(sizeof...(SubAuthorities) <= MaxParts) explicit SecID(const SecIDAuth& authority,
                                                                   SubAuthorities... subAuthorities)
        : SecID(DoAllocation(authority, {static_cast<DWORD>(subAuthorities)...}, sizeof...(SubAuthorities)),
                false) {}
    // From the first eight of the values, or all where there are fewer.
    SecID(const SecIDAuth& authority, const std::vector<DWORD>& subAuthorities);
    // Of a well-known type, in the machine's own domain where it needs one.
    explicit SecID(int type, bool defaulted = false) : SecID(WellKnownDomainID(type, nullptr, defaulted)) {}
    // Of an account: NAME, DOMAIN\NAME or NAME@DOMAIN. Throws 1332 (ERROR_NONE_MAPPED) where there is none,
    // 87 (ERROR_INVALID_PARAMETER) for a name that is null or cannot be read.
    explicit SecID(const wchar_t* account, bool defaulted = false) : SecID(account, nullptr, defaulted) {}
    SecID(const wchar_t* account, const wchar_t* system, bool defaulted = false);

    SecID(const SecID& other);
    SecID(SecID&& other) noexcept : SecID() { Swap(other); }
    SecID& operator=(const SecID& other);
    // By exchange: the other one has what this one had.
    SecID& operator=(SecID&& other) noexcept {
        Swap(other);
        return *this;
    }
    // As the constructor from an address; the mark stays. The address may be this identifier's own.
    SecID& operator=(const void* sid);
    virtual ~SecID();

    [[nodiscard]] static SecID WellKnownID(int type, bool defaulted = false) {
        return SecID(type, defaulted);
    }
    // `domainSid` is the address of a domain's identifier, for the types that need one.
    [[nodiscard]] static SecID WellKnownDomainID(int type, const void* domainSid, bool defaulted = false);
    // From its text: S-1-..., the authority in decimal or hexadecimal, and 1 to 15 sub-authorities in decimal;
    // or one of the two-letter names that texts of descriptors use, in capitals. Those of an account domain
    // (LA and LG: this machine's own; DA, DU and their like: the one that the machine belongs to) ask the
    // platform for it and throw its code. Throws 1337 (ERROR_INVALID_SID) with the offset of what is wrong.
    [[nodiscard]] static SecID FromText(Corvel::_TQTextT<wchar_t> text);
    // A null identifier for all threads. It must not be changed.
    [[nodiscard]] static const SecID& NullSID() noexcept;
    // The domain of the user who is logged on, and the one that the machine belongs to.
    [[nodiscard]] static SecID UserDomainSID();
    [[nodiscard]] static SecID MachDomainSID();
    // Whether the user of this process, whomever the thread impersonates, counts as a member of the
    // administrators; with `withDenied` also one to whom the membership can only deny something.
    [[nodiscard]] static bool UserIsAdmin(bool withDenied = false);

    [[nodiscard]] bool IsNull() const noexcept { return !m_block; }
    explicit operator bool() const noexcept { return !IsNull(); }
    // For platform calls, which only read there; owned by this identifier. Null for the null identifier.
    [[nodiscard]] void* Address() const noexcept { return m_block; }
    // In bytes; 0 for the null identifier.
    [[nodiscard]] DWORD Length() const noexcept { return LengthOf(m_block); }
    [[nodiscard]] BYTE SubAuthorityCount() const noexcept { return CountOf(m_block); }
    // Throws 1413 (ERROR_INVALID_INDEX).
    [[nodiscard]] DWORD SubAuthorityValue(BYTE index) const;
    // The null authority for the null identifier.
    [[nodiscard]] SecIDAuth IDAuthority() const noexcept;
    void SetDefaulted(bool defaulted) noexcept { m_isDefaulted = defaulted; }
    [[nodiscard]] bool Defaulted() const noexcept { return m_isDefaulted; }

    // The texts are valid until the identifier changes.

    // S-1-... Throws "SID to string conversion failed", for the null identifier with 1337
    // (ERROR_INVALID_SID).
    [[nodiscard]] const Corvel::_TQwString& String() const;

    // What needs the account. A thread that impersonates somebody looks it up as the process itself; where
    // the impersonation can't be taken up again, that is thrown as `TQSecThreadToken::ProcImpersonate` does.

    // The name of the account; for one without, in this order: the text of the identifier if
    // `useStringIfUnnamed` is set, the name of the domain for a domain, nothing.
    [[nodiscard]] const Corvel::_TQwString& Name(const wchar_t* system = nullptr,
                                                 bool useStringIfUnnamed = false) const;
    [[nodiscard]] const Corvel::_TQwString& Domain(const wchar_t* system = nullptr) const;
    [[nodiscard]] int Use(const wchar_t* system = nullptr) const;
    // The name of the use, such as "SidTypeAlias".
    [[nodiscard]] const wchar_t* UseDesc(const wchar_t* system = nullptr) const;
    // DOMAIN\NAME, or with `nameFirst` NAME@DOMAIN; with `userDefinedOnly` the latter only for what is
    // `IsUserDefinedType`, as others are not found by such a name. The name alone where there is no domain;
    // the text of the identifier where there is no name.
    [[nodiscard]] const Corvel::_TQwString& FullName(bool nameFirst = false, const wchar_t* system = nullptr,
                                                     bool userDefinedOnly = false) const;
    // A user, a group, or an account that is deleted, invalid or unknown; nothing of the platform's own.
    [[nodiscard]] bool IsUserDefinedType(const wchar_t* system = nullptr) const;
    // An integrity level.
    [[nodiscard]] bool IsLabelID() const;
    // Throws the platform's code, 2221 (NERR_UserNotFound) for what is no user of that system, 1332
    // (ERROR_NONE_MAPPED) for an identifier without a name.
    [[nodiscard]] bool IsAccountDisabled(const wchar_t* system = nullptr) const;
    // The identifiers of the groups that this one belongs to, each once: the local groups; for a user also
    // the global groups that this machine knows, and those that a directory service tells. With `indirect`
    // also local groups that it belongs to by way of another group. The thrown exceptions have as their
    // action what was being asked for.
    [[nodiscard]] SecIDArray MemberOfList(bool localGroups = true, bool globalGroups = true,
                                          bool directoryGroups = false, bool indirect = true) const;

    // The account domain of an account. Throws "SID domain could not be determined".
    [[nodiscard]] SecID DomainSID() const;
    // Whether it is of the machine's own account domain, or that domain itself.
    [[nodiscard]] bool IsMachineDomain() const;
    // The rights and privileges given to the identifier itself, with `withGroups` also those of its groups
    // (local, global, indirect).
    [[nodiscard]] SecPrivilegeSet PrivilegesHeld(bool withGroups = false) const;

    // By the platform's own table.
    [[nodiscard]] bool IsWellKnown(int type) const noexcept;
    // The built-in administrators, a domain's administrator and a domain's administrators.
    [[nodiscard]] bool IsAdminID() const noexcept;
    // Whom everybody is who is logged on in one of the ways: dial-up, network, batch, interactive, remote,
    // service.
    [[nodiscard]] bool IsLogonID() const noexcept;
    // Who has not been authenticated: nobody, everyone, anonymous, a domain's guest.
    [[nodiscard]] bool IsNonAuthID() const noexcept;
    // The accounts of services, the identifiers of single services, and whom all services are.
    [[nodiscard]] bool IsServiceID() const noexcept;
    // Whether Everyone includes it: for anonymous the machine's setting says so, "everyoneincludesanonymous",
    // and nothing where it can't be read; no identifier of the null or the creator authority, all others.
    [[nodiscard]] bool IsIncludedWithEveryone() const noexcept;
    // The integrity level that its objects and processes have by default, such as 0x2000 for medium;
    // administrators have a high one unless `ignoreAdmins` is set.
    [[nodiscard]] DWORD SystemLabelRID(bool ignoreAdmins = false) const noexcept;

    // "SidTypeUser" for 1, ... "SidTypeLabel" for 10; "UnknownSIDType" for other numbers.
    [[nodiscard]] static const wchar_t* GetUseDesc(int use) noexcept;
    // The name of an integrity level, such as "High"; other values by their distance from the nearest one
    // that has a name, such as "<High - 0x780>". Half-way between two it is the upper one.
    [[nodiscard]] static Corvel::TQString MandatoryRIDName(DWORD rid);

    // Writes the caption on a line of its own, the text of the identifier, its account and use, to a stream
    // of either orientation: as bytes in UTF-8 where bytes were written to it before; else as `fwprintf`
    // does, in the encoding of the C library's locale, and what that does not have as '?'. A caption that
    // can't be read counts as empty. Throws 29 (ERROR_WRITE_FAULT).
    void DumpToFile(const wchar_t* caption, std::FILE* stream) const;

    friend bool operator==(const SecID& left, const SecID& right) noexcept { return (left <=> right) == 0; }
    friend std::strong_ordering operator<=>(const SecID& left, const SecID& right) noexcept {
        return Order(left.m_block, right.m_block);
    }
    // With the block at an address, or null. What is no identifier equals none and has no place in the order.
    friend TQLIB_API bool operator==(const SecID& left, const void* right) noexcept;
    friend TQLIB_API std::partial_ordering operator<=>(const SecID& left, const void* right) noexcept;

  private:
    // What has been found out about a block.
    struct Account {
        Corvel::_TQwString name;
        Corvel::_TQwString domain;
        std::array<Corvel::_TQwString, 2> fullNames;  // domain first, name first
        int use = 8;                                  // SidTypeUnknown
    };
    struct Findings {
        Corvel::_TQwString text;
        std::unique_ptr<Account> account;  // once it was looked up
    };
    // A block, or null, and whether it came from AllocateAndInitializeSid rather than from the library's
    // allocator.
    struct Block {
        BYTE* bytes;
        bool isPlatforms;
    };

    // Takes the block over.
    SecID(Block block, bool defaulted) noexcept
        : m_block(block.bytes), m_isPlatforms(block.isPlatforms), m_isDefaulted(defaulted) {}

    static constexpr DWORD HeaderSize = 8;
    [[nodiscard]] static DWORD LengthOf(const BYTE* block) noexcept {
        return block ? HeaderSize + DWORD{sizeof(DWORD)} * block[1] : 0;
    }
    [[nodiscard]] static BYTE CountOf(const BYTE* block) noexcept { return block ? block[1] : BYTE{0}; }
    // Shorter blocks come first; those of one length by their bytes.
    [[nodiscard]] static std::strong_ordering Order(const BYTE* left, const BYTE* right) noexcept {
        const DWORD length = LengthOf(left);
        const auto order = length <=> LengthOf(right);
        if (order != 0 || length == 0) return order;
        return std::memcmp(left, right, length) <=> 0;
    }

    [[nodiscard]] static bool IsIdentifier(const void* sid) noexcept;
    // As calls take it.
    [[nodiscard]] static const wchar_t* SystemName(const wchar_t* system) noexcept;
    [[nodiscard]] static BYTE* Allocated(DWORD size);
    [[nodiscard]] static Block Copied(const void* sid);
    [[nodiscard]] static Block DoAllocation(const SecIDAuth& authority,
                                            const std::array<DWORD, MaxParts>& subAuthorities,
                                            std::size_t count);
    [[nodiscard]] static Block LoadAccountName(const wchar_t* account, const wchar_t* system);
    void DeleteSID() noexcept;
    void Swap(SecID& other) noexcept {
        std::swap(m_block, other.m_block);
        m_findings.swap(other.m_findings);
        std::swap(m_isPlatforms, other.m_isPlatforms);
        std::swap(m_isDefaulted, other.m_isDefaulted);
    }
    [[nodiscard]] Findings& Kept() const;
    [[nodiscard]] const Account& LookupName(const wchar_t* system) const;
    [[nodiscard]] SecIDArray GetMemberOfLocalGroupsByEnum(bool indirect, int use) const;
    // The record of the user, by the platform's level.
    void GetUserLookupInfo(const wchar_t* system, DWORD level, NetBuffer& user) const;

    BYTE* m_block = nullptr;
    mutable std::unique_ptr<Findings> m_findings;
    bool m_isPlatforms = false;
    bool m_isDefaulted = false;
};

// The text of the identifier; nothing for the null identifier.
template <class C, class Traits>
std::basic_ostream<C, Traits>& operator<<(std::basic_ostream<C, Traits>& out, const SecID& id) {
    return id ? out << id.String() : out;
}

}  // namespace Quellan::Sarvek

template <>
struct std::hash<Quellan::Sarvek::SecID> {
    std::size_t operator()(const Quellan::Sarvek::SecID& id) const noexcept {
        return std::hash<std::string_view>{}({static_cast<const char*>(id.Address()), id.Length()});
    }
};
