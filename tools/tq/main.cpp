// tq: the library's command-line tool. Its first argument is a word that says what to do.
#include "Command.h"

using namespace Quellan::Corvel;

namespace {

constexpr const wchar_t* Help =
    L"usage: tq WORD [ARGUMENT...]\n"
    L"\n"
    L"  tq acl OBJECT         who may do what with a file, a key or a service\n"
    L"  tq error CODE...      what an error code means\n"
    L"  tq log FILE...        what stands in log files\n"
    L"  tq service WORD...    services: list, query, create, delete, start, stop, pause, continue, wait and "
    L"more\n"
    L"  tq sid [ACCOUNT...]   who is behind a name or a security identifier\n"
    L"  tq token              who one is and what one may\n"
    L"  tq --version          the version of TQLib\n"
    L"  tq --help             this text; tq WORD --help tells more of a word\n"
    L"\n"
    L"  --color=WHEN          anywhere: colours always, never, or auto: on a terminal, unless NO_COLOR is "
    L"set\n"
    L"                        or TERM is dumb\n"
    L"\n"
    L"Ends with 0 when all went well, 1 when something asked for was not found, 2 for a wrong command line "
    L"and 3 when\n"
    L"the work failed.\n";

// Takes the option out of what is not the command line of a service's program.
void ApplyColor(TQStringArray& all, TQConsole& out) {
    constexpr std::wstring_view Option = L"--color=";
    for (std::size_t i = 1; i < all.Count() && all[i] != L"--"; ++i) {
        if (!all[i].StartsWith(Option)) continue;
        const TQString when = all[i].Mid(Option.size());
        if (when == L"always" || when == L"never")
            out.SetStyled(when == L"always");
        else if (when != L"auto")
            throw tq::UsageError(
                TQString::Format(L"'%s' is no time for colours; always, never or auto", when.c_str()));
        all.Remove(i--);
    }
}

int Run(TQStringArray all, TQConsole& out) {
    ApplyColor(all, out);
    tq::Arguments arguments(all, 1);
    if (arguments.AtEnd()) throw tq::UsageError(L"say what to do; tq --help lists the words");
    const TQString word = arguments.Next();
    if (word == L"acl") return tq::RunAcl(arguments, out);
    if (word == L"error") return tq::RunError(arguments, out);
    if (word == L"log") return tq::RunLog(arguments, out);
    if (word == L"service") return tq::RunService(arguments, out);
    if (word == L"sid") return tq::RunSid(arguments, out);
    if (word == L"token") return tq::RunToken(arguments, out);
    if (word == L"--help" || word == L"-h") {
        out.Write(Help);
        return tq::ExitOk;
    }
    if (word == L"--version") {
        out.Write(TQString::Format(L"tq %s\n", TQLib::Version()));
        return tq::ExitOk;
    }
    throw tq::UsageError(TQString::Format(L"'%s' is no word of tq; tq --help lists them", word.c_str()));
}

}  // namespace

int main() {
    TQConsole out(TQConsole::Stream::Output);
    TQConsole errors(TQConsole::Stream::Error);
    try {
        TQLib::SetAppName(L"tq");
        return Run(TQSysProc::CommandLine(), out);
    } catch (const tq::UsageError& e) {
        errors.Show(TQString::Format(L"tq: %s\n", e.Text().c_str()));
        return tq::ExitUsage;
    } catch (const TQCoreException& e) {
        errors.Show(TQString::Format(L"tq: %s\n", e.FullMsg(TQStrResDestination::User)));
        return tq::ExitFailure;
    }
}
