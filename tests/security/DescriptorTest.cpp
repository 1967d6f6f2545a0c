#include "TQLib/platform/Win32.h"
#include "TQLib/security/SecAttr.h"
#include "security/Identifiers.h"

namespace Quellan::Corvel::Test {
namespace {

using Sarvek::SecACE;
using Sarvek::SecACL;
using Sarvek::SecAttr;
using Sarvek::SecDesc;

SecID Users() {
    return Id(L"S-1-5-32-545");
}

SecID Administrators() {
    return Id(L"S-1-5-32-544");
}

SecACL Example() {
    SecACL list;
    list.Allow(Administrators(), FILE_ALL_ACCESS).Deny(Users(), FILE_WRITE_DATA, CONTAINER_INHERIT_ACE);
    return list;
}

const ACL& AsList(const BYTEBuf& block) {
    return *reinterpret_cast<const ACL*>(block.Data());
}

TEST(AccessEntries, AreComparedByKindFlagsRightsAndIdentifier) {
    const SecACE entry = SecACE::Allow(Users(), 5, OBJECT_INHERIT_ACE);
    EXPECT_EQ(entry, SecACE::Allow(Users(), 5, OBJECT_INHERIT_ACE));
    for (const SecACE& other : {SecACE::Deny(Users(), 5, OBJECT_INHERIT_ACE), SecACE::Allow(Users(), 5),
                                SecACE::Allow(Users(), 6, OBJECT_INHERIT_ACE),
                                SecACE::Allow(Administrators(), 5, OBJECT_INHERIT_ACE)})
        EXPECT_NE(entry, other);
    EXPECT_LT(SecACE::Allow(Users(), 5), SecACE::Deny(Administrators(), 1));
    EXPECT_EQ(SecACE::Audit(Users(), 1, true, false).Flags(), SUCCESSFUL_ACCESS_ACE_FLAG);
}

TEST(AccessLists, SurviveTheirBlock) {
    const SecACL list = Example();
    const BYTEBuf block = list.Block();
    EXPECT_EQ(block.Size(), AsList(block).AclSize);
    EXPECT_EQ(SecACL(AsList(block)), list);
    EXPECT_TRUE(list == AsList(block));
    EXPECT_FALSE(SecACL() == AsList(block));
    EXPECT_TRUE(list[0] == *reinterpret_cast<const ACE_HEADER*>(block.Data() + sizeof(ACL)));
    EXPECT_FALSE(list[1] == *reinterpret_cast<const ACE_HEADER*>(block.Data() + sizeof(ACL)));
}

TEST(AccessLists, HaveTheOrderInWhichTheyWereBuiltOrTheCanonicalOne) {
    SecACL list = Example();
    list.Allow(Users(), 1, INHERITED_ACE).Deny(Users(), 2, INHERITED_ACE).Deny(Administrators(), 3);
    const SecACL ordered = list.InCanonicalOrder();
    ASSERT_EQ(ordered.Count(), 5u);
    const DWORD rights[] = {FILE_WRITE_DATA, 3, FILE_ALL_ACCESS, 1, 2};
    for (std::size_t i = 0; i < ordered.Count(); ++i)
        EXPECT_EQ(ordered[i].Rights(), rights[i]);
    EXPECT_TRUE(ordered.IsCanonical());
    EXPECT_FALSE(list.IsCanonical());
}

TEST(AccessLists, ThatAreDamagedAreRefused) {
    const BYTEBuf whole = Example().Block();
    const auto codeWith = [&](std::size_t at, BYTE value) {
        BYTEBuf block = whole;
        block[at] = value;
        return ThrownCode([&] { SecACL(AsList(block)); });
    };
    constexpr std::size_t FirstEntry = sizeof(ACL), FirstSid = FirstEntry + 8;
    EXPECT_EQ(codeWith(0, 9), DWORD{ERROR_INVALID_ACL}) << "revision";
    EXPECT_EQ(codeWith(2, 4), DWORD{ERROR_INVALID_ACL}) << "size";
    EXPECT_EQ(codeWith(4, 3), DWORD{ERROR_INVALID_ACL}) << "count";
    EXPECT_EQ(codeWith(FirstEntry + 2, 200), DWORD{ERROR_INVALID_ACL}) << "size of an entry";
    EXPECT_EQ(codeWith(FirstSid + 1, 9), DWORD{ERROR_INVALID_ACL}) << "identifier beyond its entry";
    EXPECT_EQ(codeWith(FirstEntry, 5), DWORD{ERROR_INVALID_ACL}) << "object types that are not there";
}

TEST(AccessLists, ThatNoBlockCanHoldAreRefused) {
    SecACL list;
    for (int i = 0; i < 3000; ++i)
        list.Allow(Users(), 1);
    EXPECT_EQ(ThrownCode([&] { list.Block(); }), DWORD{ERROR_ALLOTTED_SPACE_EXCEEDED});
    EXPECT_EQ(ThrownCode([] { SecACL().Allow(SecID(), 1).Block(); }), DWORD{ERROR_INVALID_PARAMETER});
}

SecDesc ExampleDescriptor() {
    SecDesc descriptor;
    descriptor.SetOwner(Administrators()).SetGroup(Users(), true).SetDACL(Example()).ProtectDACL();
    descriptor.SetSACL(SecACL{SecACE::Audit(Users(), 1, false, true)});
    return descriptor;
}

TEST(SecurityDescriptors, SurviveTheirBlock) {
    for (const SecDesc& descriptor :
         {ExampleDescriptor(), SecDesc(), SecDesc().SetNullDACL(true), SecDesc().SetDACL(SecACL())}) {
        const BYTEBuf block = descriptor.Block();
        const void* const address = block.Data();
        EXPECT_EQ(SecDesc(address), descriptor);
        EXPECT_TRUE(descriptor == address);
    }
}

TEST(SecurityDescriptors, AreReadInThePlatformsOtherFormToo) {
    const SecDesc whole = ExampleDescriptor();
    const BYTEBuf dacl = whole.DACL()->Block();
    SECURITY_DESCRIPTOR absolute{};
    absolute.Revision = SECURITY_DESCRIPTOR_REVISION;
    absolute.Control = SE_DACL_PRESENT;
    absolute.Owner = whole.Owner().Address();
    absolute.Dacl = const_cast<ACL*>(&AsList(dacl));
    const SecDesc read(static_cast<const void*>(&absolute));
    EXPECT_EQ(read.Owner(), Administrators());
    ASSERT_TRUE(read.DACL());
    EXPECT_EQ(*read.DACL(), Example());
    EXPECT_TRUE(read.Group().IsNull());
}

TEST(SecurityDescriptors, TellAMissingListFromANullAndAnEmptyOne) {
    const SecDesc missing, null = SecDesc().SetNullDACL(), empty = SecDesc().SetDACL(SecACL());
    EXPECT_FALSE(missing.HasDACL());
    EXPECT_TRUE(null.HasDACL());
    EXPECT_FALSE(null.DACL());
    EXPECT_TRUE(empty.DACL());
    EXPECT_NE(missing, null);
    EXPECT_NE(null, empty);
    EXPECT_EQ(SecDesc(empty).RemoveDACL(), missing);
}

TEST(SecurityDescriptors, ThatAreNoneAreRefused) {
    EXPECT_EQ(ThrownCode([] { SecDesc(static_cast<const void*>(nullptr)); }),
              DWORD{ERROR_INVALID_SECURITY_DESCR});
    const BYTE nonsense[64] = {7};
    EXPECT_EQ(ThrownCode([&] { SecDesc(static_cast<const void*>(nonsense)); }),
              DWORD{ERROR_INVALID_SECURITY_DESCR});
    EXPECT_FALSE(SecDesc() == static_cast<const void*>(nonsense));
}

TEST(SecurityAttributes, ShowThePlatformsStructure) {
    const SecAttr empty;
    EXPECT_EQ(empty.Get()->nLength, 24u);
    EXPECT_FALSE(empty.Get()->bInheritHandle);
    EXPECT_EQ(SecDesc(empty.Get()->lpSecurityDescriptor), SecDesc());
    SecAttr attributes(ExampleDescriptor(), true);
    const SecAttr copy = attributes;
    attributes = SecAttr();
    EXPECT_TRUE(copy.Get()->bInheritHandle);
    EXPECT_EQ(SecDesc(copy.Get()->lpSecurityDescriptor), ExampleDescriptor());
    EXPECT_TRUE(copy == *copy.Get());
    EXPECT_EQ(attributes, empty);
    EXPECT_FALSE(attributes == *copy.Get());
}

}  // namespace
}  // namespace Quellan::Corvel::Test
