#include "PlatformTest.h"
#include "TQLib/platform/Win32.h"
#include "support/FailCall.h"
#include "support/Role.h"

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace Quellan::Corvel::Test {
namespace {

constexpr DWORD NoEvent = ~DWORD{0};
constexpr DWORD QuietMs = 40;  // in which a signal that is not ignored would have ended the process
std::atomic<DWORD> g_event{NoEvent};
BOOL NoteEvent(DWORD event) {
    g_event = event;
    g_event.notify_all();
    return TRUE;
}
// Ends the process in order with an exit code that tells the event.
BOOL ExitWithEvent(DWORD event) {
    _exit(10 + static_cast<int>(event));
}
// A signal handler.
void ExitBySignal(int) {
    _exit(20);
}

// Prepares itself as the words say, sends itself a signal, and ends as the last word says.
const Role g_signalled("signalled", [](const RoleArguments& arguments) {
    const int signal = std::stoi(arguments.at(0));
    sigset_t signals;
    sigfillset(&signals);
    for (const std::string& word : arguments) {
        if (word == "note") SetConsoleCtrlHandler(&NoteEvent, TRUE);
        if (word == "exit") SetConsoleCtrlHandler(&ExitWithEvent, TRUE);
        if (word == "remove") SetConsoleCtrlHandler(&NoteEvent, FALSE);
        if (word == "heed") SetConsoleCtrlHandler(nullptr, FALSE);
        if (word == "block") pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        if (word == "own") std::signal(signal, &ExitBySignal);
        if (word == "fork")
            if (const pid_t child = fork(); child != 0) {
                int status = 0;
                waitpid(child, &status, 0);
                return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
            }
    }
    kill(getpid(), signal);
    if (arguments.back() == "event")
        g_event.wait(NoEvent);
    else
        Sleep(arguments.back() == "nothing" ? QuietMs : INFINITE);
    return static_cast<int>(g_event.load() & 0x7F);
});
constexpr int ExitWithoutEvent = NoEvent & 0x7F;

int EndAfter(int signal, RoleArguments words) {
    words.insert(words.begin(), std::to_string(signal));
    return RoleProcess("signalled", words).ExitCode();
}

TEST(ConsoleControlOnLinux, MakesEventsOfSignals) {
    constexpr int CtrlC = CTRL_C_EVENT;
    const struct {
        const char* what;
        int signal;
        RoleArguments words;
        int code;
    } rows[] = {{"interrupt", SIGINT, {"note", "event"}, CtrlC},
                {"quit", SIGQUIT, {"note", "event"}, CTRL_BREAK_EVENT},
                {"termination", SIGTERM, {"exit", "forever"}, 10 + CTRL_CLOSE_EVENT},
                {"hang-up", SIGHUP, {"exit", "forever"}, 10 + CTRL_CLOSE_EVENT},
                {"a close that was handled ends the process", SIGTERM, {"note", "forever"}, 128 + SIGTERM},
                {"a close that was handled ends the process", SIGHUP, {"note", "forever"}, 128 + SIGHUP},
                {"the handler before", SIGINT, {"own", "note", "remove", "forever"}, 20},
                {"a signal that the caller blocks", SIGINT, {"block", "note", "event"}, CtrlC},
                {"the child of a fork has none", SIGINT, {"note", "fork", "forever"}, 128 + SIGINT}};
    for (const auto& [what, signal, words, code] : rows)
        EXPECT_EQ(EndAfter(signal, words), code) << what;
    for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGHUP})
        EXPECT_EQ(EndAfter(signal, {"note", "remove", "forever"}), 128 + signal) << "nobody handles it";
}

// Ignoring is handed on from the process that starts another.
TEST(ConsoleControlOnLinux, IgnoresWhatItWasStartedToIgnoreUntilItIsToldOtherwise) {
    const auto oldInterrupt = std::signal(SIGINT, SIG_IGN);
    const auto oldHangUp = std::signal(SIGHUP, SIG_IGN);
    EXPECT_EQ(EndAfter(SIGINT, {"note", "nothing"}), ExitWithoutEvent);
    EXPECT_EQ(EndAfter(SIGHUP, {"note", "heed", "nothing"}), ExitWithoutEvent);
    EXPECT_EQ(EndAfter(SIGINT, {"note", "heed", "event"}), static_cast<int>(CTRL_C_EVENT));
    EXPECT_EQ(EndAfter(SIGINT, {"heed", "forever"}), 128 + SIGINT);
    std::signal(SIGINT, oldInterrupt);
    std::signal(SIGHUP, oldHangUp);
}

TEST(ConsoleControlOnLinux, CallsHandlersThatTheChildOfAForkAdds) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer allows the child no threads";
#endif
    EXPECT_EQ(EndAfter(SIGINT, {"note", "fork", "exit", "forever"}), 10 + static_cast<int>(CTRL_C_EVENT));
}

const Role g_busy("busy-with-close", [](const RoleArguments&) {
    const auto handler = [](DWORD event) -> BOOL {
        if (event == CTRL_C_EVENT) _exit(10);
        kill(getpid(), SIGINT);
        Sleep(INFINITE);
        return TRUE;
    };
    SetConsoleCtrlHandler(handler, TRUE);
    kill(getpid(), SIGTERM);
    Sleep(INFINITE);
    return 0;
});

TEST(ConsoleControlOnLinux, HandlesAnEventWhileTheHandlerOfAnotherIsBusy) {
    EXPECT_EQ(RoleProcess("busy-with-close").ExitCode(), 10);
}

const Role g_noThread("no-control-thread", [](const RoleArguments&) {
    const FailCall fail("CreateThread", ERROR_NOT_ENOUGH_MEMORY);
    return static_cast<int>(CodeOf(SetConsoleCtrlHandler(&NoteEvent, TRUE)));
});

TEST(ConsoleControlOnLinux, SaysWhenThereIsNoMemoryForItsThread) {
    EXPECT_EQ(RoleProcess("no-control-thread").ExitCode(), static_cast<int>(ERROR_NOT_ENOUGH_MEMORY));
}

}  // namespace
}  // namespace Quellan::Corvel::Test
