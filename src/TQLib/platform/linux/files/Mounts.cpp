#include "TQLib/platform/linux/files/Mounts.h"

#include "TQLib/platform/linux/base/Descriptor.h"
#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/Errors.h"
#include "TQLib/platform/linux/files/Volumes.h"

#include <algorithm>
#include <charconv>
#include <sys/stat.h>

namespace Quellan::Platform {

namespace {

std::string_view NextField(std::string_view& line) noexcept {
    const std::size_t end = std::min(line.find(' '), line.size());
    const std::string_view field = line.substr(0, end);
    line.remove_prefix(std::min(end + 1, line.size()));
    return field;
}

// Blanks, tabs, line feeds and backslashes stand as a backslash and three octal digits.
std::string Unescaped(std::string_view text) {
    std::string result;
    const auto digit = [&](std::size_t at) { return at < text.size() && text[at] >= '0' && text[at] <= '7'; };
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || !digit(i + 1) || !digit(i + 2) || !digit(i + 3)) {
            result += text[i];
            continue;
        }
        result += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + text[i + 3] - '0');
        i += 3;
    }
    return result;
}

bool ParseDevice(std::string_view text, Mount& mount) noexcept {
    const char* const end = text.data() + text.size();
    const auto first = std::from_chars(text.data(), end, mount.major);
    if (first.ec != std::errc() || first.ptr == end || *first.ptr != ':') return false;
    const auto second = std::from_chars(first.ptr + 1, end, mount.minor);
    return second.ec == std::errc() && second.ptr == end;
}

DWORD ReadFile(const char* path, std::string& text) {
    const Descriptor file(Retry([&] { return open(path, O_RDONLY | O_CLOEXEC); }));
    if (!file) return CodeFromErrno(errno, path);
    char block[4096];
    for (;;) {
        const ssize_t got = Retry([&] { return read(file.Get(), block, sizeof block); });
        if (got < 0) return CodeFromErrno(errno);
        if (got == 0) return ERROR_SUCCESS;
        text.append(block, static_cast<std::size_t>(got));
    }
}

// The number by which the list knows the mount of a file; the kernel tells it from 5.8 on.
bool ReadMountId(const char* path, unsigned long long& id) noexcept {
    struct statx info;
    if (statx(AT_FDCWD, path, AT_NO_AUTOMOUNT, STATX_MNT_ID, &info) != 0 || !(info.stx_mask & STATX_MNT_ID))
        return false;
    id = info.stx_mnt_id;
    return true;
}

bool IsRemovable(const Mount& mount) {
    const std::string device =
        "/sys/dev/block/" + std::to_string(mount.major) + ':' + std::to_string(mount.minor);
    // Of a partition the whole device's folder is the one above.
    for (const char* place : {"/removable", "/../removable"}) {
        char text[4];
        const std::string_view value = ReadStart((device + place).c_str(), text);
        if (!value.empty()) return value.front() == '1';
    }
    return false;
}

}  // namespace

bool ParseMount(std::string_view line, Mount& mount) {
    NextField(line);  // its number
    NextField(line);  // its parent's
    if (!ParseDevice(NextField(line), mount)) return false;
    NextField(line);  // the folder in its file system
    mount.folder = Unescaped(NextField(line));
    while (!line.empty() && NextField(line) != "-") {  // options, and fields of any number
    }
    mount.type = NextField(line);
    return mount.folder.starts_with('/') && !mount.type.empty();
}

DWORD FindMountOf(const char* path, Mount& mount) {
    unsigned long long id = 0;
    std::string list;
    if (access(path, F_OK) != 0) return CodeFromErrno(errno, path);
    if (!ReadMountId(path, id)) return ERROR_NOT_SUPPORTED;
    if (DWORD code = ReadFile("/proc/self/mountinfo", list)) return code;
    const std::string begin = std::to_string(id) + ' ';
    for (std::string_view rest = list; !rest.empty();) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        if (line.starts_with(begin)) return ParseMount(line, mount) ? ERROR_SUCCESS : ERROR_INVALID_DATA;
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    }
    return ERROR_NOT_FOUND;
}

UINT DriveTypeOf(const Mount& mount) {
    constexpr std::string_view InMemory[] = {"tmpfs", "ramfs", "devtmpfs", "hugetlbfs"};
    constexpr std::string_view Remote[] = {"nfs",  "nfs4",      "cifs",       "smb3",           "smbfs",
                                           "9p",   "afs",       "ceph",       "lustre",         "ncpfs",
                                           "coda", "glusterfs", "fuse.sshfs", "fuse.glusterfs", "virtiofs"};
    constexpr std::string_view Optical[] = {"iso9660", "udf"};
    const auto isAmong = [&](const auto& types) {
        return std::ranges::find(types, mount.type) != std::end(types);
    };
    if (isAmong(InMemory)) return DRIVE_RAMDISK;
    if (isAmong(Remote)) return DRIVE_REMOTE;
    if (isAmong(Optical)) return DRIVE_CDROM;
    return IsRemovable(mount) ? DRIVE_REMOVABLE : DRIVE_FIXED;
}

}  // namespace Quellan::Platform
