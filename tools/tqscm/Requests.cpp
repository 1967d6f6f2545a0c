#include "Requests.h"

#include "Rights.h"
#include "TQLib/platform/Win32.h"

#include <algorithm>
#include <exception>

namespace tqscm {

namespace {

// Of all connections of one user who is not trusted.
constexpr std::size_t MostLinksOfAStranger = 128;
// Room for what is beside the list.
constexpr std::size_t MostListBytes = MostServiceMessageBytes - 4096;
// How many times the limit of a handler a question may wait for its answer: a start waits for dependencies,
// for its own program and for its own handler. After that it goes on, but who asked is told that it takes too
// long.
constexpr int MostLimits = 3;

// A list that one message can hold; what does not fit is asked for anew.
class Part {
  public:
    // False where it is full.
    bool Add(ListedService service) {
        m_size += service.name.size() + service.displayName.size() + sizeof service.status + 12;
        m_reply.goesOn = m_size > MostListBytes;
        if (!m_reply.goesOn) m_reply.services.push_back(std::move(service));
        return !m_reply.goesOn;
    }
    const EnumReplyMessage& Reply() const { return m_reply; }

  private:
    EnumReplyMessage m_reply;
    std::size_t m_size = 0;
};

bool Restarts(const ServiceChange& change) {
    return change.failure && std::ranges::any_of(change.failure->actions, [](const FailureAction& action) {
               return action.type == SC_ACTION_RESTART;
           });
}

DWORD ProcessIdOf(const Service& service) {
    return service.process ? static_cast<DWORD>(service.process->id.pid) : 0;
}

std::string StatusReply(DWORD code, const Service& service) {
    return FormatMessage(StatusReplyMessage{code, service.status, ProcessIdOf(service)});
}

}  // namespace

// Somebody's connection: a handle, once it has said of what.
class Requests::Client : public LinkOwner, public std::enable_shared_from_this<Client> {
  public:
    enum class Role { New, Manager, Service };

    Client(Requests& requests, EventLoop& loop, Descriptor socket)
        : link(&Link::Watch(loop, *this, std::move(socket), requests.m_settings.requestLimit)),
          limit(loop),
          m_requests(requests) {}
    ~Client() override {
        if (link) link->Close();
    }

    void OnMessage(Link&, const std::string& packet) override { m_requests.OnMessage(*this, packet); }
    void OnEnd(Link&) override { m_requests.End(*this); }

    bool May(DWORD rights) const { return (access & rights) == rights; }
    void Answer(std::string packet) {
        isWaiting = false;
        limit.Cancel();
        link->Send(std::move(packet));
        link->GoOn();
    }
    void AnswerCode(DWORD code) { Answer(FormatMessage(ReplyMessage{code})); }

    Link* link;  // null once it is somebody else's
    Role role = Role::New;
    DWORD access = 0;
    std::string service;    // the key of the handle's service
    unsigned question = 0;  // counted
    bool isWaiting = false;
    std::string held;  // a message that is served later
    Timer limit;

