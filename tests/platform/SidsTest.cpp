#include "platform/SidTexts.h"

#include <array>

namespace Quellan::Corvel::Test {
namespace {

SID_IDENTIFIER_AUTHORITY Nt() {
    return SECURITY_NT_AUTHORITY;
}

// The bytes of a block, as the published layout has them.
std::vector<BYTE> Block(std::initializer_list<int> bytes) {
    std::vector<BYTE> block;
    for (const int value : bytes)
        block.push_back(static_cast<BYTE>(value));
    return block;
}

// Wine knows fewer than half of the published types and calls the others invalid.
bool IsMissingInWine(const std::wstring& text) {
    return OnWine() && text == L"error 87";
}

const std::wstring SomeDomain = L"S-1-5-21-1-22-4294967295";

TEST(Sids, HaveThePublishedLayout) {
    SID_IDENTIFIER_AUTHORITY authority{{1, 2, 3, 4, 5, 6}};
    BYTE block[16] = {};
    ASSERT_TRUE(InitializeSid(block, &authority, 2));
    *GetSidSubAuthority(block, 0) = 0x11223344;
    *GetSidSubAuthority(block, 1) = 7;
    EXPECT_EQ(std::vector<BYTE>(block, block + 16),
              Block({1, 2, 1, 2, 3, 4, 5, 6, 0x44, 0x33, 0x22, 0x11, 7, 0, 0, 0}));
    EXPECT_EQ(*GetSidSubAuthorityCount(block), 2);
    EXPECT_EQ(GetSidIdentifierAuthority(block)->Value[5], 6);
    EXPECT_EQ(GetLengthSid(block), 16u);
    EXPECT_EQ(GetSidLengthRequired(15), DWORD{SECURITY_MAX_SID_SIZE});
}

TEST(Sids, RefuseWhatIsNoIdentifier) {
    SID_IDENTIFIER_AUTHORITY authority = Nt();
    std::byte block[100];
    EXPECT_FALSE(InitializeSid(block, &authority, 16));
    PSID made = nullptr;
    EXPECT_EQ(CodeOf(AllocateAndInitializeSid(&authority, 9, 1, 2, 3, 4, 5, 6, 7, 8, &made)),
              DWORD{ERROR_INVALID_SID});
    std::vector<BYTE> wrong = Block({2, 1, 0, 0, 0, 0, 0, 5, 32, 0, 0, 0});
    wchar_t* text = nullptr;
    BOOL equal = FALSE;
    DWORD size = sizeof block;
    EXPECT_EQ(CodeOf(ConvertSidToStringSidW(wrong.data(), &text)), DWORD{ERROR_INVALID_SID});
    EXPECT_EQ(CodeOf(ConvertSidToStringSidW(nullptr, &text)), DWORD{ERROR_INVALID_SID});
    EXPECT_EQ(CodeOf(EqualDomainSid(wrong.data(), wrong.data(), &equal)), DWORD{ERROR_INVALID_SID});
    EXPECT_EQ(CodeOf(GetWindowsAccountDomainSid(wrong.data(), block, &size)), DWORD{ERROR_INVALID_SID});
    EXPECT_FALSE(EqualSid(wrong.data(), wrong.data()));
    EXPECT_FALSE(IsWellKnownSid(wrong.data(), WinBuiltinDomainSid));
}

TEST(Sids, AreCopiedWholeOrNotAtAll) {
    Sid sid(L"S-1-5-32-544");
    std::byte copy[100];
    ASSERT_TRUE(CopySid(GetLengthSid(sid.Get()), copy, sid.Get()));
    EXPECT_TRUE(EqualSid(copy, sid.Get()));
    std::byte untouched[100] = {};
    SetLastError(ERROR_INSUFFICIENT_BUFFER);  // Wine sets none
    EXPECT_EQ(CodeOf(CopySid(GetLengthSid(sid.Get()) - 1, untouched, sid.Get())),
              DWORD{ERROR_INSUFFICIENT_BUFFER});
    EXPECT_EQ(untouched[0], std::byte{0});
}

TEST(Sids, AreEqualInEveryPart) {
    const auto equal = [](const wchar_t* left, const wchar_t* right) {
        return EqualSid(Sid(left).Get(), Sid(right).Get()) != FALSE;
    };
    EXPECT_TRUE(equal(L"S-1-5-32-544", L"BA"));
    SetLastError(77);
    EXPECT_EQ(CodeOf(equal(L"S-1-5-32-544", L"S-1-5-32-545")), 0u);
    EXPECT_FALSE(equal(L"S-1-5-32-544", L"S-1-5-32"));
    EXPECT_FALSE(equal(L"S-1-5-32-544", L"S-1-4-32-544"));
}

TEST(Sids, BelongToAccountDomains) {
    const auto domainOf = [](const wchar_t* text) {
        std::byte domain[SECURITY_MAX_SID_SIZE];
        DWORD size = sizeof domain;
        if (!GetWindowsAccountDomainSid(Sid(text).Get(), domain, &size))
            return std::to_wstring(GetLastError());
        return TextOf(domain);
    };
    EXPECT_EQ(domainOf(L"S-1-5-21-1-2-3-500"), L"S-1-5-21-1-2-3");
    EXPECT_EQ(domainOf(L"S-1-5-21-1-2-3"), L"S-1-5-21-1-2-3");
    std::byte domain[100];
    DWORD size = 23;
    EXPECT_EQ(CodeOf(GetWindowsAccountDomainSid(Sid(L"S-1-5-21-1-2-3-500").Get(), domain, &size)),
              DWORD{ERROR_INSUFFICIENT_BUFFER});
    EXPECT_EQ(size, 24u);
    // Wine: 1337 for all that have none.
    if (OnWine()) return;
    EXPECT_EQ(domainOf(L"S-1-5-32-544"), L"1257");
    EXPECT_EQ(domainOf(L"S-1-5-21-1-2"), L"1257");
    EXPECT_EQ(domainOf(L"S-1-1-21-1-2-3-4"), L"1257");
}

TEST(Sids, AreOfOneDomainOrNot) {
    const auto compare = [](const wchar_t* left, const wchar_t* right) {
        BOOL equal = 7;
        if (!EqualDomainSid(Sid(left).Get(), Sid(right).Get(), &equal))
            return static_cast<int>(GetLastError());
        return static_cast<int>(equal);
    };
    EXPECT_EQ(compare(L"S-1-5-21-1-2-3-500", L"S-1-5-21-1-2-3-501"), 1);
    EXPECT_EQ(compare(L"S-1-5-21-1-2-3-500", L"S-1-5-21-1-2-3"), 1);
    EXPECT_EQ(compare(L"S-1-5-21-1-2-3-500", L"S-1-5-21-1-2-4-500"), 0);
    EXPECT_EQ(compare(L"S-1-5-32-544", L"S-1-5-21-1-2-4-500"), 0);
    if (OnWine()) return;  // Wine does not know the built-in domain
    EXPECT_EQ(compare(L"S-1-5-32-544", L"S-1-5-32-545"), 1);
    EXPECT_EQ(compare(L"S-1-5-11", L"S-1-5-32-545"), static_cast<int>(ERROR_NON_DOMAIN_SID));
}

TEST(Sids, AreWrittenInThePublishedForm) {
    const auto written = [](std::array<BYTE, 6> authority) {
        BYTE sid[12] = {1, 1, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF};
        std::copy(authority.begin(), authority.end(), sid + 2);
        return TextOf(sid);
    };
    EXPECT_EQ(written({0, 0, 0, 0, 0, 5}), L"S-1-5-4294967295");
    if (OnWine()) return;  // Wine takes authorities from 2^31 on for negative ones
    EXPECT_EQ(written({0, 0, 0xFF, 0xFF, 0xFF, 0xFF}), L"S-1-4294967295-4294967295");
    EXPECT_EQ(written({0, 1, 0, 0, 0, 0}), L"S-1-0x000100000000-4294967295");
    EXPECT_EQ(written({0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54}), L"S-1-0xfedcba987654-4294967295");
}

TEST(Sids, AreReadAndWrittenAsTheTableSays) {
    for (const std::string& line : DataLines("SidTexts.txt")) {
        std::istringstream cells(line);
        std::string text, written, place;
        std::getline(std::getline(std::getline(cells, text, '\t'), written, '\t'), place);
        if (OnWine() && !place.empty()) continue;
        Sid sid(Wide(text).c_str());
        EXPECT_EQ(sid.Code(), written == "none" ? DWORD{ERROR_INVALID_SID} : 0u) << line;
        if (sid.Get()) {
            EXPECT_EQ(TextOf(sid.Get()), Wide(written)) << line;
        }
    }
}

TEST(WellKnownSids, AreThePublishedOnes) {
    for (const PublishedSid& known : PublishedSids(false)) {
        const std::wstring made = WellKnownText(known.type);
        if (IsMissingInWine(made)) continue;
        EXPECT_EQ(made, known.text) << known.type;
    }
}

TEST(WellKnownSids, FollowTheirDomain) {
    Sid domain(SomeDomain.c_str());
    for (const PublishedSid& known : PublishedSids(true)) {
        const std::wstring made = WellKnownText(known.type, domain.Get());
        if (IsMissingInWine(made)) continue;
        EXPECT_EQ(made, SomeDomain + known.text) << known.type;
    }
}

TEST(WellKnownSids, AreRecognisedByTheirOwnTypeAlone) {
    const std::vector<PublishedSid> published = PublishedSids(false);
    for (const PublishedSid& known : published) {
        std::byte sid[SECURITY_MAX_SID_SIZE];
        DWORD size = sizeof sid;
        if (!CreateWellKnownSid(known.type, nullptr, sid, &size)) continue;
        for (const PublishedSid& other : published)
            EXPECT_EQ(IsWellKnownSid(sid, other.type) != FALSE,
                      known.text == other.text && !IsMissingInWine(WellKnownText(other.type)))
                << known.type << " as " << other.type;
    }
}

TEST(WellKnownSids, OfDomainsAreRecognisedInAnyDomain) {
    if (OnWine()) GTEST_SKIP() << "Wine looks at the machine's own domain alone";
    EXPECT_TRUE(IsWellKnownSid(Sid(L"S-1-5-21-9-8-7-512").Get(), WinAccountDomainAdminsSid));
    EXPECT_FALSE(IsWellKnownSid(Sid(L"S-1-5-21-9-8-7-513").Get(), WinAccountDomainAdminsSid));
    EXPECT_FALSE(IsWellKnownSid(Sid(L"S-1-5-21-9-8-512").Get(), WinAccountDomainAdminsSid));
    EXPECT_FALSE(IsWellKnownSid(Sid(L"S-1-5-22-9-8-7-512").Get(), WinAccountDomainAdminsSid));
}

TEST(WellKnownSids, OfLogonSessionsAreManyAndNotMade) {
    if (OnWine()) GTEST_SKIP() << "Wine makes S-1-5-5-0-0";
    EXPECT_EQ(WellKnownText(WinLogonIdsSid), L"error 87");
    EXPECT_TRUE(IsWellKnownSid(Sid(L"S-1-5-5-0-1234").Get(), WinLogonIdsSid));
    EXPECT_FALSE(IsWellKnownSid(Sid(L"S-1-5-5-0").Get(), WinLogonIdsSid));
}

TEST(WellKnownSids, TellTheSizeNeeded) {
    std::byte sid[100];
    DWORD size = 0;
    const auto make = [&](PSID target) {
        return CodeOf(CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, target, &size));
    };
    EXPECT_EQ(make(nullptr), DWORD{ERROR_INSUFFICIENT_BUFFER});
    EXPECT_EQ(size, 16u);
    size = 15;
    EXPECT_EQ(make(sid), DWORD{ERROR_INSUFFICIENT_BUFFER});
    size = sizeof sid;
    EXPECT_EQ(make(sid), 0u);
    EXPECT_EQ(size, 16u);
}

TEST(WellKnownSids, AreRefusedForUnknownTypesAndDomains) {
    EXPECT_EQ(WellKnownText(static_cast<WELL_KNOWN_SID_TYPE>(127)), L"error 87");
    EXPECT_EQ(WellKnownText(static_cast<WELL_KNOWN_SID_TYPE>(80)), L"error 87");
    EXPECT_FALSE(IsWellKnownSid(Sid(L"S-1-2-1").Get(), static_cast<WELL_KNOWN_SID_TYPE>(80)));
    Sid full(L"S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15");
    EXPECT_EQ(WellKnownText(WinAccountGuestSid, full.Get()), L"error 87");
    std::vector<BYTE> wrong = Block({2, 1, 0, 0, 0, 0, 0, 5, 32, 0, 0, 0});
    EXPECT_EQ(WellKnownText(WinAccountGuestSid, wrong.data()), L"error 87");
}

}  // namespace
}  // namespace Quellan::Corvel::Test
