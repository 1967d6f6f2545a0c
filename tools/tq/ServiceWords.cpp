// tq service create, config and failure.
#include "ServiceWords.h"

#include "TQLib/text/TQEscape.h"

#include <cwchar>
#include <optional>

using namespace Quellan::Corvel;

namespace tq {

namespace {

constexpr DWORD MaxSeconds = 24 * 60 * 60;

TQString QuotedCommandLine(Arguments& arguments) {
    if (arguments.AtEnd()) throw UsageError(L"say which program, behind --");
    const TQString program = arguments.Next();
    TQStringArray others;
    while (!arguments.AtEnd())
        others.Add(arguments.Next());
    return TQWindowsCommandLine(program, others);
}

// What create and config take; what was not given is empty.
struct Settings {
    TQString name;
    std::optional<TQString> display, description, account, password, commandLine;
    std::optional<TQSvcStart> start;
    bool isDelayed = false;
    std::optional<TQStringArray> dependencies;
};

const wchar_t* TextOf(const std::optional<TQString>& text) {
    return text ? text->c_str() : nullptr;
}

// The platform's records have it so, and leave it alone.
wchar_t* MutableTextOf(const std::optional<TQString>& text) {
    return const_cast<wchar_t*>(TextOf(text));
}

void ReadStart(Settings& settings, const TQString& when) {
    settings.isDelayed = when == L"delayed";
    if (when == L"auto" || when == L"delayed")
        settings.start = TQSvcStart::Auto;
    else if (when == L"demand")
        settings.start = TQSvcStart::Demand;
    else if (when == L"disabled")
        settings.start = TQSvcStart::Disabled;
    else
        throw UsageError(
            TQString::Format(L"'%s' is neither auto, delayed, demand nor disabled", when.c_str()));
}

bool ReadSetting(Settings& settings, const TQString& option, Arguments& arguments) {
    if (option == L"--display")
        settings.display = arguments.ValueOf(option);
    else if (option == L"--description")
        settings.description = arguments.ValueOf(option);
    else if (option == L"--start")
        ReadStart(settings, arguments.ValueOf(option));
    else if (option == L"--account")
        settings.account = arguments.ValueOf(option);
    else if (option == L"--password")
        settings.password = arguments.ValueOf(option);
    else if (option == L"--no-depends")
        settings.dependencies.emplace();
    else if (option == L"--depends")
        (settings.dependencies ? *settings.dependencies : settings.dependencies.emplace())
            .Add(arguments.ValueOf(option));
    else
        return false;
    return true;
}

// Reads a name and options; `read` takes those that are not for all. Ends behind "--".
template <class Read>
void ReadSettings(TQString& name, Arguments& arguments, Read read) {
    while (!arguments.AtEnd()) {
        const TQString argument = arguments.Next();
        if (argument == L"--") break;
        if (read(argument)) continue;
        if (argument.StartsWith(L"--")) ThrowUnknownOption(argument);
        if (!name.IsEmpty()) throw UsageError(L"give the name of one service");
        name = argument;
    }
    if (name.IsEmpty()) throw UsageError(L"give the name of one service");
}

// Open for its configuration to be changed.
TQSvcHandle OpenToChange(const TQString& name) {
    TQSvcHandle service;
    if (!TQServiceMgr::ServiceInstalled(name.c_str(), service, SERVICE_CHANGE_CONFIG | SERVICE_START))
        static_cast<void>(TQServiceCtrl(name).Config());  // which says that there is none
    return service;
}

void Check(BOOL isDone, const TQString& name) {
    if (!isDone)
        throw TQSysException(GetLastError(),
                             TQString::Format(L"The service %s cannot be changed.", name.c_str()).c_str());
}

int ShowChanged(const TQString& name, TQConsole& out) {
    out.Show(TQString::Format(L"%s: changed; tq service query %s shows it\n", name.c_str(), name.c_str()));
    return ExitOk;
}

}  // namespace

DWORD ParseSeconds(const TQString& text) {
    return 1000 * ParseNumber(text, L"number of seconds", MaxSeconds);
}

[[noreturn]] void ThrowUnknownOption(const TQString& option) {
    throw UsageError(
        TQString::Format(L"'%s' is no option here; tq service --help tells how", option.c_str()));
}

int Create(Arguments& arguments, TQConsole& out) {
    Settings settings;
    TQServiceOptions options;
    DWORD type = SERVICE_WIN32_OWN_PROCESS;
    ReadSettings(settings.name, arguments, [&](const TQString& option) {
        if (option == L"--shared")
            type = SERVICE_WIN32_SHARE_PROCESS;
        else if (option == L"--restart-after")
            options.failureActions.push_back(
                {TQSvcFailureAction::Kind::Restart, ParseSeconds(arguments.ValueOf(option))});
        else
            return ReadSetting(settings, option, arguments);
        return true;
    });
    const TQString commandLine = QuotedCommandLine(arguments);
    options.description = settings.description.value_or(TQString());
    options.dependencies = settings.dependencies.value_or(TQStringArray());
    options.isStartDelayed = settings.isDelayed;
    TQSvcHandle service;
    TQServiceMgr::InstallService(service, settings.name.c_str(), TextOf(settings.display),
                                 commandLine.c_str(), TextOf(settings.account), TextOf(settings.password),
                                 type, settings.start.value_or(TQSvcStart::Demand), options);
    out.Show(TQString::Format(L"%s: created; tq service start %s starts it\n", settings.name.c_str(),
                              settings.name.c_str()));
    return ExitOk;
}

int Config(Arguments& arguments, TQConsole& out) {
    Settings settings;
    ReadSettings(settings.name, arguments,
                 [&](const TQString& option) { return ReadSetting(settings, option, arguments); });
    if (!arguments.AtEnd()) settings.commandLine = QuotedCommandLine(arguments);
    std::wstring dependencies;
    for (const TQString& name : settings.dependencies.value_or(TQStringArray()))
        dependencies += std::wstring(name.View()) + L'\0';
    const TQSvcHandle service = OpenToChange(settings.name);
    Check(ChangeServiceConfigW(service.Get(), SERVICE_NO_CHANGE,
                               settings.start ? static_cast<DWORD>(*settings.start) : SERVICE_NO_CHANGE,
                               SERVICE_NO_CHANGE, TextOf(settings.commandLine), nullptr, nullptr,
                               settings.dependencies ? dependencies.c_str() : nullptr,
                               TextOf(settings.account), TextOf(settings.password), TextOf(settings.display)),
          settings.name);
    const bool wasDelayed = TQServiceCtrl(settings.name).Config().options.isStartDelayed;
    if (settings.start && settings.isDelayed != wasDelayed) {
        SERVICE_DELAYED_AUTO_START_INFO delayed{settings.isDelayed};
        Check(ChangeServiceConfig2W(service.Get(), SERVICE_CONFIG_DELAYED_AUTO_START_INFO, &delayed),
              settings.name);
    }
    if (settings.description) {
        SERVICE_DESCRIPTIONW description{MutableTextOf(settings.description)};
        Check(ChangeServiceConfig2W(service.Get(), SERVICE_CONFIG_DESCRIPTION, &description), settings.name);
    }
    return ShowChanged(settings.name, out);
}

int Failure(Arguments& arguments, TQConsole& out) {
    TQString name;
    std::optional<std::vector<SC_ACTION>> actions;
    std::optional<DWORD> resetSeconds;
    std::optional<TQString> command, forExitCodes;
    const auto add = [&](SC_ACTION_TYPE type, const TQString& option) {
        (actions ? *actions : actions.emplace()).push_back({type, ParseSeconds(arguments.ValueOf(option))});
    };
    ReadSettings(name, arguments, [&](const TQString& option) {
        if (option == L"--restart-after")
            add(SC_ACTION_RESTART, option);
        else if (option == L"--run-after")
            add(SC_ACTION_RUN_COMMAND, option);
        else if (option == L"--none")
            actions.emplace();
        else if (option == L"--command")
            command = arguments.ValueOf(option);
        else if (option == L"--reset-after")
            resetSeconds = ParseSeconds(arguments.ValueOf(option)) / 1000;
        else if (option == L"--exit-codes")
            forExitCodes = arguments.ValueOf(option);
        else
            return false;
        return true;
    });
    if (forExitCodes && *forExitCodes != L"yes" && *forExitCodes != L"no")
        throw UsageError(L"--exit-codes takes yes or no");
    const TQServiceOptions before = TQServiceCtrl(name).Config().options;
    if (!actions) {
        actions.emplace();
        for (const TQSvcFailureAction& action : before.failureActions)
            actions->push_back({static_cast<SC_ACTION_TYPE>(action.kind), action.delayMs});
    }
    const TQSvcHandle service = OpenToChange(name);
    SC_ACTION none{};
    SERVICE_FAILURE_ACTIONSW failure{};
    failure.dwResetPeriod = resetSeconds.value_or(before.failureResetSeconds);
    failure.lpCommand = MutableTextOf(command);
    failure.cActions = static_cast<DWORD>(actions->size());
    failure.lpsaActions = actions->empty() ? &none : actions->data();
    Check(ChangeServiceConfig2W(service.Get(), SERVICE_CONFIG_FAILURE_ACTIONS, &failure), name);
    if (forExitCodes) {
        SERVICE_FAILURE_ACTIONS_FLAG flag{*forExitCodes == L"yes"};
        Check(ChangeServiceConfig2W(service.Get(), SERVICE_CONFIG_FAILURE_ACTIONS_FLAG, &flag), name);
    }
    return ShowChanged(name, out);
}

}  // namespace tq
