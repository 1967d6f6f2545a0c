// The local socket of the service manager.
#pragma once

#include "TQLib/platform/linux/base/Base.h"
#include "TQLib/platform/linux/base/Descriptor.h"

#include <string>
#include <string_view>

namespace Quellan::Platform {

// Names the manager's socket, to everybody who asks for services.
constexpr const wchar_t* ServiceManagerVariable = L"TQLIB_SERVICE_MANAGER";
// Set in a process that the manager has started, and not inherited any further.
constexpr const wchar_t* ServiceProcessVariable = L"TQLIB_SERVICE_PROCESS";

// All of these may throw std::bad_alloc.

// What the environment says, or the default.
std::string ServiceManagerSocket();

// A connection, blocking. 1722 (RPC_S_SERVER_UNAVAILABLE) where nobody listens, 258 (WAIT_TIMEOUT) where it was
// not taken in 30 seconds.
DWORD ConnectToServiceManager(const std::string& path, Descriptor& connection);

// The manager's own side: a socket that is bound and listens, in place of whatever lies there.
DWORD ListenAsServiceManager(const std::string& path, Descriptor& listener);

// One packet. 1722 where the other end has gone away, 13 (ERROR_INVALID_DATA) for one longer than a message
// can be, 258 (WAIT_TIMEOUT) where the connection has a limit for receiving.
DWORD SendPacket(int connection, std::string_view packet) noexcept;
DWORD ReceivePacket(int connection, std::string& packet);

}  // namespace Quellan::Platform
