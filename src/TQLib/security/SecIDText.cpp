// The texts of identifiers.
#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/security/internal/SecurityText.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <span>

namespace Quellan::Sarvek {

using Corvel::_TQwString;
using Corvel::TQString;
using Corvel::TQSysException;

namespace {

enum class Place : BYTE {
    Fixed,
    Machine,  // follows the identifier of this machine's accounts
    Domain    // follows the identifier of the domain that the machine belongs to
};

struct Alias {
    std::wstring_view name;
    Place place;
    BYTE authority;  // of a fixed one
    BYTE count;
    DWORD parts[6];
};

constexpr Alias Fixed(std::wstring_view name, BYTE authority, DWORD part) {
    return {name, Place::Fixed, authority, 1, {part}};
}
constexpr Alias Nt(std::wstring_view name, DWORD part) {
    return Fixed(name, 5, part);
}
constexpr Alias Builtin(std::wstring_view name, DWORD part) {
    return {name, Place::Fixed, 5, 2, {32, part}};
}
constexpr Alias In(Place place, std::wstring_view name, DWORD part) {
    return {name, place, 0, 1, {part}};
}

constexpr Alias Aliases[] = {
    Fixed(L"WD", 1, 0),
    Fixed(L"CO", 3, 0),
    Fixed(L"CG", 3, 1),
    Fixed(L"OW", 3, 4),
    Nt(L"NU", 2),
    Nt(L"IU", 4),
    Nt(L"SU", 6),
    Nt(L"AN", 7),
    Nt(L"ED", 9),
    Nt(L"PS", 10),
    Nt(L"AU", 11),
    Nt(L"RC", 12),
    Nt(L"SY", 18),
    Nt(L"LS", 19),
    Nt(L"NS", 20),
    Nt(L"WR", 33),
    {L"UD", Place::Fixed, 5, 6, {84, 0, 0, 0, 0, 0}},
    Builtin(L"BA", 544),
    Builtin(L"BU", 545),
    Builtin(L"BG", 546),
    Builtin(L"PU", 547),
    Builtin(L"AO", 548),
    Builtin(L"SO", 549),
    Builtin(L"PO", 550),
    Builtin(L"BO", 551),
    Builtin(L"RE", 552),
    Builtin(L"RU", 554),
    Builtin(L"RD", 555),
    Builtin(L"NO", 556),
    Builtin(L"MU", 558),
    Builtin(L"LU", 559),
    Builtin(L"IS", 568),
    Builtin(L"CY", 569),
    Builtin(L"ER", 573),
    Builtin(L"CD", 574),
    Builtin(L"RA", 575),
    Builtin(L"ES", 576),
    Builtin(L"MS", 577),
    Builtin(L"HA", 578),
    Builtin(L"AA", 579),
    Builtin(L"RM", 580),
    {L"AC", Place::Fixed, 15, 2, {2, 1}},
    Fixed(L"LW", 16, 0x1000),
    Fixed(L"ME", 16, 0x2000),
    Fixed(L"MP", 16, 0x2100),
    Fixed(L"HI", 16, 0x3000),
    Fixed(L"SI", 16, 0x4000),
    Fixed(L"AS", 18, 1),
    Fixed(L"SS", 18, 2),
    In(Place::Machine, L"LA", 500),
    In(Place::Machine, L"LG", 501),
    In(Place::Domain, L"RO", 498),
    In(Place::Domain, L"DA", 512),
    In(Place::Domain, L"DU", 513),
    In(Place::Domain, L"DG", 514),
    In(Place::Domain, L"DC", 515),
    In(Place::Domain, L"DD", 516),
    In(Place::Domain, L"CA", 517),
    In(Place::Domain, L"SA", 518),
    In(Place::Domain, L"EA", 519),
    In(Place::Domain, L"PA", 520),
    In(Place::Domain, L"CN", 522),
    In(Place::Domain, L"AP", 525),
    In(Place::Domain, L"KA", 526),
    In(Place::Domain, L"EK", 527),
    In(Place::Domain, L"RS", 553),
};

constexpr std::size_t AliasSize = 2;
constexpr std::size_t MostParts = SID_MAX_SUB_AUTHORITIES;
constexpr std::size_t MostDecimals = 10;
constexpr std::size_t MostHexadecimals = 12;
constexpr const wchar_t* NoIdentifier = L"no identifier";

// The identifier of these accounts, which the platform calls by the machine's name.
SecID MachineAccounts() {
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 1];
    DWORD size = static_cast<DWORD>(std::size(name));
    if (!GetComputerNameW(name, &size)) TQSysException::ThrowLastError(L"SecID::FromText");
    return SecID(name);
}

SecID MadeOf(ULONGLONG authority, std::span<const DWORD> parts) {
    constexpr std::size_t AuthoritySize = 6, Head = 2 + AuthoritySize;
    std::array<BYTE, Head + MostParts * sizeof(DWORD)> block{SID_REVISION, static_cast<BYTE>(parts.size())};
    for (std::size_t i = 0; i < AuthoritySize; ++i)
        block[Head - 1 - i] = static_cast<BYTE>(authority >> 8 * i);
    std::memcpy(&block[Head], parts.data(), parts.size_bytes());
    return SecID(static_cast<const void*>(block.data()));
}

SecID MadeOf(const Alias& alias) {
    switch (alias.place) {
        case Place::Machine:
            return {MachineAccounts(), alias.parts[0]};
        case Place::Domain:
            return {SecID::MachDomainSID(), alias.parts[0]};
        default:
            return MadeOf(alias.authority, std::span(alias.parts, alias.count));
    }
}

// One of the numbers in an identifier.
ULONGLONG TakeValue(TextReader& reader, bool isHexadecimal) {
    constexpr ULONGLONG MostDecimal = 0xFFFF'FFFF, MostHexadecimal = 0xFFFF'FFFF'FFFF;
    const std::size_t begin = reader.Offset();
    const ULONGLONG value =
        reader.TakeNumber(isHexadecimal ? 16 : 10, isHexadecimal ? MostHexadecimal : MostDecimal,
                          ERROR_INVALID_SID, L"no number of an identifier");
    if (reader.Offset() - begin > (isHexadecimal ? MostHexadecimals : MostDecimals))
        reader.RefuseAt(ERROR_INVALID_SID, L"too long a number", begin);
    return value;
}

ULONGLONG AuthorityOf(Bytes id) noexcept {
    ULONGLONG value = 0;
    for (const BYTE byte : id.subspan(2, 6))
        value = value << 8 | byte;
    return value;
}

DWORD PartOf(Bytes id, std::size_t index) noexcept {
    DWORD value;
    std::memcpy(&value, &id[8 + index * sizeof value], sizeof value);
    return value;
}

bool Names(const Alias& alias, Bytes id) noexcept {
    if (alias.place != Place::Fixed || alias.count != id[1] || alias.authority != AuthorityOf(id))
        return false;
    for (std::size_t i = 0; i < alias.count; ++i)
        if (alias.parts[i] != PartOf(id, i)) return false;
    return true;
}

}  // namespace

