// What can be read off an identifier.
#include "TQLib/core/TQException.h"
#include "TQLib/files/registry/TQRegValue.h"
#include "TQLib/security/SecID.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <iterator>
#include <utility>

namespace Quellan::Sarvek {

namespace {

constexpr BYTE NullAuthority = 0;
constexpr BYTE WorldAuthority = 1;
constexpr BYTE CreatorAuthority = 3;
constexpr BYTE NtAuthority = 5;
constexpr DWORD AccountDomain = 21;
constexpr BYTE AccountCount = 5;
constexpr DWORD BuiltinDomain = 32;
constexpr DWORD SingleService = 80;
constexpr BYTE SingleServiceCount = 6;

// All but the sub-authorities, as one number: revision, their count, six bytes of authority.
constexpr ULONGLONG Header(BYTE authority, BYTE count) {
    return std::bit_cast<ULONGLONG>(std::array<BYTE, 8>{1, count, 0, 0, 0, 0, 0, authority});
}

// One well-known identifier; or those of all account domains (S-1-5-21-a-b-c-n) with the same last number.
struct Pattern {
    ULONGLONG header;
    DWORD first;
    DWORD last = first;

    bool Fits(const SecID& id) const {
        return !id.IsNull() && Read<ULONGLONG>(id, 0) == header && Read<DWORD>(id, 8) == first &&
               Read<DWORD>(id, id.Length() - sizeof(DWORD)) == last;
    }

  private:
    template <class T>
    static T Read(const SecID& id, std::size_t offset) {
        T value;
        std::memcpy(&value, static_cast<const BYTE*>(id.Address()) + offset, sizeof value);
        return value;
    }
};

constexpr Pattern Nt(DWORD number) {
    return {Header(NtAuthority, 1), number};
}
constexpr Pattern Builtin(DWORD number) {
    return {Header(NtAuthority, 2), BuiltinDomain, number};
}
constexpr Pattern InDomain(DWORD number) {
    return {Header(NtAuthority, AccountCount), AccountDomain, number};
}

constexpr Pattern Null{Header(NullAuthority, 1), 0};
constexpr Pattern World{Header(WorldAuthority, 1), 0};
constexpr Pattern Dialup = Nt(1);
constexpr Pattern Network = Nt(2);
constexpr Pattern Batch = Nt(3);
constexpr Pattern Interactive = Nt(4);
constexpr Pattern Service = Nt(6);
constexpr Pattern Anonymous = Nt(7);
constexpr Pattern RemoteLogon = Nt(14);
constexpr Pattern LocalSystem = Nt(18);
constexpr Pattern LocalService = Nt(19);
constexpr Pattern NetworkService = Nt(20);
constexpr Pattern Administrators = Builtin(544);
constexpr Pattern BackupOperators = Builtin(551);
constexpr Pattern NetworkConfigurationOperators = Builtin(556);
constexpr Pattern CryptoOperators = Builtin(569);
constexpr Pattern Administrator = InDomain(500);
constexpr Pattern Guest = InDomain(501);
constexpr Pattern DomainAdmins = InDomain(512);

template <class... Patterns>
bool IsOneOf(const SecID& id, const Patterns&... patterns) {
    return (patterns.Fits(id) || ...);
}

// Of whatever authority.
bool IsSingleService(const SecID& id) {
    return id.SubAuthorityCount() == SingleServiceCount && id.SubAuthorityValue(0) == SingleService;
}

// The machine's setting; off where it can't be read.
bool EveryoneIncludesAnonymous() noexcept {
    try {
        const Corvel::TQRegKey settings(Corvel::TQRegistry::MachineKey(),
                                        L"SYSTEM\\CurrentControlSet\\Control\\Lsa");
        return Corvel::TQDWORDRegValue(settings, L"everyoneincludesanonymous").Get() != 0;
    } catch (const Corvel::TQCoreException&) {
        return false;
    }
}

struct Level {
    DWORD rid;
    const wchar_t* name;
};

constexpr Level Untrusted{0x0000, L"Untrusted"};
constexpr Level Low{0x1000, L"Low"};
constexpr Level Medium{0x2000, L"Medium"};
constexpr Level MediumPlus{0x2100, L"Medium-Plus"};
constexpr Level High{0x3000, L"High"};
constexpr Level System{0x4000, L"System"};
constexpr Level ProtectedProcess{0x5000, L"Protected Process"};
constexpr Level Levels[] = {Untrusted, Low, Medium, MediumPlus, High, System, ProtectedProcess};

Corvel::TQString Above(const Level& level, DWORD distance) {
    // The lowest and the highest level have one blank, the others two.
    const bool isOuter = level.rid == Untrusted.rid || level.rid == ProtectedProcess.rid;
    return Corvel::TQString::Format(L"<%s +%s0x%x>", level.name, isOuter ? L" " : L"  ", distance);
}

Corvel::TQString Below(const Level& level, DWORD distance) {
    return Corvel::TQString::Format(L"<%s - 0x%x>", level.name, distance);
}

}  // namespace

bool SecID::IsNonAuthID() const noexcept {
    return IsOneOf(*this, Null, World, Anonymous, Guest);
}

bool SecID::IsLogonID() const noexcept {
    return IsOneOf(*this, Dialup, Network, Batch, Interactive, RemoteLogon, Service);
}

bool SecID::IsAdminID() const noexcept {
    return IsOneOf(*this, Administrators, Administrator, DomainAdmins);
}

bool SecID::IsServiceID() const noexcept {
    return IsOneOf(*this, LocalSystem, LocalService, NetworkService, Service) || IsSingleService(*this);
}

bool SecID::IsIncludedWithEveryone() const noexcept {
    if (Anonymous.Fits(*this)) return EveryoneIncludesAnonymous();
    const ULONGLONG authority = IDAuthority().Value();
    return authority != NullAuthority && authority != CreatorAuthority;
}

DWORD SecID::SystemLabelRID(bool ignoreAdmins) const noexcept {
    if (World.Fits(*this)) return Low.rid;
    if (IsOneOf(*this, Anonymous, Null)) return Untrusted.rid;
    if (!ignoreAdmins && IsAdminID()) return High.rid;
    if (IsOneOf(*this, CryptoOperators, BackupOperators, NetworkConfigurationOperators)) return High.rid;
    if (IsOneOf(*this, LocalSystem, LocalService, NetworkService)) return System.rid;
    if (IsSingleService(*this)) return System.rid;
    return Medium.rid;
}

const wchar_t* SecID::GetUseDesc(int use) noexcept {
    constexpr const wchar_t* Names[] = {
        L"SidTypeUser",           L"SidTypeGroup",          L"SidTypeDomain",  L"SidTypeAlias",
        L"SidTypeWellKnownGroup", L"SidTypeDeletedAccount", L"SidTypeInvalid", L"SidTypeUnknown",
        L"SidTypeComputer",       L"SidTypeLabel",
    };
    return use >= 1 && use <= static_cast<int>(std::size(Names)) ? Names[use - 1] : L"UnknownSIDType";
}

Corvel::TQString SecID::MandatoryRIDName(DWORD rid) {
    const Level* const upper = std::ranges::lower_bound(Levels, rid, {}, &Level::rid);
    if (upper == std::end(Levels)) return Above(ProtectedProcess, rid - ProtectedProcess.rid);
    if (upper->rid == rid) return upper->name;
    const Level& lower = upper[-1];
    return rid - lower.rid < upper->rid - rid ? Above(lower, rid - lower.rid)
                                              : Below(*upper, upper->rid - rid);
}

}  // namespace Quellan::Sarvek
