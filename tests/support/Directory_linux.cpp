#include "support/Directory_linux.h"

#include <algorithm>
#include <atomic>
#include <dlfcn.h>
#include <grp.h>
#include <pwd.h>
#include <shadow.h>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace {

struct Entry {
    std::string name;
    unsigned id;
    std::vector<gid_t> groups{};  // of a user
    int expires = -1;
};

constexpr gid_t OwnGroup = 70002, TwinGroup = 70006, Wheel = 70007, Staff = 70010;
const Entry Users[] = {{"dir.user", 70001, {OwnGroup, Wheel}},
                       {"everyone", 70003, {OwnGroup}, 1'000'000},
                       {"twin", 70004, {OwnGroup}},
                       {"\xE7\x94\xA8\xE6\x88\xB7", 70005, {Staff, TwinGroup}},
                       {"with some blanks", 70020, {Staff, TwinGroup}},
                       {std::string(Quellan::Corvel::Test::LongNameSize, 'x'), 70021, {OwnGroup}},
                       {"too.high", 0x7FFFFE0C, {OwnGroup}},
                       {"highest", 0x7FFFFE0B, {OwnGroup}, 1}};
const Entry Groups[] = {
    {"dir group", OwnGroup}, {"twin", TwinGroup}, {"wheel", Wheel}, {"staff of all kinds", Staff}};

std::atomic<bool> g_silent{false};
std::atomic<unsigned> g_silentQuestions{0};

template <class Function>
Function* Real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

template <class Key, class Member>
const Entry* Find(std::span<const Entry> entries, Member member, const Key& key) {
    const auto found = std::ranges::find(entries, key, member);
    return found == entries.end() ? nullptr : &*found;
}

char* Keep(const char* text) {
    return const_cast<char*>(text);
}

int Give(const Entry& entry, passwd* user, passwd** found) {
    *user = {Keep(entry.name.c_str()), Keep("x"), entry.id, entry.groups[0],
             Keep("A User,,,"),        Keep("/"), Keep("")};
    *found = user;
    return 0;
}

int Give(const Entry& entry, group* made, group** found) {
    static char* members[] = {Keep("dir.user"), nullptr};
    *made = {Keep(entry.name.c_str()), Keep("x"), entry.id, entry.id == Wheel ? members : members + 1};
    *found = made;
    return 0;
}

}  // namespace

void Quellan::Corvel::Test::SilenceDirectory(bool isSilent) {
    g_silent = isSilent;
    g_silent.notify_all();
}

unsigned Quellan::Corvel::Test::SilentQuestions() {
    return g_silentQuestions;
}

extern "C" TQLIB_API int getpwnam_r(const char* name, passwd* user, char* buffer, size_t size,
                                    passwd** found) {
    if (std::string_view(name) == "silent") {
        ++g_silentQuestions;
        g_silent.wait(true);
    }
    if (const Entry* entry = Find(Users, &Entry::name, std::string_view(name)))
        return Give(*entry, user, found);
    return Real<decltype(getpwnam_r)>("getpwnam_r")(name, user, buffer, size, found);
}

extern "C" TQLIB_API int getpwuid_r(uid_t id, passwd* user, char* buffer, size_t size, passwd** found) {
    if (const Entry* entry = Find(Users, &Entry::id, id)) return Give(*entry, user, found);
    return Real<decltype(getpwuid_r)>("getpwuid_r")(id, user, buffer, size, found);
}

extern "C" TQLIB_API int getgrnam_r(const char* name, group* made, char* buffer, size_t size, group** found) {
    if (const Entry* entry = Find(Groups, &Entry::name, std::string_view(name)))
        return Give(*entry, made, found);
    return Real<decltype(getgrnam_r)>("getgrnam_r")(name, made, buffer, size, found);
}

extern "C" TQLIB_API int getgrgid_r(gid_t id, group* made, char* buffer, size_t size, group** found) {
    if (const Entry* entry = Find(Groups, &Entry::id, id)) return Give(*entry, made, found);
    return Real<decltype(getgrgid_r)>("getgrgid_r")(id, made, buffer, size, found);
}

extern "C" TQLIB_API int getgrouplist(const char* name, gid_t own, gid_t* groups, int* size) {
    const Entry* const user = Find(Users, &Entry::name, std::string_view(name));
    if (!user) return Real<decltype(getgrouplist)>("getgrouplist")(name, own, groups, size);
    const int given = *size;
    *size = static_cast<int>(user->groups.size());
    if (given < *size) return -1;
    std::ranges::copy(user->groups, groups);
    return *size;
}

extern "C" TQLIB_API int getspnam_r(const char* name, spwd* entry, char* buffer, size_t size, spwd** found) {
    const Entry* const user = Find(Users, &Entry::name, std::string_view(name));
    if (!user) return Real<decltype(getspnam_r)>("getspnam_r")(name, entry, buffer, size, found);
    *entry = {};
    entry->sp_namp = Keep(name);
    entry->sp_pwdp = Keep(user->name == "twin" ? "!$y$" : "*");
    entry->sp_expire = user->expires;
    *found = entry;
    return 0;
}
