// tq service: services, listed, installed and controlled.
#include "Command.h"
#include "ServiceText.h"
#include "ServiceWords.h"

#include <cwchar>
#include <optional>
#include <utility>

using namespace Quellan::Corvel;

namespace tq {

namespace {

constexpr const wchar_t* ServiceHelp =
    L"usage: tq service list [--json] [--active | --inactive]\n"
    L"       tq service query [--json] NAME\n"
    L"       tq service create NAME [OPTION...] -- PROGRAM [ARGUMENT...]\n"
    L"       tq service config NAME [OPTION...] [-- PROGRAM [ARGUMENT...]]\n"
    L"       tq service failure NAME [OPTION...]\n"
    L"       tq service delete NAME\n"
    L"       tq service start [--timeout SECONDS] [--no-wait] NAME [ARGUMENT...]\n"
    L"       tq service stop | pause | continue [--timeout SECONDS] [--no-wait] NAME\n"
    L"       tq service kill [--timeout SECONDS] [--no-wait] NAME\n"
    L"       tq service interrogate [--json] NAME\n"
    L"       tq service control [--json] NAME CODE\n"
    L"       tq service wait [--timeout SECONDS] NAME STATE\n"
    L"\n"
    L"A state is stopped, running, paused, or one of the four on the way there: start-pending, "
    L"stop-pending,\n"
    L"continue-pending, pause-pending. A code is one from 128 to 255 that the service knows, or the number "
    L"of "
    L"one of the\n"
    L"system's controls. What waits gives up after SECONDS, 30 if not said otherwise, without progress.\n"
    L"\n"
    L"  --json                 print JSON in place of a table\n"
    L"\n"
    L"Of create, and of config for what is to be changed:\n"
    L"  --display TEXT         the name for people\n"
    L"  --description TEXT     what the service is for\n"
    L"  --start WHEN           auto, delayed, demand or disabled; on demand if not said otherwise\n"
    L"  --account NAME         as whom it runs, and --password TEXT\n"
    L"  --depends NAME         a service that has to run before it; may be repeated. --no-depends: none\n"
    L"  --shared               of create: its program has several services\n"
    L"\n"
    L"Of create and failure: what is done after the first failure, the second and so on, the last for all "
    L"that "
    L"follow:\n"
    L"  --restart-after SECONDS   start it again\n"
    L"Of failure alone; what is not given stays, but actions replace all that there were:\n"
    L"  --run-after SECONDS    run the command\n"
    L"  --command TEXT         what is run; %1% in it is how often the service has failed\n"
    L"  --none                 do nothing\n"
    L"  --reset-after SECONDS  without a failure, after which the next one is the first again\n"
    L"  --exit-codes WHETHER   yes or no: whether a stop with an exit code is a failure\n"
    L"\n"
    L"kill ends the process, with all services in it, and asks nobody. On Linux no failure actions follow.\n"
    L"\n"
    L"Ends with 1 when there is no such service or the state was not reached.\n";

constexpr DWORD DefaultTimeoutMs = 30'000;

DWORD ParseState(const TQString& text) {
    for (DWORD state = TQSvcState::Stopped; state <= TQSvcState::Paused; ++state) {
        TQString name = TQSvcState::Name(state);
        name.Replace(L" ", L"-");
        if (text == name) return state;
    }
    throw UsageError(
        TQString::Format(L"'%s' is no state of a service; tq service --help lists them", text.c_str()));
}

// What the words take, as far as each of them does.
struct Options {
    bool isJson = false;
    bool isWaiting = true;
    DWORD timeoutMs = DefaultTimeoutMs;
    std::vector<TQString> names;  // what is no option
};

bool ReadJson(Options& options, const TQString& argument) {
    if (argument != L"--json") return false;
    return options.isJson = true;
}

bool ReadWait(Options& options, const TQString& argument, Arguments& arguments) {
    if (argument == L"--no-wait")
        options.isWaiting = false;
    else if (argument == L"--timeout")
        options.timeoutMs = ParseSeconds(arguments.ValueOf(argument));
    else
        return false;
    return true;
}

// Reads what `read` does not take as names, of which there must be `count`.
template <class Read>
Options ReadOptions(Arguments& arguments, std::size_t count, const wchar_t* what, Read read) {
    Options options;
    while (!arguments.AtEnd()) {
        const TQString argument = arguments.Next();
        if (read(options, argument)) continue;
        if (argument.StartsWith(L"--")) ThrowUnknownOption(argument);
        options.names.push_back(argument);
    }
    if (options.names.size() != count) throw UsageError(TQString::Format(L"give %s", what));
    return options;
}

// Shows what a wait sees: on a terminal one line that changes, else a line for each state.
class ProgressLine {
  public:
    ProgressLine(TQString name, TQConsole& out) : m_name(std::move(name)), m_out(out) {}
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;
    ~ProgressLine() {
        if (m_isOpen) m_out.Write(L"\n");
    }

