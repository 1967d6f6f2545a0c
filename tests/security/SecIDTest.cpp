#include "TQLib/security/SecID.h"
#include "TQLib/security/SecPrivilegeSet.h"
#include "security/Identifiers.h"
#include "support/FailCall.h"

#include <set>
#include <unordered_set>

namespace Quellan::Corvel::Test {
namespace {

using Sarvek::SecIDAuth;

constexpr DWORD InvalidSid = ERROR_INVALID_SID;

// A block right before memory that cannot be read.
class BlockAtEnd {
  public:
    BlockAtEnd(BYTE revision, BYTE count, std::size_t size) {
        SYSTEM_INFO system;
        GetSystemInfo(&system);
        const std::size_t page = system.dwPageSize;
        m_pages = static_cast<BYTE*>(VirtualAlloc(nullptr, 2 * page, MEM_RESERVE, PAGE_NOACCESS));
        VirtualAlloc(m_pages, page, MEM_COMMIT, PAGE_READWRITE);
        m_block = m_pages + page - size;
        if (size > 0) m_block[0] = revision;
        if (size > 1) m_block[1] = count;
    }
    ~BlockAtEnd() { VirtualFree(m_pages, 0, MEM_RELEASE); }
    BlockAtEnd(const BlockAtEnd&) = delete;
    BlockAtEnd& operator=(const BlockAtEnd&) = delete;

    void* Get() const { return m_block; }

