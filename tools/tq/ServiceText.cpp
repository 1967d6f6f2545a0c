#include "ServiceText.h"

#include "TQLib/platform/Win32.h"

#include <utility>

using namespace Quellan::Corvel;

namespace tq {

namespace {

const wchar_t* NameOf(TQSvcStart start) {
    switch (start) {
        case TQSvcStart::Auto:
            return L"auto";
        case TQSvcStart::Demand:
            return L"demand";
        case TQSvcStart::Disabled:
            return L"disabled";
    }
    return L"system";
}

const wchar_t* NameOf(TQSvcFailureAction::Kind kind) {
    switch (kind) {
        case TQSvcFailureAction::Kind::Nothing:
            return L"nothing";
        case TQSvcFailureAction::Kind::Restart:
            return L"restart";
        case TQSvcFailureAction::Kind::Reboot:
            return L"reboot";
        case TQSvcFailureAction::Kind::RunCommand:
            return L"run command";
    }
    return L"unknown";
}

std::vector<const wchar_t*> ControlNames(DWORD accepted) {
    constexpr std::pair<ProcControlAccept, const wchar_t*> all[] = {
        {ProcControlAccept::Stop, L"stop"},
        {ProcControlAccept::PauseContinue, L"pause and continue"},
        {ProcControlAccept::Shutdown, L"shutdown"},
        {ProcControlAccept::ParamChange, L"parameter change"},
        {ProcControlAccept::HardwareProfileChange, L"hardware profile change"},
        {ProcControlAccept::PowerEvent, L"power event"},
        {ProcControlAccept::SessionChange, L"session change"}};
    std::vector<const wchar_t*> names;
    for (const auto& [control, name] : all)
        if (accepted & static_cast<DWORD>(control)) names.push_back(name);
    return names;
}

DWORD ExitCodeOf(const TQServiceRecord& status) {
    return status.exitCode == ERROR_SERVICE_SPECIFIC_ERROR ? status.specificExitCode : status.exitCode;
}

// With the system's text, unless the code is the service's own.
TQString ExitText(const TQServiceRecord& status) {
    if (status.exitCode == 0) return L"0";
    if (status.exitCode == ERROR_SERVICE_SPECIFIC_ERROR)
        return TQString::Format(L"%u, the service's own", status.specificExitCode);
    return TQString::Format(L"%u %s", status.exitCode,
                            TQSysException(status.exitCode).ExcCodeString().c_str());
}

// One row for each value, the name before the first one.
template <class Values>
void AddRows(Table& table, const wchar_t* name, const Values& values) {
    const wchar_t* shown = name;
    for (const auto& value : values)
        table.Add({std::exchange(shown, L""), TQString(value)});
    if (shown == name) table.Add({name, L"-"});
}

void AddStatus(Table& table, const TQServiceRecord& status) {
    table.Add({L"State", TQSvcState::Name(status.currentState)});
    if (TQSvcState::IsPending(status.currentState))
        table.Add({L"Progress",
                   TQString::Format(L"step %u, up to %u ms more", status.checkPoint, status.waitHint)});
    AddRows(table, L"Accepts", ControlNames(status.controlsAccepted));
    table.Add({L"Exit code", ExitText(status)});
}

template <class Values>
TQString JsonList(const Values& values) {
    TQString json = L"[";
    for (const auto& value : values) {
        if (json.Length() > 1) json.Append(L", ");
        json.Append(JsonString(TQString(value).View()));
    }
    return json.Append(L"]");
}

// The members without the braces.
TQString JsonStatus(const TQServiceRecord& status) {
    return TQString::Format(
        L"\"state\": %s, \"type\": %u, \"accepts\": %s, \"exitCode\": %u, \"exitCodeIsOwn\": %s, "
        L"\"checkPoint\": %u, \"waitHint\": %u",
        JsonString(TQSvcState::Name(status.currentState)).c_str(), status.serviceType,
        JsonList(ControlNames(status.controlsAccepted)).c_str(), ExitCodeOf(status),
        status.exitCode == ERROR_SERVICE_SPECIFIC_ERROR ? L"true" : L"false", status.checkPoint,
        status.waitHint);
}

TQString JsonName(const TQServiceStatus& service) {
    return TQString::Format(L"\"name\": %s, \"displayName\": %s", JsonString(service.Name()).c_str(),
                            JsonString(service.DisplayName()).c_str());
}

TQString JsonActions(const TQServiceOptions& options) {
    TQString json = L"[";
    for (const TQSvcFailureAction& action : options.failureActions)
        json.AppendFormat(L"%s{\"action\": %s, \"delay\": %u}", json.Length() > 1 ? L", " : L"",
                          JsonString(NameOf(action.kind)).c_str(), action.delayMs);
    return json.Append(L"]");
}

void PrintServiceJson(const TQServiceStatus& status, DWORD process, const TQServiceConfig& config,
                      TQConsole& out) {
    TQString json = TQString::Format(L"{%s, %s, \"process\": %u, ", JsonName(status).c_str(),
                                     JsonStatus(status.Record()).c_str(), process);
    json.AppendFormat(L"\"commandLine\": %s, \"account\": %s, \"start\": %s, \"delayed\": %s, ",
                      JsonString(config.commandLine).c_str(), JsonString(config.account).c_str(),
                      JsonString(NameOf(config.start)).c_str(),
                      config.options.isStartDelayed ? L"true" : L"false");
    json.AppendFormat(L"\"dependencies\": %s, \"description\": %s, \"failureActions\": %s, ",
                      JsonList(config.options.dependencies).c_str(),
                      JsonString(config.options.description).c_str(), JsonActions(config.options).c_str());
    json.AppendFormat(L"\"failureReset\": %u, \"failureCommand\": %s}\n", config.options.failureResetSeconds,
                      JsonString(config.options.failureCommand).c_str());
    out.Write(json);
}

}  // namespace

void PrintList(const TQServiceList& services, bool isJson, TQConsole& out) {
    if (isJson) {
        TQString json = L"[";
        for (const TQServiceStatus& service : services)
            json.AppendFormat(L"%s  {%s, %s}", json.Length() == 1 ? L"\n" : L",\n", JsonName(service).c_str(),
                              JsonStatus(service.Record()).c_str());
        out.Write(json.Append(L"\n]\n"));
        return;
    }
    Table table;
    table.Add({L"Name", L"State", L"Display name"});
    for (const TQServiceStatus& service : services)
        table.Add({service.Name(), TQSvcState::Name(service.Record().currentState), service.DisplayName()});
    table.Print(out);
}

void PrintService(const TQServiceCtrl& service, bool isJson, TQConsole& out) {
    const TQServiceStatus status = service.QueryStatus();
    const DWORD process = service.ProcessID();
    const TQServiceConfig config = service.Config();
    if (isJson) return PrintServiceJson(status, process, config, out);
    Table table;
    table.Add({L"Name", status.Name()});
    table.Add({L"Display name", status.DisplayName()});
    table.Add({L"Description", OrDash(config.options.description)});
    AddStatus(table, status.Record());
    table.Add({L"Process", process ? TQString::Format(L"%u", process) : TQString(L"-")});
    table.Add({L"Command line", config.commandLine});
    table.Add({L"Account", OrDash(config.account)});
    table.Add({L"Start", config.options.isStartDelayed ? L"delayed" : NameOf(config.start)});
    AddRows(table, L"Needs", config.options.dependencies);
    std::vector<TQString> actions;
    for (const TQSvcFailureAction& action : config.options.failureActions)
        actions.push_back(TQString::Format(L"%s after %u ms", NameOf(action.kind), action.delayMs));
    AddRows(table, L"On failure", actions);
    if (!config.options.failureCommand.IsEmpty()) table.Add({L"Command then", config.options.failureCommand});
    table.Print(out);
}

void PrintStatus(const TQString& name, const TQServiceRecord& status, bool isJson, TQConsole& out) {
    if (isJson) {
        out.Write(
            TQString::Format(L"{\"name\": %s, %s}\n", JsonString(name).c_str(), JsonStatus(status).c_str()));
        return;
    }
    Table table;
    table.Add({L"Name", name});
    AddStatus(table, status);
    table.Print(out);
}

}  // namespace tq
