#include "TQLib/platform/linux/base/StateFile.h"

#include "TQLib/platform/linux/base/Durable.h"
#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/Errors.h"

#include <cstdio>
#include <sys/stat.h>

namespace Quellan::Platform {

namespace {

constexpr unsigned PrivateFile = 0600;

DWORD WriteAll(const Descriptor& file, std::string_view text) noexcept {
    while (!text.empty()) {
        const ssize_t size = Durable::Write(file.Get(), text.data(), text.size());
        if (size < 0) return CodeFromErrno(errno);
        text.remove_prefix(static_cast<std::size_t>(size));
    }
    return ERROR_SUCCESS;
}

}  // namespace

DWORD StateLock::Take(const Descriptor& folder, const char* name) noexcept {
    Descriptor opened;
    if (DWORD code = OpenStateFile(folder, name, PrivateFile, opened)) return code;
    m_file.emplace(std::move(opened), ProcessDescriptor::Parent::GoesOn, ProcessDescriptor::Child::Closes);
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    return Retry([&] { return fcntl(m_file->Get(), F_OFD_SETLKW, &whole); }) == 0 ? ERROR_SUCCESS
                                                                                  : CodeFromErrno(errno);
}

DWORD ReadStateFile(const Descriptor& folder, const char* name, std::size_t most, std::string& text) {
    Descriptor file;
    if (DWORD code = OpenExistingStateFile(folder, name, file)) return code;
    std::string whole;
    char buffer[4096];
    for (;;) {
        const ssize_t size = Retry([&] { return read(file.Get(), buffer, sizeof buffer); });
        if (size < 0) return CodeFromErrno(errno);
        if (size == 0) break;
        whole.append(buffer, static_cast<std::size_t>(size));
        if (whole.size() > most) return ERROR_FILE_CORRUPT;
    }
    text = std::move(whole);
    return ERROR_SUCCESS;
}

DWORD WriteNewStateFile(const Descriptor& folder, const char* name, unsigned mode, std::string_view text,
                        Descriptor& file) noexcept {
    constexpr int Flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC;
    Descriptor made = Durable::Open(folder.Get(), name, Flags, mode);
    if (!made || fchmod(made.Get(), mode) != 0) return CodeFromErrno(errno);
    const DWORD code = WriteAll(made, text);
    file = std::move(made);
    return code;
}

DWORD ReplaceStateFile(const Descriptor& staging, const char* stagedName, const Descriptor& folder,
                       const char* name, unsigned mode, std::string_view text) noexcept {
    // What is there may be the file itself under a name that a loss of power has brought back.
    Durable::Unlink(staging.Get(), stagedName);
    Descriptor file;
    DWORD code = WriteNewStateFile(staging, stagedName, mode, text, file);
    const auto put = [&] {
        return Durable::Sync(file.Get()) == 0 &&
               Durable::Rename(staging.Get(), stagedName, folder.Get(), name) == 0;
    };
    if (!code && !put()) code = CodeFromErrno(errno);
    if (code) Durable::Unlink(staging.Get(), stagedName);
    if (!code && Durable::Sync(folder.Get()) != 0) code = CodeFromErrno(errno);
    return code;
}

}  // namespace Quellan::Platform
