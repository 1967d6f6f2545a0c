#include "platform/SidTexts.h"
#include "platform/WaitObjects.h"

namespace Quellan::Corvel::Test {
namespace {

class ProcessToken : public Owned {
  public:
    explicit ProcessToken(DWORD access) {
        EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), access, Receive()));
    }
};

// The thread's, or the code for there being none.
DWORD OpenOwn(Owned& token) {
    return CodeOf(OpenThreadToken(GetCurrentThread(), TOKEN_QUERY | TOKEN_DUPLICATE, TRUE, token.Receive()));
}

// Information of variable size, in memory aligned for every structure.
class Information {
  public:
    Information(HANDLE token, TOKEN_INFORMATION_CLASS type) {
        DWORD needed = 0;
        EXPECT_FALSE(GetTokenInformation(token, type, nullptr, 0, &needed));
        EXPECT_EQ(GetLastError(), DWORD{ERROR_INSUFFICIENT_BUFFER});
        m_memory.resize(needed / sizeof(void*) + 1);
        EXPECT_TRUE(GetTokenInformation(token, type, m_memory.data(), needed, &needed));
    }

    template <class T>
    T& As() {
        return *reinterpret_cast<T*>(m_memory.data());
    }

  private:
    std::vector<void*> m_memory;
};

template <class T>
T Value(HANDLE token, TOKEN_INFORMATION_CLASS type) {
    T value{};
    DWORD needed = 0;
    EXPECT_TRUE(GetTokenInformation(token, type, &value, sizeof value, &needed));
    return value;
}

DWORD AttributesOf(HANDLE token, const wchar_t* group) {
    Information information(token, TokenGroups);
    const TOKEN_GROUPS& groups = information.As<TOKEN_GROUPS>();
    for (DWORD i = 0; i < groups.GroupCount; ++i)
        if (TextOf(groups.Groups[i].Sid) == group) return groups.Groups[i].Attributes;
    return 0;
}

TEST(Tokens, TellTheGroups) {
    ProcessToken token(TOKEN_QUERY);
    EXPECT_EQ(Value<TOKEN_TYPE>(token, TokenType), TokenPrimary);
    constexpr DWORD Counting = SE_GROUP_MANDATORY | SE_GROUP_ENABLED_BY_DEFAULT | SE_GROUP_ENABLED;
    EXPECT_EQ(AttributesOf(token, L"S-1-1-0"), DWORD{Counting});
    EXPECT_EQ(AttributesOf(token, L"S-1-5-32-545"), DWORD{Counting});
}

TEST(Tokens, TellPrivilegesThatHaveNames) {
    ProcessToken token(TOKEN_QUERY);
    Information information(token, TokenPrivileges);
    TOKEN_PRIVILEGES& held = information.As<TOKEN_PRIVILEGES>();
    std::wstring names;
    for (DWORD i = 0; i < held.PrivilegeCount; ++i) {
        wchar_t name[100];
        DWORD size = 100;
        LUID value{}, privilege = held.Privileges[i].Luid;
        ASSERT_TRUE(LookupPrivilegeNameW(nullptr, &privilege, name, &size));
        EXPECT_TRUE(LookupPrivilegeValueW(nullptr, name, &value));
        EXPECT_EQ(value.LowPart, privilege.LowPart);
        names += std::wstring(name, size) + L" ";
    }
    EXPECT_NE(names.find(L"SeChangeNotifyPrivilege "), names.npos);
}

TEST(Tokens, TellTheIntegrityLevel) {
    ProcessToken token(TOKEN_QUERY);
    Information label(token, TokenIntegrityLevel);
    const bool elevated = Value<TOKEN_ELEVATION>(token, TokenElevation).TokenIsElevated != 0;
    EXPECT_EQ(TextOf(label.As<TOKEN_MANDATORY_LABEL>().Label.Sid),
              elevated ? L"S-1-16-12288" : L"S-1-16-8192");
}

