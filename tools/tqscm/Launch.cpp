#include "Launch.h"

#include "TQLib/platform/Win32.h"
#include "TQLib/platform/linux/base/Case.h"
#include "TQLib/platform/linux/base/Descriptor.h"
#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/Wide.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <grp.h>
#include <optional>
#include <pwd.h>
#include <sys/resource.h>
#include <unistd.h>

namespace tqscm {

using namespace Quellan::Platform;

namespace {

// Of descriptors, before the manager took more.
std::optional<rlimit> g_limitBefore;

bool EqualsWithoutCase(std::string_view left, std::string_view right) {
    return CompareOrdinal(ToWide(left), ToWide(right), true) == 0;
}

// Without a domain.
std::string_view UserIn(std::string_view name) {
    return name.substr(name.rfind('\\') + 1);
}

// Of a process that could not be made or run its program: EAGAIN is for want of processes there.
DWORD CodeOf(int error) {
    return error == EAGAIN ? ERROR_NOT_ENOUGH_MEMORY : CodeFromErrno(error);
}

DWORD FindUser(const std::string& name, Account& account) {
    passwd entry{};
    passwd* found = nullptr;
    std::vector<char> buffer(1024);
    int error = ERANGE;
    while ((error = getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found)) == ERANGE)
        buffer.resize(buffer.size() * 2);
    const bool isMissing =
        error == 0 || error == ENOENT || error == ESRCH || error == EBADF || error == EPERM;
    if (!found) return isMissing ? ERROR_INVALID_SERVICE_ACCOUNT : CodeOf(error);
    account = {false, entry.pw_name, entry.pw_dir, entry.pw_uid, entry.pw_gid, std::vector<gid_t>(16)};
    auto count = static_cast<int>(account.groups.size());
    while (getgrouplist(entry.pw_name, entry.pw_gid, account.groups.data(), &count) < 0)
        account.groups.resize(static_cast<std::size_t>(count = std::max(count, 2 * count)));
    account.groups.resize(static_cast<std::size_t>(count));
    account.isOwn = account.user == geteuid();
    return account.isOwn || geteuid() == 0 ? ERROR_SUCCESS : ERROR_INVALID_SERVICE_ACCOUNT;
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

// What the child is to do, all made before it is: it may neither allocate nor lock.
struct Plan {
    const Account& account;
    char* const* words;
    char* const* variables;
};

// In the child. Returns where the program was not run.
void BecomeAndRun(const Plan& plan) {
    for (int signal = 1; signal < NSIG; ++signal)
        std::signal(signal, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    setsid();
    const int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (input < 0 || dup2(input, STDIN_FILENO) < 0 || chdir("/") != 0) return;
    // Also those that the manager was started with. Where the kernel is too old for it these stay.
    const bool isClean = close_range(STDERR_FILENO + 1, ~0u, CLOSE_RANGE_CLOEXEC) == 0;
    if (!isClean && errno != ENOSYS && errno != EINVAL) return;
    if (g_limitBefore && setrlimit(RLIMIT_NOFILE, &*g_limitBefore) != 0) return;
    const Account& account = plan.account;
    if (!account.isOwn && (setgroups(account.groups.size(), account.groups.data()) != 0 ||
                           setgid(account.group) != 0 || setuid(account.user) != 0))
        return;
    execve(plan.words[0], plan.words, plan.variables);
}

// The child says through a pipe what kept it from running the program. An errno.
int Start(const Plan& plan, Launched& launched) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return errno;
    Descriptor from(ends[0]);
    const Descriptor to(ends[1]);
    // Without what other forks have to mend: nothing of the library runs in this child.
    const pid_t pid = _Fork();
    if (pid < 0) return errno;
    if (pid == 0) {
        BecomeAndRun(plan);
        const int error = errno;
        static_cast<void>(!write(to.Get(), &error, sizeof error));
        _exit(127);
    }
    launched = {pid, std::move(from)};
    return 0;
}

}  // namespace

bool IsOwnAccount(const std::string& name) {
    return name.empty() || EqualsWithoutCase(UserIn(name), "LocalSystem");
}

DWORD FindAccount(const std::string& name, Account& account) {
    account = {};
    if (IsOwnAccount(name)) return ERROR_SUCCESS;
    const std::string_view user = UserIn(name);
    const bool isNobody =
        EqualsWithoutCase(user, "LocalService") || EqualsWithoutCase(user, "NetworkService");
    return FindUser(isNobody ? "nobody" : std::string(user), account);
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

void AllowManyDescriptors() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    g_limitBefore = limit;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

DWORD Launch(const std::string& commandLine, const Account& account, const std::string& socket,
             Launched& launched) {
    std::vector<std::string> words = ReadWords(commandLine);
    if (words.empty() || words[0].empty()) return ERROR_FILE_NOT_FOUND;
    std::vector<std::string> variables = MakeEnvironment(account, socket);
    const std::vector<char*> wordPointers = PointersTo(words);
    const std::vector<char*> variablePointers = PointersTo(variables);
    const int error = Start({account, wordPointers.data(), variablePointers.data()}, launched);
    return error ? CodeOf(error) : ERROR_SUCCESS;
}

DWORD LaunchFailure(const Launched& launched) {
    int error = 0;
    const bool isSaid = read(launched.failure.Get(), &error, sizeof error) == sizeof error;
    return isSaid ? CodeOf(error) : ERROR_SUCCESS;
}

}  // namespace tqscm