    void Show(const TQServiceRecord& status) {
        const bool isOneLine = m_out.IsTerminal() && m_out.IsStyled();
        if (status.currentState == m_state && !(isOneLine && status.checkPoint != m_checkPoint)) return;
        m_state = status.currentState;
        m_checkPoint = status.checkPoint;
        TQString line = TQString::Format(L"%s: %s", m_out.Shown(m_name), TQSvcState::Name(m_state));
        if (!isOneLine) {
            m_out.Write(line.Append(L"\n"));
            return;
        }
        if (m_checkPoint) line.AppendFormat(L", step %u", m_checkPoint);
        m_out.Write(L"\r\x1b[K" + line);
        m_isOpen = true;
    }

  private:
    TQString m_name;
    TQConsole& m_out;
    DWORD m_state = 0;
    DWORD m_checkPoint = 0;
    bool m_isOpen = false;
};

int List(Arguments& arguments, TQConsole& out) {
    ServiceListType types = ServiceListType::Services;
    const Options options = ReadOptions(arguments, 0, L"no name: all services are listed",
                                        [&](Options& read, const TQString& argument) {
                                            if (argument == L"--active")
                                                types = types | ServiceListType::Active;
                                            else if (argument == L"--inactive")
                                                types = types | ServiceListType::Inactive;
                                            else
                                                return ReadJson(read, argument);
                                            return true;
                                        });
    const TQServiceList services = TQServiceCtrl::ServiceList(types);
    PrintList(services, options.isJson, out);
    return ExitOk;
}

int Query(Arguments& arguments, TQConsole& out) {
    const Options options = ReadOptions(arguments, 1, L"the name of one service", ReadJson);
    PrintService(TQServiceCtrl(options.names[0]), options.isJson, out);
    return ExitOk;
}

int Delete(Arguments& arguments, TQConsole& out) {
    const Options options = ReadOptions(arguments, 1, L"the name of one service",
                                        [](Options&, const TQString&) { return false; });
    const TQServiceCtrl service(options.names[0]);
    const bool isStopped = service.QueryStatus().Record().currentState == TQSvcState::Stopped;
    service.Delete();
    const TQString& name = service.Name();
    out.Show(isStopped ? TQString::Format(L"%s: deleted\n", name.c_str())
                       : TQString::Format(L"%s: goes when it has stopped; tq service stop %s stops it\n",
                                          name.c_str(), name.c_str()));
    return ExitOk;
}

int Start(Arguments& arguments, TQConsole& out) {
    Options options;
    TQStringArray given;
    while (!arguments.AtEnd()) {
        const TQString argument = arguments.Next();
        // What comes behind the name is the service's.
        if (!options.names.empty())
            given.Add(argument);
        else if (!argument.StartsWith(L"--"))
            options.names.push_back(argument);
        else if (!ReadWait(options, argument, arguments))
            ThrowUnknownOption(argument);
    }
    if (options.names.empty()) throw UsageError(L"give the name of one service");
    const TQServiceCtrl service(options.names[0]);
    ProgressLine line(service.Name(), out);
    if (options.isWaiting)
        service.StartAndWait(given, options.timeoutMs,
                             [&](const TQServiceRecord& status) { line.Show(status); });
    else
        service.Start(given);
    return ExitOk;
}

Options ReadWaitOptions(Arguments& arguments, std::size_t count, const wchar_t* what) {
    return ReadOptions(arguments, count, what, [&](Options& read, const TQString& argument) {
        return ReadWait(read, argument, arguments);
    });
}

int AwaitState(const TQServiceCtrl& service, DWORD state, DWORD timeoutMs, TQConsole& out) {
    bool isReached;
    {
        ProgressLine line(service.Name(), out);
        isReached =
            service.WaitForState(state, timeoutMs, [&](const TQServiceRecord& status) { line.Show(status); });
    }
    if (isReached) return ExitOk;
    TQConsole(TQConsole::Stream::Error)
        .Show(TQString::Format(L"tq: %s is not %s after %u seconds; --timeout makes the wait longer\n",
                               service.Name().c_str(), TQSvcState::Name(state), timeoutMs / 1000));
    return ExitNotFound;
}

int Stop(Arguments& arguments, TQConsole& out) {
    const Options options = ReadWaitOptions(arguments, 1, L"the name of one service");
    const TQServiceCtrl service(options.names[0]);
    ProgressLine line(service.Name(), out);
    const TQServiceRecord status = service.Stop();
    if (!options.isWaiting) return ExitOk;
    line.Show(status);
    if (status.currentState != TQSvcState::Stopped)
        service.StopAndWait(options.timeoutMs, [&](const TQServiceRecord& seen) { line.Show(seen); });
    return ExitOk;
}

// Does with one service what leads to the state.
template <class Act>
int Lead(Arguments& arguments, Act act, DWORD state, TQConsole& out) {
    const Options options = ReadWaitOptions(arguments, 1, L"the name of one service");
    const TQServiceCtrl service(options.names[0]);
    (service.*act)();
    return options.isWaiting ? AwaitState(service, state, options.timeoutMs, out) : ExitOk;
}

int Pause(Arguments& arguments, TQConsole& out) {
    return Lead(arguments, &TQServiceCtrl::Pause, TQSvcState::Paused, out);
}

int Continue(Arguments& arguments, TQConsole& out) {
    return Lead(arguments, &TQServiceCtrl::Continue, TQSvcState::Running, out);
}

int Interrogate(Arguments& arguments, TQConsole& out) {
    const Options options = ReadOptions(arguments, 1, L"the name of one service", ReadJson);
    const TQServiceCtrl service(options.names[0]);
    PrintStatus(service.Name(), service.Interrogate(), options.isJson, out);
    return ExitOk;
}

int Control(Arguments& arguments, TQConsole& out) {
    constexpr DWORD lastControl = 255;
    const Options options = ReadOptions(arguments, 2, L"the name of one service and a code", ReadJson);
    const DWORD code = ParseNumber(options.names[1], L"code", lastControl);
    const TQServiceCtrl service(options.names[0]);
    PrintStatus(service.Name(), service.Control(code), options.isJson, out);
    return ExitOk;
}

int Kill(Arguments& arguments, TQConsole& out) {
    return Lead(arguments, &TQServiceCtrl::Kill, TQSvcState::Stopped, out);
}

int Wait(Arguments& arguments, TQConsole& out) {
    const Options options = ReadWaitOptions(arguments, 2, L"the name of one service and a state");
    return AwaitState(TQServiceCtrl(options.names[0]), ParseState(options.names[1]), options.timeoutMs, out);
}

struct Word {
    const wchar_t* name;
    int (*run)(Arguments& arguments, TQConsole& out);
};

constexpr Word Words[] = {
    {L"list", &List},         {L"query", &Query},
    {L"create", &Create},     {L"config", &Config},
    {L"failure", &Failure},   {L"delete", &Delete},
    {L"start", &Start},       {L"stop", &Stop},
    {L"kill", &Kill},         {L"pause", &Pause},
    {L"continue", &Continue}, {L"wait", &Wait},
    {L"control", &Control},   {L"interrogate", &Interrogate},
};

// What to do about a failure.
const wchar_t* Advice(DWORD code) {
    switch (code) {
        case ERROR_ACCESS_DENIED:
            return L"an administrator (on Linux root) may do it";
        case ERROR_SERVICE_DOES_NOT_EXIST:
            return L"tq service list shows those that are";
        case ERROR_SERVICE_EXISTS:
        case ERROR_DUPLICATE_SERVICE_NAME:
            return L"tq service list shows it, tq service delete removes it";
        case ERROR_SERVICE_MARKED_FOR_DELETE:
            return L"stop it, and end what has it open";
        case ERROR_SERVICE_ALREADY_RUNNING:
            return L"tq service query tells what it does";
        case ERROR_SERVICE_NOT_ACTIVE:
            return L"tq service start starts it";
        case ERROR_SERVICE_CANNOT_ACCEPT_CTRL:
            return L"tq service wait waits until it is in another one";
        case ERROR_DEPENDENT_SERVICES_RUNNING:
            return L"stop these first";
        case ERROR_SERVICE_DISABLED:
            return L"tq service config --start gives it another start";
        case ERROR_SERVICE_REQUEST_TIMEOUT:
        case ERROR_PROCESS_ABORTED:
            return L"the event log may tell why";
        case ERROR_SERVICE_DEPENDENCY_FAIL:
        case ERROR_SERVICE_DEPENDENCY_DELETED:
            return L"tq service query lists what it needs";
        case RPC_S_SERVER_UNAVAILABLE:
            return L"on Linux tqscm has to run";
        default:
            return nullptr;
    }
}

}  // namespace

int RunService(Arguments arguments, TQConsole& out) {
    if (arguments.AtEnd()) throw UsageError(L"say what to do with services; tq service --help tells how");
    const TQString word = arguments.Next();
    if (word == L"--help") {
        out.Write(ServiceHelp);
        return ExitOk;
    }
    for (const Word& each : Words) {
        if (word != each.name) continue;
        try {
            return each.run(arguments, out);
        } catch (const TQSysException& failure) {
            TQString line = TQString::Format(L"tq: %s", failure.FullMsg(TQStrResDestination::User));
            if (const wchar_t* const advice = Advice(failure.ErrCode())) line.AppendFormat(L"; %s", advice);
            TQConsole(TQConsole::Stream::Error).Show(line.Append(L"\n"));
            return failure.ErrCode() == ERROR_SERVICE_DOES_NOT_EXIST ? ExitNotFound : ExitFailure;
        }
    }
    throw UsageError(
        TQString::Format(L"'%s' is no word of tq service; tq service --help lists them", word.c_str()));
}

}  // namespace tq
