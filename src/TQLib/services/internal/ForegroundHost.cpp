#include "TQLib/services/internal/ForegroundHost.h"

#include "TQLib/core/TQException.h"
#include "TQLib/core/internal/Insist.h"
#include "TQLib/services/TQServiceStatus.h"
#include "TQLib/text/memory/TQDataBuf.h"
#include "TQLib/threads/TQThread.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <utility>

namespace Quellan::Corvel {

namespace {

std::atomic<HANDLE> g_stopEvent{nullptr};

BOOL OnConsoleControl(DWORD event) {
    SetSurely(g_stopEvent);
    // The process ends when this returns from any other event, and it is to end in order.
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) Sleep(INFINITE);
    return TRUE;
}

// Takes console events as requests to stop while it lives.
class ConsoleStop {
  public:
    explicit ConsoleStop(const TQEvent& stop) {
        g_stopEvent = stop.Handle();
        // Also where this process was started to ignore Ctrl+C, as scripts do with what they start.
        SetConsoleCtrlHandler(nullptr, FALSE);
        SetConsoleCtrlHandler(&OnConsoleControl, TRUE);
    }
    ConsoleStop(const ConsoleStop&) = delete;
    ConsoleStop& operator=(const ConsoleStop&) = delete;
    ~ConsoleStop() { Release(); }

    void Release() noexcept {
        if (std::exchange(m_isSet, false)) SetConsoleCtrlHandler(&OnConsoleControl, FALSE);
    }

  private:
    bool m_isSet = true;
};

}  // namespace

struct ForegroundHost::Entry {
    explicit Entry(TQThreadSynch& hostLock) noexcept : lock(hostLock) {}

    TQString name;
    std::vector<TCHARBuf> texts;
    std::vector<wchar_t*> argv;
    std::unique_ptr<MainThread> thread;
    TQThreadSynch& lock;  // the host's
    LPHANDLER_FUNCTION_EX handler TQ_GUARDED_BY(lock) = nullptr;
    void* context TQ_GUARDED_BY(lock) = nullptr;
    SERVICE_STATUS status TQ_GUARDED_BY(lock){};
    bool isStopSent TQ_GUARDED_BY(lock) = false;
    bool hasEnded TQ_GUARDED_BY(lock) = false;
};

class ForegroundHost::MainThread : public TQThread {
  public:
    MainThread(ForegroundHost& host, Entry& entry, LPSERVICE_MAIN_FUNCTIONW main)
        : m_host(host), m_entry(entry), m_main(main) {}
    ~MainThread() override { EndThread(); }

  protected:
    unsigned int RunWork(BYTEBuf&) override {
        m_main(static_cast<DWORD>(m_entry.argv.size()), m_entry.argv.data());
        return 0;
    }
    unsigned int OnStop(const BYTEBuf&, const unsigned int& result) override {
        {
            const TQThreadSynch::TQSynchLock guard(m_entry.lock);
            m_entry.hasEnded = true;
        }
        SetSurely(m_host.m_changedEvent.Handle());
        return result;
    }

  private:
    ForegroundHost& m_host;
    Entry& m_entry;
    LPSERVICE_MAIN_FUNCTIONW m_main;
};

ForegroundHost::ForegroundHost(TQStringArray arguments)
    : m_arguments(std::move(arguments)),
      m_output(TQConsole::Stream::Output),
      m_stopEvent(true),
      m_changedEvent(false) {}

ForegroundHost::~ForegroundHost() = default;