  private:
    Requests& m_requests;
};

Requests::Requests(EventLoop& loop, const Settings& settings, ServiceTable& table, Supervisor& supervisor,
                   Records& records)
    : m_loop(loop), m_settings(settings), m_table(table), m_supervisor(supervisor), m_records(records) {}

Requests::~Requests() = default;

// Root and the manager's own user.
bool Requests::IsTrusted(const Client& client) {
    return client.link->User() == 0 || client.link->User() == geteuid();
}

void Requests::OnConnection(Descriptor socket) {
    const auto client = std::make_shared<Client>(*this, m_loop, std::move(socket));
    const auto ofUser = std::ranges::count_if(
        m_clients, [&](const auto& other) { return other.first->link->User() == client->link->User(); });
    if (IsTrusted(*client) || static_cast<std::size_t>(ofUser) < MostLinksOfAStranger)
        m_clients.emplace(client.get(), client);
}

void Requests::End(Client& client) {
    const auto ended = m_clients.extract(&client);
    if (const auto watching = m_watching.find(client.service); watching != m_watching.end())
        if (watching->second.erase(&client); watching->second.empty()) m_watching.erase(watching);
    Service* const service = client.role == Client::Role::Service ? m_table.Find(client.service) : nullptr;
    if (!service) return;
    --service->handles;
    m_records.Delete(*service);
}

void Requests::OnBegun() {
    std::vector<std::shared_ptr<Client>> held;
    for (const auto& [key, client] : m_clients)
        if (!client->held.empty()) held.push_back(client);
    for (const auto& client : held) {
        client->link->GoOn();
        OnMessage(*client, std::exchange(client->held, {}));
    }
}

void Requests::OnMessage(Client& client, const std::string& packet) {
    const auto kept = client.shared_from_this();
    try {
        // Until the processes of an earlier manager are back, nobody could be told the truth.
        if (!m_supervisor.HaveBegun() && KindOfMessage(packet) != ServiceMessage::Attach) {
            client.held = packet;
            return client.link->Hold();
        }
        client.isWaiting = true;
        ++client.question;
        const DWORD code = Serve(client, packet);
        if (!client.isWaiting) return;
        if (code != ERROR_IO_PENDING) return client.AnswerCode(code);
        client.link->Hold();
        // A change may come at any time, or never.
        if (KindOfMessage(packet) == ServiceMessage::AwaitChange) return;
        client.limit.Set(MostLimits * m_settings.requestLimit,
                         [&client] { client.AnswerCode(ERROR_SERVICE_REQUEST_TIMEOUT); });
    } catch (const std::exception&) {
        // It hears that it has no manager, rather than nothing.
        End(client);
    }
}

// Null where nobody waits for this answer any more.
std::shared_ptr<Requests::Client> Requests::Asker::Get() const {
    auto waiting = client.lock();
    return waiting && waiting->isWaiting && waiting->question == question ? waiting : nullptr;
}

Requests::Asker Requests::AskerOf(Client& client) {
    return {client.weak_from_this(), client.question};
}

std::function<void(DWORD)> Requests::AnswerTo(Client& client) {
    return [asker = AskerOf(client)](DWORD code) {
        if (const auto waiting = asker.Get()) waiting->AnswerCode(code);
    };
}

void Requests::BecomeHandle(Client& client, Service& service, DWORD access) {
    client.role = Client::Role::Service;
    client.access = access;
    client.service = service.key;
    ++service.handles;
    client.Answer(FormatMessage(OpenReplyMessage{access}));
}

DWORD Requests::Serve(Client& client, const std::string& packet) {
    if (client.role == Client::Role::New) return ServeNew(client, packet);
    if (client.role == Client::Role::Manager) return ServeManagerHandle(client, packet);
    Service* const service = m_table.Find(client.service);
    return service ? ServeServiceHandle(client, *service, packet) : ERROR_SERVICE_DOES_NOT_EXIST;
}

template <class Message, class... Of>
DWORD Requests::As(DWORD (Requests::*serve)(Client&, const Message&, Of&...), const std::string& packet,
                   Client& client, Of&... of) {
    Message message;
    return ParseMessage(packet, message) ? (this->*serve)(client, message, of...) : RPC_S_PROTOCOL_ERROR;
}

DWORD Requests::ServeNew(Client& client, const std::string& packet) {
    switch (KindOfMessage(packet)) {
        case ServiceMessage::Attach:
            return As(&Requests::Attach, packet, client);
        case ServiceMessage::OpenManager:
            return As(&Requests::OpenManager, packet, client);
        case ServiceMessage::OpenService:
            return As(&Requests::OpenService, packet, client);
        case ServiceMessage::CreateService:
            return As(&Requests::Create, packet, client);
        default:
            return RPC_S_PROTOCOL_ERROR;
    }
}

DWORD Requests::ServeManagerHandle(Client& client, const std::string& packet) {
    switch (KindOfMessage(packet)) {
        case ServiceMessage::EnumServices:
            return As(&Requests::List, packet, client);
        case ServiceMessage::FindName:
            return As(&Requests::AnswerName, packet, client);
        default:
            return RPC_S_PROTOCOL_ERROR;
    }
}

DWORD Requests::ServeServiceHandle(Client& client, Service& service, const std::string& packet) {
    switch (KindOfMessage(packet)) {
        case ServiceMessage::QueryStatus:
            return As(&Requests::AnswerStatus, packet, client, service);
        case ServiceMessage::QueryConfig:
            return As(&Requests::AnswerConfig, packet, client, service);
        case ServiceMessage::AwaitChange:
            return As(&Requests::Await, packet, client, service);
        case ServiceMessage::StartService:
            return As(&Requests::Start, packet, client, service);
        case ServiceMessage::ControlService:
            return As(&Requests::Control, packet, client, service);
        case ServiceMessage::KillService:
            return As(&Requests::Kill, packet, client, service);
        case ServiceMessage::ChangeService:
            return As(&Requests::Change, packet, client, service);
        case ServiceMessage::DeleteService:
            return As(&Requests::Delete, packet, client, service);
        case ServiceMessage::EnumDependents:
            return As(&Requests::ListDependents, packet, client, service);
        default:
            return RPC_S_PROTOCOL_ERROR;
    }
}

// The connection becomes the process's.
DWORD Requests::Attach(Client& client, const AttachMessage& message) {
    if (const DWORD code = m_supervisor.Attach(*client.link, message)) return code;
    client.isWaiting = false;
    client.link = nullptr;
    m_clients.erase(&client);
    return ERROR_SUCCESS;
}

DWORD Requests::OpenManager(Client& client, const OpenManagerMessage& request) {
    if (request.version != ServiceProtocolVersion) return RPC_S_PROTOCOL_ERROR;
    const DWORD wanted = request.access | SC_MANAGER_CONNECT;
    DWORD granted = 0;
    if (DWORD code = Grant(ManagerRights, IsTrusted(client), wanted, granted)) return code;
    client.role = Client::Role::Manager;
    client.access = granted;
    client.Answer(FormatMessage(OpenReplyMessage{granted}));
    return ERROR_SUCCESS;
}

DWORD Requests::OpenService(Client& client, const OpenServiceMessage& request) {
    if (request.version != ServiceProtocolVersion) return RPC_S_PROTOCOL_ERROR;
    if (!IsServiceName(request.name)) return ERROR_INVALID_NAME;
    Service* const service = m_table.Find(KeyOf(request.name));
    if (!service) return ERROR_SERVICE_DOES_NOT_EXIST;
    DWORD granted = 0;
    if (DWORD code = Grant(ServiceRights, IsTrusted(client), request.access, granted)) return code;
    BecomeHandle(client, *service, granted);
    return ERROR_SUCCESS;
}

DWORD Requests::Create(Client& client, const CreateServiceMessage& request) {
    if (request.version != ServiceProtocolVersion) return RPC_S_PROTOCOL_ERROR;
    if (!IsTrusted(client)) return ERROR_ACCESS_DENIED;
    DWORD granted = 0;
    if (DWORD code = Grant(ServiceRights, true, request.access, granted)) return code;
    m_records.Create(request.name, request.config,
                     [this, asker = AskerOf(client), key = KeyOf(request.name), granted](DWORD code) {
                         const auto waiting = asker.Get();
                         Service* const service = code ? nullptr : m_table.Find(key);
                         if (waiting && service)
                             BecomeHandle(*waiting, *service, granted);
                         else if (waiting)
                             waiting->AnswerCode(code);
                     });
    return ERROR_IO_PENDING;
}

DWORD Requests::AnswerStatus(Client& client, const QueryStatusMessage&, Service& service) {
    if (!client.May(SERVICE_QUERY_STATUS)) return ERROR_ACCESS_DENIED;
    client.Answer(StatusReply(ERROR_SUCCESS, service));
    return ERROR_SUCCESS;
}

DWORD Requests::AnswerConfig(Client& client, const QueryConfigMessage&, Service& service) {
    if (!client.May(SERVICE_QUERY_CONFIG)) return ERROR_ACCESS_DENIED;
    ConfigReplyMessage reply{service.config};
    if (reply.config.account.empty()) reply.config.account = "LocalSystem";
    client.Answer(FormatMessage(reply));
    return ERROR_SUCCESS;
}

DWORD Requests::Start(Client& client, const StartServiceMessage& request, Service& service) {
    if (!client.May(SERVICE_START)) return ERROR_ACCESS_DENIED;
    const DWORD code = m_supervisor.Start(service, request.arguments, AnswerTo(client));
    return code ? code : ERROR_IO_PENDING;
}

DWORD Requests::Kill(Client& client, const KillServiceMessage&, Service& service) {
    return client.May(SERVICE_STOP) ? m_supervisor.Kill(service) : ERROR_ACCESS_DENIED;
}

DWORD Requests::Change(Client& client, const ChangeServiceMessage& request, Service& service) {
    const DWORD starts = Restarts(request.change) ? SERVICE_START : 0;
    if (!client.May(SERVICE_CHANGE_CONFIG | starts)) return ERROR_ACCESS_DENIED;
    m_records.Change(service.key, request.change, AnswerTo(client));
    return ERROR_IO_PENDING;
}

DWORD Requests::Delete(Client& client, const DeleteServiceMessage&, Service& service) {
    if (!client.May(DELETE)) return ERROR_ACCESS_DENIED;
    m_records.Mark(service.key, [this, key = service.key, answer = AnswerTo(client)](DWORD code) {
        Service* const marked = code ? nullptr : m_table.Find(key);
        if (marked) m_supervisor.Mark(*marked);
        answer(code);
    });
    return ERROR_IO_PENDING;
}

DWORD Requests::List(Client& client, const EnumServicesMessage& request) {
    if (!client.May(SC_MANAGER_ENUMERATE_SERVICE)) return ERROR_ACCESS_DENIED;
    if (!request.type || !request.state || (request.state & ~SERVICE_STATE_ALL))
        return ERROR_INVALID_PARAMETER;
    Part part;
    const auto& all = m_table.All();
    for (auto it = all.upper_bound(KeyOf(request.after)); it != all.end(); ++it) {
        const Service& service = *it->second;
        const DWORD state = service.IsActive() ? SERVICE_ACTIVE : SERVICE_INACTIVE;
        if (service.isGoing || !(service.config.type & request.type) || !(state & request.state)) continue;
        if (request.group && KeyOf(*request.group) != KeyOf(service.config.group)) continue;
        if (!part.Add({service.name, service.config.displayName, service.status, ProcessIdOf(service)}))
            break;
    }
    client.Answer(FormatMessage(part.Reply()));
    return ERROR_SUCCESS;
}

DWORD Requests::ListDependents(Client& client, const EnumDependentsMessage& request, Service& service) {
    if (!client.May(SERVICE_ENUMERATE_DEPENDENTS)) return ERROR_ACCESS_DENIED;
    if (!request.state || (request.state & ~SERVICE_STATE_ALL)) return ERROR_INVALID_PARAMETER;
    Part part;
    DWORD index = 0;
    for (const Service* const dependent : m_table.DependentsOf(service)) {
        const DWORD state = dependent->IsActive() ? SERVICE_ACTIVE : SERVICE_INACTIVE;
        if (!(state & request.state) || index++ < request.skipped) continue;
        if (!part.Add({dependent->name, dependent->config.displayName, dependent->status, 0})) break;
    }
    client.Answer(FormatMessage(part.Reply()));
    return ERROR_SUCCESS;
}

DWORD Requests::AnswerName(Client& client, const FindNameMessage& request) {
    const std::string key = KeyOf(request.name);
    const auto found = std::ranges::find_if(m_table.All(), [&](const auto& entry) {
        return !entry.second->isGoing &&
               (request.byDisplayName ? entry.second->displayKey : entry.first) == key;
    });
    if (found == m_table.All().end()) return ERROR_SERVICE_DOES_NOT_EXIST;
    const Service& service = *found->second;
    client.Answer(
        FormatMessage(NameReplyMessage{request.byDisplayName ? service.name : service.config.displayName}));
    return ERROR_SUCCESS;
}

DWORD Requests::Await(Client& client, const AwaitChangeMessage& request, Service& service) {
    if (!client.May(SERVICE_QUERY_STATUS)) return ERROR_ACCESS_DENIED;
    if (service.status.dwCurrentState == request.state && service.status.dwCheckPoint == request.checkPoint) {
        m_watching[service.key].insert(&client);
        return ERROR_IO_PENDING;
    }
    client.Answer(StatusReply(ERROR_SUCCESS, service));
    return ERROR_SUCCESS;
}

void Requests::OnSeen(const Service& service) {
    const auto watching = m_watching.extract(service.key);
    if (watching.empty()) return;
    for (Client* const client : watching.mapped())
        client->Answer(StatusReply(ERROR_SUCCESS, service));
}

// Answered with the status it has then, whatever the code.
DWORD Requests::Control(Client& client, const ControlServiceMessage& request, Service& service) {
    const DWORD access = AccessFor(request.control);
    if (!access) return ERROR_INVALID_PARAMETER;
    if (!client.May(access)) return ERROR_ACCESS_DENIED;
    const DWORD code = m_supervisor.Control(
        service, request.control, [this, asker = AskerOf(client), key = service.key](DWORD answer) {
            const auto waiting = asker.Get();
            const Service* const asked = waiting ? m_table.Find(key) : nullptr;
            if (asked) waiting->Answer(StatusReply(answer, *asked));
        });
    if (!code) return ERROR_IO_PENDING;
    client.Answer(StatusReply(code, service));
    return ERROR_SUCCESS;
}

}  // namespace tqscm
