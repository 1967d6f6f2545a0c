#include "core/TQException.h"
#include "platform/Win32.h"
#include "services/internal/SystemdUnit.h"
#include "system/TQSysProc.h"

namespace Quellan::Corvel {

namespace {

// Of a service that has stopped saying that it is alive.
constexpr const wchar_t* WatchdogSeconds = L"30";

// One line of text, in which a percent sign is no specifier.
TQString Plain(TQString text) {
    text.Replace(L"%", L"%%");
    text.Replace(L"\r", L"");
    text.Replace(L"\n", L" ");
    return text;
}

// One argument of a command line.
TQString Quoted(TQString text) {
    text.Replace(L"\\", L"\\\\");
    text.Replace(L"\"", L"\\\"");
    text.Replace(L"$", L"$$");
    return TQString::Format(L"\"%s\"", Plain(text).c_str());
}

// The name of the user behind an account; empty for root.
TQString UserOf(TQString account) {
    const std::size_t domain = account.ReverseFind(L"\\");
    if (domain != TQString::NotFound) account.Remove(0, domain + 1);
    if (account.CompareNoCase(L"LocalSystem") == 0) return {};
    const bool isNobody =
        account.CompareNoCase(L"LocalService") == 0 || account.CompareNoCase(L"NetworkService") == 0;
    return isNobody ? TQString(L"nobody") : account;
}

TQString UnitText(const _TQService& service, const TQStringArray& arguments) {
    const TQServiceOptions options = service.Options();
    const auto& actions = options.failureActions;
    const bool restarts = !actions.empty() && actions.front().kind == TQSvcFailureAction::Kind::Restart;
    const TQString& description = options.description;

    TQString text =
        TQString::Format(L"[Unit]\nDescription=%s\n",
                         Plain(description.IsEmpty() ? service.DisplayName() : description).c_str());
    for (const TQString& name : options.dependencies)
        text.AppendFormat(L"Requires=%s.service\nAfter=%s.service\n", Plain(name).c_str(),
                          Plain(name).c_str());
    if (restarts) {
        // Each action is for one failure more, and the last is repeated: with one that is no restart, only so
        // many restarts come before it.
        if (actions.back().kind != TQSvcFailureAction::Kind::Restart)
            text.AppendFormat(L"StartLimitBurst=%u\nStartLimitIntervalSec=%u\n",
                              static_cast<unsigned>(actions.size()), options.failureResetSeconds);
        else
            text.Append(L"StartLimitIntervalSec=0\n");
    }
    text.AppendFormat(L"\n[Service]\nType=notify\nNotifyAccess=main\nExecStart=%s",
                      Quoted(TQSysProc::ModuleFileName(nullptr)));
    for (const TQString& argument : arguments)
        text.AppendFormat(L" %s", Quoted(argument));
    text.AppendFormat(L"\nExecReload=/bin/kill -HUP $MAINPID\nKillMode=mixed\nWatchdogSec=%s\n",
                      WatchdogSeconds);
    const TQString user = UserOf(service.LogonAccount());
    if (!user.IsEmpty()) text.AppendFormat(L"User=%s\n", Plain(user).c_str());
    if (restarts) text.AppendFormat(L"Restart=on-failure\nRestartSec=%ums\n", actions.front().delayMs);
    if (service.StartType() == TQSvcStart::Auto) text.Append(L"\n[Install]\nWantedBy=multi-user.target\n");
    return text;
}

}  // namespace

TQString WriteSystemdUnit(const _TQService& service, const TQStringArray& arguments, const TQString& file) {
    const TQString path =
        !file.IsEmpty()
            ? file
            : TQString(TQString::Format(L"/etc/systemd/system/%s.service", service.ServiceName().c_str()));
    const auto text = UnitText(service, arguments).ToUtf8();
    const TQHandle<_TQFileHandleClose> unit(
        CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!unit) TQSysException::ThrowLastError(path.c_str());
    DWORD written = 0;
    if (!WriteFile(unit.Get(), text.c_str(), static_cast<DWORD>(text.Length()), &written, nullptr))
        TQSysException::ThrowLastError(path.c_str());
    return path;
}

}  // namespace Quellan::Corvel
