#include "platform/SidTexts.h"

#include <algorithm>

namespace Quellan::Corvel::Test {
namespace {

struct FreeNetBuffer {
    void operator()(void* buffer) const { NetApiBufferFree(buffer); }
};

// An answer of the network calls, and its code.
template <class Entry>
class Reply {
  public:
    template <class Call>
    explicit Reply(Call call) {
        BYTE* buffer = nullptr;
        code = call(&buffer, &count, &total);
        m_buffer.reset(buffer);
    }

    const Entry& operator[](std::size_t index) const {
        return static_cast<const Entry*>(m_buffer.get())[index];
    }

    DWORD code;
    DWORD count = 0;
    DWORD total = 0;

  private:
    std::unique_ptr<void, FreeNetBuffer> m_buffer;
};

template <class Entry>
Reply<Entry> UserInfo(const wchar_t* user, DWORD level, const wchar_t* server = nullptr) {
    return Reply<Entry>(
        [&](BYTE** buffer, DWORD*, DWORD*) { return NetUserGetInfo(server, user, level, buffer); });
}

Reply<LOCALGROUP_USERS_INFO_0> LocalGroupsOf(const wchar_t* user, DWORD level = 0) {
    return Reply<LOCALGROUP_USERS_INFO_0>([&](BYTE** buffer, DWORD* read, DWORD* total) {
        return NetUserGetLocalGroups(nullptr, user, level, 0, buffer, MAX_PREFERRED_LENGTH, read, total);
    });
}

std::wstring OwnName() {
    wchar_t name[300];
    DWORD size = 300;
    return GetUserNameW(name, &size) ? std::wstring(name) : std::wstring();
}

TEST(NetUsers, TellTheirNames) {
    const auto names = UserInfo<USER_INFO_0>(OwnName().c_str(), 0);
    ASSERT_EQ(names.code, DWORD{NERR_Success});
    EXPECT_EQ(std::wstring(names[0].usri0_name), OwnName());
    const auto texts = UserInfo<USER_INFO_10>(OwnName().c_str(), 10);
    ASSERT_EQ(texts.code, DWORD{NERR_Success});
    EXPECT_EQ(std::wstring(texts[0].usri10_name), OwnName());
}

TEST(NetUsers, AreRefusedWithTheCodesDocumented) {
    EXPECT_EQ(UserInfo<USER_INFO_0>(L"nobody-is-called-so", 0).code, DWORD{NERR_UserNotFound});
    EXPECT_EQ(UserInfo<USER_INFO_0>(OwnName().c_str(), 12345).code, DWORD{ERROR_INVALID_LEVEL});
    if (OnWine()) return;  // Wine gives everybody the same groups, from any server
    EXPECT_EQ(LocalGroupsOf(L"nobody-is-called-so").code, DWORD{NERR_UserNotFound});
    EXPECT_EQ(LocalGroupsOf(OwnName().c_str(), 7).code, DWORD{ERROR_INVALID_LEVEL});
    EXPECT_EQ(UserInfo<USER_INFO_0>(OwnName().c_str(), 0, L"no-such-machine").code, DWORD{ERROR_BAD_NETPATH});
}

class NetGroups : public testing::Test {
  protected:
    void SetUp() override {
        if (OnWine()) GTEST_SKIP() << "Wine has neither local groups nor members";
    }

    static std::vector<std::wstring> Groups(DWORD preferredSize) {
        std::vector<std::wstring> names;
        DWORD_PTR resume = 0;
        for (DWORD code = ERROR_MORE_DATA; code == ERROR_MORE_DATA;) {
            const Reply<LOCALGROUP_INFO_0> groups([&](BYTE** buffer, DWORD* read, DWORD* total) {
                return NetLocalGroupEnum(nullptr, 0, buffer, preferredSize, read, total, &resume);
            });
            code = groups.code;
            EXPECT_LE(groups.count, groups.total);
            for (DWORD i = 0; i < groups.count; ++i)
                names.emplace_back(groups[i].lgrpi0_name);
        }
        return names;
    }

    template <class Entry>
    static Reply<Entry> Members(const wchar_t* group, DWORD level) {
        return Reply<Entry>([&](BYTE** buffer, DWORD* read, DWORD* total) {
            return NetLocalGroupGetMembers(nullptr, group, level, buffer, MAX_PREFERRED_LENGTH, read, total,
                                           nullptr);
        });
    }
};

TEST_F(NetGroups, AreListedInPiecesOfAnySize) {
    const auto all = Groups(MAX_PREFERRED_LENGTH);
    EXPECT_NE(std::ranges::find(all, L"Users"), all.end()) << "the built-in ones among them";
    EXPECT_EQ(Groups(1), all);
    EXPECT_EQ(Groups(200), all);
}

TEST_F(NetGroups, HaveMembers) {
    const auto everybody = Members<LOCALGROUP_MEMBERS_INFO_2>(L"Users", 2);
    ASSERT_EQ(everybody.code, DWORD{NERR_Success});
    ASSERT_EQ(everybody.count, 1u);
    EXPECT_EQ(TextOf(everybody[0].lgrmi2_sid), L"S-1-5-11");
    EXPECT_EQ(everybody[0].lgrmi2_sidusage, SidTypeWellKnownGroup);
    EXPECT_EQ(std::wstring(everybody[0].lgrmi2_domainandname), L"NT AUTHORITY\\Authenticated Users");
}

TEST_F(NetGroups, ThatDoNotExistHaveACodeOfTheirOwn) {
    EXPECT_EQ(Members<LOCALGROUP_MEMBERS_INFO_0>(L"no-such-group", 0).code, DWORD{ERROR_NO_SUCH_ALIAS});
    EXPECT_EQ(Members<LOCALGROUP_MEMBERS_INFO_0>(L"Users", 4).code, DWORD{ERROR_INVALID_LEVEL});
}

}  // namespace
}  // namespace Quellan::Corvel::Test
