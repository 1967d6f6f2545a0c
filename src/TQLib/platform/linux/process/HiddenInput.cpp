#include "TQLib/platform/HiddenInput.h"

#include "TQLib/platform/ProcessEnd.h"
#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/Errors.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>
#include <utility>

namespace Quellan::Platform {

namespace {

constexpr std::array<int, 6> EndingSignals = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGTSTP, SIGALRM};

// Of the one input that there is. The child of a fork has all this too, but hides nothing.
std::atomic<pid_t> g_inputTaker = 0;
std::atomic<bool> g_isInputHidden = false;
termios g_shownSettings;
std::array<struct sigaction, EndingSignals.size()> g_usualActions;
// A byte for each signal that came. It stays open: another thread may be on its way to write.
std::array<int, 2> g_signalPipe = {-1, -1};
std::atomic<pid_t> g_hidingProcess = 0;

void ShowInput() noexcept {
    if (g_hidingProcess == getpid() && g_isInputHidden.exchange(false))
        tcsetattr(STDIN_FILENO, TCSADRAIN, &g_shownSettings);
}

void OnEndingSignal(int signal) {
    const int saved = errno;
    // In the child of a fork nobody reads the pipe.
    if (getpid() != g_hidingProcess.load(std::memory_order_relaxed)) {
        ::signal(signal, SIG_DFL);
        raise(signal);
    } else {
        const auto byte = static_cast<char>(signal);
        static_cast<void>(!write(g_signalPipe[1], &byte, 1));
    }
    errno = saved;
}

void CatchSignals() noexcept {
    struct sigaction ours {};
    ours.sa_handler = OnEndingSignal;
    ours.sa_flags = SA_RESTART;
    for (std::size_t i = 0; i < EndingSignals.size(); ++i) {
        struct sigaction current;
        sigaction(EndingSignals[i], nullptr, &current);
        // The child of a fork may have ours from its parent.
        if (current.sa_handler != OnEndingSignal) g_usualActions[i] = current;
        if (g_usualActions[i].sa_handler != SIG_IGN) sigaction(EndingSignals[i], &ours, nullptr);
    }
}

void ReleaseSignals() noexcept {
    for (std::size_t i = 0; i < EndingSignals.size(); ++i) {
        struct sigaction current;
        sigaction(EndingSignals[i], nullptr, &current);
        // Somebody else may have set another one meanwhile.
        if (current.sa_handler == OnEndingSignal) sigaction(EndingSignals[i], &g_usualActions[i], nullptr);
    }
}

// 0 where none has come.
int CaughtSignal() noexcept {
    char byte = 0;
    return read(g_signalPipe[0], &byte, 1) == 1 ? byte : 0;
}

// The signal takes its usual course here and now, in a thread that blocks it too.
void PassOn(int signal) noexcept {
    sigset_t one, before;
    sigemptyset(&one);
    sigaddset(&one, signal);
    pthread_sigmask(SIG_UNBLOCK, &one, &before);
    raise(signal);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// Ends the hiding; the last of the signals that came meanwhile, 0 for none.
int EndHiding() noexcept {
    ShowInput();
    ReleaseSignals();
    int last = 0;
    while (const int signal = CaughtSignal()) {
        last = signal;
        PassOn(signal);
    }
    return last;
}

DWORD BeginHiding() noexcept {
    [[maybe_unused]] static const bool isShownAtExit = CallAtExit(&ShowInput);
    if (g_hidingProcess != getpid()) {  // the first time, or the child of a fork has its parent's
        std::array<int, 2> made;
        if (pipe2(made.data(), O_CLOEXEC | O_NONBLOCK) != 0) return CodeFromErrno(errno);
        for (const int end : std::exchange(g_signalPipe, made))
            if (end >= 0) close(end);
        g_hidingProcess = getpid();
    }
    CatchSignals();
    termios hidden = g_shownSettings;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
    g_isInputHidden = true;
    if (tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden) == 0) return 0;
    const DWORD code = CodeFromErrno(errno);
    EndHiding();
    return code;
}

}  // namespace

HiddenInput::HiddenInput() noexcept {
    if (g_inputTaker.exchange(getpid()) == getpid()) {
        m_code = ERROR_BUSY;
        return;
    }
    m_isTerminal = tcgetattr(STDIN_FILENO, &g_shownSettings) == 0;
    if (m_isTerminal) m_code = BeginHiding();
}

HiddenInput::~HiddenInput() {
    if (m_code == ERROR_BUSY) return;
    const int saved = errno;
    if (m_isTerminal) EndHiding();
    errno = saved;
    g_inputTaker = 0;
}

DWORD HiddenInput::Next(char& byte) noexcept {
    while (!m_code) {
        pollfd ready[] = {{STDIN_FILENO, POLLIN, 0}, {g_signalPipe[0], POLLIN, 0}};
        if (poll(ready, m_isTerminal ? 2 : 1, -1) < 0 && errno != EINTR) return CodeFromErrno(errno);
        if (m_isTerminal && ready[1].revents) {
            m_code = EndHiding() == SIGTSTP ? ERROR_RETRY : ERROR_CANCELLED;
        } else if (ready[0].revents) {
            const ssize_t got = read(STDIN_FILENO, &byte, 1);
            if (got == 1) return 0;
            if (got == 0) return ERROR_HANDLE_EOF;
            if (errno != EINTR && errno != EAGAIN) return CodeFromErrno(errno);
        }
    }
    return m_code;
}

}  // namespace Quellan::Platform
