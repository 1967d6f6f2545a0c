// The test program takes the place of the system's directory: some accounts exist here alone, and one
// question is not answered before the test wants it.
#include "platform/SidTexts.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <dlfcn.h>
#include <grp.h>
#include <pwd.h>
#include <shadow.h>
#include <span>
#include <string_view>

namespace Quellan::Corvel::Test {
namespace {

struct DirectoryEntry {
    const char* name;
    unsigned id;
};

constexpr unsigned DirectoryGroup = 70002;
constexpr DirectoryEntry DirectoryUsers[] = {
    {"dir.user", 70001},      {"everyone", 70003},     {"twin", 70004}, {"\xE7\x94\xA8\xE6\x88\xB7", 70005},
    {"too.high", 0x7FFFFE0C}, {"highest", 0x7FFFFE0B},
};
constexpr unsigned AdministratorsGroup = 70007;
constexpr DirectoryEntry DirectoryGroups[] = {
    {"dir group", DirectoryGroup}, {"twin", 70006}, {"wheel", AdministratorsGroup}};
constexpr char Administrator[] = "dir.user";
constexpr char SilentName[] = "silent";

std::atomic<bool> g_silent{false};
std::atomic<unsigned> g_silentQuestions{0};

template <class Function>
Function* Real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

const DirectoryEntry* Find(std::span<const DirectoryEntry> entries, std::string_view name) {
    for (const DirectoryEntry& entry : entries)
        if (name == entry.name) return &entry;
    return nullptr;
}

const DirectoryEntry* Find(std::span<const DirectoryEntry> entries, unsigned id) {
    for (const DirectoryEntry& entry : entries)
        if (id == entry.id) return &entry;
    return nullptr;
}

char* Keep(const char* text) {
    return const_cast<char*>(text);
}

int Give(const DirectoryEntry& entry, passwd* user, passwd** found) {
    *user = {Keep(entry.name), Keep("x"), entry.id, DirectoryGroup, Keep("A User,,,"), Keep("/"), Keep("")};
    *found = user;
    return 0;
}

int Give(const DirectoryEntry& entry, group* made, group** found) {
    static char* members[] = {Keep(Administrator), nullptr};
    *made = {Keep(entry.name), Keep("x"), entry.id, entry.id == AdministratorsGroup ? members : members + 1};
    *found = made;
    return 0;
}

}  // namespace
}  // namespace Quellan::Corvel::Test

using namespace Quellan::Corvel::Test;

extern "C" TQLIB_API int getpwnam_r(const char* name, passwd* user, char* buffer, size_t size,
                                    passwd** found) {
    if (std::string_view(name) == SilentName) {
        ++g_silentQuestions;
        g_silentQuestions.notify_all();
        g_silent.wait(true);
    }
    if (const auto* entry = Find(DirectoryUsers, name)) return Give(*entry, user, found);
    return Real<decltype(getpwnam_r)>("getpwnam_r")(name, user, buffer, size, found);
}

extern "C" TQLIB_API int getpwuid_r(uid_t id, passwd* user, char* buffer, size_t size, passwd** found) {
    if (const auto* entry = Find(DirectoryUsers, id)) return Give(*entry, user, found);
    return Real<decltype(getpwuid_r)>("getpwuid_r")(id, user, buffer, size, found);
}

extern "C" TQLIB_API int getgrnam_r(const char* name, group* made, char* buffer, size_t size, group** found) {
    if (const auto* entry = Find(DirectoryGroups, name)) return Give(*entry, made, found);
    return Real<decltype(getgrnam_r)>("getgrnam_r")(name, made, buffer, size, found);
}

extern "C" TQLIB_API int getgrgid_r(gid_t id, group* made, char* buffer, size_t size, group** found) {
    if (const auto* entry = Find(DirectoryGroups, id)) return Give(*entry, made, found);
    return Real<decltype(getgrgid_r)>("getgrgid_r")(id, made, buffer, size, found);
}

extern "C" TQLIB_API int getgrouplist(const char* name, gid_t own, gid_t* groups, int* size) {
    if (!Find(DirectoryUsers, name))
        return Real<decltype(getgrouplist)>("getgrouplist")(name, own, groups, size);
    const int given = *size;
    *size = std::string_view(name) == Administrator ? 2 : 1;
    if (given < *size) return -1;
    groups[0] = own;
    if (*size == 2) groups[1] = AdministratorsGroup;
    return *size;
}