unsigned DigitOf(wchar_t c) noexcept {
    if (c >= L'0' && c <= L'9') return static_cast<unsigned>(c - L'0');
    if (c >= L'a' && c <= L'f') return static_cast<unsigned>(c - L'a') + 10;
    if (c >= L'A' && c <= L'F') return static_cast<unsigned>(c - L'A') + 10;
    return 16;
}

ULONGLONG TextReader::TakeNumber(unsigned base, ULONGLONG most, DWORD code, const wchar_t* what) {
    const std::size_t begin = m_at;
    ULONGLONG value = 0;
    for (unsigned digit = 0; (digit = DigitOf(Peek())) < base; ++m_at) {
        if (digit > most || value > (most - digit) / base) RefuseAt(code, L"too large a number", begin);
        value = value * base + digit;
    }
    if (m_at == begin) Refuse(code, what);
    return value;
}

void TextReader::RefuseAt(DWORD code, const wchar_t* what, std::size_t offset) const {
    throw TQSysException(code, TQString::Format(L"%s: %s at offset %Iu.", m_where, what, offset).c_str());
}

SecID TakeIdentifier(TextReader& reader) {
    const std::size_t begin = reader.Offset();
    if (reader.Take(L"S-1-")) {
        const bool isHexadecimal = reader.Take(L"0x");
        const ULONGLONG authority = TakeValue(reader, isHexadecimal);
        std::array<DWORD, MostParts> parts;
        std::size_t count = 0;
        while (reader.Take(L'-')) {
            if (count == MostParts) reader.RefuseAt(ERROR_INVALID_SID, L"too long an identifier", begin);
            parts[count++] = static_cast<DWORD>(TakeValue(reader, false));
        }
        if (count == 0) reader.Refuse(ERROR_INVALID_SID, L"no sub-authority");
        return MadeOf(authority, std::span(parts.data(), count));
    }
    const auto alias = std::ranges::find(Aliases, reader.Rest().substr(0, AliasSize), &Alias::name);
    if (alias == std::end(Aliases)) reader.Refuse(ERROR_INVALID_SID, NoIdentifier);
    reader.Skip(AliasSize);
    return MadeOf(*alias);
}

void AppendIdentifier(_TQwString& text, Bytes id) {
    constexpr ULONGLONG FirstInHexadecimal = 0x1'0000'0000;
    const auto alias = std::ranges::find_if(Aliases, [&](const Alias& known) { return Names(known, id); });
    if (alias != std::end(Aliases)) {
        text += alias->name;
        return;
    }
    if (id[1] == 0) throw TQSysException(ERROR_NOT_SUPPORTED, L"SecDesc::Text");
    const ULONGLONG authority = AuthorityOf(id);
    if (authority < FirstInHexadecimal)
        text.AppendFormat(L"S-1-%I64u", authority);
    else
        text.AppendFormat(L"S-1-0x%012I64x", authority);
    for (std::size_t i = 0; i < id[1]; ++i)
        text.AppendFormat(L"-%u", PartOf(id, i));
}

SecID SecID::FromText(Corvel::_TQTextT<wchar_t> text) {
    TextReader reader(text.View(), L"SecID::FromText");
    SecID id = TakeIdentifier(reader);
    if (!reader.IsAtEnd()) reader.Refuse(ERROR_INVALID_SID, L"more than an identifier");
    return id;
}

}  // namespace Quellan::Sarvek