TEST(Tokens, GrantWhatWasAskedForAlone) {
    ProcessToken duplicating(TOKEN_DUPLICATE), querying(TOKEN_QUERY);
    std::byte buffer[100];
    DWORD needed = 0;
    Owned made;
    EXPECT_EQ(CodeOf(GetTokenInformation(duplicating, TokenUser, buffer, sizeof buffer, &needed)),
              DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(CodeOf(DuplicateTokenEx(querying, 0, nullptr, SecurityImpersonation, TokenImpersonation,
                                      made.Receive())),
              DWORD{ERROR_ACCESS_DENIED});
}

TEST(Tokens, AreRefusedWhereTheyAreNone) {
    DWORD needed = 0;
    EXPECT_EQ(CodeOf(GetTokenInformation(nullptr, TokenUser, nullptr, 0, &needed)),
              DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(CodeOf(ImpersonateLoggedOnUser(nullptr)), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(CodeOf(SetThreadToken(nullptr, INVALID_HANDLE_VALUE)), DWORD{ERROR_INVALID_HANDLE});
}

TEST(Tokens, OfThreadsComeAndGoWithImpersonation) {
    Owned token, gone;
    EXPECT_EQ(OpenOwn(token), DWORD{ERROR_NO_TOKEN});
    ASSERT_TRUE(ImpersonateSelf(SecurityImpersonation));
    EXPECT_EQ(OpenOwn(token), 0u);
    EXPECT_TRUE(RevertToSelf());
    EXPECT_EQ(OpenOwn(gone), DWORD{ERROR_NO_TOKEN});
    EXPECT_EQ(Value<TOKEN_TYPE>(token, TokenType), TokenImpersonation);
    EXPECT_EQ(Value<SECURITY_IMPERSONATION_LEVEL>(token, TokenImpersonationLevel), SecurityImpersonation);
}

TEST(Tokens, OfProcessesMustBeDuplicatedForThreads) {
    ProcessToken token(TOKEN_DUPLICATE | TOKEN_IMPERSONATE | TOKEN_QUERY);
    if (!OnWine()) {  // Wine takes it
        EXPECT_EQ(CodeOf(SetThreadToken(nullptr, token)), DWORD{ERROR_BAD_TOKEN_TYPE});
    }
    Owned duplicate;
    ASSERT_TRUE(DuplicateTokenEx(token, TOKEN_IMPERSONATE, nullptr, SecurityImpersonation, TokenImpersonation,
                                 duplicate.Receive()));
    EXPECT_TRUE(SetThreadToken(nullptr, duplicate));
    EXPECT_TRUE(RevertToSelf());
}

TEST(Tokens, AreNotDuplicatedToAHigherLevel) {
    ProcessToken token(TOKEN_DUPLICATE);
    Owned low, higher;
    ASSERT_TRUE(DuplicateTokenEx(token, TOKEN_DUPLICATE, nullptr, SecurityIdentification, TokenImpersonation,
                                 low.Receive()));
    EXPECT_EQ(CodeOf(DuplicateTokenEx(low, 0, nullptr, SecurityImpersonation, TokenImpersonation,
                                      higher.Receive())),
              DWORD{ERROR_BAD_IMPERSONATION_LEVEL});
}

// Room for two privileges, whose values stand for the same ones everywhere.
struct TwoPrivileges {
    DWORD count;
    LUID_AND_ATTRIBUTES entries[2];

    TOKEN_PRIVILEGES* Get() { return reinterpret_cast<TOKEN_PRIVILEGES*>(this); }
};

constexpr DWORD CreateToken = 2, ChangeNotify = 23;  // nobody holds the one, everybody the other

DWORD AttributesOf(HANDLE token, DWORD privilege) {
    Information information(token, TokenPrivileges);
    const TOKEN_PRIVILEGES& held = information.As<TOKEN_PRIVILEGES>();
    for (DWORD i = 0; i < held.PrivilegeCount; ++i)
        if (held.Privileges[i].Luid.LowPart == privilege) return held.Privileges[i].Attributes;
    return ~DWORD{0};
}

class CopiedToken : public Owned {
  public:
    explicit CopiedToken(DWORD access = MAXIMUM_ALLOWED) {
        ProcessToken own(TOKEN_DUPLICATE);
        EXPECT_TRUE(
            DuplicateTokenEx(own, access, nullptr, SecurityImpersonation, TokenImpersonation, Receive()));
    }
};

TEST(Tokens, TellWhichPrivilegesAChangeFoundOtherwise) {
    CopiedToken token;
    TwoPrivileges wanted{2, {{{ChangeNotify, 0}, 0}, {{CreateToken, 0}, SE_PRIVILEGE_ENABLED}}}, previous{};
    DWORD needed = 0;
    if (!OnWine()) {  // Wine changes all the same, and tells of as many as there is room for
        EXPECT_EQ(
            CodeOf(AdjustTokenPrivileges(token, FALSE, wanted.Get(), sizeof(DWORD), previous.Get(), &needed)),
            DWORD{ERROR_INSUFFICIENT_BUFFER});
        EXPECT_TRUE(AttributesOf(token, ChangeNotify) & SE_PRIVILEGE_ENABLED) << "nothing is changed then";
        EXPECT_EQ(needed, sizeof(TOKEN_PRIVILEGES));
    }
    EXPECT_TRUE(AdjustTokenPrivileges(token, FALSE, wanted.Get(), sizeof previous, previous.Get(), &needed));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_ALL_ASSIGNED});
    EXPECT_FALSE(AttributesOf(token, ChangeNotify) & SE_PRIVILEGE_ENABLED);
    ASSERT_EQ(previous.count, 1u);
    EXPECT_EQ(previous.entries[0].Luid.LowPart, ChangeNotify);
    EXPECT_TRUE(AdjustTokenPrivileges(token, FALSE, previous.Get(), 0, nullptr, nullptr));
    EXPECT_EQ(GetLastError(), 0u);
    EXPECT_TRUE(AttributesOf(token, ChangeNotify) & SE_PRIVILEGE_ENABLED);
    EXPECT_TRUE(AdjustTokenPrivileges(token, TRUE, nullptr, 0, nullptr, nullptr));
    EXPECT_FALSE(AttributesOf(token, ChangeNotify) & SE_PRIVILEGE_ENABLED);
}

TEST(Tokens, AreChangedThroughHandlesThatGrantIt) {
    CopiedToken querying(TOKEN_QUERY), adjusting(TOKEN_ADJUST_PRIVILEGES);
    TwoPrivileges wanted{1, {{{ChangeNotify, 0}, 0}, {}}}, previous{};
    DWORD needed = 0;
    TOKEN_DEFAULT_DACL none{};
    Owned less;
    EXPECT_EQ(CodeOf(AdjustTokenPrivileges(querying, FALSE, wanted.Get(), 0, nullptr, nullptr)),
              DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(CodeOf(AdjustTokenPrivileges(adjusting, FALSE, wanted.Get(), sizeof previous, previous.Get(),
                                           &needed)),
              DWORD{ERROR_ACCESS_DENIED})
        << "what was there before is for who may query";
    EXPECT_EQ(CodeOf(SetTokenInformation(querying, TokenDefaultDacl, &none, sizeof none)),
              DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(CodeOf(CreateRestrictedToken(querying, 0, 0, nullptr, 0, nullptr, 0, nullptr, less.Receive())),
              DWORD{ERROR_ACCESS_DENIED});
}

TEST(Tokens, TellMembership) {
    BOOL isMember = FALSE;
    EXPECT_TRUE(CheckTokenMembership(nullptr, Sid(L"WD").Get(), &isMember));
    EXPECT_TRUE(isMember);
    EXPECT_TRUE(CheckTokenMembership(nullptr, Sid(L"S-1-5-21-1-2-3-4").Get(), &isMember));
    EXPECT_FALSE(isMember);
    ProcessToken primary(TOKEN_QUERY);
    EXPECT_EQ(CodeOf(CheckTokenMembership(primary, Sid(L"WD").Get(), &isMember)),
              DWORD{ERROR_NO_IMPERSONATION_TOKEN});
}

TEST(Privileges, AreUnknownByOtherNames) {
    LUID privilege{};
    EXPECT_EQ(CodeOf(LookupPrivilegeValueW(nullptr, L"SeNothingPrivilege", &privilege)),
              DWORD{ERROR_NO_SUCH_PRIVILEGE});
    EXPECT_TRUE(LookupPrivilegeValueW(nullptr, L"sedebugprivilege", &privilege));
    EXPECT_EQ(privilege.LowPart, 20u);
    wchar_t name[5];
    DWORD size = 5;
    EXPECT_EQ(CodeOf(LookupPrivilegeNameW(nullptr, &privilege, name, &size)),
              DWORD{ERROR_INSUFFICIENT_BUFFER});
    EXPECT_EQ(size, 17u);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
