// A handle of the service manager whose holder says what it likes, when it likes.
#pragma once

#include "TQLib/platform/Win32.h"
#include "TQLib/platform/linux/services/ServiceMessages.h"
#include "TQLib/platform/linux/services/ServiceSocket.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

namespace Quellan::Corvel::Test {

class RawServiceHandle {
  public:
    explicit RawServiceHandle(const std::string& socket)
        : RawServiceHandle(
              socket, Platform::OpenManagerMessage{Platform::ServiceProtocolVersion, SC_MANAGER_ALL_ACCESS}) {
    }
    RawServiceHandle(const std::string& socket, const std::string& service)
        : RawServiceHandle(socket, Platform::OpenServiceMessage{Platform::ServiceProtocolVersion,
                                                                SERVICE_ALL_ACCESS, service}) {}

    template <class Message>
    void Say(const Message& message) const {
        const std::string packet = Platform::FormatMessage(message);
        send(m_connection.Get(), packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    template <class Message>
    DWORD Ask(const Message& message) const {
        std::string packet;
        Platform::ReplyMessage reply{ERROR_INVALID_DATA};
        Say(message);
        if (const DWORD code = Platform::ReceivePacket(m_connection.Get(), packet)) return code;
        Platform::ParseMessage(packet, reply);
        return reply.code;
    }
    bool HasEnded() const {
        pollfd ended{.fd = m_connection.Get(), .events = 0, .revents = 0};
        return poll(&ended, 1, 0) == 1 && (ended.revents & POLLHUP);
    }

  private:
    template <class Opening>
    RawServiceHandle(const std::string& socket, const Opening& opening) {
        std::string packet;
        EXPECT_EQ(Platform::ConnectToServiceManager(socket, m_connection), 0u);
        EXPECT_EQ(Platform::SendPacket(m_connection.Get(), Platform::FormatMessage(opening)), 0u);
        EXPECT_EQ(Platform::ReceivePacket(m_connection.Get(), packet), 0u);
    }

    Platform::Descriptor m_connection;
};

}  // namespace Quellan::Corvel::Test
