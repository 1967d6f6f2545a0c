#include "TQLib/platform/linux/process/ConsoleControl.h"

#include "TQLib/platform/linux/base/Descriptor.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/Lock.h"
#include "TQLib/platform/linux/objects/Handles.h"
#include "TQLib/platform/linux/objects/Threads.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <new>
#include <pthread.h>
#include <semaphore.h>
#include <vector>

namespace Quellan::Platform {

namespace {

struct Control {
    int signal;
    DWORD event;
};
constexpr std::array<Control, 4> Controls = {{
    {SIGINT, CTRL_C_EVENT},
    {SIGQUIT, CTRL_BREAK_EVENT},
    {SIGHUP, CTRL_CLOSE_EVENT},
    {SIGTERM, CTRL_CLOSE_EVENT},
}};
constexpr std::size_t Interrupt = 0;

// All that the signal handler touches. A thread waits for the semaphore and does the rest.
constinit std::array<std::atomic<bool>, Controls.size()> g_arrived;
sem_t g_arrival;
sem_t g_isListening;  // that thread is past its start

void OnSignal(int signal) {
    const int saved = errno;
    for (std::size_t i = 0; i < Controls.size(); ++i)
        if (Controls[i].signal == signal) g_arrived[i] = true;
    sem_post(&g_arrival);
    errno = saved;
}

// Events may come while the process ends: it is never destroyed.
class ControlHandlers {
  public:
    static ControlHandlers& Instance() noexcept {
        alignas(ControlHandlers) static std::byte memory[sizeof(ControlHandlers)];
        static ControlHandlers& instance = *new (memory) ControlHandlers;
        return instance;
    }

    // While the process forks.
    static void Hold() noexcept TQ_ACQUIRES(Instance().m_lock) { Instance().m_lock.lock(); }
    static void Resume(bool isChild) noexcept TQ_RELEASES(Instance().m_lock) {
        if (isChild) Instance().Forget();
        Instance().m_lock.unlock();
    }

    // May throw std::bad_alloc.
    DWORD Change(PHANDLER_ROUTINE handler, bool add) {
        const Guard lock(m_lock);
        if (!m_areCaught)
            if (DWORD code = Catch()) return code;
        if (!handler) {
            Install(Interrupt, add ? SIG_IGN : OnSignal);
        } else if (add) {
            m_handlers.push_back(handler);
        } else {
            const auto found = std::ranges::find(m_handlers.rbegin(), m_handlers.rend(), handler);
            if (found == m_handlers.rend()) return ERROR_INVALID_PARAMETER;
            m_handlers.erase(std::next(found).base());
        }
        return ERROR_SUCCESS;
    }

  private:
    static void Install(std::size_t index, sighandler_t action) noexcept {
        struct sigaction installed {};
        installed.sa_handler = action;
        installed.sa_flags = SA_RESTART;
        sigaction(Controls[index].signal, &installed, nullptr);
    }

    DWORD Catch() noexcept TQ_REQUIRES(m_lock) {
        sem_init(&g_arrival, 0, 0);
        sem_init(&g_isListening, 0, 0);
        const HANDLE thread = CreateThread(nullptr, 0, &ControlHandlers::Dispatch, nullptr, 0, nullptr);
        if (!thread) return GetLastError();
        CloseHandle(thread);
        // A fork right after this call meets the thread idle, not in the midst of what the child could not
        // finish.
        Retry([] { return sem_wait(&g_isListening); });
        for (std::size_t i = 0; i < Controls.size(); ++i) {
            sigaction(Controls[i].signal, nullptr, &m_previous[i]);
            if (m_previous[i].sa_handler != SIG_IGN) Install(i, OnSignal);
        }
        // What ends the ignoring of this one is a call that asks for it.
        if (m_previous[Interrupt].sa_handler == SIG_IGN) m_previous[Interrupt].sa_handler = SIG_DFL;
        m_areCaught = true;
        return ERROR_SUCCESS;
    }

    // In the child of a fork, where no thread waits for the signals.
    void Forget() noexcept TQ_REQUIRES(m_lock) {
        m_handlers.clear();
        if (!m_areCaught) return;
        for (std::size_t i = 0; i < Controls.size(); ++i) {
            struct sigaction current;
            sigaction(Controls[i].signal, nullptr, &current);
            if (current.sa_handler == OnSignal) sigaction(Controls[i].signal, &m_previous[i], nullptr);
            g_arrived[i] = false;
        }
        m_areCaught = false;
    }

    static DWORD Dispatch(void*) {
        // This thread takes the signals where all others block them.
        sigset_t signals;
        sigemptyset(&signals);
        for (const Control& control : Controls)
            sigaddset(&signals, control.signal);
        pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
        sem_post(&g_isListening);
        for (;;) {
            Retry([] { return sem_wait(&g_arrival); });
            for (std::size_t i = 0; i < Controls.size(); ++i) {
                if (!g_arrived[i].exchange(false)) continue;
                void* const control = const_cast<Control*>(&Controls[i]);
                if (const HANDLE thread = CreateThread(nullptr, 0, &Handle, control, 0, nullptr))
                    CloseHandle(thread);
                else
                    Handle(control);  // without memory for another thread
            }
        }
    }

    static DWORD Handle(void* parameter) {
        const auto& control = *static_cast<const Control*>(parameter);
        if (!Instance().IsHandled(control.event) || control.event == CTRL_CLOSE_EVENT)
            Instance().DoAsBefore(control);
        return 0;
    }

    // From the last one down, one look at the list for each: handlers may change it.
    bool IsHandled(DWORD event) {
        for (std::size_t left = SIZE_MAX;;) {
            PHANDLER_ROUTINE handler;
            {
                const Guard lock(m_lock);
                left = std::min(left, m_handlers.size());
                if (left == 0) return false;
                handler = m_handlers[--left];
            }
            if (handler(event)) return true;
        }
    }

    void DoAsBefore(const Control& control) {
        struct sigaction caught;
        {
            const Guard lock(m_lock);
            sigaction(control.signal, &m_previous[static_cast<std::size_t>(&control - Controls.data())],
                      &caught);
        }
        raise(control.signal);
        sigaction(control.signal, &caught, nullptr);
    }

    PlainLock m_lock;
    std::vector<PHANDLER_ROUTINE> m_handlers TQ_GUARDED_BY(m_lock);
    // What was there before the signals were caught.
    std::array<struct sigaction, Controls.size()> m_previous TQ_GUARDED_BY(m_lock);
    bool m_areCaught TQ_GUARDED_BY(m_lock) = false;
};

const ForkPart g_consoleForkPart(ForkOrder::ControlHandlers, &ControlHandlers::Hold,
                                 &ControlHandlers::Resume);

}  // namespace

BOOL SetConsoleCtrlHandler(PHANDLER_ROUTINE handler, BOOL add) noexcept {
    if (DWORD code = FaultDue("SetConsoleCtrlHandler")) return Fail(code, FALSE);
    const DWORD code = WithMemory([&] { return ControlHandlers::Instance().Change(handler, add != FALSE); });
    return code ? Fail(code, FALSE) : TRUE;
}

}  // namespace Quellan::Platform
