// Those who ask: their handles, what they may do, and what they are answered.
#pragma once

#include "Records.h"
#include "Supervisor.h"
#include "TQLib/platform/Win32.h"

namespace tqscm {

// Each asks one thing at a time and is answered in a time that has a limit, whoever else does not.
class Requests {
  public:
    Requests(EventLoop& loop, const Settings& settings, ServiceTable& table, Supervisor& supervisor,
             Records& records);
    ~Requests();

    void OnConnection(Descriptor socket);
    // Serves those who asked before the services were known.
    void OnBegun();
    // Answers those who wait for another state or check point of the service.
    void OnSeen(const Service& service);

  private:
    class Client;

    // Who waits for an answer; nobody once it has one, or its connection has ended.
    struct Asker {
        std::weak_ptr<Client> client;
        unsigned question = 0;

        std::shared_ptr<Client> Get() const;
    };

    // These return the code to answer unless they have answered, or ERROR_IO_PENDING where that comes later.
    DWORD Serve(Client& client, const std::string& packet);
    DWORD ServeNew(Client& client, const std::string& packet);
    DWORD ServeManagerHandle(Client& client, const std::string& packet);
    DWORD ServeServiceHandle(Client& client, Service& service, const std::string& packet);
    // As the one kind of message that `serve` takes.
    template <class Message, class... Of>
    DWORD As(DWORD (Requests::*serve)(Client&, const Message&, Of&...), const std::string& packet,
             Client& client, Of&... of);

    DWORD Attach(Client& client, const AttachMessage& message);
    DWORD OpenManager(Client& client, const OpenManagerMessage& request);
    DWORD OpenService(Client& client, const OpenServiceMessage& request);
    DWORD Create(Client& client, const CreateServiceMessage& request);
    DWORD List(Client& client, const EnumServicesMessage& request);
    DWORD AnswerName(Client& client, const FindNameMessage& request);
    DWORD AnswerStatus(Client& client, const QueryStatusMessage&, Service& service);
    DWORD AnswerConfig(Client& client, const QueryConfigMessage&, Service& service);
    DWORD Await(Client& client, const AwaitChangeMessage& request, Service& service);
    DWORD Start(Client& client, const StartServiceMessage& request, Service& service);
    DWORD Control(Client& client, const ControlServiceMessage& request, Service& service);
    DWORD Kill(Client& client, const KillServiceMessage&, Service& service);
    DWORD Change(Client& client, const ChangeServiceMessage& request, Service& service);
    DWORD Delete(Client& client, const DeleteServiceMessage&, Service& service);
    DWORD ListDependents(Client& client, const EnumDependentsMessage& request, Service& service);
    void BecomeHandle(Client& client, Service& service, DWORD access);

    void OnMessage(Client& client, const std::string& packet);
    void End(Client& client);
    static bool IsTrusted(const Client& client);
    static Asker AskerOf(Client& client);
    // Answers with a code once it is known.
    static std::function<void(DWORD)> AnswerTo(Client& client);

    EventLoop& m_loop;
    const Settings& m_settings;
    ServiceTable& m_table;
    Supervisor& m_supervisor;
    Records& m_records;
    std::map<const Client*, std::shared_ptr<Client>> m_clients;
    std::map<std::string, std::set<Client*>> m_watching;  // by the service's key
};

}  // namespace tqscm
