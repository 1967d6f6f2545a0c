// Security identifiers: the published block, its parts, its text, and the well-known ones.
//
// A block is a revision, the number of sub-authorities, six bytes of authority and up to 15 sub-authorities.
// Apart from IsValidSid the calls take the address of a block for good; what stands there is checked, and
// nothing is read beyond what the block says of itself. Blocks need no alignment, but for the pointers that
// GetSidSubAuthority hands out.
#pragma once

#include "TQLib/platform/linux/base/Base.h"

namespace Quellan::Platform {

using PSID = void*;

struct SID_IDENTIFIER_AUTHORITY {
    BYTE Value[6];
};

struct SID {
    BYTE Revision;
    BYTE SubAuthorityCount;
    SID_IDENTIFIER_AUTHORITY IdentifierAuthority;
    DWORD SubAuthority[1];  // as many as are counted
};

struct SID_AND_ATTRIBUTES {
    PSID Sid;
    DWORD Attributes;
};

// What a group may be to a token, in `Attributes`.
inline constexpr DWORD SE_GROUP_MANDATORY = 0x00000001;
inline constexpr DWORD SE_GROUP_ENABLED_BY_DEFAULT = 0x00000002;
inline constexpr DWORD SE_GROUP_ENABLED = 0x00000004;
inline constexpr DWORD SE_GROUP_OWNER = 0x00000008;
inline constexpr DWORD SE_GROUP_USE_FOR_DENY_ONLY = 0x00000010;
inline constexpr DWORD SE_GROUP_INTEGRITY = 0x00000020;
inline constexpr DWORD SE_GROUP_INTEGRITY_ENABLED = 0x00000040;
inline constexpr DWORD SE_GROUP_RESOURCE = 0x20000000;
inline constexpr DWORD SE_GROUP_LOGON_ID = 0xC0000000;

inline constexpr BYTE SID_REVISION = 1;
inline constexpr BYTE SID_MAX_SUB_AUTHORITIES = 15;
inline constexpr BYTE SID_RECOMMENDED_SUB_AUTHORITIES = 1;
inline constexpr DWORD SECURITY_MAX_SID_SIZE = 8 + SID_MAX_SUB_AUTHORITIES * 4;

// What an identifier stands for.
enum SID_NAME_USE : int {
    SidTypeUser = 1,
    SidTypeGroup,
    SidTypeDomain,
    SidTypeAlias,
    SidTypeWellKnownGroup,
    SidTypeDeletedAccount,
    SidTypeInvalid,
    SidTypeUnknown,
    SidTypeComputer,
    SidTypeLabel,
    SidTypeLogonSession,
};

inline constexpr SID_IDENTIFIER_AUTHORITY SECURITY_NULL_SID_AUTHORITY{{0, 0, 0, 0, 0, 0}};
inline constexpr SID_IDENTIFIER_AUTHORITY SECURITY_WORLD_SID_AUTHORITY{{0, 0, 0, 0, 0, 1}};
inline constexpr SID_IDENTIFIER_AUTHORITY SECURITY_LOCAL_SID_AUTHORITY{{0, 0, 0, 0, 0, 2}};
inline constexpr SID_IDENTIFIER_AUTHORITY SECURITY_CREATOR_SID_AUTHORITY{{0, 0, 0, 0, 0, 3}};
inline constexpr SID_IDENTIFIER_AUTHORITY SECURITY_NON_UNIQUE_AUTHORITY{{0, 0, 0, 0, 0, 4}};
inline constexpr SID_IDENTIFIER_AUTHORITY SECURITY_NT_AUTHORITY{{0, 0, 0, 0, 0, 5}};
inline constexpr SID_IDENTIFIER_AUTHORITY SECURITY_RESOURCE_MANAGER_AUTHORITY{{0, 0, 0, 0, 0, 9}};
inline constexpr SID_IDENTIFIER_AUTHORITY SECURITY_APP_PACKAGE_AUTHORITY{{0, 0, 0, 0, 0, 15}};
inline constexpr SID_IDENTIFIER_AUTHORITY SECURITY_MANDATORY_LABEL_AUTHORITY{{0, 0, 0, 0, 0, 16}};
inline constexpr SID_IDENTIFIER_AUTHORITY SECURITY_SCOPED_POLICY_ID_AUTHORITY{{0, 0, 0, 0, 0, 17}};
inline constexpr SID_IDENTIFIER_AUTHORITY SECURITY_AUTHENTICATION_AUTHORITY{{0, 0, 0, 0, 0, 18}};

inline constexpr DWORD SECURITY_NULL_RID = 0;
inline constexpr DWORD SECURITY_WORLD_RID = 0;
inline constexpr DWORD SECURITY_LOCAL_RID = 0;
inline constexpr DWORD SECURITY_LOCAL_LOGON_RID = 1;
inline constexpr DWORD SECURITY_CREATOR_OWNER_RID = 0;
inline constexpr DWORD SECURITY_CREATOR_GROUP_RID = 1;
inline constexpr DWORD SECURITY_CREATOR_OWNER_SERVER_RID = 2;
inline constexpr DWORD SECURITY_CREATOR_GROUP_SERVER_RID = 3;
inline constexpr DWORD SECURITY_CREATOR_OWNER_RIGHTS_RID = 4;
inline constexpr DWORD SECURITY_DIALUP_RID = 1;
inline constexpr DWORD SECURITY_NETWORK_RID = 2;
inline constexpr DWORD SECURITY_BATCH_RID = 3;
inline constexpr DWORD SECURITY_INTERACTIVE_RID = 4;
inline constexpr DWORD SECURITY_LOGON_IDS_RID = 5;
inline constexpr DWORD SECURITY_LOGON_IDS_RID_COUNT = 3;
inline constexpr DWORD SECURITY_SERVICE_RID = 6;
inline constexpr DWORD SECURITY_ANONYMOUS_LOGON_RID = 7;
inline constexpr DWORD SECURITY_PROXY_RID = 8;
inline constexpr DWORD SECURITY_ENTERPRISE_CONTROLLERS_RID = 9;
inline constexpr DWORD SECURITY_PRINCIPAL_SELF_RID = 10;
inline constexpr DWORD SECURITY_AUTHENTICATED_USER_RID = 11;
inline constexpr DWORD SECURITY_RESTRICTED_CODE_RID = 12;
inline constexpr DWORD SECURITY_TERMINAL_SERVER_RID = 13;
inline constexpr DWORD SECURITY_REMOTE_LOGON_RID = 14;
inline constexpr DWORD SECURITY_THIS_ORGANIZATION_RID = 15;
inline constexpr DWORD SECURITY_IUSER_RID = 17;
inline constexpr DWORD SECURITY_LOCAL_SYSTEM_RID = 18;
inline constexpr DWORD SECURITY_LOCAL_SERVICE_RID = 19;
inline constexpr DWORD SECURITY_NETWORK_SERVICE_RID = 20;
inline constexpr DWORD SECURITY_ENTERPRISE_READONLY_CONTROLLERS_RID = 22;
inline constexpr DWORD SECURITY_BUILTIN_DOMAIN_RID = 32;
inline constexpr DWORD SECURITY_WRITE_RESTRICTED_CODE_RID = 33;
inline constexpr DWORD SECURITY_PACKAGE_BASE_RID = 64;
inline constexpr DWORD SECURITY_PACKAGE_NTLM_RID = 10;
inline constexpr DWORD SECURITY_PACKAGE_SCHANNEL_RID = 14;
inline constexpr DWORD SECURITY_PACKAGE_DIGEST_RID = 21;
inline constexpr DWORD SECURITY_CRED_TYPE_BASE_RID = 65;
inline constexpr DWORD SECURITY_CRED_TYPE_THIS_ORG_CERT_RID = 1;
inline constexpr DWORD SECURITY_SERVICE_ID_BASE_RID = 80;
inline constexpr DWORD SECURITY_SERVICE_ID_RID_COUNT = 6;
inline constexpr DWORD SECURITY_OTHER_ORGANIZATION_RID = 1000;
inline constexpr DWORD SECURITY_APP_PACKAGE_BASE_RID = 2;
inline constexpr DWORD SECURITY_CAPABILITY_BASE_RID = 3;
inline constexpr DWORD SECURITY_AUTHENTICATION_AUTHORITY_ASSERTED_RID = 1;
inline constexpr DWORD SECURITY_AUTHENTICATION_SERVICE_ASSERTED_RID = 2;
inline constexpr DWORD SECURITY_NT_NON_UNIQUE = 21;

inline constexpr DWORD SECURITY_MANDATORY_UNTRUSTED_RID = 0x0000;
inline constexpr DWORD SECURITY_MANDATORY_LOW_RID = 0x1000;
inline constexpr DWORD SECURITY_MANDATORY_MEDIUM_RID = 0x2000;
inline constexpr DWORD SECURITY_MANDATORY_MEDIUM_PLUS_RID = 0x2100;
inline constexpr DWORD SECURITY_MANDATORY_HIGH_RID = 0x3000;
inline constexpr DWORD SECURITY_MANDATORY_SYSTEM_RID = 0x4000;
inline constexpr DWORD SECURITY_MANDATORY_PROTECTED_PROCESS_RID = 0x5000;

inline constexpr DWORD DOMAIN_USER_RID_ADMIN = 500;
inline constexpr DWORD DOMAIN_USER_RID_GUEST = 501;
inline constexpr DWORD DOMAIN_USER_RID_KRBTGT = 502;
inline constexpr DWORD DOMAIN_USER_RID_MAX = 999;

inline constexpr DWORD DOMAIN_GROUP_RID_ADMINS = 512;
inline constexpr DWORD DOMAIN_GROUP_RID_USERS = 513;
inline constexpr DWORD DOMAIN_GROUP_RID_GUESTS = 514;
inline constexpr DWORD DOMAIN_GROUP_RID_COMPUTERS = 515;
inline constexpr DWORD DOMAIN_GROUP_RID_CONTROLLERS = 516;
inline constexpr DWORD DOMAIN_GROUP_RID_CERT_ADMINS = 517;
inline constexpr DWORD DOMAIN_GROUP_RID_SCHEMA_ADMINS = 518;
inline constexpr DWORD DOMAIN_GROUP_RID_ENTERPRISE_ADMINS = 519;
inline constexpr DWORD DOMAIN_GROUP_RID_POLICY_ADMINS = 520;
inline constexpr DWORD DOMAIN_GROUP_RID_READONLY_CONTROLLERS = 521;
inline constexpr DWORD DOMAIN_GROUP_RID_CLONEABLE_CONTROLLERS = 522;

inline constexpr DWORD DOMAIN_ALIAS_RID_ADMINS = 544;
inline constexpr DWORD DOMAIN_ALIAS_RID_USERS = 545;
inline constexpr DWORD DOMAIN_ALIAS_RID_GUESTS = 546;
inline constexpr DWORD DOMAIN_ALIAS_RID_POWER_USERS = 547;
inline constexpr DWORD DOMAIN_ALIAS_RID_ACCOUNT_OPS = 548;
inline constexpr DWORD DOMAIN_ALIAS_RID_SYSTEM_OPS = 549;
inline constexpr DWORD DOMAIN_ALIAS_RID_PRINT_OPS = 550;
inline constexpr DWORD DOMAIN_ALIAS_RID_BACKUP_OPS = 551;
inline constexpr DWORD DOMAIN_ALIAS_RID_REPLICATOR = 552;
inline constexpr DWORD DOMAIN_ALIAS_RID_RAS_SERVERS = 553;
inline constexpr DWORD DOMAIN_ALIAS_RID_PREW2KCOMPACCESS = 554;
inline constexpr DWORD DOMAIN_ALIAS_RID_REMOTE_DESKTOP_USERS = 555;
inline constexpr DWORD DOMAIN_ALIAS_RID_NETWORK_CONFIGURATION_OPS = 556;
inline constexpr DWORD DOMAIN_ALIAS_RID_INCOMING_FOREST_TRUST_BUILDERS = 557;
inline constexpr DWORD DOMAIN_ALIAS_RID_MONITORING_USERS = 558;
inline constexpr DWORD DOMAIN_ALIAS_RID_LOGGING_USERS = 559;
inline constexpr DWORD DOMAIN_ALIAS_RID_AUTHORIZATIONACCESS = 560;
inline constexpr DWORD DOMAIN_ALIAS_RID_TS_LICENSE_SERVERS = 561;
inline constexpr DWORD DOMAIN_ALIAS_RID_DCOM_USERS = 562;
inline constexpr DWORD DOMAIN_ALIAS_RID_IUSERS = 568;
inline constexpr DWORD DOMAIN_ALIAS_RID_CRYPTO_OPERATORS = 569;
inline constexpr DWORD DOMAIN_ALIAS_RID_CACHEABLE_PRINCIPALS_GROUP = 571;
inline constexpr DWORD DOMAIN_ALIAS_RID_NON_CACHEABLE_PRINCIPALS_GROUP = 572;
inline constexpr DWORD DOMAIN_ALIAS_RID_EVENT_LOG_READERS_GROUP = 573;
inline constexpr DWORD DOMAIN_ALIAS_RID_CERTSVC_DCOM_ACCESS_GROUP = 574;
inline constexpr DWORD DOMAIN_ALIAS_RID_RDS_REMOTE_ACCESS_SERVERS = 575;
inline constexpr DWORD DOMAIN_ALIAS_RID_RDS_ENDPOINT_SERVERS = 576;
inline constexpr DWORD DOMAIN_ALIAS_RID_RDS_MANAGEMENT_SERVERS = 577;
inline constexpr DWORD DOMAIN_ALIAS_RID_HYPER_V_ADMINS = 578;
inline constexpr DWORD DOMAIN_ALIAS_RID_ACCESS_CONTROL_ASSISTANCE_OPS = 579;
inline constexpr DWORD DOMAIN_ALIAS_RID_REMOTE_MANAGEMENT_USERS = 580;

enum WELL_KNOWN_SID_TYPE : int {
    WinNullSid = 0,
    WinWorldSid,
    WinLocalSid,
    WinCreatorOwnerSid,
    WinCreatorGroupSid,
    WinCreatorOwnerServerSid,
    WinCreatorGroupServerSid,
    WinNtAuthoritySid,
    WinDialupSid,
    WinNetworkSid,
    WinBatchSid,
    WinInteractiveSid,
    WinServiceSid,
    WinAnonymousSid,
    WinProxySid,
    WinEnterpriseControllersSid,
    WinSelfSid,
    WinAuthenticatedUserSid,
    WinRestrictedCodeSid,
    WinTerminalServerSid,
    WinRemoteLogonIdSid,
    WinLogonIdsSid,
    WinLocalSystemSid,
    WinLocalServiceSid,
    WinNetworkServiceSid,
    WinBuiltinDomainSid,
    WinBuiltinAdministratorsSid,
    WinBuiltinUsersSid,
    WinBuiltinGuestsSid,
    WinBuiltinPowerUsersSid,
    WinBuiltinAccountOperatorsSid,
    WinBuiltinSystemOperatorsSid,
    WinBuiltinPrintOperatorsSid,
    WinBuiltinBackupOperatorsSid,
    WinBuiltinReplicatorSid,
    WinBuiltinPreWindows2000CompatibleAccessSid,
    WinBuiltinRemoteDesktopUsersSid,
    WinBuiltinNetworkConfigurationOperatorsSid,
    WinAccountAdministratorSid,
    WinAccountGuestSid,
    WinAccountKrbtgtSid,
    WinAccountDomainAdminsSid,
    WinAccountDomainUsersSid,
    WinAccountDomainGuestsSid,
    WinAccountComputersSid,
    WinAccountControllersSid,
    WinAccountCertAdminsSid,
    WinAccountSchemaAdminsSid,
    WinAccountEnterpriseAdminsSid,
    WinAccountPolicyAdminsSid,
    WinAccountRasAndIasServersSid,
    WinNTLMAuthenticationSid,
    WinDigestAuthenticationSid,
    WinSChannelAuthenticationSid,
    WinThisOrganizationSid,
    WinOtherOrganizationSid,
    WinBuiltinIncomingForestTrustBuildersSid,
    WinBuiltinPerfMonitoringUsersSid,
    WinBuiltinPerfLoggingUsersSid,
    WinBuiltinAuthorizationAccessSid,
    WinBuiltinTerminalServerLicenseServersSid,
    WinBuiltinDCOMUsersSid,
    WinBuiltinIUsersSid,
    WinIUserSid,
    WinBuiltinCryptoOperatorsSid,
    WinUntrustedLabelSid,
    WinLowLabelSid,
    WinMediumLabelSid,
    WinHighLabelSid,
    WinSystemLabelSid,
    WinWriteRestrictedCodeSid,
    WinCreatorOwnerRightsSid,
    WinCacheablePrincipalsGroupSid,
    WinNonCacheablePrincipalsGroupSid,
    WinEnterpriseReadonlyControllersSid,
    WinAccountReadonlyControllersSid,
    WinBuiltinEventLogReadersGroup,
    WinNewEnterpriseReadonlyControllersSid,
    WinBuiltinCertSvcDComAccessGroup,
    WinMediumPlusLabelSid,
    WinLocalLogonSid,
    WinConsoleLogonSid,
    WinThisOrganizationCertificateSid,
    WinApplicationPackageAuthoritySid,
    WinBuiltinAnyPackageSid,
    WinCapabilityInternetClientSid,
    WinCapabilityInternetClientServerSid,
    WinCapabilityPrivateNetworkClientServerSid,
    WinCapabilityPicturesLibrarySid,
    WinCapabilityVideosLibrarySid,
    WinCapabilityMusicLibrarySid,
    WinCapabilityDocumentsLibrarySid,
    WinCapabilitySharedUserCertificatesSid,
    WinCapabilityEnterpriseAuthenticationSid,
    WinCapabilityRemovableStorageSid,
    WinBuiltinRDSRemoteAccessServersSid,
    WinBuiltinRDSEndpointServersSid,
    WinBuiltinRDSManagementServersSid,
    WinUserModeDriversSid,
    WinBuiltinHyperVAdminsSid,
    WinAccountCloneableControllersSid,
    WinBuiltinAccessControlAssistanceOperatorsSid,
    WinBuiltinRemoteManagementUsersSid,
    WinAuthenticationAuthorityAssertedSid,
    WinAuthenticationServiceAssertedSid,
    WinLocalAccountSid,
    WinLocalAccountAndAdministratorSid,
    WinAccountProtectedUsersSid,
    WinCapabilityAppointmentsSid,
    WinCapabilityContactsSid,
    WinAccountDefaultSystemManagedSid,
    WinBuiltinDefaultSystemManagedGroupSid,
    WinBuiltinStorageReplicaAdminsSid,
    WinAccountKeyAdminsSid,
    WinAccountEnterpriseKeyAdminsSid,
    WinAuthenticationKeyTrustSid,
    WinAuthenticationKeyPropertyMFASid,
    WinAuthenticationKeyPropertyAttestationSid,
    WinAuthenticationFreshKeyAuthSid,
    WinBuiltinDeviceOwnersSid,
    WinBuiltinUserModeHardwareOperatorsSid,
    WinBuiltinOpenSSHUsersSid,
};

// False also for null, for a revision other than 1, for more than 15 sub-authorities and for addresses that
// cannot be read. The last error stays.
TQLIB_API BOOL IsValidSid(PSID sid) noexcept;
// 0 with 1337 (ERROR_INVALID_SID) for what is none.
TQLIB_API DWORD GetLengthSid(PSID sid) noexcept;
TQLIB_API DWORD GetSidLengthRequired(BYTE subAuthorities) noexcept;
// Writes all but the sub-authorities themselves. 87 (ERROR_INVALID_PARAMETER) for more than 15.
TQLIB_API BOOL InitializeSid(PSID sid, SID_IDENTIFIER_AUTHORITY* authority, BYTE subAuthorities) noexcept;
// A new block for FreeSid. 1337 (ERROR_INVALID_SID) for more than 8 sub-authorities.
TQLIB_API BOOL AllocateAndInitializeSid(SID_IDENTIFIER_AUTHORITY* authority, BYTE subAuthorities, DWORD first,
                                        DWORD second, DWORD third, DWORD fourth, DWORD fifth, DWORD sixth,
                                        DWORD seventh, DWORD eighth, PSID* sid) noexcept;
// Null.
TQLIB_API PSID FreeSid(PSID sid) noexcept;
// Into the block. Null with 1337 (ERROR_INVALID_SID) for what is none, and with 87 (ERROR_INVALID_PARAMETER)
// for a sub-authority that it does not have.
TQLIB_API SID_IDENTIFIER_AUTHORITY* GetSidIdentifierAuthority(PSID sid) noexcept;
TQLIB_API DWORD* GetSidSubAuthority(PSID sid, DWORD index) noexcept;
TQLIB_API BYTE* GetSidSubAuthorityCount(PSID sid) noexcept;
// 122 (ERROR_INSUFFICIENT_BUFFER), 1337 (ERROR_INVALID_SID).
TQLIB_API BOOL CopySid(DWORD size, PSID target, PSID source) noexcept;

// False with 1337 (ERROR_INVALID_SID) when one of them is none, and with 0 when they differ.
TQLIB_API BOOL EqualSid(PSID left, PSID right) noexcept;
// Whether both are of one domain: an account domain (S-1-5-21-a-b-c) or the built-in one (S-1-5-32). 1258
// (ERROR_NON_DOMAIN_SID) when one of them is of neither, 1337 (ERROR_INVALID_SID), 87
// (ERROR_INVALID_PARAMETER) without `equal`; the last error is 0 when they are not.
TQLIB_API BOOL EqualDomainSid(PSID left, PSID right, BOOL* equal) noexcept;
// The account domain of an identifier, S-1-5-21-a-b-c; of a domain that domain. 1257 (ERROR_NON_ACCOUNT_SID),
// 1337 (ERROR_INVALID_SID), 122 (ERROR_INSUFFICIENT_BUFFER) with the size.
TQLIB_API BOOL GetWindowsAccountDomainSid(PSID sid, PSID domain, DWORD* size) noexcept;

// The types of a domain's accounts and groups take `domain`, null for the machine's own; the others ignore
// it. 122 (ERROR_INSUFFICIENT_BUFFER) with the size; 87 (ERROR_INVALID_PARAMETER) for an unknown type, for
// WinLogonIdsSid, which stands for many identifiers, and for a domain that is no identifier or has no room.
TQLIB_API BOOL CreateWellKnownSid(WELL_KNOWN_SID_TYPE type, PSID domain, PSID sid, DWORD* size) noexcept;
// Of any domain, for the types of a domain. False also for what is no identifier and for unknown types.
TQLIB_API BOOL IsWellKnownSid(PSID sid, WELL_KNOWN_SID_TYPE type) noexcept;

// The text is for LocalFree: S-1-5-32-544; authorities of more than 32 bits as 0x and twelve digits. 1337
// (ERROR_INVALID_SID).
TQLIB_API BOOL ConvertSidToStringSidW(PSID sid, wchar_t** text) noexcept;
// The block is for LocalFree. Takes that form, with 1 to 15 sub-authorities, and the published aliases of two
// letters in any case (BA, SY, WD); the aliases of a domain's accounts mean the machine's own. 1337
// (ERROR_INVALID_SID) for every other text and for numbers out of range.
TQLIB_API BOOL ConvertStringSidToSidW(const wchar_t* text, PSID* sid) noexcept;

}  // namespace Quellan::Platform
