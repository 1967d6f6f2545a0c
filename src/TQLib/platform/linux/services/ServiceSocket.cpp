#include "TQLib/platform/linux/services/ServiceSocket.h"

#include "TQLib/platform/linux/base/Environment.h"
#include "TQLib/platform/linux/base/Errors.h"
#include "TQLib/platform/linux/base/Wide.h"
#include "TQLib/platform/linux/services/ServiceMessages.h"

#include <cstring>
#include <new>
#include <sys/auxv.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace Quellan::Platform {

namespace {

// Long enough for a manager that has much to do.
constexpr timeval ConnectLimit = {.tv_sec = 30, .tv_usec = 0};

std::string Variable(const wchar_t* name) {
    if (getauxval(AT_SECURE)) return {};  // the caller has more rights than who chose the environment
    const DWORD lastError = GetLastError();
    std::wstring value(PATH_MAX, L'\0');
    const DWORD size = GetEnvironmentVariableW(name, value.data(), PATH_MAX);
    // One that can't be read is not one that isn't set: the socket would be another manager's.
    if (size == 0 && GetLastError() == ERROR_NOT_ENOUGH_MEMORY) throw std::bad_alloc();
    SetLastError(lastError);  // most often there is none
    value.resize(size < PATH_MAX ? size : 0);
    return ToUtf8(value);
}

// An address of any length: a path that is too long for one is reached through its folder.
struct Address {
    sockaddr_un name{};
    Descriptor folder;

    bool Set(const std::string& path) {
        name.sun_family = AF_UNIX;
        std::string shorter = path;
        if (path.size() >= sizeof name.sun_path) {
            const std::size_t slash = path.rfind('/');
            if (slash == path.npos) return false;
            folder = Descriptor(open(path.substr(0, slash).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
            if (!folder) return false;
            shorter = "/proc/self/fd/" + std::to_string(folder.Get()) + path.substr(slash);
            if (shorter.size() >= sizeof name.sun_path) return false;
        }
        shorter.copy(name.sun_path, shorter.size());
        return true;
    }
    const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&name); }
};

bool IsOfDescriptors(int error) noexcept {
    return error == EMFILE || error == ENFILE;
}

Descriptor NewSocket(int flags) {
    return Descriptor(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0));
}

}  // namespace

std::string ServiceManagerSocket() {
    if (std::string path = Variable(ServiceManagerVariable); !path.empty()) return path;
    const std::string root = Variable(L"TQLIB_ROOT");
    return (root.starts_with('/') ? root + "/run" : "/run/tqlib") + "/services.socket";
}

DWORD ConnectToServiceManager(const std::string& path, Descriptor& connection) {
    Address address;
    Descriptor made = NewSocket(0);
    if (!made) return IsOfDescriptors(errno) ? ERROR_TOO_MANY_OPEN_FILES : ERROR_NO_SYSTEM_RESOURCES;
    // A manager that does not take connections is as good as none.
    setsockopt(made.Get(), SOL_SOCKET, SO_SNDTIMEO, &ConnectLimit, sizeof ConnectLimit);
    if (!address.Set(path) ||
        Retry([&] { return connect(made.Get(), address.Get(), sizeof address.name); }) != 0) {
        if (IsOfDescriptors(errno)) return ERROR_TOO_MANY_OPEN_FILES;
        if (errno == EAGAIN) return WAIT_TIMEOUT;
        return errno == EACCES ? ERROR_ACCESS_DENIED : RPC_S_SERVER_UNAVAILABLE;
    }
    connection = std::move(made);
    return ERROR_SUCCESS;
}

DWORD ListenAsServiceManager(const std::string& path, Descriptor& listener) {
    Address address;
    Descriptor made = NewSocket(SOCK_NONBLOCK);
    if (!made || !address.Set(path)) return ERROR_PATH_NOT_FOUND;
    unlink(address.name.sun_path);
    // Everybody may connect; the manager asks the kernel who it is.
    if (bind(made.Get(), address.Get(), sizeof address.name) != 0 ||
        chmod(address.name.sun_path, 0666) != 0 || listen(made.Get(), SOMAXCONN) != 0)
        return errno == EACCES ? ERROR_ACCESS_DENIED : ERROR_PATH_NOT_FOUND;
    listener = std::move(made);
    return ERROR_SUCCESS;
}

DWORD SendPacket(int connection, std::string_view packet) noexcept {
    if (packet.size() > MostServiceMessageBytes) return ERROR_INVALID_DATA;
    const ssize_t sent = Retry([&] { return send(connection, packet.data(), packet.size(), MSG_NOSIGNAL); });
    return sent < 0 ? RPC_S_SERVER_UNAVAILABLE : ERROR_SUCCESS;
}

DWORD ReceivePacket(int connection, std::string& packet) {
    char buffer[MostServiceMessageBytes];
    const ssize_t size = Retry([&] { return recv(connection, buffer, sizeof buffer, MSG_TRUNC); });
    if (size < 0 && errno == EAGAIN) return WAIT_TIMEOUT;
    if (size <= 0) return RPC_S_SERVER_UNAVAILABLE;
    if (static_cast<std::size_t>(size) > sizeof buffer) return ERROR_INVALID_DATA;
    packet.assign(buffer, static_cast<std::size_t>(size));
    return ERROR_SUCCESS;
}

}  // namespace Quellan::Platform
