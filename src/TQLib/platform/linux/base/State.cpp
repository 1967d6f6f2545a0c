#include "TQLib/platform/linux/base/State.h"

#include "TQLib/platform/linux/base/Durable.h"
#include "TQLib/platform/linux/base/EnvironmentBlock.h"
#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/Errors.h"
#include "TQLib/platform/linux/base/Identity.h"
#include "TQLib/platform/linux/base/Process.h"
#include "TQLib/platform/linux/base/Wide.h"

#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace Quellan::Platform {

namespace {

constexpr mode_t PrivateFolder = 0700;
constexpr mode_t SystemWide = 0755;

struct Place {
    std::string base;               // only made where it is missing
    std::vector<std::string> ours;  // folders below it, one in the other, each of them checked
    mode_t mode;
};

// An absolute path; others could mean a different place each time.
std::optional<std::string> FolderFromEnvironment(const char* name) {
    auto path = TrustedEnvironmentVariable(name);
    if (!path || !path->starts_with('/')) return std::nullopt;
    while (path->size() > 1 && path->back() == '/')
        path->pop_back();
    return path;
}

std::optional<std::string> HomeStateFolder() {
    if (auto state = FolderFromEnvironment("XDG_STATE_HOME")) return state;
    auto home = FolderFromEnvironment("HOME");
    if (home) *home += "/.local/state";
    return home;
}

// What the system gave the user for run-time files: his alone.
std::optional<std::string> RuntimeFolder() {
    for (const auto& folder : {FolderFromEnvironment("XDG_RUNTIME_DIR"),
                               std::optional("/run/user/" + std::to_string(ProcessUser()))}) {
        struct stat info;
        if (folder && lstat(folder->c_str(), &info) == 0 && S_ISDIR(info.st_mode) &&
            info.st_uid == ProcessUser() && !(info.st_mode & (S_IWGRP | S_IWOTH)))
            return folder;
    }
    return std::nullopt;
}

std::optional<Place> FindPlace(StateKind kind) {
    const bool lasting = kind != StateKind::Runtime;
    if (const auto root = FolderFromEnvironment("TQLIB_ROOT")) {
        const std::size_t slash = root->rfind('/');
        return Place{
            root->substr(0, slash + 1), {root->substr(slash + 1), lasting ? "state" : "run"}, PrivateFolder};
    }
    if (ProcessUser() == 0 || kind == StateKind::Machine)
        return Place{lasting ? "/var/lib" : "/run", {"tqlib"}, SystemWide};
    if (!lasting)
        if (const auto runtime = RuntimeFolder()) return Place{*runtime, {"tqlib"}, PrivateFolder};
    const auto state = HomeStateFolder();
    if (!state) return std::nullopt;
    return lasting ? Place{*state, {"tqlib"}, PrivateFolder} : Place{*state, {"tqlib", "run"}, PrivateFolder};
}

bool IsTrusted(const struct stat& info) noexcept {
    const bool owned = info.st_uid == geteuid() || info.st_uid == 0;
    return owned && !(info.st_mode & (S_IWGRP | S_IWOTH));
}

// The way on is the administrator's, and he has to know which one.
void ReportUntrusted(const std::string& folder) {
    OutputDebugStringW(
        ToWide("TQLib: not used, since another user could have written it: " + folder + '\n').c_str());
}

void MakeFolders(const std::string& path) {
    for (std::size_t slash = 0; slash != path.npos;) {
        slash = path.find('/', slash + 1);
        const std::string step = path.substr(0, slash);
        if (Durable::MakeFolder(AT_FDCWD, step.c_str(), PrivateFolder) == 0) Durable::SyncFolderOf(step);
    }
}

DWORD OpenFolder(StateKind kind, std::string_view name, Make make, Descriptor& folder) {
    std::optional<Place> place = FindPlace(kind);
    if (!place) return ERROR_PATH_NOT_FOUND;
    place->ours.emplace_back(name);
    constexpr int Flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    Descriptor at(open(place->base.c_str(), Flags));
    if (!at && make != Make::Nothing) {
        MakeFolders(place->base);
        at = Descriptor(open(place->base.c_str(), Flags));
    }
    if (!at) return CodeFromErrno(errno, place->base.c_str());
    std::string path = place->base;
    for (const std::string& step : place->ours) {
        Descriptor next;
        if (step.empty()) continue;  // the root folder of the system as TQLIB_ROOT
        path.append(path.ends_with('/') ? "" : "/").append(step);
        if (DWORD code = OpenTrustedFolder(at, step.c_str(), make, place->mode, next)) {
            if (code == ERROR_ACCESS_DENIED) ReportUntrusted(path);
            return code;
        }
        at = std::move(next);
    }
    folder = std::move(at);
    return ERROR_SUCCESS;
}

DWORD OpenTrustedFile(const Descriptor& folder, const char* name, int access, unsigned mode,
                      Descriptor& file) noexcept {
    // Not to block on a pipe that somebody put there.
    const int flags = access | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    Descriptor opened = Durable::Open(folder.Get(), name, flags, mode);
    struct stat info;
    if (!opened) return errno == ELOOP ? ERROR_ACCESS_DENIED : CodeFromErrno(errno);
    if (fstat(opened.Get(), &info) != 0) return CodeFromErrno(errno);
    if (!S_ISREG(info.st_mode) || !IsTrusted(info)) return ERROR_ACCESS_DENIED;
    file = std::move(opened);
    return ERROR_SUCCESS;
}

}  // namespace