// The password of "dir.user" is open, that of "twin" locked; "highest" has expired, "everyone" has not yet.
extern "C" TQLIB_API int getspnam_r(const char* name, spwd* entry, char*, size_t, spwd** found) {
    const std::string_view user = name;
    *entry = {};
    entry->sp_namp = Keep(name);
    entry->sp_pwdp = Keep(user == "twin" ? "!$y$" : "*");
    entry->sp_expire = user == "highest" ? 1 : user == "everyone" ? 1'000'000 : -1;
    *found = entry;
    return 0;
}

namespace Quellan::Corvel::Test {
namespace {

// The number in the machine's domain and the use, or the code: "141002 1".
std::wstring Account(const wchar_t* name) {
    std::byte sid[SECURITY_MAX_SID_SIZE];
    wchar_t domain[300] = {};
    DWORD sidSize = sizeof sid, domainSize = 300;
    SID_NAME_USE use{};
    if (!LookupAccountNameW(nullptr, name, sid, &sidSize, domain, &domainSize, &use))
        return L"error " + std::to_wstring(GetLastError());
    const std::wstring text = TextOf(sid);
    return text.substr(text.rfind(L'-') + 1) + L" " + std::to_wstring(use);
}

std::wstring NameOfNumber(DWORD rid) {
    Sid administrator(L"LA");
    *GetSidSubAuthority(administrator.Get(), 4) = rid;
    wchar_t name[300] = {}, domain[300] = {};
    DWORD nameSize = 300, domainSize = 300;
    SID_NAME_USE use{};
    if (!LookupAccountSidW(nullptr, administrator.Get(), name, &nameSize, domain, &domainSize, &use))
        return L"error " + std::to_wstring(GetLastError());
    return std::wstring(name) + L" " + std::to_wstring(use);
}

const std::wstring NotMapped = L"error 1332";

TEST(DirectoryAccounts, AreNumberedInTheMachinesDomain) {
    EXPECT_EQ(Account(L"dir.user"), L"141002 1");
    EXPECT_EQ(Account(L"dir group"), L"141005 2");
    EXPECT_EQ(Account(L"root"), L"500 1");
    EXPECT_EQ(NameOfNumber(141002), L"dir.user 1");
    EXPECT_EQ(NameOfNumber(141005), L"dir group 2");
    EXPECT_EQ(NameOfNumber(500), L"root 1");
    EXPECT_EQ(NameOfNumber(1001), L"group:root 4") << "a user is called so too";
}

TEST(DirectoryAccounts, HaveNumbersUpToTheHighest) {
    EXPECT_EQ(Account(L"highest"), L"4294967294 1");
    EXPECT_EQ(NameOfNumber(4294967294), L"highest 1");
    EXPECT_EQ(Account(L"too.high"), NotMapped);
    for (const DWORD rid : {0u, 501u, 999u, 1000u})
        EXPECT_EQ(NameOfNumber(rid), NotMapped) << rid;
}

TEST(DirectoryAccounts, AreFoundInTheirExactSpellingBeforeOtherNames) {
    EXPECT_EQ(Account(L"everyone"), L"141006 1");
    EXPECT_EQ(Account(L"Everyone"), L"0 5");
    EXPECT_EQ(Account(L"DIR.User"), L"141002 1");
    EXPECT_EQ(Account(L"\x7528\x6237"), L"141010 1");
}

TEST(DirectoryAccounts, OfOneNameAreToldApartByTheirKind) {
    EXPECT_EQ(Account(L"twin"), L"141008 1");
    EXPECT_EQ(Account(L"user:twin"), L"141008 1");
    EXPECT_EQ(Account(L"group:twin"), L"141013 2");
    EXPECT_EQ(Account(L"group:dir.user"), NotMapped);
}

struct FreeGroupBuffer {
    void operator()(void* buffer) const { NetApiBufferFree(buffer); }
};

bool IsDisabled(const wchar_t* user) {
    BYTE* buffer = nullptr;
    EXPECT_EQ(NetUserGetInfo(nullptr, user, 20, &buffer), DWORD{NERR_Success});
    const std::unique_ptr<void, FreeGroupBuffer> owner(buffer);
    return reinterpret_cast<USER_INFO_20*>(buffer)->usri20_flags & UF_ACCOUNTDISABLE;
}

TEST(DirectoryAccounts, AreDisabledWhenLockedOrExpired) {
    EXPECT_FALSE(IsDisabled(L"dir.user"));
    EXPECT_FALSE(IsDisabled(L"user:everyone"));
    EXPECT_TRUE(IsDisabled(L"twin"));
    EXPECT_TRUE(IsDisabled(L"highest"));
}

// The answer's names, each followed by a semicolon; or the code.
template <class Entry, class Call>
std::wstring Names(Call call, wchar_t* Entry::*name) {
    BYTE* buffer = nullptr;
    DWORD read = 0, total = 0;
    const DWORD code = call(&buffer, &read, &total);
    const std::unique_ptr<void, FreeGroupBuffer> owner(buffer);
    if (code != NERR_Success) return L"error " + std::to_wstring(code);
    std::wstring names;
    for (DWORD i = 0; i < read; ++i)
        names += std::wstring(reinterpret_cast<Entry*>(buffer)[i].*name) + L";";
    return names;
}

TEST(DirectoryGroups, AreGlobalOnes) {
    const auto global = [](BYTE** buffer, DWORD* read, DWORD* total) {
        return NetUserGetGroups(nullptr, L"dir.user", 0, buffer, MAX_PREFERRED_LENGTH, read, total);
    };
    const auto local = [](BYTE** buffer, DWORD* read, DWORD* total) {
        return NetUserGetLocalGroups(nullptr, L"dir.user", 0, 0, buffer, MAX_PREFERRED_LENGTH, read, total);
    };
    EXPECT_EQ(Names(global, &GROUP_USERS_INFO_0::grui0_name), L"dir group;wheel;");
    EXPECT_EQ(Names(local, &LOCALGROUP_USERS_INFO_0::lgrui0_name), L"Administrators;Users;");
}

TEST(DirectoryGroups, MakeAdministrators) {
    const auto members = [](BYTE** buffer, DWORD* read, DWORD* total) {
        return NetLocalGroupGetMembers(nullptr, L"Administrators", 1, buffer, MAX_PREFERRED_LENGTH, read,
                                       total, nullptr);
    };
    const std::wstring names = Names(members, &LOCALGROUP_MEMBERS_INFO_1::lgrmi1_name);
    EXPECT_TRUE(names.starts_with(L"root;")) << testing::PrintToString(names);
    EXPECT_NE(names.find(L"dir.user;"), names.npos) << testing::PrintToString(names);
}

class SilentDirectory : public testing::Test {
  protected:
    SilentDirectory() { g_silent = true; }
    ~SilentDirectory() override {
        g_silent = false;
        g_silent.notify_all();
    }

