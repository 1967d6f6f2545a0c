// What the platform says of an identifier's account, and under whose identity it is asked.
#include "TQLib/system/TQSysProc.h"
#include "TQLib/threads/TQThread.h"
#include "security/Identifiers.h"
#include "support/FailCall.h"

#include <cstdio>
#include <cwchar>
#include <memory>

namespace Quellan::Corvel::Test {
namespace {

constexpr const wchar_t* Nobody = L"S-1-5-21-1-2-3-4";
const auto* const Unreadable = reinterpret_cast<const wchar_t*>(16);

TEST(SecIDAccounts, HaveNameDomainAndUse) {
    const SecID id = Id(L"S-1-5-32-544");
    EXPECT_EQ(id.Name(), L"Administrators");
    EXPECT_EQ(id.Domain(), L"BUILTIN");
    EXPECT_EQ(id.Use(), SidTypeAlias);
    EXPECT_EQ(id.UseDesc(), std::wstring(L"SidTypeAlias"));
    EXPECT_FALSE(id.IsUserDefinedType() || id.IsLabelID());
}

TEST(SecIDAccounts, OfUsersAreUserDefined) {
    EXPECT_TRUE(TQSysProc::CurrentUser().IsUserDefinedType());
    EXPECT_TRUE(Id(Nobody).IsUserDefinedType());
    EXPECT_FALSE(Id(L"S-1-1-0").IsUserDefinedType());
    if (!OnWine()) {  // Wine knows no labels
        EXPECT_TRUE(Id(L"S-1-16-8192").IsLabelID());
    }
}

TEST(SecIDAccounts, NobodyKnowsHaveTheTextAlone) {
    const SecID id = Id(Nobody);
    EXPECT_EQ(id.Name(), L"");
    EXPECT_EQ(id.Name(nullptr, true), Nobody);
    EXPECT_EQ(id.FullName(), Nobody);
    EXPECT_EQ(id.Domain(), L"");
    EXPECT_EQ(id.Use(), SidTypeUnknown);
}

TEST(SecIDAccounts, OfDomainsHaveTheNameOfTheDomain) {
    if (OnWine()) GTEST_SKIP() << "Wine has no name for the machine's domain";
    const SecID domain = TQSysProc::CurrentUser().DomainSID();
    EXPECT_EQ(domain.Use(), SidTypeDomain);
    EXPECT_EQ(domain.Name(), domain.Domain());
    EXPECT_EQ(domain.Name(nullptr, true), domain.String());
    EXPECT_EQ(domain.FullName(), domain.String());
}

TEST(SecIDAccounts, HaveFullNamesInTwoSpellings) {
    const SecID system = Id(L"S-1-5-18");
    EXPECT_EQ(system.FullName(), L"NT AUTHORITY\\SYSTEM");
    EXPECT_EQ(system.FullName(true), L"SYSTEM@NT AUTHORITY");
    EXPECT_EQ(system.FullName(true, nullptr, true), L"NT AUTHORITY\\SYSTEM") << "not defined by a user";
    EXPECT_EQ(Id(L"S-1-1-0").FullName(), L"Everyone") << "has no domain";
    const SecID user = TQSysProc::CurrentUser();
    EXPECT_EQ(user.FullName(true, nullptr, true), user.Name() + L"@" + user.Domain());
}

TEST(SecIDAccounts, AreLookedUpOnceForABlock) {
    FailCall count("LookupAccountSidW", 0, 0);
    SecID id = Id(L"S-1-5-18");
    id.Name();
    const unsigned once = count.Calls();
    EXPECT_EQ(once, 2u) << "for the sizes and for the texts";
    id.Domain();
    id.Use(L"no-such-machine");
    id.FullName();
    const SecID moved = std::move(id);
    moved.Name();
    EXPECT_EQ(count.Calls(), once);
    id = moved;
    id.Name();
    EXPECT_EQ(count.Calls(), 2 * once) << "a copy finds out for itself";
    id = id.Address();
    id.Name();
    EXPECT_EQ(count.Calls(), 3 * once);
    const SecID nobody = Id(Nobody);
    nobody.Name();
    nobody.Use();
    EXPECT_EQ(count.Calls(), 3 * once + 1) << "that there is none too";
}

TEST(SecIDAccounts, AreNoLongerThoseOfTheBlockBefore) {
    SecID id = Id(L"S-1-5-18");
    id.FullName();
    id.FullName(true);
    id.String();
    id = Id(L"S-1-5-19").Address();
    EXPECT_EQ(id.FullName(), L"NT AUTHORITY\\LOCAL SERVICE");
    EXPECT_EQ(id.FullName(true), L"LOCAL SERVICE@NT AUTHORITY");
    EXPECT_EQ(id.String(), L"S-1-5-19");
    id = nullptr;
    EXPECT_EQ(id.Name(), L"");
    EXPECT_EQ(id.Use(), SidTypeUnknown);
}

TEST(SecIDAccounts, AreLookedUpAgainAfterAFailure) {
    const SecID id = Id(L"S-1-5-18");
    for (const unsigned nth : {1u, 2u}) {
        const FailCall fail("LookupAccountSidW", RPC_S_SERVER_UNAVAILABLE, nth);
        EXPECT_EQ(ThrownCode([&] { id.Name(); }), DWORD{RPC_S_SERVER_UNAVAILABLE});
    }
    EXPECT_EQ(id.Name(), L"SYSTEM");
}

TEST(SecIDSystems, ThatCannotBeReadAreThisMachine) {
    EXPECT_EQ(Id(L"S-1-5-18").Name(Unreadable), L"SYSTEM");
    EXPECT_EQ(Id(L"S-1-5-18").Name(L""), L"SYSTEM");
    EXPECT_EQ(SecID(L"SYSTEM", Unreadable), Id(L"S-1-5-18"));
}

TEST(SecIDSystems, NobodyKnowsAreAFailure) {
    EXPECT_EQ(ThrownCode([] { Id(L"S-1-5-18").Name(L"no-such-machine"); }), DWORD{RPC_S_SERVER_UNAVAILABLE});
    EXPECT_EQ(ThrownCode([] { SecID(L"SYSTEM", L"no-such-machine"); }), DWORD{RPC_S_SERVER_UNAVAILABLE});
}

TEST(SecIDNames, AreResolvedInEverySpelling) {
    EXPECT_EQ(SecID(L"Everyone"), Id(L"S-1-1-0"));
    EXPECT_EQ(SecID(L"Authenticated Users"), Id(L"S-1-5-11"));
    EXPECT_EQ(SecID(L"NT AUTHORITY\\NETWORK SERVICE"), Id(L"S-1-5-20"));
    EXPECT_EQ(SecID(L"NETWORK SERVICE@NT AUTHORITY"), Id(L"S-1-5-20"));
    const SecID user = TQSysProc::CurrentUser();
    EXPECT_EQ(SecID(user.FullName().c_str()), user);
    EXPECT_EQ(SecID(user.FullName(true).c_str()), user);
    EXPECT_TRUE(SecID(L"Everyone", true).Defaulted());
}

TEST(SecIDNames, OfNobodyAreAFailure) {
    const DWORD notMapped = ERROR_NONE_MAPPED;
    EXPECT_EQ(ThrownCode([] { SecID(L"no-such-account"); }), notMapped);
    EXPECT_EQ(ThrownCode([] { SecID(L"no-such-account@no-such-domain"); }), notMapped);
    EXPECT_EQ(ThrownCode([] { SecID(std::wstring(256, L'y').c_str()); }), notMapped);
    EXPECT_EQ(ThrownCode([] { SecID(static_cast<const wchar_t*>(nullptr)); }),
              DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(ThrownCode([] { SecID{Unreadable}; }), DWORD{ERROR_INVALID_PARAMETER});
}

TEST(SecIDMachine, OwnsItsUsers) {
    const SecID user = TQSysProc::CurrentUser();
    EXPECT_TRUE(user.IsMachineDomain());
    EXPECT_TRUE(SecID(user.DomainSID(), 999).IsMachineDomain()) << "an account without a name";
    EXPECT_FALSE(Id(Nobody).IsMachineDomain());
    EXPECT_FALSE(Id(L"S-1-5-18").IsMachineDomain());
    EXPECT_FALSE(Id(L"S-1-5-32-544").IsMachineDomain());
}

class Dumped {
  public:
    Dumped(const SecID& id, const wchar_t* caption) {
        id.DumpToFile(caption, m_file.get());
        EXPECT_EQ(std::fwprintf(m_file.get(), L"."), 1);
        std::rewind(m_file.get());
        for (std::wint_t c; (c = std::fgetwc(m_file.get())) != WEOF;)
            m_text += static_cast<wchar_t>(c);
    }
    const std::wstring& Text() const { return m_text; }

  private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    std::unique_ptr<std::FILE, Close> m_file{std::tmpfile()};
    std::wstring m_text;
};

TEST(SecIDDumps, TellAsMuchAsIsKnown) {
    EXPECT_EQ(Dumped(Id(L"S-1-5-18"), L"Owner").Text(),
              L"Owner\r\nS-1-5-18[NT AUTHORITY\\SYSTEM](SidTypeWellKnownGroup).");
    EXPECT_EQ(Dumped(Id(L"S-1-1-0"), L"").Text(), L"\r\nS-1-1-0[Everyone](SidTypeWellKnownGroup).");
    EXPECT_EQ(Dumped(Id(Nobody), L"\x4E16").Text(), L"?\r\nS-1-5-21-1-2-3-4(SidTypeUnknown).");
    for (const wchar_t* const none : {Unreadable, static_cast<const wchar_t*>(nullptr)})
        EXPECT_EQ(Dumped(Id(Nobody), none).Text(), L"\r\nS-1-5-21-1-2-3-4(SidTypeUnknown).");
}

}  // namespace
}  // namespace Quellan::Corvel::Test
