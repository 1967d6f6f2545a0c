#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/services/internal/SystemdUnit.h"
#include "TQLib/system/TQSysProc.h"

#include <algorithm>

namespace Quellan::Corvel {

namespace {

// Of a service that has stopped saying that it is alive.
constexpr const wchar_t* WatchdogSeconds = L"30";

// One line of text, in which a percent sign is no specifier, and which a backslash does not join to the next.
TQString Plain(TQString text) {
    text.Replace(L"%", L"%%");
    text.Replace(L"\r", L"");
    text.Replace(L"\n", L" ");
    if (text.EndsWith(L"\\")) text += L' ';
    return text;
}

// The program of a command line.
TQString Quoted(const TQString& text) {
    TQString quoted(L"\"");
    for (const wchar_t c : text.View()) {
        if (c == L'"' || c == L'\\') quoted += L'\\';
        if (c == L'%') quoted += L'%';
        if (c < L' ')
            quoted.AppendFormat(L"\\x%02x", static_cast<unsigned>(c));
        else
            quoted += c;
    }
    return quoted += L"\"";
}

// One of its arguments, in which alone a dollar sign is a variable.
TQString QuotedArgument(TQString text) {
    text.Replace(L"$", L"$$");
    return Quoted(text);
}

// As systemd-escape writes names; a hyphen stays one, as in names that it is told to mangle.
TQString UnitName(const TQString& service) {
    const auto bytes = service.ToUtf8();
    TQString name;
    for (std::size_t i = 0; i < bytes.Length(); ++i) {
        const char c = bytes.c_str()[i];
        const bool isPlain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                             c == ':' || c == '-' || c == '_' || (c == '.' && i > 0);
        if (isPlain || c == '/')
            name += c == '/' ? L'-' : static_cast<wchar_t>(c);
        else
            name.AppendFormat(L"\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
    }
    return name += L".service";
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

// The units that others of these services are in, each once.
std::vector<TQString> RequiredUnits(const std::vector<_TQService*>& services) {
    std::vector<TQString> units;
    const auto isOwn = [&](const TQString& name) {
        return std::ranges::any_of(services, [&](const _TQService* own) {
            return own->ServiceName().CompareNoCase(name.c_str()) == 0;
        });
    };
    for (const _TQService* service : services)
        for (const TQString& name : service->Options().dependencies) {
            TQString unit = UnitName(name);
            if (!isOwn(name) && std::ranges::find(units, unit) == units.end())
                units.push_back(std::move(unit));
        }
    return units;
}

TQString UnitText(const std::vector<_TQService*>& services, const TQStringArray& arguments) {
    const _TQService& service = *services.front();
    const TQServiceOptions options = service.Options();
    const auto& actions = options.failureActions;
    const bool restarts = !actions.empty() && actions.front().kind == TQSvcFailureAction::Kind::Restart;
    const TQString& description = options.description;

    TQString text =
        TQString::Format(L"[Unit]\nDescription=%s\n",
                         Plain(description.IsEmpty() ? service.DisplayName() : description).c_str());
    for (const TQString& unit : RequiredUnits(services))
        text.AppendFormat(L"Requires=%s\nAfter=%s\n", unit.c_str(), unit.c_str());
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
        text.AppendFormat(L" %s", QuotedArgument(argument));
    text.AppendFormat(L"\nExecReload=/bin/kill -HUP $MAINPID\nKillMode=mixed\nWatchdogSec=%s\n",
                      WatchdogSeconds);
    const TQString user = UserOf(service.LogonAccount());
    if (!user.IsEmpty()) text.AppendFormat(L"User=%s\n", Plain(user).c_str());
    if (restarts) text.AppendFormat(L"Restart=on-failure\nRestartSec=%ums\n", actions.front().delayMs);
    if (service.StartType() == TQSvcStart::Auto) text.Append(L"\n[Install]\nWantedBy=multi-user.target\n");
    return text;
}

void WriteLasting(const TQString& path, const TQString& text) {
    const auto bytes = text.ToUtf8();
    const TQUniqueHandle<_TQFileHandleClose> file(
        CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    if (!file ||
        !WriteFile(file.Get(), bytes.c_str(), static_cast<DWORD>(bytes.Length()), &written, nullptr) ||
        !FlushFileBuffers(file.Get()))
        TQSysException::ThrowLastError(path.c_str());
}

}  // namespace

TQString WriteSystemdUnit(const std::vector<_TQService*>& services, const TQStringArray& arguments,
                          const TQString& file) {
    TQString path =
        file.IsEmpty() ? TQString(L"/etc/systemd/system/" + UnitName(services.front()->ServiceName())) : file;
    const TQString text = UnitText(services, arguments);
    // A unit that there is already stays whole until the new one is.
    const TQString fresh = path + L".new";
    try {
        WriteLasting(fresh, text);
        if (!MoveFileExW(fresh.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
            TQSysException::ThrowLastError(path.c_str());
    } catch (...) {
        const _TQLastErrorKeeper keeper;
        DeleteFileW(fresh.c_str());
        throw;
    }
    return path;
}

}  // namespace Quellan::Corvel
