// Those who ask, and what they are answered.
#include "Manager.h"

#include <algorithm>

namespace tqscm {

namespace {

// Of all connections of one user who is not trusted.
constexpr std::size_t MostLinksOfAStranger = 128;
// Room for what is beside the list.
constexpr std::size_t MostListBytes = MostServiceMessageBytes - 4096;

// What everybody may ask for, and what the generic rights stand for: to read, write, execute, all.
struct Rights {
    DWORD all;
    DWORD everybodys;
    DWORD generic[4];
};
constexpr Rights ManagerRights = {
    .all = SC_MANAGER_ALL_ACCESS,
    .everybodys =
        SC_MANAGER_CONNECT | SC_MANAGER_ENUMERATE_SERVICE | SC_MANAGER_QUERY_LOCK_STATUS | READ_CONTROL,
    .generic = {SC_MANAGER_ENUMERATE_SERVICE | SC_MANAGER_QUERY_LOCK_STATUS | READ_CONTROL,
                SC_MANAGER_CREATE_SERVICE | SC_MANAGER_MODIFY_BOOT_CONFIG | READ_CONTROL,
                SC_MANAGER_CONNECT | SC_MANAGER_LOCK | READ_CONTROL, SC_MANAGER_ALL_ACCESS}};
constexpr Rights ServiceRights = {
    .all = SERVICE_ALL_ACCESS,
    .everybodys = SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS | SERVICE_ENUMERATE_DEPENDENTS |
                  SERVICE_INTERROGATE | READ_CONTROL,
    .generic = {
        SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS | SERVICE_ENUMERATE_DEPENDENTS | SERVICE_INTERROGATE |
            READ_CONTROL,
        SERVICE_CHANGE_CONFIG | READ_CONTROL,
        SERVICE_START | SERVICE_STOP | SERVICE_PAUSE_CONTINUE | SERVICE_USER_DEFINED_CONTROL | READ_CONTROL,
        SERVICE_ALL_ACCESS}};

DWORD Grant(const Rights& rights, bool isTrusted, DWORD wanted, DWORD& granted) {
    constexpr DWORD Generic[] = {GENERIC_READ, GENERIC_WRITE, GENERIC_EXECUTE, GENERIC_ALL};
    const DWORD allowed = isTrusted ? rights.all : rights.everybodys;
    granted = wanted & ~(MAXIMUM_ALLOWED | GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL);
    for (std::size_t i = 0; i < std::size(Generic); ++i)
        if (wanted & Generic[i]) granted |= rights.generic[i];
    if (granted & ~allowed) return ERROR_ACCESS_DENIED;
    if (wanted & MAXIMUM_ALLOWED) granted = allowed;
    return ERROR_SUCCESS;
}

// The right that a control needs; none for one that cannot be sent.
DWORD AccessFor(DWORD control) {
    switch (control) {
        case SERVICE_CONTROL_STOP:
            return SERVICE_STOP;
        case SERVICE_CONTROL_INTERROGATE:
            return SERVICE_INTERROGATE;
        case SERVICE_CONTROL_PAUSE:
        case SERVICE_CONTROL_CONTINUE:
        case SERVICE_CONTROL_PARAMCHANGE:
        case SERVICE_CONTROL_NETBINDADD:
        case SERVICE_CONTROL_NETBINDREMOVE:
        case SERVICE_CONTROL_NETBINDENABLE:
        case SERVICE_CONTROL_NETBINDDISABLE:
            return SERVICE_PAUSE_CONTINUE;
        default:
            return control >= 128 && control <= 255 ? SERVICE_USER_DEFINED_CONTROL : 0;
    }
}

// What the service must accept for it; nothing for those that always are.
DWORD AcceptanceOf(DWORD control) {
    switch (control) {
        case SERVICE_CONTROL_STOP:
            return SERVICE_ACCEPT_STOP;
        case SERVICE_CONTROL_PAUSE:
        case SERVICE_CONTROL_CONTINUE:
            return SERVICE_ACCEPT_PAUSE_CONTINUE;
        case SERVICE_CONTROL_PARAMCHANGE:
            return SERVICE_ACCEPT_PARAMCHANGE;
        case SERVICE_CONTROL_NETBINDADD:
        case SERVICE_CONTROL_NETBINDREMOVE:
        case SERVICE_CONTROL_NETBINDENABLE:
        case SERVICE_CONTROL_NETBINDDISABLE:
            return SERVICE_ACCEPT_NETBINDCHANGE;
        default:
            return 0;
    }
}

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

}  // namespace

// Root and the manager's own user.
bool Manager::IsTrusted(const Link& link) const {
    return link.User() == 0 || link.User() == geteuid();
}

void Manager::OnConnection(Descriptor socket) {
    const int fd = socket.Get();
    Link& link = Link::Watch(m_loop, *this, std::move(socket));
    const auto ofUser = std::ranges::count_if(
        m_links, [&](const auto& other) { return other.second->User() == link.User(); });
    if (!IsTrusted(link) && static_cast<std::size_t>(ofUser) >= MostLinksOfAStranger)
        return m_loop.Forget(fd, link);
    m_links.emplace(fd, &link);
}

void Manager::OnEnd(Link& link) {
    m_links.erase(link.Fd());
    if (Process* const process = ProcessOf(link)) Detach(*process);
    for (auto& [pid, process] : m_processes)
        for (Command& command : process->commands)
            if (command.asker == link.Fd()) command.asker = -1;
    for (auto& [key, service] : m_services)
        if (service->starter == link.Fd()) service->starter = -1;
    Service* const service = link.role == Link::Role::Service ? Find(link.service) : nullptr;
    m_loop.Forget(link.Fd(), link);
    if (!service) return;
    --service->handles;
    DeleteIfUnused(*service);
}

void Manager::OnMessage(Link& link, const std::string& packet) {
    if (link.role == Link::Role::Process) {
        if (Process* const process = ProcessOf(link)) ServeProcess(*process, packet);
        return;
    }
    // Until the processes of an earlier manager are back, nobody could be told the truth.
    const bool mustWait =
        std::ranges::any_of(m_processes, [](const auto& process) { return process.second->isExpected; });
    if (mustWait && KindOfMessage(packet) != ServiceMessage::Attach) {
        link.held = packet;
        return link.Hold();
    }
    link.isWaiting = true;
    DWORD code = ERROR_SUCCESS;
    if (link.role == Link::Role::New) {
        code = ServeNew(link, packet);
    } else if (link.role == Link::Role::Manager) {
        code = ServeManagerHandle(link, packet);
    } else {
        code = ServeServiceHandle(link, *Find(link.service), packet);
    }
    if (code != ERROR_IO_PENDING && link.isWaiting) Answer(link.Fd(), FormatMessage(ReplyMessage{code}));
    if (link.isWaiting) link.Hold();
}

void Manager::Answer(int asker, std::string packet) {
    const auto found = m_links.find(asker);
    if (found == m_links.end()) return;
    found->second->isWaiting = false;
    found->second->Send(std::move(packet));
    found->second->GoOn();
}

void Manager::AnswerStatus(int asker, DWORD code, const Service& service) {
    const DWORD pid = service.process ? static_cast<DWORD>(service.process->id.pid) : 0;
    Answer(asker, FormatMessage(StatusReplyMessage{code, service.status, pid}));
}

void Manager::BecomeHandle(Link& link, Service& service, DWORD access) {
    link.role = Link::Role::Service;
    link.access = access;
    link.service = service.key;
    ++service.handles;
    Answer(link.Fd(), FormatMessage(OpenReplyMessage{access}));
}

// The functions that serve return the code to answer, unless they have answered.

DWORD Manager::ServeNew(Link& link, const std::string& packet) {
    OpenManagerMessage openManager;
    OpenServiceMessage openService;
    CreateServiceMessage create;
    AttachMessage attach;
    DWORD granted = 0;
    if (ParseMessage(packet, attach)) return Attach(link, attach);
    if (ParseMessage(packet, openManager) && openManager.version == ServiceProtocolVersion) {
        const DWORD wanted = openManager.access | SC_MANAGER_CONNECT;
        if (DWORD code = Grant(ManagerRights, IsTrusted(link), wanted, granted)) return code;
        link.role = Link::Role::Manager;
        link.access = granted;
        Answer(link.Fd(), FormatMessage(OpenReplyMessage{granted}));
        return ERROR_SUCCESS;
    }
    if (ParseMessage(packet, openService) && openService.version == ServiceProtocolVersion) {
        if (!IsServiceName(openService.name)) return ERROR_INVALID_NAME;
        Service* const service = Find(KeyOf(openService.name));
        if (!service) return ERROR_SERVICE_DOES_NOT_EXIST;
        if (DWORD code = Grant(ServiceRights, IsTrusted(link), openService.access, granted)) return code;
        BecomeHandle(link, *service, granted);
        return ERROR_SUCCESS;
    }
    if (ParseMessage(packet, create) && create.version == ServiceProtocolVersion)
        return IsTrusted(link) ? Create(link, create) : ERROR_ACCESS_DENIED;
    return RPC_S_PROTOCOL_ERROR;
}

DWORD Manager::ServeManagerHandle(Link& link, const std::string& packet) {
    EnumServicesMessage list;
    FindNameMessage find;
    if (ParseMessage(packet, list)) return List(link, list);
    if (ParseMessage(packet, find)) return AnswerName(link, find);
    return RPC_S_PROTOCOL_ERROR;
}

DWORD Manager::ServeServiceHandle(Link& link, Service& service, const std::string& packet) {
    QueryStatusMessage queryStatus;
    ControlServiceMessage control;
    StartServiceMessage start;
    QueryConfigMessage queryConfig;
    ChangeServiceMessage change;
    DeleteServiceMessage deletion;
    EnumDependentsMessage dependents;
    const auto mayNot = [&](DWORD access) { return (link.access & access) != access; };
    if (ParseMessage(packet, queryStatus)) {
        if (mayNot(SERVICE_QUERY_STATUS)) return ERROR_ACCESS_DENIED;
        AnswerStatus(link.Fd(), ERROR_SUCCESS, service);
        return ERROR_SUCCESS;
    }
    if (ParseMessage(packet, control)) return ControlFor(link, service, control.control);
    if (ParseMessage(packet, start)) {
        if (mayNot(SERVICE_START)) return ERROR_ACCESS_DENIED;
        const DWORD code = BeginStart(service, std::move(start.arguments), link.Fd());
        return code ? code : ERROR_IO_PENDING;
    }
    if (ParseMessage(packet, queryConfig)) {
        if (mayNot(SERVICE_QUERY_CONFIG)) return ERROR_ACCESS_DENIED;
        ConfigReplyMessage reply{service.config};
        if (reply.config.account.empty()) reply.config.account = "LocalSystem";
        Answer(link.Fd(), FormatMessage(reply));
        return ERROR_SUCCESS;
    }
    if (ParseMessage(packet, change)) return Change(link, service, change.change);
    if (ParseMessage(packet, deletion)) return mayNot(DELETE) ? ERROR_ACCESS_DENIED : Delete(service);
    if (ParseMessage(packet, dependents)) {
        if (mayNot(SERVICE_ENUMERATE_DEPENDENTS)) return ERROR_ACCESS_DENIED;
        return ListDependents(link, service, dependents);
    }
    return RPC_S_PROTOCOL_ERROR;
}

DWORD Manager::Create(Link& link, const CreateServiceMessage& request) {
    if (!IsServiceName(request.name)) return ERROR_INVALID_NAME;
    const std::string key = KeyOf(request.name);
    if (const Service* const there = Find(key))
        return there->isMarked ? ERROR_SERVICE_MARKED_FOR_DELETE : ERROR_SERVICE_EXISTS;
    DWORD granted = 0;
    if (DWORD code = Grant(ServiceRights, true, request.access, granted)) return code;
    ServiceConfig config = request.config;
    if (config.displayName.empty()) config.displayName = request.name;
    if (DWORD code = CheckConfig(key, config)) return code;
    if (DWORD code = CreateRecord(request.name, config)) return code;
    auto service = std::make_unique<Service>(m_loop);
    service->key = key;
    service->name = request.name;
    service->config = std::move(config);
    service->status = {service->config.type, SERVICE_STOPPED, 0, ERROR_SERVICE_NEVER_STARTED, 0, 0, 0};
    BecomeHandle(link, *m_services.emplace(key, std::move(service)).first->second, granted);
    return ERROR_SUCCESS;
}

DWORD Manager::Change(Link& link, Service& service, const ServiceChange& change) {
    const DWORD access = SERVICE_CHANGE_CONFIG | (Restarts(change) ? SERVICE_START : 0);
    if ((link.access & access) != access) return ERROR_ACCESS_DENIED;
    if (service.isMarked) return ERROR_SERVICE_MARKED_FOR_DELETE;
    ServiceConfig config = service.config;
    change.ApplyTo(config);
    if (config.displayName.empty()) config.displayName = service.name;
    if (change.delayed.value_or(0) && config.start != SERVICE_AUTO_START) return ERROR_INVALID_PARAMETER;
    if (DWORD code = CheckConfig(service.key, config)) return code;
    if (DWORD code = ChangeRecord(service.name, service.config, config)) return code;
    service.config = std::move(config);
    return ERROR_SUCCESS;
}

DWORD Manager::Delete(Service& service) {
    if (service.isMarked) return ERROR_SERVICE_MARKED_FOR_DELETE;
    if (DWORD code = MarkRecord(service.name)) return code;
    service.isMarked = true;
    service.action.Cancel();
    return ERROR_SUCCESS;
}

DWORD Manager::List(Link& link, const EnumServicesMessage& request) {
    if (!(link.access & SC_MANAGER_ENUMERATE_SERVICE)) return ERROR_ACCESS_DENIED;
    if (!request.type || !request.state || (request.state & ~SERVICE_STATE_ALL))
        return ERROR_INVALID_PARAMETER;
    Part part;
    for (auto it = m_services.upper_bound(KeyOf(request.after)); it != m_services.end(); ++it) {
        const Service& service = *it->second;
        const DWORD state = service.IsActive() ? SERVICE_ACTIVE : SERVICE_INACTIVE;
        if (!(service.config.type & request.type) || !(state & request.state)) continue;
        if (request.group && KeyOf(*request.group) != KeyOf(service.config.group)) continue;
        const DWORD pid = service.process ? static_cast<DWORD>(service.process->id.pid) : 0;
        if (!part.Add({service.name, service.config.displayName, service.status, pid})) break;
    }
    Answer(link.Fd(), FormatMessage(part.Reply()));
    return ERROR_SUCCESS;
}

DWORD Manager::ListDependents(Link& link, const Service& service, const EnumDependentsMessage& request) {
    if (!request.state || (request.state & ~SERVICE_STATE_ALL)) return ERROR_INVALID_PARAMETER;
    Part part;
    DWORD index = 0;
    for (const Service* const dependent : DependentsOf(service)) {
        const DWORD state = dependent->IsActive() ? SERVICE_ACTIVE : SERVICE_INACTIVE;
        if (!(state & request.state) || index++ < request.skipped) continue;
        if (!part.Add({dependent->name, dependent->config.displayName, dependent->status, 0})) break;
    }
    Answer(link.Fd(), FormatMessage(part.Reply()));
    return ERROR_SUCCESS;
}

DWORD Manager::AnswerName(Link& link, const FindNameMessage& request) {
    const std::string key = KeyOf(request.name);
    for (const auto& [serviceKey, service] : m_services) {
        if ((request.byDisplayName ? KeyOf(service->config.displayName) : serviceKey) != key) continue;
        const std::string& name = request.byDisplayName ? service->name : service->config.displayName;
        Answer(link.Fd(), FormatMessage(NameReplyMessage{name}));
        return ERROR_SUCCESS;
    }
    return ERROR_SERVICE_DOES_NOT_EXIST;
}

DWORD Manager::ControlFor(Link& link, Service& service, DWORD control) {
    const DWORD access = AccessFor(control);
    if (!access) return ERROR_INVALID_PARAMETER;
    if (!(link.access & access)) return ERROR_ACCESS_DENIED;
    DWORD code = ERROR_SUCCESS;
    const DWORD acceptance = AcceptanceOf(control);
    if (!service.IsActive() || !service.process) {
        code = ERROR_SERVICE_NOT_ACTIVE;
    } else if (!service.IsUp()) {
        code = ERROR_SERVICE_CANNOT_ACCEPT_CTRL;
    } else if ((service.status.dwControlsAccepted & acceptance) != acceptance) {
        code = ERROR_INVALID_SERVICE_CONTROL;
    } else if (control == SERVICE_CONTROL_STOP && HasActiveDependents(service)) {
        code = ERROR_DEPENDENT_SERVICES_RUNNING;
    }
    if (code) {
        AnswerStatus(link.Fd(), code, service);
        return code;
    }
    Tell(*service.process, {.service = service.key, .control = control, .arguments = {}, .asker = link.Fd()});
    return ERROR_IO_PENDING;
}

}  // namespace tqscm
