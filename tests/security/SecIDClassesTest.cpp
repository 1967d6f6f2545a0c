#include "TQLib/core/TQException.h"
#include "TQLib/files/registry/TQRegValue.h"
#include "TQLib/security/SecIDArray.h"
#include "security/Identifiers.h"
#include "support/FailCall.h"

namespace Quellan::Corvel::Test {
namespace {

using Sarvek::SecIDArray;
using Sarvek::SecIDAuth;

TEST(SecIDClasses, AreThePublishedOnes) {
    for (const bool ofDomain : {false, true})
        for (const PublishedSid& known : PublishedSids(ofDomain)) {
            const SecID id = Id(((ofDomain ? L"S-1-5-21-1-2-3" : L"") + known.text).c_str());
            EXPECT_EQ(id.IsNonAuthID(), known.Is("unauthenticated")) << known.type;
            EXPECT_EQ(id.IsLogonID(), known.Is("logon")) << known.type;
            EXPECT_EQ(id.IsAdminID(), known.Is("administrator")) << known.type;
            EXPECT_EQ(id.IsServiceID(), known.Is("service")) << known.type;
            const DWORD level = known.Is("untrusted") ? 0x0000
                                : known.Is("low")     ? 0x1000
                                : known.Is("high")    ? 0x3000
                                : known.Is("system")  ? 0x4000
                                                      : 0x2000;
            EXPECT_EQ(id.SystemLabelRID(), level) << known.type;
            EXPECT_EQ(id.SystemLabelRID(true), known.Is("administrator") ? 0x2000 : level) << known.type;
        }
}

TEST(SecIDClasses, TellTheIdentifiersOfServices) {
    EXPECT_TRUE(Id(L"S-1-5-80-1-2-3-4-5").IsServiceID());
    EXPECT_TRUE(Id(L"S-1-9-80-1-2-3-4-5").IsServiceID()) << "of any authority";
    EXPECT_FALSE(Id(L"S-1-5-80-1-2-3-4").IsServiceID());
    EXPECT_FALSE(Id(L"S-1-5-80-1-2-3-4-5-6").IsServiceID());
    EXPECT_FALSE(Id(L"S-1-5-81-1-2-3-4-5").IsServiceID());
    EXPECT_EQ(Id(L"S-1-5-80-1-2-3-4-5").SystemLabelRID(), 0x4000u);
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
    EXPECT_EQ(null.SystemLabelRID(), 0x2000u);
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

TEST(IntegrityLevels, AreToldByTheNearestName) {
    for (const std::string& line : DataLines("IntegrityLevels.txt")) {
        const std::size_t blank = line.find(' ');
        EXPECT_EQ(SecID::MandatoryRIDName(static_cast<DWORD>(std::stoul(line, nullptr, 16))),
                  TQString::FromUtf8(line.substr(blank + 1)));
    }
}

TEST(Uses, OutsideTheirTableAreUnknown) {
    for (const int use : {-1, 0, 11})
        EXPECT_EQ(SecID::GetUseDesc(use), std::wstring(L"UnknownSIDType"));
    EXPECT_EQ(SecID::GetUseDesc(10), std::wstring(L"SidTypeLabel"));
}

}  // namespace
}  // namespace Quellan::Corvel::Test
