// What a handle of the service manager or of a service names: a connection to the manager.
#pragma once

#include "TQLib/platform/linux/base/Descriptor.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/HandleTable.h"
#include "TQLib/platform/linux/base/Lock.h"
#include "TQLib/platform/linux/services/ServiceMessages.h"

#include <memory>

namespace Quellan::Platform {

// Answers are waited for as long as the manager answers others: one that says nothing for 15 seconds, and then
// nothing on a new connection for as long again, counts as gone. A call that finds the connection taken by
// another thread's makes one of its own. All of it may throw std::bad_alloc.
class ServiceClient {
  public:
    // Connects, and says with `opening` what the handle is for. 1722 (RPC_S_SERVER_UNAVAILABLE), or what the
    // manager answers.
    template <class Opening>
    static DWORD Open(const Opening& opening, std::unique_ptr<ServiceClient>& client) {
        return Open(FormatMessage(opening), client);
    }

    // What the manager has granted.
    DWORD Access() const noexcept { return m_access; }

    // 1722 where the manager that the handle was opened at has ended or says nothing, 1728 (RPC_S_PROTOCOL_ERROR) for an
    // answer that is none, 87 (ERROR_INVALID_PARAMETER) for a question that is too long.
    template <class Request, class Answer>
    DWORD Ask(const Request& request, Answer& answer) {
        std::string packet = FormatMessage(request);
        const DWORD code = Exchange(packet);
        return code ? code : Read(packet, answer);
    }
    // Where nothing but a code is answered.
    template <class Request>
    DWORD Ask(const Request& request) {
        ReplyMessage reply;
        const DWORD code = Ask(request, reply);
        return code ? code : reply.code;
    }

    // On a connection of its own, which is closed after `ms` milliseconds: 258 (WAIT_TIMEOUT) then. The question
    // must be one that can be dropped.
    template <class Request, class Answer>
    DWORD AskAside(const Request& request, Answer& answer, DWORD ms) {
        std::string packet = FormatMessage(request);
        const DWORD code = ExchangeAside(packet, ms);
        return code ? code : Read(packet, answer);
    }

    // From now on another thread's connection is opened with this.
    template <class Opening>
    void SetOpening(const Opening& opening) {
        m_opening = FormatMessage(opening);
    }

  private:
    ServiceClient(Descriptor connection, std::string opening, DWORD access)
        : m_opening(std::move(opening)), m_access(access), m_connection(std::move(connection)) {}
    static DWORD Open(std::string opening, std::unique_ptr<ServiceClient>& client);
    // The packet becomes the answer.
    DWORD Exchange(std::string& packet);
    DWORD ExchangeAside(std::string& packet, DWORD ms);
    template <class Answer>
    static DWORD Read(const std::string& packet, Answer& answer) {
        if (ParseMessage(packet, answer)) return ERROR_SUCCESS;
        ReplyMessage reply;
        const bool isFailure = ParseMessage(packet, reply) && reply.code != ERROR_SUCCESS;
        return isFailure ? reply.code : RPC_S_PROTOCOL_ERROR;
    }

    std::string m_opening;
    const DWORD m_access;
    PlainLock m_lock;  // while a question is asked
    const Descriptor m_connection TQ_GUARDED_BY(m_lock);
};

// The two kinds of handles.
template <const char* name>
class ServiceClientObject : public Object {
  public:
    static constexpr ObjectKind Kind{.name = name, .closedByCloseHandle = false};

    explicit ServiceClientObject(std::unique_ptr<ServiceClient> client)
        : Object(Kind), m_client(std::move(client)) {}
    ServiceClient& Client() const noexcept { return *m_client; }

  private:
    const std::unique_ptr<ServiceClient> m_client;
};
inline constexpr char ManagerHandleName[] = "service manager";
inline constexpr char ServiceHandleName[] = "service";
using ManagerHandle = ServiceClientObject<ManagerHandleName>;
using ServiceHandle = ServiceClientObject<ServiceHandleName>;

// Calls `use` with what the handle names, and sets the last error to what it returns.
template <class Handle, class Use>
BOOL WithServiceHandle(SC_HANDLE handle, Use use) noexcept {
    const DWORD code = WithMemory([&]() -> DWORD {
        const HandleRef<Handle> client(handle);
        return client ? use(client->Client()) : ERROR_INVALID_HANDLE;
    });
    return code ? Fail(code, FALSE) : TRUE;
}

}  // namespace Quellan::Platform
