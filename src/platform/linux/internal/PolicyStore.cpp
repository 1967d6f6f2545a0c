#include "platform/linux/internal/PolicyStore.h"

#include "platform/linux/Errors.h"
#include "platform/linux/internal/Errno.h"
#include "platform/linux/internal/State.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <sys/stat.h>

namespace Quellan::Corvel::Platform {

namespace {

constexpr char FolderName[] = "security";
constexpr char FileName[] = "rights";
constexpr char NewFileName[] = "rights.new";
constexpr char LockName[] = "rights.lock";
constexpr mode_t ReadableForAll = 0644;
constexpr mode_t Private = 0600;
constexpr std::size_t MostBytes = std::size_t{16} << 20;

DWORD ReadAll(const Descriptor& file, std::string& text) {
    char buffer[4096];
    for (;;) {
        const ssize_t size = Retry([&] { return read(file.Get(), buffer, sizeof buffer); });
        if (size < 0) return CodeFromErrno(errno);
        if (size == 0) return ERROR_SUCCESS;
        text.append(buffer, static_cast<std::size_t>(size));
        if (text.size() > MostBytes) return ERROR_INTERNAL_DB_CORRUPTION;
    }
}

DWORD WriteAll(const Descriptor& file, std::string_view text) noexcept {
    while (!text.empty()) {
        const ssize_t size = Retry([&] { return write(file.Get(), text.data(), text.size()); });
        if (size < 0) return CodeFromErrno(errno);
        text.remove_prefix(static_cast<std::size_t>(size));
    }
    return ERROR_SUCCESS;
}

DWORD ReadFile(const Descriptor& folder, RightsText& rights) {
    Descriptor file;
    std::string text;
    DWORD code = OpenExistingStateFile(folder, FileName, file);
    if (code == ERROR_FILE_NOT_FOUND) return ERROR_SUCCESS;
    if (!code) code = ReadAll(file, text);
    return code ? code : rights.Parse(text);
}

// In one step, so that readers see the old file or the new one, and so does whoever comes after a crash.
DWORD ReplaceFile(const Descriptor& folder, const std::string& text) {
    Descriptor file;
    if (DWORD code = OpenStateFile(folder, NewFileName, ReadableForAll, file)) return code;
    if (ftruncate(file.Get(), 0) != 0 || fchmod(file.Get(), ReadableForAll) != 0) return CodeFromErrno(errno);
    if (DWORD code = WriteAll(file, text)) return code;
    const bool done = fsync(file.Get()) == 0 &&
                      renameat(folder.Get(), NewFileName, folder.Get(), FileName) == 0 &&
                      fsync(folder.Get()) == 0;
    return done ? ERROR_SUCCESS : CodeFromErrno(errno);
}

// Changes one account's rights while nobody else changes any.
DWORD ChangeRights(const SidValue& account, const std::function<DWORD(RightNames&)>& change) {
    Descriptor folder, lock;
    DWORD code = OpenStateFolder(StateKind::Machine, FolderName, folder);
    if (!code) code = OpenStateFile(folder, LockName, Private, lock);
    if (code) return code;
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    if (Retry([&] { return fcntl(lock.Get(), F_OFD_SETLKW, &whole); }) != 0) return CodeFromErrno(errno);
    RightsText text;
    if ((code = ReadFile(folder, text))) return code;
    const RightNames before = text.RightsOf(account);
    RightNames after = before;
    if ((code = change(after)) || after == before) return code;
    text.SetRightsOf(account, after);
    return ReplaceFile(folder, text.Text());
}

}  // namespace

DWORD ReadRights(const SidValue& account, RightNames& rights) {
    Descriptor folder;
    RightsText text;
    DWORD code = OpenExistingStateFolder(StateKind::Machine, FolderName, folder);
    if (!code) code = ReadFile(folder, text);
    if (code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND) code = ERROR_SUCCESS;
    if (!code) rights = text.RightsOf(account);
    return code;
}

DWORD AddRights(const SidValue& account, const RightNames& rights) {
    return ChangeRights(account, [&](RightNames& held) {
        AddMissing(held, rights);
        return ERROR_SUCCESS;
    });
}

DWORD RemoveRights(const SidValue& account, const RightNames& rights) {
    return ChangeRights(account, [&](RightNames& held) {
        if (held.empty()) return ERROR_NONE_MAPPED;
        std::erase_if(held, [&](const std::string& right) { return HasRight(rights, right); });
        return ERROR_SUCCESS;
    });
}

DWORD RemoveAllRights(const SidValue& account) {
    return ChangeRights(account, [](RightNames& held) {
        if (held.empty()) return ERROR_NONE_MAPPED;
        held.clear();
        return ERROR_SUCCESS;
    });
}

}  // namespace Quellan::Corvel::Platform
