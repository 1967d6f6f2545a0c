#include "TQLib/platform/linux/services/ServiceClient.h"

#include "TQLib/platform/linux/objects/Waits.h"
#include "TQLib/platform/linux/services/ServiceSocket.h"

#include <sys/socket.h>

namespace Quellan::Platform {

namespace {

// In which a manager answers something, if not what was asked.
constexpr DWORD AnswerLimitMs = 15'000;

// At least 1 ms; INFINITE for none.
void LimitReceiving(const Descriptor& connection, DWORD ms) {
    const timeval limit = {.tv_sec = ms / 1000, .tv_usec = ms % 1000 * 1000};
    const timeval none{};
    setsockopt(connection.Get(), SOL_SOCKET, SO_RCVTIMEO, ms == INFINITE ? &none : &limit, sizeof limit);
}

DWORD Connect(Descriptor& connection) {
    if (DWORD code = ConnectToServiceManager(ServiceManagerSocket(), connection)) return code;
    LimitReceiving(connection, AnswerLimitMs);
    return ERROR_SUCCESS;
}

// Whether the manager still does something: it takes a new connection and answers what is said on it. What
// keeps this process from asking tells nothing of the manager.
bool IsManagerAlive() {
    Descriptor connection;
    DWORD code = Connect(connection);
    if (code) return code != WAIT_TIMEOUT;
    std::string packet = FormatMessage(OpenManagerMessage());
    code = SendPacket(connection.Get(), packet);
    if (!code) code = ReceivePacket(connection.Get(), packet);
    return code != WAIT_TIMEOUT;
}

DWORD SendAndReceive(const Descriptor& connection, std::string& packet) {
    if (packet.size() > MostServiceMessageBytes) return ERROR_INVALID_PARAMETER;
    if (DWORD code = SendPacket(connection.Get(), packet)) return code;
    // What takes long has limits of the manager's own.
    DWORD code = WAIT_TIMEOUT;
    while ((code = ReceivePacket(connection.Get(), packet)) == WAIT_TIMEOUT) {
        if (IsManagerAlive()) continue;
        // An answer that comes after all would be taken for that of the next question.
        shutdown(connection.Get(), SHUT_RDWR);
        return RPC_S_SERVER_UNAVAILABLE;
    }
    return code == ERROR_INVALID_DATA ? RPC_S_PROTOCOL_ERROR : code;
}

DWORD Connect(std::string opening, Descriptor& connection, DWORD& access) {
    if (DWORD code = Connect(connection)) return code == WAIT_TIMEOUT ? RPC_S_SERVER_UNAVAILABLE : code;
    if (DWORD code = SendAndReceive(connection, opening)) return code;
    OpenReplyMessage opened;
    ReplyMessage failure{RPC_S_PROTOCOL_ERROR};
    if (ParseMessage(opening, opened)) {
        access = opened.access;
        return ERROR_SUCCESS;
    }
    return ParseMessage(opening, failure) && failure.code ? failure.code : RPC_S_PROTOCOL_ERROR;
}

}  // namespace

DWORD ServiceClient::Open(std::string opening, std::unique_ptr<ServiceClient>& client) {
    Descriptor connection;
    DWORD access = 0;
    if (DWORD code = Connect(opening, connection, access)) return code;
    client.reset(new ServiceClient(std::move(connection), std::move(opening), access));
    return ERROR_SUCCESS;
}

DWORD ServiceClient::Exchange(std::string& packet) {
    if (m_lock.try_lock()) {
        const Guard lock(m_lock, std::adopt_lock);
        return SendAndReceive(m_connection, packet);
    }
    Descriptor connection;
    DWORD access = 0;
    const DWORD code = Connect(m_opening, connection, access);
    return code ? code : SendAndReceive(connection, packet);
}

DWORD ServiceClient::ExchangeAside(std::string& packet, DWORD ms) {
    if (ms == 0) return WAIT_TIMEOUT;
    Descriptor connection;
    DWORD access = 0;
    if (DWORD code = Connect(m_opening, connection, access)) return code;
    LimitReceiving(connection, ms);
    const DWORD code = SendPacket(connection.Get(), packet);
    return code ? code : ReceivePacket(connection.Get(), packet);
}

}  // namespace Quellan::Platform