    EnvironmentVariable m_limit{L"TQLIB_DIRECTORY_LIMIT_MS", L"50"};
};

TEST_F(SilentDirectory, HasNotFoundTheAccountAfterItsLimit) {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Account(L"silent"), NotMapped);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
}

TEST_F(SilentDirectory, IsReportedAsATimeOutByTheNetworkCalls) {
    BYTE* buffer = nullptr;
    EXPECT_EQ(NetUserGetInfo(nullptr, L"silent", 0, &buffer), DWORD{ERROR_TIMEOUT});
}

TEST_F(SilentDirectory, KeepsALimitedNumberOfThreads) {
    constexpr unsigned MostThreads = 8;
    g_silentQuestions = 0;
    for (unsigned i = 0; i < MostThreads + 2; ++i)
        EXPECT_EQ(Account(L"silent"), NotMapped);
    EXPECT_LE(g_silentQuestions, MostThreads);
    g_silent = false;
    g_silent.notify_all();
    EnvironmentVariable patient(L"TQLIB_DIRECTORY_LIMIT_MS", L"60000");
    EXPECT_EQ(Account(L"dir.user"), L"141002 1");
    EXPECT_LE(g_silentQuestions, MostThreads) << "nobody waits for the others any more";
}

}  // namespace
}  // namespace Quellan::Corvel::Test
