#include "TQLib/core/TQException.h"
#include "TQLib/files/registry/TQRegValue.h"
#include "TQLib/security/SecIDArray.h"
#include "security/Identifiers.h"
#include "support/FailCall.h"

#include <algorithm>
#include <initializer_list>
#include <vector>

namespace Quellan::Corvel::Test {
namespace {

using Sarvek::SecIDArray;
using Sarvek::SecIDAuth;

constexpr int LastType = 121;  // WinBuiltinOpenSSHUsersSid, which not all headers have

// The types of all well-known identifiers that the platform can make and for which `test` holds; those of
// domains are of a foreign one.
template <class Test>
std::vector<int> TypesFor(Test test) {
    const SecID domain = Id(L"S-1-5-21-1-2-3");
    std::vector<int> types;
    for (int type = 0; type <= LastType; ++type) {
        SecID id;
        try {
            id = SecID::WellKnownDomainID(type, domain.Address());
        } catch (const TQSysException& failure) {
            EXPECT_EQ(failure.ErrCode(), unsigned{ERROR_INVALID_PARAMETER});
            continue;
        }
        if (test(id)) types.push_back(type);
    }
    return types;
}

using Types = std::vector<int>;

// Wine makes no more than half of the types.
Types Makeable(std::initializer_list<int> types) {
    const Types all = TypesFor([](const SecID&) { return true; });
    Types makeable;
    std::ranges::copy_if(types, std::back_inserter(makeable),
                         [&](int type) { return std::ranges::binary_search(all, type); });
    return makeable;
}

TEST(SecIDClasses, TellTheUnauthenticated) {
    EXPECT_EQ(TypesFor([](const SecID& id) { return id.IsNonAuthID(); }),
              (Types{WinNullSid, WinWorldSid, WinAnonymousSid, WinAccountGuestSid}));
}

TEST(SecIDClasses, TellTheWaysToLogOn) {
    EXPECT_EQ(TypesFor([](const SecID& id) { return id.IsLogonID(); }),
              (Types{WinDialupSid, WinNetworkSid, WinBatchSid, WinInteractiveSid, WinServiceSid,
                     WinRemoteLogonIdSid}));
}

TEST(SecIDClasses, TellAdministrators) {
    EXPECT_EQ(TypesFor([](const SecID& id) { return id.IsAdminID(); }),
              (Types{WinBuiltinAdministratorsSid, WinAccountAdministratorSid, WinAccountDomainAdminsSid}));
}

TEST(SecIDClasses, TellServices) {
    EXPECT_EQ(TypesFor([](const SecID& id) { return id.IsServiceID(); }),
              (Types{WinServiceSid, WinLocalSystemSid, WinLocalServiceSid, WinNetworkServiceSid}));
    EXPECT_TRUE(Id(L"S-1-5-80-1-2-3-4-5").IsServiceID());
    EXPECT_TRUE(Id(L"S-1-9-80-1-2-3-4-5").IsServiceID()) << "of any authority";
    EXPECT_FALSE(Id(L"S-1-5-80-1-2-3-4").IsServiceID());
    EXPECT_FALSE(Id(L"S-1-5-80-1-2-3-4-5-6").IsServiceID());
    EXPECT_FALSE(Id(L"S-1-5-81-1-2-3-4-5").IsServiceID());
}

TEST(SecIDClasses, TakeNoOtherIdentifierForAWellKnownOne) {
    for (const wchar_t* other :
         {L"S-1-6-32-544", L"S-1-5-32-544-1", L"S-1-5-33-544", L"S-1-5-544", L"S-1-5-21-1-2-500",
          L"S-1-5-21-1-2-3-4-500", L"S-1-5-22-1-2-3-500", L"S-1-4-21-1-2-3-500", L"S-1-5-501", L"S-1-2-0",
          L"S-1-0-0-0", L"S-1-6-6", L"S-1-5-18-18"}) {
        const SecID id = Id(other);
        EXPECT_FALSE(id.IsAdminID() || id.IsNonAuthID() || id.IsLogonID() || id.IsServiceID())
            << id.String().ToUtf8().c_str();
        EXPECT_EQ(id.SystemLabelRID(), 0x2000u) << id.String().ToUtf8().c_str();
    }
    EXPECT_FALSE(SecID(SecIDAuth(0x10000000005), 32, 544).IsAdminID());
    const SecID null;
    EXPECT_FALSE(null.IsAdminID() || null.IsNonAuthID() || null.IsLogonID() || null.IsServiceID());
}

TEST(SecIDClasses, IncludeAllWithEveryoneButTheUnknown) {
    for (const wchar_t* left : {L"S-1-0-0", L"S-1-0-5", L"S-1-3-0", L"S-1-3-4"})
        EXPECT_FALSE(Id(left).IsIncludedWithEveryone());
    for (const wchar_t* in : {L"S-1-1-0", L"S-1-2-0", L"S-1-5-18", L"S-1-5-21-1-2-3-501"})
        EXPECT_TRUE(Id(in).IsIncludedWithEveryone());
    EXPECT_TRUE(SecID(SecIDAuth(0x30000000000), 1).IsIncludedWithEveryone());
    EXPECT_FALSE(SecID().IsIncludedWithEveryone());
}

TEST(SecIDClasses, IncludeAnonymousWithEveryoneWhereTheMachineSaysSo) {
    const TQDWORDRegValue setting(TQRegistry::MachineKey().Create(L"SYSTEM\\CurrentControlSet\\Control\\Lsa"),
                                  L"everyoneincludesanonymous");
    const DWORD before = setting.GetOr(0);
    const SecID anonymous = Id(L"S-1-5-7");
    setting.Set(1);
    EXPECT_TRUE(anonymous.IsIncludedWithEveryone());
    {
        const FailCall fail("RegQueryValueExW", ERROR_ACCESS_DENIED, FailCall::EveryCall,
                            ERROR_ACCESS_DENIED);
        EXPECT_FALSE(anonymous.IsIncludedWithEveryone());
    }
    setting.Set(0);
    EXPECT_FALSE(anonymous.IsIncludedWithEveryone());
    setting.Delete();
    EXPECT_FALSE(anonymous.IsIncludedWithEveryone());
    if (before) setting.Set(before);
}

TEST(SecIDClasses, DefaultIntegrityLevels) {
    const auto typesWith = [](DWORD level, bool ignoreAdmins) {
        return TypesFor([=](const SecID& id) { return id.SystemLabelRID(ignoreAdmins) == level; });
    };
    EXPECT_EQ(typesWith(0x0000, false), (Types{WinNullSid, WinAnonymousSid}));
    EXPECT_EQ(typesWith(0x1000, false), (Types{WinWorldSid}));
    EXPECT_EQ(typesWith(0x3000, false),
              Makeable({WinBuiltinAdministratorsSid, WinBuiltinBackupOperatorsSid,
                        WinBuiltinNetworkConfigurationOperatorsSid, WinAccountAdministratorSid,
                        WinAccountDomainAdminsSid, WinBuiltinCryptoOperatorsSid}));
    EXPECT_EQ(typesWith(0x3000, true),
              Makeable({WinBuiltinBackupOperatorsSid, WinBuiltinNetworkConfigurationOperatorsSid,
                        WinBuiltinCryptoOperatorsSid}));
    EXPECT_EQ(typesWith(0x4000, false), (Types{WinLocalSystemSid, WinLocalServiceSid, WinNetworkServiceSid}));
    EXPECT_EQ(typesWith(0x2000, false).size() + typesWith(0x3000, false).size() + 6,
              TypesFor([](const SecID&) { return true; }).size());
    EXPECT_EQ(Id(L"S-1-5-32-569").SystemLabelRID(), 0x3000u);
    EXPECT_EQ(Id(L"S-1-5-32-544").SystemLabelRID(true), 0x2000u);
    EXPECT_EQ(Id(L"S-1-5-80-1-2-3-4-5").SystemLabelRID(), 0x4000u);
    EXPECT_EQ(SecID().SystemLabelRID(), 0x2000u);
}

TEST(SecIDClasses, LevelsOfAnArrayAreTheLowestAndTheHighest) {
    SecIDArray ids;
    EXPECT_EQ(ids.LowestIDLabelRID(), 0xFFFFFFFFu);
    EXPECT_EQ(ids.HighestIDLabelRID(), 0u);
    for (const wchar_t* text : {L"S-1-5-32-545", L"S-1-5-32-544", L"S-1-1-0"})
        ids.Add(Id(text));
    EXPECT_EQ(ids.LowestIDLabelRID(), 0x1000u);
    EXPECT_EQ(ids.HighestIDLabelRID(), 0x3000u);
    EXPECT_EQ(ids.HighestIDLabelRID(true), 0x2000u);
}

// Values told by their distance from a level, at both ends of their range.
struct Distances {
    DWORD first, last;
    const wchar_t* begin;
    DWORD level;
};

constexpr Distances Ranges[] = {
    {0x0001, 0x07FF, L"<Untrusted + 0x", 0x0000},
    {0x0800, 0x0FFF, L"<Low - 0x", 0x1000},
    {0x1001, 0x17FF, L"<Low +  0x", 0x1000},
    {0x1800, 0x1FFF, L"<Medium - 0x", 0x2000},
    {0x2001, 0x207F, L"<Medium +  0x", 0x2000},
    {0x2080, 0x20FF, L"<Medium-Plus - 0x", 0x2100},
    {0x2101, 0x287F, L"<Medium-Plus +  0x", 0x2100},
    {0x2880, 0x2FFF, L"<High - 0x", 0x3000},
    {0x3001, 0x37FF, L"<High +  0x", 0x3000},
    {0x3800, 0x3FFF, L"<System - 0x", 0x4000},
    {0x4001, 0x47FF, L"<System +  0x", 0x4000},
    {0x4800, 0x4FFF, L"<Protected Process - 0x", 0x5000},
    {0x5001, 0xFFFFFFFF, L"<Protected Process + 0x", 0x5000},
};

TEST(IntegrityLevels, AreToldByTheNearestName) {
    for (const Distances& range : Ranges)
        for (const DWORD rid : {range.first, range.last}) {
            const DWORD distance = std::max(rid, range.level) - std::min(rid, range.level);
            EXPECT_EQ(SecID::MandatoryRIDName(rid), TQString::Format(L"%s%x>", range.begin, distance)) << rid;
        }
    EXPECT_EQ(SecID::MandatoryRIDName(0), L"Untrusted");
    EXPECT_EQ(SecID::MandatoryRIDName(0x5000), L"Protected Process");
    EXPECT_EQ(SecID::MandatoryRIDName(0x2880), L"<High - 0x780>");
    EXPECT_EQ(SecID::MandatoryRIDName(0x207F), L"<Medium +  0x7f>");
    EXPECT_EQ(SecID::MandatoryRIDName(0x6000), L"<Protected Process + 0x1000>");
}

TEST(Uses, OutsideTheirTableAreUnknown) {
    for (const int use : {-1, 0, 11})
        EXPECT_EQ(SecID::GetUseDesc(use), std::wstring(L"UnknownSIDType"));
    EXPECT_EQ(SecID::GetUseDesc(10), std::wstring(L"SidTypeLabel"));
}

}  // namespace
}  // namespace Quellan::Corvel::Test
