#include "TQLib/threads/TQThread.h"

#include "TQLib/core/TQException.h"
#include "TQLib/core/internal/Insist.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/threads/TQThreadCPUTimer.h"
#include "TQLib/threads/internal/ExceptionMessage.h"
#include "TQLib/threads/internal/GuardedStep.h"
#include "TQLib/threads/internal/WaitFailure.h"

#include <utility>

namespace Quellan::Corvel {

namespace {

// The object whose work the thread runs; null once it is destroyed, by its own thread.
thread_local const TQThread* t_ownObject = nullptr;

}  // namespace

TQThread::TQThread() : m_stopEvent(true) {}

TQThread::TQThread(const void* data, ULONGLONG size)
    : m_stopEvent(true), m_data(static_cast<const BYTE*>(data), size) {}

TQThread::~TQThread() {
    EndThread();
    if (IsOwnThread()) t_ownObject = nullptr;
}

unsigned int TQThread::OnStart(const BYTEBuf&) {
    return 0;
}

unsigned int TQThread::OnStop(const BYTEBuf&, const unsigned int& result) {
    return result;
}

unsigned int TQThread::RunWork(BYTEBuf&) {
    return 0;
}

bool TQThread::Stopped() const {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    return m_isStopRequested;
}

DWORD TQThread::ID() const {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    return m_id;
}

bool TQThread::ThreadRunning() const {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    return m_state == State::Running;
}

void TQThread::Start(bool suspended) {
    if (ThreadRunning()) {
        {
            const TQThreadSynch::TQSynchLock guard(m_lock);
            if (!m_isStopRequested) return;
        }
        WaitForComplete(INFINITE);
    }
    while (!StartAfter(AwaitLastThread(false), suspended)) {
    }
}

// Starts a new thread as `Start` does, the last one being over; false, with nothing done, where that was no
// longer the last.
// The thread is made while the lock is free, and let go once all that is known of it stands here.
bool TQThread::StartAfter(const ThreadHandleHolder& last, bool suspended) {
    ThreadHandleHolder startupEvent, thread, lastEvent;
    DWORD code = 0;
    ThreadHandleHolder::Unique event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!event) code = GetLastError();
    startupEvent = std::move(event);
    DWORD stackSize = 0, flags = CREATE_SUSPENDED;
    bool isOver;
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        isOver = m_state == State::NotStarted || m_state == State::Ended;
        if (isOver && m_thread.Get() != last.Get()) return false;
        if (isOver && startupEvent) {
            m_stopEvent.Reset();
            m_isStopRequested = false;
            m_thread.Swap(thread);
            m_startupEvent.Swap(lastEvent);
            m_id = 0;
            m_resultCode = 0;
            m_resultMessage = TQString();
            m_state = State::Creating;
            stackSize = m_stackSize;
            if (m_isStackReservation && stackSize != 0) flags |= STACK_SIZE_PARAM_IS_A_RESERVATION;
        }
    }
    if (!isOver) throw TQException(ERROR_ALREADY_INITIALIZED, L"Thread Start Failed - Already started.");
    if (!startupEvent) throw TQSysException(code, L"Thread Creation Event Failed.");

    DWORD id = 0;
    ThreadHandleHolder::Unique made(CreateThread(nullptr, stackSize, ThreadMain, this, flags, &id));
    try {
        if (!made) TQSysException::ThrowLastError(L"Thread Creation Failed.");
        thread = std::move(made);
    } catch (...) {
        if (made) EndSuspended(made.Get());
        const TQThreadSynch::TQSynchLock guard(m_lock);
        m_state = State::NotStarted;
        throw;
    }
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        m_thread = thread;
        m_id = id;
        m_startupEvent = startupEvent;
        m_state = suspended ? State::Suspended : State::Starting;
        m_startTime = TQTime::CurrentTime();
        m_startTimeUTC = TQTime::CurrentUTCTime();
    }
    if (suspended) return true;
    try {
        LetGo(thread, true);
    } catch (...) {
        AwaitLastThread(false);
        throw;
    }
    AwaitStartup(startupEvent, thread);
    return true;
}

