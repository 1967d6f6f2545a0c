#include "FoundProcesses.h"

#include "Launch.h"

#include <algorithm>
#include <charconv>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace tqscm {

namespace {

// The texts of a file that ends each with a zero byte.
std::vector<std::string> ReadTexts(pid_t pid, const char* file) {
    std::ifstream stream("/proc/" + std::to_string(pid) + '/' + file, std::ios::binary);
    std::vector<std::string> texts;
    for (std::string text; std::getline(stream, text, '\0');)
        texts.push_back(std::move(text));
    return texts;
}

// A service's process leads its session, as it was started, and was told whom to ask.
bool IsServiceProcess(pid_t pid, const std::string& manager) {
    if (getsid(pid) != pid) return false;
    const std::vector<std::string> variables = ReadTexts(pid, "environ");
    return std::ranges::count(variables, manager) && std::ranges::count(variables, "TQLIB_SERVICE_PROCESS=1");
}

// A script is run by another program, which has its words after its own.
bool RunsProgram(pid_t pid, const std::vector<std::string>& words) {
    std::error_code error;
    std::string running =
        std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", error).string();
    if (const std::string_view gone = " (deleted)"; running.ends_with(gone))
        running.resize(running.size() - gone.size());
    if (words.empty()) return false;
    if (!error && running == std::filesystem::weakly_canonical(words[0], error).string()) return true;
    const std::vector<std::string> line = ReadTexts(pid, "cmdline");
    return line.size() > words.size() && std::equal(words.rbegin(), words.rend(), line.rbegin());
}

}  // namespace

std::vector<ProcessId> FindServiceProcesses(const std::string& socket) {
    const std::string manager = "TQLIB_SERVICE_MANAGER=" + socket;
    std::vector<ProcessId> found;
    std::error_code error;
    for (std::filesystem::directory_iterator it("/proc", error), end; !error && it != end;
         it.increment(error)) {
        const std::string name = it->path().filename();
        pid_t pid = 0;
        std::from_chars(name.data(), name.data() + name.size(), pid);
        if (pid <= 0 || !IsServiceProcess(pid, manager)) continue;
        if (const ProcessId id = IdOf(pid); id.startTime) found.push_back(id);
    }
    return found;
}

bool IsProcessOf(pid_t pid, uid_t user, const std::string& commandLine, const std::string& account) {
    Account found;
    if (FindAccount(account, found)) return false;
    return user == (found.isOwn ? geteuid() : found.user) && RunsProgram(pid, ReadWords(commandLine));
}

}  // namespace tqscm
