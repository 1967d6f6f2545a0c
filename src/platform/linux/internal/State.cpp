#include "platform/linux/internal/State.h"

#include "platform/linux/Errors.h"
#include "platform/linux/base/Durable.h"
#include "platform/linux/internal/EnvironmentBlock.h"
#include "platform/linux/internal/Errno.h"
#include "platform/linux/internal/Identity.h"

#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace Quellan::Corvel::Platform {

namespace {

constexpr mode_t Private = 0700;
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

std::optional<Place> FindPlace(StateKind kind) {
    const bool lasting = kind != StateKind::Runtime;
    if (const auto root = FolderFromEnvironment("TQLIB_ROOT")) {
        const std::size_t slash = root->rfind('/');
        return Place{
            root->substr(0, slash + 1), {root->substr(slash + 1), lasting ? "state" : "run"}, Private};
    }
    if (ProcessUser() == 0 || kind == StateKind::Machine)
        return Place{lasting ? "/var/lib" : "/run", {"tqlib"}, SystemWide};
    if (!lasting)
        if (const auto runtime = FolderFromEnvironment("XDG_RUNTIME_DIR"))
            return Place{*runtime, {"tqlib"}, Private};
    const auto state = HomeStateFolder();
    if (!state) return std::nullopt;
    return lasting ? Place{*state, {"tqlib"}, Private} : Place{*state, {"tqlib", "run"}, Private};
}

bool IsTrusted(const struct stat& info) noexcept {
    const bool owned = info.st_uid == geteuid() || info.st_uid == 0;
    return owned && !(info.st_mode & (S_IWGRP | S_IWOTH));
}

void MakeFolders(const std::string& path) {
    for (std::size_t slash = 0; slash != path.npos;) {
        slash = path.find('/', slash + 1);
        const std::string step = path.substr(0, slash);
        if (Durable::MakeFolder(AT_FDCWD, step.c_str(), Private) == 0) Durable::SyncFolderOf(step);
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
    for (const std::string& step : place->ours) {
        Descriptor next;
        if (step.empty()) continue;  // the root folder of the system as TQLIB_ROOT
        if (DWORD code = OpenTrustedFolder(at, step.c_str(), make, place->mode, next)) return code;
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

DWORD OpenExistingStateFolder(StateKind kind, std::string_view name, Descriptor& folder) {
    return OpenFolder(kind, name, Make::Nothing, folder);
}

DWORD OpenStateFile(const Descriptor& folder, const char* name, unsigned mode, Descriptor& file) noexcept {
    return OpenTrustedFile(folder, name, O_RDWR | O_CREAT, mode, file);
}

DWORD OpenExistingStateFile(const Descriptor& folder, const char* name, Descriptor& file) noexcept {
    return OpenTrustedFile(folder, name, O_RDONLY, 0, file);
}

}  // namespace Quellan::Corvel::Platform