// Lets a thread go that finds no start to make, and waits for its end.
void TQThread::EndSuspended(HANDLE thread) noexcept {
    // What failed counts as suspended still.
    while (ResumeThread(thread) > 1 && WaitForSingleObject(thread, InsistAgainMs) != WAIT_OBJECT_0) {
    }
    AwaitSurely({thread});
}

void TQThread::Stop() {
    Insist([this] {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        m_isStopRequested = true;
        return SetEvent(m_stopEvent.Handle());
    });
}

DWORD TQThread::WaitForComplete(DWORD ms) {
    if (IsOwnThread()) throw TQException(ERROR_POSSIBLE_DEADLOCK, L"A thread cannot wait for its own end.");
    ThreadHandleHolder thread;
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        thread = m_thread;
    }
    if (thread) {
        const DWORD result = WaitForSingleObject(thread.Get(), ms);
        if (result == WAIT_FAILED) TQSysException::ThrowLastError(WaitFailed);
        if (result == WAIT_TIMEOUT) return WAIT_TIMEOUT;
    }
    return ResultCode();
}

DWORD TQThread::StopAndWait(DWORD ms) {
    Stop();
    return WaitForComplete(ms);
}

void TQThread::Restart(bool suspended) {
    if (ThreadRunning()) StopAndWait(INFINITE);
    Start(suspended);
}

unsigned int TQThread::ResultCode() const {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    return m_resultCode;
}

TQString TQThread::ResultMessage() const {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    return m_resultMessage;
}

void TQThread::Resume(DWORD* previousCount) {
    ThreadHandleHolder startupEvent, thread;
    bool isSuspended;
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        startupEvent = m_startupEvent;
        thread = m_thread;
        isSuspended = m_state == State::Suspended;
        if (isSuspended) m_state = State::Starting;
    }
    const DWORD previous = LetGo(thread, isSuspended);
    if (previousCount) *previousCount = previous;
    // Somebody else who suspended it too has yet to let it go.
    if (previous <= 1) AwaitStartup(startupEvent, thread);
}

// Resumes the thread and gives how often it was suspended. `isSuspended`: the state was Suspended, and is so
// again where this fails.
DWORD TQThread::LetGo(const ThreadHandleHolder& thread, bool isSuspended) {
    const DWORD previous = ResumeThread(thread.Get());
    if (previous != static_cast<DWORD>(-1)) return previous;
    const DWORD code = GetLastError();
    if (isSuspended) {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        if (m_state == State::Starting) m_state = State::Suspended;
    }
    throw TQSysException(code, L"TQThread::Resume");
}

HANDLE TQThread::ThreadHandle() const {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    return m_thread.Get();
}

TQTime TQThread::StartTime() const {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    return m_startTime;
}

// In UTC, as the local clock is set twice a year.
TQTimeSpan TQThread::RunningTime() const {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    return m_startTimeUTC.IsNull() ? TQTimeSpan() : TQTime::CurrentUTCTime() - m_startTimeUTC;
}

TQTimeSpan TQThread::CPUTime() const {
    ThreadHandleHolder thread;
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        thread = m_thread;
    }
    return thread ? TQThreadCPUTimer::ThreadTime(thread.Get()) : TQTimeSpan();
}

void TQThread::SetStackSize(DWORD size, bool reservation) {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    m_stackSize = size;
    m_isStackReservation = reservation;
}

bool TQThread::ThreadHasToken() {
    TQUniqueHandle<_TQKernelHandleClose> token;
    if (OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.Put())) return true;
    switch (GetLastError()) {
        case ERROR_NO_TOKEN:
            return false;
        // There is one, which can't be opened.
        case ERROR_ACCESS_DENIED:
        case ERROR_CANT_OPEN_ANONYMOUS:
            return true;
        default:
            TQSysException::ThrowLastError(L"TQThread::ThreadHasToken");
    }
}

