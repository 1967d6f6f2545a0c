#include "Launch.h"

#include "platform/Win32.h"
#include "platform/linux/internal/Descriptor.h"
#include "platform/linux/internal/Wide.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <csignal>
#include <grp.h>
#include <optional>
#include <pwd.h>
#include <spawn.h>
#include <sys/wait.h>
#include <vector>

namespace tqscm {

using namespace Quellan::Corvel::Platform;

namespace {

struct Account {
    bool isOwn = true;
    std::string name;
    std::string home;
    uid_t user = 0;
    gid_t group = 0;
    std::vector<gid_t> groups;
};

// Only ASCII letters are folded: names may have bytes of UTF-8, which are negative as characters.
bool EqualsWithoutCase(std::string_view left, std::string_view right) {
    return std::ranges::equal(left, right, [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
    });
}

std::optional<Account> FindUser(const std::string& name) {
    passwd entry{};
    passwd* found = nullptr;
    std::vector<char> buffer(16'384);
    if (getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found)
        return std::nullopt;
    Account account{false, entry.pw_name, entry.pw_dir, entry.pw_uid, entry.pw_gid, {}};
    int count = 256;
    account.groups.resize(static_cast<std::size_t>(count));
    if (getgrouplist(entry.pw_name, entry.pw_gid, account.groups.data(), &count) < 0) return std::nullopt;
    account.groups.resize(static_cast<std::size_t>(count));
    account.isOwn = account.user == geteuid();
    return account;
}

// Nothing where there is no such account, or it is not for this manager to take.
std::optional<Account> FindAccount(const std::string& text) {
    const std::string name = text.substr(text.rfind('\\') + 1);  // without a domain
    if (text.empty() || EqualsWithoutCase(name, "LocalSystem")) return Account();
    const bool isNobody =
        EqualsWithoutCase(name, "LocalService") || EqualsWithoutCase(name, "NetworkService");
    const auto account = FindUser(isNobody ? "nobody" : name);
    return account && (account->isOwn || geteuid() == 0) ? account : std::nullopt;
}

std::vector<std::string> ReadWords(const std::string& commandLine) {
    std::vector<std::string> words;
    int count = 0;
    wchar_t** const block = CommandLineToArgvW(ToWide(commandLine).c_str(), &count);
    for (int i = 0; block && i < count; ++i)
        words.push_back(ToUtf8(block[i]));
    LocalFree(block);
    return words;
}

bool IsInherited(std::string_view variable) {
    constexpr std::array<std::string_view, 8> Own = {"NOTIFY_SOCKET", "WATCHDOG_PID", "WATCHDOG_USEC",
                                                     "LISTEN_FDS",    "LISTEN_PID",   "LISTEN_FDNAMES",
                                                     "MAINPID",       "INVOCATION_ID"};
    const std::string_view name = variable.substr(0, variable.find('='));
    return std::ranges::find(Own, name) == Own.end() && !name.starts_with("TQLIB_SERVICE_");
}

std::vector<std::string> MakeEnvironment(const Account& account, const std::string& socket) {
    std::vector<std::string> variables;
    for (char** variable = environ; *variable; ++variable) {
        const std::string_view text(*variable);
        const bool isUsers = text.starts_with("HOME=") || text.starts_with("USER=") ||
                             text.starts_with("LOGNAME=") || text.starts_with("XDG_");
        if (IsInherited(text) && (account.isOwn || !isUsers)) variables.emplace_back(text);
    }
    if (!account.isOwn) {
        variables.push_back("HOME=" + account.home);
        variables.push_back("USER=" + account.name);
        variables.push_back("LOGNAME=" + account.name);
    }
    if (!socket.empty()) {
        variables.push_back("TQLIB_SERVICE_MANAGER=" + socket);
        variables.push_back("TQLIB_SERVICE_PROCESS=1");
    }
    return variables;
}

std::vector<char*> PointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

DWORD CodeOf(int error) {
    switch (error) {
        case ENOENT:
            return ERROR_FILE_NOT_FOUND;
        case ENOTDIR:
            return ERROR_PATH_NOT_FOUND;
        case EACCES:
        case EPERM:
            return ERROR_ACCESS_DENIED;
        case ENOEXEC:
            return ERROR_BAD_EXE_FORMAT;
        case E2BIG:
            return ERROR_INVALID_PARAMETER;
        case EAGAIN:
        case ENOMEM:
            return ERROR_NOT_ENOUGH_MEMORY;
        default:
            return ERROR_GEN_FAILURE;
    }
}

// As the manager's own user: the quick way.
int Spawn(char* const* words, char* const* variables, pid_t& pid) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addchdir_np(&actions, "/");
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
    const int error = posix_spawn(&pid, words[0], &actions, &attributes, words, variables);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return error;
}

// In the child of a fork. Returns only where it fails.
void BecomeAndRun(const Account& account, char* const* words, char* const* variables) {
    for (int signal = 1; signal < NSIG; ++signal)
        std::signal(signal, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    setsid();
    const int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (input < 0 || dup2(input, STDIN_FILENO) < 0 || chdir("/") != 0) return;
    if (setgroups(account.groups.size(), account.groups.data()) != 0 || setgid(account.group) != 0 ||
        setuid(account.user) != 0)
        return;
    execve(words[0], words, variables);
}

// As somebody else. The child says through a pipe what kept it from running the program.
int ForkAs(const Account& account, char* const* words, char* const* variables, pid_t& pid) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return errno;
    const Descriptor from(ends[0]);
    Descriptor to(ends[1]);
    pid = fork();
    if (pid < 0) return errno;
    if (pid == 0) {
        BecomeAndRun(account, words, variables);
        const int error = errno;
        static_cast<void>(!write(to.Get(), &error, sizeof error));
        _exit(127);
    }
    to = Descriptor();
    int error = 0;
    if (Retry([&] { return read(from.Get(), &error, sizeof error); }) <= 0) return 0;
    siginfo_t info;
    waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED);
    return error;
}

}  // namespace

DWORD CheckAccount(const std::string& account) {
    return FindAccount(account) ? ERROR_SUCCESS : ERROR_INVALID_SERVICE_ACCOUNT;
}

DWORD Launch(const std::string& commandLine, const std::string& accountName, const std::string& socket,
             pid_t& pid) {
    const auto account = FindAccount(accountName);
    if (!account) return ERROR_SERVICE_LOGON_FAILED;
    std::vector<std::string> words = ReadWords(commandLine);
    if (words.empty() || words[0].empty()) return ERROR_FILE_NOT_FOUND;
    std::vector<std::string> variables = MakeEnvironment(*account, socket);
    const std::vector<char*> wordPointers = PointersTo(words);
    const std::vector<char*> variablePointers = PointersTo(variables);
    const int error = account->isOwn ? Spawn(wordPointers.data(), variablePointers.data(), pid)
                                     : ForkAs(*account, wordPointers.data(), variablePointers.data(), pid);
    return error ? CodeOf(error) : ERROR_SUCCESS;
}

}  // namespace tqscm
