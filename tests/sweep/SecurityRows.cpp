#include "TQLib/platform/Win32.h"
#include "TQLib/security/SecACL.h"
#include "TQLib/security/SecAccess.h"
#include "TQLib/security/SecAttr.h"
#include "TQLib/security/SecDesc.h"
#include "TQLib/security/SecIDArray.h"
#include "TQLib/security/SecObject.h"
#include "TQLib/security/SecPrivilege.h"
#include "TQLib/security/SecPrivilegeSet.h"
#include "TQLib/security/SecToken.h"
#include "TQLib/security/SecTree.h"
#include "TQLib/security/TQSecThreadToken.h"
#include "TQLib/system/TQSysProc.h"
#include "TQLib/text/memory/TQUniqueHandle.h"
#include "platform/PlatformTest.h"
#include "sweep/Rows.h"

#include <cstdio>
#include <memory>
#include <optional>

namespace Quellan::Corvel::Test {

namespace {

using namespace Sarvek;

SecID World() {
    return SecID(WinWorldSid);
}

SecID Administrators() {
    return SecID(WinBuiltinAdministratorsSid);
}

SecIDArray Identifiers() {
    return SecIDArray{World(), Administrators()};
}

SecDesc Descriptor() {
    SecDesc descriptor;
    descriptor.SetOwner(World()).SetGroup(World()).SetDACL(
        SecACL().Allow(World(), 1).Deny(Administrators(), 2));
    return descriptor;
}

SecToken CopiedToken() {
    return SecToken::OfProcess().Duplicate();
}

SecPrivilegeSet OnePrivilege() {
    SecPrivilegeSet names;
    names.Add(L"SeChangeNotifyPrivilege");
    return names;
}

// Objects of a name each, for as long as the program runs.
struct NamedObjects {
    static constexpr const wchar_t* Name = L"tqtest.swept";
    static constexpr const wchar_t* Mutex = L"tqtest.swept.mutex";
    static constexpr const wchar_t* Semaphore = L"tqtest.swept.semaphore";
    using Owned = TQUniqueHandle<_TQKernelHandleClose>;
    const Owned event{CreateEventW(nullptr, FALSE, FALSE, Name)};
    const Owned mutex{CreateMutexW(nullptr, FALSE, Mutex)};
    const Owned semaphore{CreateSemaphoreW(nullptr, 0, 1, Semaphore)};
};

SecObject NamedEvent() {
    static const NamedObjects objects;
    return SecObject::Event(NamedObjects::Name);
}

const TemporaryFolder& Folder() {
    static const TemporaryFolder folder;
    static const bool isFilled = CreateDirectoryW((folder / L"below").c_str(), nullptr) &&
                                 CreateDirectoryW((folder / L"below/more").c_str(), nullptr);
    EXPECT_TRUE(isFilled);
    return folder;
}

SecObject SecuredFolder() {
    return SecObject::File(Folder().Path().c_str());
}

// Not every kind can be set everywhere.
void ReadAndWrite(const SecObject& object) {
    const SecDesc descriptor = object.Read();
    PutUpWith(ERROR_NOT_SUPPORTED, [&] { object.Write(descriptor, DACL_SECURITY_INFORMATION); });
}

// An identifier need not have an account, which is remembered; what the system is need not be known.
constexpr std::string_view NoAccount = "LookupAccountSidW GetVersionExW";

}  // namespace

std::vector<SweptOperation> SecurityRows() {
    std::vector<SweptOperation> rows = {
        Swept("identifier copy", World, [](SecID& id) { SecID{id}; }),
        Swept("identifier assign", World, Promise::Unchanged, [](SecID& id) { id = Administrators(); }),
        Swept("identifier made", World, [](SecID& id) { SecID(id.IDAuthority(), 0u); }),
        Swept("identifier text", World, [](SecID& id) { EXPECT_EQ(id.String(), L"S-1-1-0"); }),
        Swept("identifier names", Administrators, NoAccount,
              [](SecID& id) { id.Name(), id.Domain(), id.FullName(true), id.UseDesc(); }),
        Swept("identifier account", World, [](SecID&) { SecID(L"Everyone"); }),
        Swept("identifier domain", World, NoAccount,
              [](SecID&) { EXPECT_TRUE(SecID::MachDomainSID().IsMachineDomain()); }),
        Swept("identifier of the user", World, [](SecID&) { SecID::UserIsAdmin(), SecID::UserDomainSID(); }),
        Swept("identifier groups", Administrators, NoAccount, [](SecID& id) { id.MemberOfList(); }),
        Swept("identifier dump", World, NoAccount,
              [](SecID& id) {
                  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), &std::fclose);
                  id.DumpToFile(L"caption", file.get());
              }),
        Swept("identifier rights", Administrators, NoAccount, [](SecID& id) { id.PrivilegesHeld(); }),
        Swept("domain of an identifier", SecID::MachDomainSID, [](SecID& id) { (void)id.DomainSID(); }),
        Swept("account groups", TQSysProc::CurrentUser, {Promise::Ended, NoAccount},
              [](SecID& id) { id.MemberOfList(), id.IsAccountDisabled(nullptr); }),
        Swept("list", Descriptor,
              [](SecDesc& descriptor) {
                  EXPECT_TRUE(*descriptor.DACL() ==
                              SecACL(*reinterpret_cast<const ACL*>(descriptor.DACL()->Block().Data())));
              }),
        Swept("descriptor assign", Descriptor, Promise::Unchanged,
              [](SecDesc& descriptor) { descriptor = SecDesc().SetOwner(Administrators()).SetNullDACL(); }),
        Swept("identifiers add", Identifiers, Promise::Unchanged,
              [](SecIDArray& ids) { ids.Add(Administrators()); }),
        Swept("identifiers assign", Identifiers, Promise::Unchanged,
              [](SecIDArray& ids) { ids = SecIDArray{Administrators()}; }),
        Swept("descriptor copy", Descriptor, [](SecDesc& descriptor) { SecDesc{descriptor}; }),
        Swept("descriptor bytes", Descriptor,
              [](SecDesc& descriptor) { EXPECT_TRUE(SecDesc(descriptor.Block().Data()) == descriptor); }),
        Swept("descriptor text", Descriptor,
              [](SecDesc& descriptor) {
                  constexpr const wchar_t* Text = L"D:(XA;;FA;;;WD;(a == {1,\"b\"} && !(c)))";
                  EXPECT_EQ(SecDesc::FromText(Text).Text(), Text);
                  EXPECT_EQ(SecDesc::FromText(descriptor.Text()), descriptor);
              }),
        Swept("access", Descriptor,
              [](SecDesc& descriptor) {
                  SecSubject subject{SecIDAttr(World())};
                  subject.Restrict(Identifiers());
                  const SecAccess access(descriptor, SecGenericMap::OfFiles());
                  SecAccess::Node node;
                  EXPECT_TRUE(access.Check(subject, 1, {&node, 1}).isGranted);
                  const BYTEBuf attribute(16);
                  const SecCircumstances named{.self = nullptr, .attributes = {&attribute, 1}};
                  EXPECT_TRUE(access.Check(subject, 1, named).isGranted);
              }),
        Swept("attribute text", Descriptor,
              [](SecDesc&) {
                  constexpr const wchar_t* Text = L"S:(RA;;;;;WD;(\"a\",TS,0x0,\"b\",\"c\"))";
                  EXPECT_EQ(SecDesc::FromText(Text).Text(), Text);
              }),
        Swept("lists merged", Descriptor,
              [](SecDesc& descriptor) {
                  const SecACL& list = *descriptor.DACL();
                  EXPECT_EQ(list.Merged(list), list.InCanonicalOrder().Effective());
              }),
        Swept("token told", CopiedToken,
              [](SecToken& token) {
                  EXPECT_TRUE(token.IsMember(World()) && token.User().SID() && token.Groups().Count() > 0);
                  EXPECT_TRUE(token.Owner() && token.PrimaryGroup() && token.DefaultList());
                  EXPECT_FALSE(token.IsRestricted());
              }),
        Swept("token changed", CopiedToken,
              [](SecToken& token) {
                  token.DisableAllPrivileges();
                  EXPECT_TRUE(token.Enable(OnePrivilege()).Contains(L"SeChangeNotifyPrivilege"));
                  token.SetOwner(token.User().SID());
                  token.SetPrimaryGroup(World());
                  token.SetDefaultList(SecACL().Allow(World(), 1));
              }),
        Swept("token groups", CopiedToken, [](SecToken& token) { token.ResetGroups(); }),
        Swept("token restricted", CopiedToken,
              [](SecToken& token) {
                  const SecToken less =
                      token.Restrict({.privileges = OnePrivilege(), .toDenyOnly = {World()}});
                  EXPECT_FALSE(less.Privileges().Contains(L"SeChangeNotifyPrivilege"));
              }),
        // Who may not act as anybody is told that before.
        Swept("log on", World, ForThrowing,
              [](SecID&) {
                  PutUpWith(ERROR_LOGON_FAILURE, [] {
                      PutUpWith(ERROR_PRIVILEGE_NOT_HELD,
                                [] { (void)SecToken::LogOn(L"no-such-user", L"", nullptr); });
                  });
              }),
        // The end of a guard tries again.
        Swept("client of a pipe", World, "new SetThreadToken",
              [](SecID&) {
                  PutUpWith(ERROR_INVALID_HANDLE, [] { (void)SecToken::OfPipeClient(nullptr); });
                  EXPECT_FALSE(SecToken::OfThread());
              }),
        Swept("privilege for a scope", CopiedToken, "SetThreadToken",
              [](SecToken& token) {
                  const SecImpersonation acting(token);
                  const SecPrivilege guard(OnePrivilege());
                  EXPECT_TRUE(SecToken::OfThread().EnabledPrivileges().Contains(L"SeChangeNotifyPrivilege"));
              }),
        Swept("security of a folder", SecuredFolder, [](SecObject& object) { ReadAndWrite(object); }),
        Swept("security of named objects", NamedEvent,
              [](SecObject& object) {
                  ReadAndWrite(object);
                  ReadAndWrite(SecObject::Mutex(NamedObjects::Mutex));
                  ReadAndWrite(SecObject::Semaphore(NamedObjects::Semaphore));
              }),
        Swept("security of a key", World, [](SecID&) { ReadAndWrite(SecObject::Key(L"HKCU\\Software")); }),
        // What fails is told, and the others are looked at.
        Swept("lists of a tree", World,
              [](SecID&) {
                  std::optional<TQCoreException> failed;
                  SecTree::Options options;
                  options.onFailure = [&](const TQString&, const TQCoreException& failure) {
                      failed = failure;
                  };
                  SecFileTree().Renew(Folder().Path().c_str(), options);
                  if (failed) throw TQCoreException(*failed);
              }),
        Swept("attributes", Descriptor, [](SecDesc& descriptor) { SecAttr{SecAttr(descriptor)}; }),
    };
    // Wine tells nothing of an account's groups and state, and changes little of tokens.
    if (OnWine())
        std::erase_if(rows, [](const SweptOperation& row) {
            return row.name == "account groups" || row.name == "token groups" || row.name == "token changed";
        });
    return rows;
}

}  // namespace Quellan::Corvel::Test