void TQThread::WaitForStartup() {
    ThreadHandleHolder startupEvent, thread;
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        startupEvent = m_startupEvent;
        thread = m_thread;
    }
    AwaitStartup(startupEvent, thread);
}

// A thread that has started may have destroyed the object.
void TQThread::AwaitStartup(const ThreadHandleHolder& startupEvent, const ThreadHandleHolder& thread) {
    if (!startupEvent) return;
    if (AwaitSurely({startupEvent.Get(), thread.Get()}) == 0) return;
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        if (m_startupEvent == startupEvent) {
            m_startupEvent.Close();
            m_state = State::Ended;
        }
    }
    throw TQException(ERROR_OPERATION_ABORTED, L"Thread failed to start properly.");
}

bool TQThread::HasThread() const {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    return m_state != State::NotStarted && m_state != State::Ended;
}

void TQThread::EndThread() noexcept {
    if (IsOwnThread()) return;
    const _TQLastErrorKeeper keeper;
    TQThread::Stop();
    AwaitLastThread(true);
}

bool TQThread::IsOwnThread() const noexcept {
    return t_ownObject == this;
}

// Waits for the very end of the thread last started, and returns it: one whose steps are over may still be
// about to leave the object's lock. None where the thread is at work and is to be left there. A suspended
// thread is let go into its end, without a step.
TQThread::ThreadHandleHolder TQThread::AwaitLastThread(bool evenAtWork) noexcept {
    ThreadHandleHolder thread;
    bool isSuspended;
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        isSuspended = m_state == State::Suspended;
        if (isSuspended) m_state = State::Ended;
        if (m_state == State::Ended || evenAtWork) thread = m_thread;
    }
    if (isSuspended)
        EndSuspended(thread.Get());
    else if (thread && !IsOwnThread())
        AwaitSurely({thread.Get()});
    return thread;
}

DWORD TQThread::ThreadMain(void* self) {
    auto& thread = *static_cast<TQThread*>(self);
    t_ownObject = &thread;
    unsigned int code = UnknownExceptionCode;
    TQString message;
    try {
        return thread.RunThread();
    } catch (const TQCoreException& e) {
        code = e.ErrCode();
        message = MessageOf(e);
    } catch (...) {
        // Nothing is known of it but the code.
    }
    if (t_ownObject == &thread) thread.SetEnded(code, std::move(message));
    return code;
}

unsigned int TQThread::RunThread() {
    const _TQWin32Exception::Trap_SEH trap(L"TQThread::RunThread");
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        // Whoever has the handle may have resumed the thread past this object.
        if (m_state == State::Suspended) m_state = State::Starting;
        if (m_state != State::Starting) return 0;
    }
    TQString message;
    unsigned int refusal = 0;
    Guarded(L"Processing Thread::OnStart", message, [&] { return refusal = OnStart(m_data); });
    // After each step the object may be gone, destroyed by the step: not even its functions are called then.
    const auto isGone = [self = this] { return t_ownObject != self; };
    if (isGone()) return refusal;
    if (refusal != 0) {
        SetEnded(refusal, std::move(message));
        return refusal;
    }
    ThreadHandleHolder startupEvent;
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        m_state = State::Running;
        startupEvent.Swap(m_startupEvent);
    }
    // Whoever waits for it takes the lock at once.
    if (startupEvent && !SetEvent(startupEvent.Get())) TQSysException::ThrowLastError(L"TQThread::RunThread");
    startupEvent.Close();
    const unsigned int worked =
        Guarded(L"Processing Thread::RunWork", message, [&] { return RunWork(m_data); });
    if (isGone()) return worked;
    const unsigned int result =
        Guarded(L"Processing Thread::OnStop", message, [&] { return OnStop(m_data, worked); });
    if (!isGone()) SetEnded(result, std::move(message));
    return result;
}

void TQThread::SetEnded(unsigned int code, TQString&& message) noexcept {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    m_resultCode = code;
    m_resultMessage = std::move(message);
    m_state = State::Ended;
}

}  // namespace Quellan::Corvel
