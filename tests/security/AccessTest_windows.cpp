// The check beside the platform's own. Descriptors are made so that both answer by the same rules: Wine gives
// an owner rights that no rule gives and knows none for S-1-3-4, takes from the maximum what is denied after it
// was allowed, denies a right once more that was allowed already, refuses a question for nothing, and looks
// neither at labels nor at groups for denying only.
#include "TQLib/platform/Win32.h"
#include "TQLib/security/SecAccess.h"
#include "security/Identifiers.h"

#include <gtest/gtest.h>
#include <iterator>
#include <optional>
#include <random>
#include <vector>

namespace Quellan::Corvel::Test {
namespace {

using Sarvek::SecAccess;
using Sarvek::SecACE;
using Sarvek::SecACL;
using Sarvek::SecDesc;
using Sarvek::SecGenericMap;
using Sarvek::SecIDAttr;
using Sarvek::SecIDAttrArray;
using Sarvek::SecSubject;

struct OwnedToken {
    OwnedToken() {
        HANDLE primary = nullptr;
        OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY | TOKEN_DUPLICATE, &primary);
        DuplicateToken(primary, SecurityImpersonation, &handle);
        CloseHandle(primary);
    }
    OwnedToken(const OwnedToken&) = delete;
    OwnedToken& operator=(const OwnedToken&) = delete;
    ~OwnedToken() { CloseHandle(handle); }

    std::vector<BYTE> Information(TOKEN_INFORMATION_CLASS type) const {
        DWORD size = 0;
        GetTokenInformation(handle, type, nullptr, 0, &size);
        std::vector<BYTE> bytes(size);
        GetTokenInformation(handle, type, bytes.data(), size, &size);
        return bytes;
    }

    HANDLE handle = nullptr;
};

// The caller's user and groups, whatever the level.
struct Caller {
    explicit Caller(const OwnedToken& token) {
        const auto user = token.Information(TokenUser);
        const auto groups = token.Information(TokenGroups);
        const auto& own = reinterpret_cast<const TOKEN_USER*>(user.data())->User;
        const auto& all = *reinterpret_cast<const TOKEN_GROUPS*>(groups.data());
        ids.push_back(SecID(own.Sid));
        SecIDAttrArray enabled;
        for (DWORD i = 0; i < all.GroupCount; ++i) {
            enabled.Add(SecIDAttr(all.Groups[i]));
            ids.push_back(SecID(all.Groups[i].Sid));
        }
        subject.emplace(SecIDAttr(ids[0]), enabled);
        subject->SetLevel(0, false);
    }

    std::vector<SecID> ids;
    std::optional<SecSubject> subject;
};

class Questions {
  public:
    explicit Questions(std::vector<SecID> ids) : m_ids(std::move(ids)) {
        m_count = m_ids.size();
        for (const wchar_t* const text : {L"S-1-5-18", L"S-1-5-7", L"S-1-5-32-546", L"S-1-3-0", L"S-1-3-1",
                                          L"S-1-5-10", L"S-1-5-21-1-2-3-1001"})
            m_ids.push_back(Id(text));
    }

    struct Question {
        SecDesc descriptor;
        DWORD wanted = 0;
    };

    Question Next() {
        // An owner of the caller's is asked for rights that only the list gives.
        const bool owns = Below(4) == 0;
        Question question;
        question.descriptor.SetOwner(owns ? m_ids[Below(m_count)] : Id(L"S-1-5-18"))
            .SetGroup(Id(L"S-1-5-18"));
        const std::size_t form = Below(3);
        SecACL list;
        for (std::size_t left = Below(20); left != 0; --left)
            list.Add(Entry());
        if (Below(20) == 0)
            question.descriptor.SetNullDACL();
        else
            question.descriptor.SetDACL(form == 0 ? list : DeniedFirst(list));
        const DWORD specific = 0x1FF;
        if (form == 0)  // in any order, one right
            question.wanted = owns ? DWORD{1} << Below(9) : OneOf({1, 0x20, 0x100, READ_CONTROL, DELETE});
        else if (form == 1)
            question.wanted = static_cast<DWORD>(m_engine()) & (owns ? specific : specific | 0x130000);
        else
            question.wanted = owns ? 4 : MAXIMUM_ALLOWED;
        if (question.wanted == 0) question.wanted = 1;
        return question;
    }

  private:
    std::size_t Below(std::size_t count) { return m_engine() % count; }
    DWORD OneOf(std::initializer_list<DWORD> numbers) { return numbers.begin()[Below(numbers.size())]; }

    SecACE Entry() {
        const auto kind = Below(3) == 0   ? SecACE::Kind::Deny
                          : Below(8) == 0 ? SecACE::Kind::Audit
                                          : SecACE::Kind::Allow;
        const BYTE flags[] = {0, 0, 0, INHERIT_ONLY_ACE, INHERITED_ACE, OBJECT_INHERIT_ACE};
        const DWORD random = static_cast<DWORD>(m_engine()) & (Below(2) == 0 ? 0x1F01FF : 0x13);
        const DWORD rights = Below(4) == 0 ? OneOf({GENERIC_READ, GENERIC_WRITE, GENERIC_EXECUTE, GENERIC_ALL,
                                                    FILE_GENERIC_READ, FILE_ALL_ACCESS})
                                           : random;
        return SecACE(kind, m_ids[Below(m_ids.size())], rights, flags[Below(std::size(flags))]);
    }

    static SecACL DeniedFirst(const SecACL& list) {
        SecACL ordered;
        for (const bool denying : {true, false})
            for (const SecACE& entry : list)
                if (entry.IsDenying() == denying) ordered.Add(entry);
        return ordered;
    }

    std::mt19937 m_engine{7};
    std::vector<SecID> m_ids;
    std::size_t m_count = 0;  // of the caller's among them
};

struct Verdict {
    bool isAnswered = false;
    bool isGranted = false;
    DWORD granted = 0;
};

Verdict ByPlatform(const OwnedToken& token, const BYTEBuf& block, DWORD wanted) {
    constexpr SecGenericMap Files = SecGenericMap::OfFiles();
    GENERIC_MAPPING map{Files.Read(), Files.Write(), Files.Execute(), Files.All()};
    PRIVILEGE_SET privileges{};
    DWORD size = sizeof privileges;
    BOOL isGranted = FALSE;
    Verdict answer;
    answer.isAnswered = AccessCheck(const_cast<BYTE*>(block.Data()), token.handle, wanted, &map, &privileges,
                                    &size, &answer.granted, &isGranted);
    answer.isGranted = isGranted;
    return answer;
}

TEST(AccessBesideThePlatforms, GivesTheSameAnswers) {
    const OwnedToken token;
    const Caller caller(token);
    Questions questions(caller.ids);
    int granted = 0;
    int different = 0;
    for (int i = 0; i < 10'000; ++i) {
        const auto [descriptor, wanted] = questions.Next();
        const Verdict theirs = ByPlatform(token, descriptor.Block(), wanted);
        const SecAccess::Answer own =
            SecAccess(descriptor, SecGenericMap::OfFiles()).Check(*caller.subject, wanted);
        const bool isSame =
            theirs.isAnswered && theirs.isGranted == own.isGranted && theirs.granted == own.granted;
        granted += own.isGranted;
        if (!isSame && ++different <= 10) {
            ADD_FAILURE() << descriptor.Text().ToUtf8().c_str() << " wanted " << std::hex << wanted
                          << ": own " << own.granted << ", platform's " << theirs.granted;
        }
    }
    EXPECT_EQ(different, 0);
    EXPECT_GT(granted, 2'000);
    EXPECT_LT(granted, 8'000);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
