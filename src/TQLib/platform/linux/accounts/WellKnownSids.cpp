#include "TQLib/platform/linux/accounts/WellKnownSids.h"

#include <array>

namespace Quellan::Platform {

namespace {

constexpr wchar_t NtAuthorityName[] = L"NT AUTHORITY";
constexpr wchar_t BuiltinName[] = L"BUILTIN";
constexpr wchar_t LabelDomainName[] = L"Mandatory Label";
constexpr wchar_t PackageAuthorityName[] = L"APPLICATION PACKAGE AUTHORITY";
constexpr BYTE NtAuthority = 5, PackageAuthority = 15, LabelAuthority = 16, AuthenticationAuthority = 18;

constexpr WellKnownSid Fixed(BYTE authority, std::initializer_list<DWORD> values, const wchar_t* name,
                             const wchar_t* alias = L"", const wchar_t* domain = L"",
                             SID_NAME_USE use = SidTypeWellKnownGroup) {
    WellKnownSid entry{.authority = authority,
                       .count = static_cast<BYTE>(values.size()),
                       .alias = alias,
                       .name = name,
                       .domain = domain,
                       .use = use};
    std::copy(values.begin(), values.end(), entry.subAuthorities);
    return entry;
}

constexpr WellKnownSid Nt(std::initializer_list<DWORD> values, const wchar_t* name,
                          const wchar_t* alias = L"") {
    return Fixed(NtAuthority, values, name, alias, NtAuthorityName);
}

constexpr WellKnownSid Builtin(DWORD rid, const wchar_t* name, const wchar_t* alias = L"") {
    return Fixed(NtAuthority, {SECURITY_BUILTIN_DOMAIN_RID, rid}, name, alias, BuiltinName, SidTypeAlias);
}

constexpr WellKnownSid OfDomain(DWORD rid, const wchar_t* alias = L"") {
    WellKnownSid entry = Fixed(NtAuthority, {rid}, L"", alias);
    entry.place = SidPlace::Domain;
    return entry;
}

constexpr WellKnownSid Label(DWORD level, const wchar_t* name, const wchar_t* alias = L"") {
    return Fixed(LabelAuthority, {level}, name, alias, LabelDomainName, SidTypeLabel);
}

constexpr WellKnownSid Capability(DWORD number, const wchar_t* name) {
    return Fixed(PackageAuthority, {SECURITY_CAPABILITY_BASE_RID, number}, name, L"", PackageAuthorityName);
}

constexpr WellKnownSid LogonSessions() {
    WellKnownSid entry = Nt({SECURITY_LOGON_IDS_RID}, L"");
    entry.place = SidPlace::Session;
    return entry;
}

constexpr WellKnownSid Refused() {
    WellKnownSid entry;
    entry.place = SidPlace::Nowhere;
    return entry;
}

// clang-format off
constexpr auto KnownSids = std::to_array<WellKnownSid>({
    /*   0 */ Fixed(0, {0}, L"NULL SID"),
    /*   1 */ Fixed(1, {0}, L"Everyone", L"WD"),
    /*   2 */ Fixed(2, {0}, L"LOCAL"),
    /*   3 */ Fixed(3, {0}, L"CREATOR OWNER", L"CO"),
    /*   4 */ Fixed(3, {1}, L"CREATOR GROUP", L"CG"),
    /*   5 */ Fixed(3, {2}, L"CREATOR OWNER SERVER"),
    /*   6 */ Fixed(3, {3}, L"CREATOR GROUP SERVER"),
    /*   7 */ Fixed(NtAuthority, {}, L"NT Pseudo Domain", L"", L"NT Pseudo Domain", SidTypeDomain),
    /*   8 */ Nt({1}, L"DIALUP"),
    /*   9 */ Nt({2}, L"NETWORK", L"NU"),
    /*  10 */ Nt({3}, L"BATCH"),
    /*  11 */ Nt({4}, L"INTERACTIVE", L"IU"),
    /*  12 */ Nt({6}, L"SERVICE", L"SU"),
    /*  13 */ Nt({7}, L"ANONYMOUS LOGON", L"AN"),
    /*  14 */ Nt({8}, L"PROXY"),
    /*  15 */ Nt({9}, L"ENTERPRISE DOMAIN CONTROLLERS", L"ED"),
    /*  16 */ Nt({10}, L"SELF", L"PS"),
    /*  17 */ Nt({11}, L"Authenticated Users", L"AU"),
    /*  18 */ Nt({12}, L"RESTRICTED", L"RC"),
    /*  19 */ Nt({13}, L"TERMINAL SERVER USER"),
    /*  20 */ Nt({14}, L"REMOTE INTERACTIVE LOGON"),
    /*  21 */ LogonSessions(),
    /*  22 */ Nt({18}, L"SYSTEM", L"SY"),
    /*  23 */ Nt({19}, L"LOCAL SERVICE", L"LS"),
    /*  24 */ Nt({20}, L"NETWORK SERVICE", L"NS"),
    /*  25 */ Fixed(NtAuthority, {SECURITY_BUILTIN_DOMAIN_RID}, BuiltinName, L"", BuiltinName, SidTypeDomain),
    /*  26 */ Builtin(544, L"Administrators", L"BA"),
    /*  27 */ Builtin(545, L"Users", L"BU"),
    /*  28 */ Builtin(546, L"Guests", L"BG"),
    /*  29 */ Builtin(547, L"Power Users", L"PU"),
    /*  30 */ Builtin(548, L"Account Operators", L"AO"),
    /*  31 */ Builtin(549, L"Server Operators", L"SO"),
    /*  32 */ Builtin(550, L"Print Operators", L"PO"),
    /*  33 */ Builtin(551, L"Backup Operators", L"BO"),
    /*  34 */ Builtin(552, L"Replicator", L"RE"),
    /*  35 */ Builtin(554, L"Pre-Windows 2000 Compatible Access", L"RU"),
    /*  36 */ Builtin(555, L"Remote Desktop Users", L"RD"),
    /*  37 */ Builtin(556, L"Network Configuration Operators", L"NO"),
    /*  38 */ OfDomain(DOMAIN_USER_RID_ADMIN, L"LA"),
    /*  39 */ OfDomain(DOMAIN_USER_RID_GUEST, L"LG"),
    /*  40 */ OfDomain(DOMAIN_USER_RID_KRBTGT),
    /*  41 */ OfDomain(DOMAIN_GROUP_RID_ADMINS, L"DA"),
    /*  42 */ OfDomain(DOMAIN_GROUP_RID_USERS, L"DU"),
    /*  43 */ OfDomain(DOMAIN_GROUP_RID_GUESTS, L"DG"),
    /*  44 */ OfDomain(DOMAIN_GROUP_RID_COMPUTERS, L"DC"),
    /*  45 */ OfDomain(DOMAIN_GROUP_RID_CONTROLLERS, L"DD"),
    /*  46 */ OfDomain(DOMAIN_GROUP_RID_CERT_ADMINS, L"CA"),
    /*  47 */ OfDomain(DOMAIN_GROUP_RID_SCHEMA_ADMINS, L"SA"),
    /*  48 */ OfDomain(DOMAIN_GROUP_RID_ENTERPRISE_ADMINS, L"EA"),
    /*  49 */ OfDomain(DOMAIN_GROUP_RID_POLICY_ADMINS, L"PA"),
    /*  50 */ OfDomain(DOMAIN_ALIAS_RID_RAS_SERVERS, L"RS"),
    /*  51 */ Nt({64, 10}, L"NTLM Authentication"),
    /*  52 */ Nt({64, 21}, L"Digest Authentication"),
    /*  53 */ Nt({64, 14}, L"SChannel Authentication"),
    /*  54 */ Nt({15}, L"This Organization"),
    /*  55 */ Nt({1000}, L"Other Organization"),
    /*  56 */ Builtin(557, L"Incoming Forest Trust Builders"),
    /*  57 */ Builtin(558, L"Performance Monitor Users", L"MU"),
    /*  58 */ Builtin(559, L"Performance Log Users", L"LU"),
    /*  59 */ Builtin(560, L"Windows Authorization Access Group"),
    /*  60 */ Builtin(561, L"Terminal Server License Servers"),
    /*  61 */ Builtin(562, L"Distributed COM Users"),
    /*  62 */ Builtin(568, L"IIS_IUSRS", L"IS"),
    /*  63 */ Nt({17}, L"IUSR"),
    /*  64 */ Builtin(569, L"Cryptographic Operators", L"CY"),
    /*  65 */ Label(SECURITY_MANDATORY_UNTRUSTED_RID, L"Untrusted Mandatory Level"),
    /*  66 */ Label(SECURITY_MANDATORY_LOW_RID, L"Low Mandatory Level", L"LW"),
    /*  67 */ Label(SECURITY_MANDATORY_MEDIUM_RID, L"Medium Mandatory Level", L"ME"),
    /*  68 */ Label(SECURITY_MANDATORY_HIGH_RID, L"High Mandatory Level", L"HI"),
    /*  69 */ Label(SECURITY_MANDATORY_SYSTEM_RID, L"System Mandatory Level", L"SI"),
    /*  70 */ Nt({33}, L"WRITE RESTRICTED", L"WR"),
    /*  71 */ Fixed(3, {4}, L"OWNER RIGHTS", L"OW"),
    /*  72 */ OfDomain(DOMAIN_ALIAS_RID_CACHEABLE_PRINCIPALS_GROUP),
    /*  73 */ OfDomain(DOMAIN_ALIAS_RID_NON_CACHEABLE_PRINCIPALS_GROUP),
    /*  74 */ Nt({22}, L"ENTERPRISE READ-ONLY DOMAIN CONTROLLERS BETA"),
    /*  75 */ OfDomain(DOMAIN_GROUP_RID_READONLY_CONTROLLERS),
    /*  76 */ Builtin(573, L"Event Log Readers", L"ER"),
    /*  77 */ OfDomain(498, L"RO"),
    /*  78 */ Builtin(574, L"Certificate Service DCOM Access", L"CD"),
    /*  79 */ Label(SECURITY_MANDATORY_MEDIUM_PLUS_RID, L"Medium Plus Mandatory Level", L"MP"),
    /*  80 */ Refused(),
    /*  81 */ Fixed(2, {1}, L"CONSOLE LOGON"),
    /*  82 */ Nt({65, 1}, L"This Organization Certificate"),
    /*  83 */ Fixed(PackageAuthority, {}, PackageAuthorityName, L"", PackageAuthorityName, SidTypeDomain),
    /*  84 */ Fixed(PackageAuthority, {2, 1}, L"ALL APPLICATION PACKAGES", L"AC", PackageAuthorityName),
    /*  85 */ Capability(1, L"Your Internet connection"),
    /*  86 */ Capability(2, L"Your Internet connection, including incoming connections from the Internet"),
    /*  87 */ Capability(3, L"Your home or work networks"),
    /*  88 */ Capability(4, L"Your pictures library"),
    /*  89 */ Capability(5, L"Your videos library"),
    /*  90 */ Capability(6, L"Your music library"),
    /*  91 */ Capability(7, L"Your documents library"),
    /*  92 */ Capability(9, L"Software and hardware certificates or a smart card"),
    /*  93 */ Capability(8, L"Your Windows credentials"),
    /*  94 */ Capability(10, L"Removable storage"),
    /*  95 */ Builtin(575, L"RDS Remote Access Servers", L"RA"),
    /*  96 */ Builtin(576, L"RDS Endpoint Servers", L"ES"),
    /*  97 */ Builtin(577, L"RDS Management Servers", L"MS"),
    /*  98 */ Nt({84, 0, 0, 0, 0, 0}, L"USER MODE DRIVERS", L"UD"),
    /*  99 */ Builtin(578, L"Hyper-V Administrators", L"HA"),
    /* 100 */ OfDomain(DOMAIN_GROUP_RID_CLONEABLE_CONTROLLERS, L"CN"),
    /* 101 */ Builtin(579, L"Access Control Assistance Operators", L"AA"),
    /* 102 */ Builtin(580, L"Remote Management Users", L"RM"),
    /* 103 */ Fixed(AuthenticationAuthority, {1}, L"Authentication authority asserted identity", L"AS"),
    /* 104 */ Fixed(AuthenticationAuthority, {2}, L"Service asserted identity", L"SS"),
    /* 105 */ Nt({113}, L"Local account"),
    /* 106 */ Nt({114}, L"Local account and member of Administrators group"),
    /* 107 */ OfDomain(525, L"AP"),
    /* 108 */ Capability(11, L"Your Appointments"),
    /* 109 */ Capability(12, L"Your Contacts"),
    /* 110 */ OfDomain(503),
    /* 111 */ Builtin(581, L"System Managed Accounts Group"),
    /* 112 */ Builtin(582, L"Storage Replica Administrators"),
    /* 113 */ OfDomain(526, L"KA"),
    /* 114 */ OfDomain(527, L"EK"),
    /* 115 */ Fixed(AuthenticationAuthority, {4}, L"Key trust identity"),
    /* 116 */ Fixed(AuthenticationAuthority, {5}, L"MFA key property"),
    /* 117 */ Fixed(AuthenticationAuthority, {6}, L"Attested key property"),
    /* 118 */ Fixed(AuthenticationAuthority, {3}, L"Fresh public key identity"),
    /* 119 */ Builtin(583, L"Device Owners"),
    /* 120 */ Builtin(584, L"User Mode Hardware Operators"),
    /* 121 */ Builtin(585, L"OpenSSH Users"),
    Fixed(NtAuthority, {SECURITY_SERVICE_ID_BASE_RID, 0}, L"ALL SERVICES", L"", L"NT SERVICE"),
    Label(SECURITY_MANDATORY_PROTECTED_PROCESS_RID, L"Protected Process Mandatory Level"),
});
// clang-format on
constexpr std::size_t TypeCount = WinBuiltinOpenSSHUsersSid + 1;
static_assert(KnownSids.size() == TypeCount + 2 && KnownSids[TypeCount - 1].subAuthorities[1] == 585);

}  // namespace

SidValue WellKnownSid::Sid() const noexcept {
    SidValue sid(authority, {});
    for (unsigned i = 0; i < count; ++i)
        sid = sid.With(subAuthorities[i]);
    return sid;
}

bool WellKnownSid::Is(const void* sid) const noexcept {
    const BYTE given = SubAuthoritiesOf(sid);
    if (AuthorityOf(sid) != authority) return false;
    switch (place) {
        case SidPlace::Domain:
            return given == 5 && SubAuthorityOf(sid, 0) == SECURITY_NT_NON_UNIQUE &&
                   SubAuthorityOf(sid, 4) == subAuthorities[0];
        case SidPlace::Session:
            return given == SECURITY_LOGON_IDS_RID_COUNT && SubAuthorityOf(sid, 0) == subAuthorities[0];
        case SidPlace::Nowhere:
            return false;
        case SidPlace::Fixed:
            break;
    }
    if (given != count) return false;
    for (unsigned i = 0; i < count; ++i)
        if (SubAuthorityOf(sid, i) != subAuthorities[i]) return false;
    return true;
}

std::span<const WellKnownSid> WellKnownSids() noexcept {
    return KnownSids;
}

const WellKnownSid* FindWellKnownSid(WELL_KNOWN_SID_TYPE type) noexcept {
    const auto index = static_cast<std::size_t>(type);
    return index < TypeCount && KnownSids[index].place != SidPlace::Nowhere ? &KnownSids[index] : nullptr;
}

}  // namespace Quellan::Platform
