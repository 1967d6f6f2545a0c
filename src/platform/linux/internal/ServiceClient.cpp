#include "platform/linux/internal/ServiceClient.h"

#include "platform/linux/internal/ServiceSocket.h"

namespace Quellan::Corvel::Platform {

namespace {

DWORD SendAndReceive(const Descriptor& connection, std::string& packet) {
    if (packet.size() > MostServiceMessageBytes) return ERROR_INVALID_PARAMETER;
    if (DWORD code = SendPacket(connection.Get(), packet)) return code;
    const DWORD code = ReceivePacket(connection.Get(), packet);
    return code == ERROR_INVALID_DATA ? RPC_S_PROTOCOL_ERROR : code;
}

DWORD Connect(std::string opening, Descriptor& connection, DWORD& access) {
    if (DWORD code = ConnectToServiceManager(ServiceManagerSocket(), connection)) return code;
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
    const std::unique_lock lock(m_lock, std::try_to_lock);
    if (lock) return SendAndReceive(m_connection, packet);
    Descriptor connection;
    DWORD access = 0;
    const DWORD code = Connect(m_opening, connection, access);
    return code ? code : SendAndReceive(connection, packet);
}

}  // namespace Quellan::Corvel::Platform
