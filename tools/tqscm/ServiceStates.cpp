#include "ServiceStates.h"

#include "Print.h"

#include <algorithm>

namespace tqscm {

std::optional<std::string> ServiceStates::NextChanged() {
    if (m_changed.empty()) return std::nullopt;
    return std::move(m_changed.extract(m_changed.begin()).value());
}

void ServiceStates::Set(Service& service, const SERVICE_STATUS& status) {
    const SERVICE_STATUS before = std::exchange(service.status, status);
    service.status.dwServiceType = service.config.type;
    const bool isSame = before.dwCurrentState == status.dwCurrentState;
    const bool isProgress = !isSame || before.dwCheckPoint != status.dwCheckPoint;
    if (isProgress) WatchPending(service);
    if (!isSame || before.dwControlsAccepted != status.dwControlsAccepted || !service.IsActive()) {
        Changed(service);
        // A service that has stopped is no longer its process's.
        Process* const left = service.IsActive() ? nullptr : std::exchange(service.process, nullptr);
        if (!service.IsActive()) {
            service.start.isOwed = service.isStopping = false;
            service.start.arguments.clear();
        }
        Journalise(service);
        if (left) left->Release(service);
    }
    if (isProgress && m_tell) m_tell(service);
}

// A service that reports no progress for too long is hung: one that is pending, or that took a control to
// stop.
void ServiceStates::WatchPending(Service& service) {
    service.isHung = false;
    if (!service.IsPending() && !(service.IsActive() && service.isStopping)) return service.hang.Cancel();
    const auto hint = std::chrono::milliseconds(service.IsPending() ? service.status.dwWaitHint : 0);
    service.hang.Set(hint + m_settings.requestLimit, [this, &service] { OnHung(service); });
}

// Its process is ended, unless services in it do well: those are not to suffer, so that it is given up alone.
void ServiceStates::OnHung(Service& service) {
    service.isHung = true;
    Changed(service);
    Process* const process = service.process;
    const bool mayEnd = process && std::ranges::all_of(process->services, &Service::isHung);
    Print("%s reports nothing in state %u and is %s", service.name.c_str(), service.status.dwCurrentState,
          mayEnd ? "ended with its process" : "given up");
    if (mayEnd) return process->EndHung();
    SetStopped(service, ERROR_SERVICE_REQUEST_TIMEOUT);
    if (process) service.gaveUpIn = process->id;
}

void ServiceStates::SetStopped(Service& service, DWORD code) {
    Set(service, {service.config.type, SERVICE_STOPPED, 0, code, 0, 0, 0});
}

void ServiceStates::Journalise(const Service& service) {
    JournalEntry entry{.status = service.status,
                       .process = {},
                       .commandLine = {},
                       .account = {},
                       .isAlone = 0,
                       .failures = service.failures,
                       .isStartOwed = service.start.isOwed,
                       .arguments = service.start.arguments};
    if (const Process* const process = service.process) {
        entry.process = process->id;
        entry.commandLine = process->commandLine;
        entry.account = process->account;
        entry.isAlone = process->isAlone;
    }
    m_journal.Put(service.name, entry);
}

}  // namespace tqscm
