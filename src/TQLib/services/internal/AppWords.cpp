#include "TQLib/services/internal/AppWords.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/services/TQServiceCtrl.h"
#include "TQLib/services/TQServiceMgr.h"
#include "TQLib/services/internal/SystemdUnit.h"
#include "TQLib/system/TQConsole.h"
#include "TQLib/system/TQSysProc.h"

#include <algorithm>
#include <utility>

namespace Quellan::Corvel {

namespace {

constexpr DWORD ExitOk = 0;
constexpr DWORD ExitFailure = 1;
constexpr DWORD ExitUsage = 2;

// What the words work with: the services, the arguments behind the word, where they print.
struct Context {
    std::vector<_TQService*> services;
    TQStringArray arguments;
    bool takesArguments;  // the services do
    TQConsole& output;

    void Say(const TQString& line) { output.Show(line + L"\n"); }
};

class UsageError {};

// Prints each state once.
TQServiceCtrl::Progress StatePrinter(Context& context, const TQString& name) {
    return [&context, name, last = DWORD{0}](const TQServiceRecord& status) mutable {
        if (status.currentState == last) return;
        last = status.currentState;
        context.Say(TQString::Format(L"%s: %s", name.c_str(), TQSvcState::Name(last)));
    };
}

void RequireNoArguments(const Context& context) {
    if (!context.arguments.IsEmpty()) throw UsageError();
}

// What is left is for the services.
void RequireFitting(const Context& context) {
    if (!context.takesArguments) RequireNoArguments(context);
}

// What follows is for the program when it is started.
void Install(Context& context) {
    constexpr std::wstring_view option = L"--systemd";
    TQStringArray& arguments = context.arguments;
    const TQString first = arguments.IsEmpty() ? TQString() : arguments[0];
    const bool hasFile = first.StartsWith(TQString(option) + L"=");
    if (hasFile || first == option) {
        arguments.Remove(0);
        RequireFitting(context);
        const TQString file = hasFile ? TQString(first.Mid(option.size() + 1)) : TQString();
        const TQString path = WriteSystemdUnit(context.services, arguments, file);
        context.Say(TQString::Format(L"%s is written; systemctl daemon-reload makes it known", path.c_str()));
        return;
    }
    RequireFitting(context);
    TQServiceMgr::Install(arguments);
    for (const _TQService* service : context.services)
        context.Say(TQString::Format(L"%s: installed", service->ServiceName().c_str()));
}

void UnInstall(Context& context) {
    RequireNoArguments(context);
    TQServiceMgr::UnInstall();
    for (const _TQService* service : context.services)
        context.Say(TQString::Format(L"%s: removed", service->ServiceName().c_str()));
}

void Start(Context& context) {
    RequireFitting(context);
    for (const _TQService* service : context.services) {
        const TQServiceCtrl control(service->ServiceName());
        control.StartAndWait(context.arguments, TQServiceMgr::ProgressTimeoutMs,
                             StatePrinter(context, control.Name()));
    }
}

void Stop(Context& context) {
    RequireNoArguments(context);
    for (std::size_t i = context.services.size(); i-- > 0;) {
        const TQServiceCtrl control(context.services[i]->ServiceName());
        control.StopAndWait(TQServiceMgr::ProgressTimeoutMs, StatePrinter(context, control.Name()));
    }
}

void Status(Context& context) {
    RequireNoArguments(context);
    for (const _TQService* service : context.services) {
        const TQServiceCtrl control(service->ServiceName());
        TQString line = TQString::Format(L"%s: %s", control.Name().c_str(),
                                         TQSvcState::Name(control.QueryStatus().Record().currentState));
        if (const DWORD process = control.ProcessID()) line.AppendFormat(L", process %u", process);
        context.Say(line);
    }
}

struct Word {
    const wchar_t* name;
    void (*run)(Context& context);
    bool passesArguments;  // to the services, if these take some
    const wchar_t* options;
};

constexpr Word Words[] = {
    {L"install", &Install, true, L" [--systemd[=FILE]]"},
    {L"uninstall", &UnInstall, false, L""},
    {L"start", &Start, true, L""},
    {L"stop", &Stop, false, L""},
    {L"status", &Status, false, L""},
};

TQString Usage(const TQString& program, const Word& word, bool takesArguments) {
    return TQString::Format(L"usage: %s %s%s%s\n", program, word.name, word.options,
                            takesArguments && word.passesArguments ? L" [ARGUMENT...]" : L"");
}

DWORD RunWord(const Word& word, Context& context) {
    TQConsole errors(TQConsole::Stream::Error);
    const TQString program = TQSysProc::ModuleBaseName(nullptr);
    try {
        word.run(context);
        return ExitOk;
    } catch (const UsageError&) {
        errors.Write(Usage(program, word, context.takesArguments));
        return ExitUsage;
    } catch (const TQCoreException& failure) {
        errors.Show(
            TQString::Format(L"%s: %s\n", program.c_str(), failure.FullMsg(TQStrResDestination::User)));
        return ExitFailure;
    }
}

}  // namespace

bool IsAppWord(const TQString& text) {
    return std::ranges::any_of(Words, [&](const Word& word) { return text == word.name; });
}

std::optional<DWORD> RunAppWord(const TQStringArray& commandLine, std::vector<_TQService*> services,
                                bool takesArguments) {
    if (commandLine.Count() < 2) return std::nullopt;
    for (const Word& word : Words) {
        if (commandLine[1] != word.name) continue;
        TQConsole output(TQConsole::Stream::Output);
        Context context{std::move(services), commandLine, takesArguments, output};
        context.arguments.Remove(0);
        context.arguments.Remove(0);
        if (context.services.empty())
            throw TQException(ERROR_SERVICE_NOT_IN_EXE, L"No service is registered.");
        return RunWord(word, context);
    }
    if (takesArguments) return std::nullopt;
    const bool isAsked = commandLine[1] == L"--help" || commandLine[1] == L"-h";
    const TQString program = TQSysProc::ModuleBaseName(nullptr);
    TQString usage = TQString::Format(L"usage: %s\n", program);
    for (const Word& word : Words)
        usage += Usage(program, word, takesArguments);
    TQConsole(isAsked ? TQConsole::Stream::Output : TQConsole::Stream::Error).Write(usage);
    return isAsked ? ExitOk : ExitUsage;
}

}  // namespace Quellan::Corvel