  private:
    BYTE* m_pages;
    BYTE* m_block;
};

constexpr std::size_t SizeOf(unsigned count) {
    return 8 + 4 * count;
}

TEST(SecIDBlocks, AreCopiedWhole) {
    const BlockAtEnd block(1, 15, SizeOf(15));
    const SecID id(block.Get());
    EXPECT_EQ(id.Length(), SizeOf(15));
    EXPECT_EQ(id.SubAuthorityCount(), 15);
    EXPECT_NE(id.Address(), block.Get());
    EXPECT_EQ(id, block.Get());
}

TEST(SecIDBlocks, OfNoIdentifierAreRefused) {
    struct {
        BYTE revision, count;
        std::size_t size;
    } const malformed[] = {{0, 1, SizeOf(1)},   {2, 1, SizeOf(1)},
                           {1, 16, SizeOf(16)}, {1, 255, SizeOf(255)},
                           {1, 15, SizeOf(14)}, {1, 15, SizeOf(15) - 1},
                           {1, 1, SizeOf(0)},   {1, 0, SizeOf(0) - 1},
                           {1, 0, 1},           {1, 0, 0}};
    SecID id = Id(L"S-1-5-18");
    for (const auto& [revision, count, size] : malformed) {
        const BlockAtEnd block(revision, count, size);
        EXPECT_EQ(ThrownCode([&] { SecID copy(block.Get()); }), InvalidSid)
            << +revision << ' ' << +count << ' ' << size;
        EXPECT_EQ(ThrownCode([&] { id = block.Get(); }), InvalidSid);
        EXPECT_FALSE(id == block.Get());
        EXPECT_FALSE(id < block.Get() || id >= block.Get());
    }
    EXPECT_EQ(id, Id(L"S-1-5-18"));
}

TEST(SecIDNull, EqualsNullAndComesFirst) {
    const SecID null, other;
    const SecID least = SecID(SecIDAuth::NullSecIDAuth());
    EXPECT_TRUE(null == other && null == nullptr && !(null < other) && null <= other);
    EXPECT_TRUE(null < least && null != least && least > nullptr);
    EXPECT_EQ(null.Length(), 0u);
    EXPECT_FALSE(null);
    EXPECT_EQ(SecID(static_cast<void*>(nullptr)), SecID::NullSID());
}

TEST(SecIDNull, HasNeitherPartsNorTextNorAccount) {
    const SecID& null = SecID::NullSID();
    EXPECT_EQ(null.SubAuthorityCount(), 0);
    EXPECT_EQ(null.IDAuthority(), SecIDAuth::NullSecIDAuth());
    EXPECT_EQ(ThrownCode([&] { null.String(); }), InvalidSid);
    EXPECT_EQ(ThrownCode([&] { null.DomainSID(); }), InvalidSid);
    EXPECT_EQ(ThrownCode([&] { null.PrivilegesHeld(); }), InvalidSid);
    EXPECT_EQ(null.Name(), L"");
    EXPECT_EQ(null.UseDesc(), std::wstring(L"SidTypeUnknown"));
    EXPECT_FALSE(null.IsMachineDomain());
}

TEST(SecIDOrder, IsByLengthThenByBytes) {
    // The bytes of a sub-authority stand with the lowest first.
    const SecID sorted[] = {
        SecID(),          Id(L"S-1-9-4"),    SecID(SecIDAuth(0x10000000000), 1), Id(L"S-1-5-256-1"),
        Id(L"S-1-5-1-2"), Id(L"S-1-1-1-1-1")};
    for (std::size_t i = 0; i < std::size(sorted); ++i)
        for (std::size_t j = 0; j < std::size(sorted); ++j) {
            EXPECT_EQ(sorted[i] < sorted[j], i < j) << i << ' ' << j;
            EXPECT_EQ(sorted[i] == sorted[j], i == j) << i << ' ' << j;
            EXPECT_EQ(sorted[i] < sorted[j].Address(), i < j) << i << ' ' << j;
            EXPECT_EQ(sorted[i] >= sorted[j].Address(), i >= j) << i << ' ' << j;
            EXPECT_EQ(sorted[i].Address() != sorted[j], i != j) << i << ' ' << j;
        }
}

TEST(SecIDContainers, HoldEachIdentifierOnceWhateverItsMark) {
    const SecID marked(Sid(L"S-1-5-18").Get(), true);
    EXPECT_TRUE(marked.Defaulted());
    const SecID all[] = {SecID(), Id(L"S-1-5-18"), Id(L"S-1-1-0"), SecID(), marked};
    EXPECT_EQ(std::set<SecID>(std::begin(all), std::end(all)).size(), 3u);
    EXPECT_EQ(std::unordered_set<SecID>(std::begin(all), std::end(all)).size(), 3u);
}

TEST(SecIDParts, MakeTheIdentifier) {
    EXPECT_EQ(SecID(SecIDAuth::NTSecIDAuth(), 32, 544), Id(L"S-1-5-32-544"));
    EXPECT_EQ(SecID(SecIDAuth::NTSecIDAuth(), 1, 2, 3, 4, 5, 6, 7, 0xFFFFFFFF),
              Id(L"S-1-5-1-2-3-4-5-6-7-4294967295"));
    EXPECT_EQ(SecID(SecIDAuth::NTSecIDAuth()).Length(), SizeOf(0));
    const std::vector<DWORD> ten = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_EQ(SecID(SecIDAuth::NTSecIDAuth(), ten), Id(L"S-1-5-1-2-3-4-5-6-7-8")) << "eight at most";
}

TEST(SecIDParts, AreTold) {
    const SecID id(SecIDAuth(0x123456789ABC), std::vector<DWORD>{7, 0xFFFFFFFF});
    EXPECT_EQ(id.IDAuthority().Value(), 0x123456789ABCu);
    EXPECT_EQ(id.SubAuthorityValue(0), 7u);
    EXPECT_EQ(id.SubAuthorityValue(1), 0xFFFFFFFFu);
    EXPECT_EQ(ThrownCode([&] { id.SubAuthorityValue(2); }), DWORD{ERROR_INVALID_INDEX});
}

TEST(SecIDParts, OfADomainGetOneMore) {
    EXPECT_EQ(SecID(Id(L"S-1-5-21-1-2-3"), 500), Id(L"S-1-5-21-1-2-3-500"));
    const SecID full = Id(L"S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15");
    EXPECT_EQ(ThrownCode([&] { SecID(full, 1); }), InvalidSid);
    EXPECT_EQ(ThrownCode([&] { SecID(SecID(), 1); }), InvalidSid);
}

TEST(SecIDWellKnown, IsMadeByItsType) {
    EXPECT_EQ(SecID(WinWorldSid), Id(L"S-1-1-0"));
    EXPECT_EQ(SecID::WellKnownID(WinBuiltinAdministratorsSid), Id(L"S-1-5-32-544"));
    EXPECT_TRUE(SecID(WinWorldSid, true).Defaulted());
    EXPECT_EQ(SecID::WellKnownDomainID(WinAccountGuestSid, Id(L"S-1-5-21-1-2-3").Address()),
              Id(L"S-1-5-21-1-2-3-501"));
    EXPECT_TRUE(Id(L"S-1-5-32-544").IsWellKnown(WinBuiltinAdministratorsSid));
    EXPECT_FALSE(SecID().IsWellKnown(WinNullSid));
    EXPECT_EQ(ThrownCode([] { SecID(1000); }), DWORD{ERROR_INVALID_PARAMETER});
}

TEST(SecIDValues, AreCopiedAndMoved) {
    SecID id = Id(L"S-1-5-18");
    SecID copy = id;
    EXPECT_NE(copy.Address(), id.Address());
    const void* const block = id.Address();
    const SecID moved = std::move(id);
    EXPECT_EQ(moved.Address(), block);
    copy = copy.Address();
    EXPECT_EQ(copy, moved);
    copy = nullptr;
    EXPECT_TRUE(copy.IsNull());
    copy = moved;
    copy = *&copy;
    EXPECT_EQ(copy, moved);
}

TEST(SecIDString, IsMadeOnceForABlock) {
    FailCall count("ConvertSidToStringSidW", 0, 0);
    SecID id = Id(L"S-1-5-18");
    const wchar_t* const text = id.String().c_str();
    EXPECT_EQ(id.String().c_str(), text);
    const SecID moved = std::move(id);
    EXPECT_EQ(moved.String(), L"S-1-5-18");
    EXPECT_EQ(count.Calls(), 1u);
    id = moved;
    EXPECT_EQ(id.String(), L"S-1-5-18");
    EXPECT_EQ(count.Calls(), 2u);
    id = Id(L"S-1-1-0").Address();
    EXPECT_EQ(id.String(), L"S-1-1-0");
}

TEST(SecIDString, HasAllDigitsOfEachNumber) {
    const struct {
        ULONGLONG authority;
        std::vector<DWORD> parts;
        const wchar_t* text;
    } rows[] = {
        {0, {0, 9, 10, 99, 100, 999, 1000, 9999}, L"S-1-0-0-9-10-99-100-999-1000-9999"},
        {0x7FFFFFFF, {10'000, 99'999, 100'000, 999'999}, L"S-1-2147483647-10000-99999-100000-999999"},
        {5, {1'000'000, 9'999'999, 10'000'000}, L"S-1-5-1000000-9999999-10000000"},
        {5, {99'999'999, 100'000'000, 999'999'999}, L"S-1-5-99999999-100000000-999999999"},
        {5, {1'000'000'000, 4'294'967'295}, L"S-1-5-1000000000-4294967295"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(SecID(SecIDAuth(row.authority), row.parts).String(), row.text);
}

TEST(SecIDString, ThatCannotBeMadeIsAFailure) {
    const SecID id = Id(L"S-1-5-18");
    {
        const FailCall fail("ConvertSidToStringSidW", ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_EQ(ThrownText([&] { id.String(); }), L"SID to string conversion failed");
    }
    EXPECT_EQ(id.String(), L"S-1-5-18");
}

TEST(SecIDDomain, IsThatOfTheAccount) {
    EXPECT_EQ(Id(L"S-1-5-21-1-2-3-1000").DomainSID(), Id(L"S-1-5-21-1-2-3"));
    EXPECT_EQ(ThrownText([] { Id(L"S-1-5-18").DomainSID(); }), L"SID domain could not be determined");
}

TEST(SecIDAuthority, IsANumberOfSixBytes) {
    const SecIDAuth authority(0x123456789ABC);
    EXPECT_EQ(authority.Values(), (std::array<BYTE, 6>{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC}));
    EXPECT_EQ(authority, (SID_IDENTIFIER_AUTHORITY{{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC}}));
    EXPECT_EQ(ThrownCode([] { SecIDAuth(0x1000000000000); }), DWORD{ERROR_INVALID_PARAMETER});
}

TEST(SecIDAuthority, IsOrderedByItsHighPartFirst) {
    EXPECT_LT(SecIDAuth(0xFFFF), SecIDAuth(0x10000));
    EXPECT_LT(SecIDAuth(0x10001), SecIDAuth(0x10002));
    EXPECT_GT(SecIDAuth(0x20000), SecIDAuth(0x1FFFF));
}

}  // namespace
}  // namespace Quellan::Corvel::Test