DWORD OpenTrustedFolder(const Descriptor& in, const char* name, Make make, unsigned mode,
                        Descriptor& folder) noexcept {
    const bool made = make != Make::Nothing && Durable::MakeFolder(in.Get(), name, mode) == 0;
    if (make != Make::Nothing && !made && errno != EEXIST) return CodeFromErrno(errno);
    constexpr int Flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    Descriptor opened(Retry([&] { return openat(in.Get(), name, Flags); }));
    struct stat info;
    // A link in place of a folder is somebody's attempt, whatever the system calls it.
    if (!opened) return errno == ENOTDIR || errno == ELOOP ? ERROR_ACCESS_DENIED : CodeFromErrno(errno);
    if (fstat(opened.Get(), &info) != 0) return CodeFromErrno(errno);
    if (!IsTrusted(info)) return ERROR_ACCESS_DENIED;
    if (made && (info.st_mode & 07777) != mode) fchmod(opened.Get(), mode);  // the file mask took rights away
    if (made && make == Make::Lasting && Durable::Sync(in.Get()) != 0) return CodeFromErrno(errno);
    folder = std::move(opened);
    return ERROR_SUCCESS;
}

DWORD OpenStateFolder(StateKind kind, std::string_view name, Descriptor& folder) {
    return OpenFolder(kind, name, kind == StateKind::Runtime ? Make::Passing : Make::Lasting, folder);
}

DWORD OpenFolderForAll(std::string_view given, Descriptor& folder) {
    if (FolderFromEnvironment("TQLIB_ROOT")) return OpenStateFolder(StateKind::Runtime, given, folder);
    const std::string name(given);
    const std::string path = "/run/tqlib/" + name;
    constexpr mode_t ForAll = 0777 | S_ISVTX;
    constexpr int Flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    const bool isRoot = geteuid() == 0;
    Descriptor ours;
    const Descriptor run(open("/run", Flags));
    if (!run) return CodeFromErrno(errno);
    if (OpenTrustedFolder(run, "tqlib", isRoot ? Make::Passing : Make::Nothing, SystemWide, ours) ==
        ERROR_SUCCESS) {
        if (isRoot && Durable::MakeFolder(ours.Get(), name.c_str(), PrivateFolder) != 0 && errno != EEXIST)
            return CodeFromErrno(errno);
        Descriptor opened(open(path.c_str(), Flags));
        struct stat info;
        if (opened && fstat(opened.Get(), &info) == 0 && info.st_uid == 0) {
            if (isRoot && (info.st_mode & 07777) != ForAll && fchmod(opened.Get(), ForAll) != 0)
                return CodeFromErrno(errno);
            folder = std::move(opened);
            return ERROR_SUCCESS;
        }
    }
    OutputDebugStringW(ToWide("TQLib: there is no such folder of root's: " + path + '\n').c_str());
    return ERROR_ACCESS_DENIED;
}

DWORD OpenExistingStateFolder(StateKind kind, std::string_view name, Descriptor& folder) {
    return OpenFolder(kind, name, Make::Nothing, folder);
}

DWORD OpenStateFile(const Descriptor& folder, const char* name, unsigned mode, Descriptor& file) noexcept {
    return OpenTrustedFile(folder, name, O_RDWR | O_CREAT, mode, file);
}

DWORD OpenExistingStateFile(const Descriptor& folder, const char* name, Descriptor& file) noexcept {
    return OpenTrustedFile(folder, name, O_RDONLY, 0, file);
}

}  // namespace Quellan::Platform
