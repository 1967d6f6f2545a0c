#include "TQLib/security/SecIDAttrArray.h"
#include "TQLib/security/SecPrivilegeSet.h"
#include "security/Identifiers.h"

namespace Quellan::Corvel::Test {
namespace {

using Sarvek::SecIDArray;
using Sarvek::SecIDAttr;
using Sarvek::SecIDAttrArray;
using Sarvek::SecPrivilegeSet;

TEST(SecIDAttrs, AreComparedByIdentifierThenByAttributes) {
    const SecIDAttr low(Id(L"S-1-1-0"), 9), high(Id(L"S-1-5-18"), 1), higher(Id(L"S-1-5-18"), 2);
    EXPECT_TRUE(low < high && high < higher && high != higher);
    EXPECT_EQ(high, SecIDAttr(Id(L"S-1-5-18"), 1));
    EXPECT_NE(std::hash<SecIDAttr>()(high), std::hash<SecIDAttr>()(higher));
    EXPECT_NE(std::hash<SecIDAttrArray>()({low, high}), std::hash<SecIDAttrArray>()({high, low}));
}

TEST(SecIDAttrs, AreComparedWithThePlatformsPairs) {
    Sid system(L"S-1-5-18");
    const SID_AND_ATTRIBUTES pair{system.Get(), 4};
    EXPECT_EQ(SecIDAttr(pair), pair);
    EXPECT_EQ(SecIDAttr(pair).SID(), Id(L"S-1-5-18"));
    EXPECT_EQ(SecIDAttr(pair).Attributes(), 4u);
    EXPECT_TRUE(SecIDAttr(Id(L"S-1-5-18"), 3) < pair && pair < SecIDAttr(Id(L"S-1-5-18"), 5));
    EXPECT_TRUE(SecIDAttr(Id(L"S-1-1-0"), 5) < pair);
    BYTE none[12] = {};
    EXPECT_EQ(ThrownCode([&] { SecIDAttr(SID_AND_ATTRIBUTES{none, 0}); }), DWORD{ERROR_INVALID_SID});
}

TEST(SecIDArrays, HoldWhatIsAdded) {
    SecIDArray ids = {Id(L"S-1-1-0")};
    ids.Add(Id(L"S-1-5-18"));
    EXPECT_EQ(ids.Count(), 2u);
    EXPECT_EQ(ids[1], Id(L"S-1-5-18"));
    EXPECT_TRUE(ids.Contains(Id(L"S-1-1-0")));
    EXPECT_FALSE(ids.Contains(Id(L"S-1-1-1")));
    EXPECT_EQ(ThrownCode([&] { ids[2]; }), DWORD{ERROR_INVALID_INDEX});
    ids.Clear();
    EXPECT_TRUE(ids.IsEmpty());
}

TEST(SecIDAttrArrays, FindIdentifiers) {
    SecIDAttrArray pairs;
    pairs.Add(SecIDAttr(Id(L"S-1-1-0"), 1));
    pairs.Add(SecIDAttr(Id(L"S-1-5-18"), 2));
    pairs.Add(SecIDAttr(Id(L"S-1-5-18"), 3));
    DWORD index = 9;
    EXPECT_TRUE(pairs.IsIDInList(Id(L"S-1-5-18"), &index));
    EXPECT_EQ(index, 1u);
    EXPECT_FALSE(pairs.IsIDInList(Id(L"S-1-5-19"), &index));
    EXPECT_EQ(index, 1u);
    EXPECT_TRUE(pairs.IsIDInList(Id(L"S-1-1-0")));
    EXPECT_EQ(pairs.IDsArray(), (SecIDArray{Id(L"S-1-1-0"), Id(L"S-1-5-18"), Id(L"S-1-5-18")}));
}

TEST(PrivilegeSets, HoldEachNameOnceInItsOrder) {
    SecPrivilegeSet set, more;
    set.Add(L"SeRestorePrivilege");
    set.Add(L"SeBackupPrivilege");
    set.Add(L"sebackupprivilege");
    more.Add(L"SeServiceLogonRight");
    set.Add(more);
    EXPECT_EQ(set.Count(), 3u);
    EXPECT_EQ(set[0], L"SeBackupPrivilege");
    EXPECT_TRUE(set.Contains(L"SESERVICELOGONRIGHT"));
    EXPECT_FALSE(set.Contains(L"SeDebugPrivilege"));
    EXPECT_EQ(ThrownCode([&] { set[3]; }), DWORD{ERROR_INVALID_INDEX});
}

TEST(PrivilegeSets, TellPrivilegesFromRightsToLogOn) {
    EXPECT_TRUE(SecPrivilegeSet::IsPrivilege(L"SeBackupPrivilege"));
    EXPECT_FALSE(SecPrivilegeSet::IsPrivilege(L"SeServiceLogonRight"));
}

}  // namespace
}  // namespace Quellan::Corvel::Test