BOOL ForegroundHost::Dispatch(const SERVICE_TABLE_ENTRYW* table) {
    for (; table->lpServiceName; ++table) {
        Entry& entry = *m_entries.emplace_back(std::make_unique<Entry>(m_lock));
        entry.name = table->lpServiceName;
        entry.texts.emplace_back(entry.name.c_str(), entry.name.Length() + 1);
        for (const TQString& argument : m_arguments)
            entry.texts.emplace_back(argument.c_str(), argument.Length() + 1);
        for (TCHARBuf& text : entry.texts)
            entry.argv.push_back(text.Data());
        entry.thread = std::make_unique<MainThread>(*this, entry, table->lpServiceProc);
    }
    ConsoleStop console(m_stopEvent);
    std::exception_ptr failure;
    for (const auto& entry : m_entries) {
        try {
            if (!failure) entry->thread->Start();
        } catch (...) {
            failure = std::current_exception();
        }
        const TQThreadSynch::TQSynchLock guard(entry->lock);
        if (failure) entry->hasEnded = true;
    }
    const HANDLE changed = m_changedEvent.Handle(), stop = m_stopEvent.Handle();
    // Those that run already do not go on without the others.
    bool isStopping = failure != nullptr;
    if (isStopping) SendStops();
    while (!AllEnded()) {
        const bool isAsked = (isStopping ? AwaitSurely({changed}) : AwaitSurely({changed, stop})) == 1;
        if (isAsked) {
            isStopping = true;
            console.Release();
        }
        if (isStopping) SendStops();
    }
    for (const auto& entry : m_entries)
        entry->thread.reset();  // at the thread's end
    if (failure) std::rethrow_exception(failure);
    return TRUE;
}

SERVICE_STATUS_HANDLE ForegroundHost::RegisterHandler(const wchar_t* name, LPHANDLER_FUNCTION_EX handler,
                                                      void* context) {
    for (const auto& entry : m_entries) {
        if (entry->name.CompareNoCase(name) != 0) continue;
        const TQThreadSynch::TQSynchLock guard(entry->lock);
        entry->handler = handler;
        entry->context = context;
        return reinterpret_cast<SERVICE_STATUS_HANDLE>(entry.get());
    }
    SetLastError(ERROR_SERVICE_DOES_NOT_EXIST);
    return nullptr;
}

BOOL ForegroundHost::SetStatus(SERVICE_STATUS_HANDLE handle, SERVICE_STATUS* status) {
    auto& entry = *reinterpret_cast<Entry*>(handle);
    {
        const TQThreadSynch::TQSynchLock guard(entry.lock);
        const bool isNew = entry.status.dwCurrentState != status->dwCurrentState;
        entry.status = *status;
        if (isNew) Print(entry.name, entry.status);
    }
    SetSurely(m_changedEvent.Handle());
    return TRUE;
}

void ForegroundHost::Print(const TQString& name, const SERVICE_STATUS& status) {
    TQString line = TQString::Format(L"%s: %s", name.c_str(), TQSvcState::Name(status.dwCurrentState));
    DWORD code = status.dwWin32ExitCode;
    if (code == ERROR_SERVICE_SPECIFIC_ERROR) code = status.dwServiceSpecificExitCode;
    if (code) line.AppendFormat(L", %s", TQSysException(code).ExcCodeString().c_str());
    try {
        m_output.Show(line.Append(L"\n"));
    } catch (const TQCoreException&) {
        // Nobody reads it; the service goes on.
    }
}

bool ForegroundHost::AllEnded() const {
    return std::ranges::all_of(m_entries, [](const auto& entry) {
        const TQThreadSynch::TQSynchLock guard(entry->lock);
        return entry->hasEnded;
    });
}

void ForegroundHost::SendStops() {
    for (const auto& entry : m_entries) {
        LPHANDLER_FUNCTION_EX handler = nullptr;
        void* context = nullptr;
        {
            const TQThreadSynch::TQSynchLock guard(entry->lock);
            if (!entry->isStopSent && (entry->status.dwControlsAccepted & SERVICE_ACCEPT_STOP)) {
                entry->isStopSent = true;
                handler = entry->handler;
                context = entry->context;
            }
        }
        if (handler) handler(SERVICE_CONTROL_STOP, 0, nullptr, context);
    }
}

}  // namespace Quellan::Corvel
