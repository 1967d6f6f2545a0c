#include "TQLib/platform/linux/objects/ThreadObject.h"

#include "TQLib/platform/RaceTools.h"
#include "TQLib/platform/linux/base/Clock.h"
#include "TQLib/platform/linux/base/Descriptor.h"
#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/Process.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <linux/capability.h>
#include <sys/resource.h>

namespace Quellan::Platform {

namespace {

// Of the suspend count.
constexpr std::uint32_t HasBegun = 0x80000000;
constexpr std::uint32_t Asleep = 0x40000000;  // beside the count: the thread sleeps until it is 0
// Of what is known of a new thread.
constexpr std::uint32_t Known = 1;
constexpr std::uint32_t Wanted = 2;  // the thread sleeps until it is
constexpr SIZE_T DefaultStack = 1 << 20;
constexpr SIZE_T StackStep = 1 << 16;
constexpr SIZE_T LeastUsableStack = 1 << 15;  // beside the thread's static data and the kernel's needs

TQ_THERE_WITH_THREAD constinit thread_local Thread* t_current = nullptr;

FILETIME FileTimeOfSteps(std::uint64_t steps) noexcept {
    return {static_cast<DWORD>(steps), static_cast<DWORD>(steps >> 32)};
}

FILETIME FileTimeOfUse(const timeval& time) noexcept {
    return FileTimeOfSteps(StepsOf(timespec{time.tv_sec, time.tv_usec * 1000}));
}

void ReadOwnProcessorTimes(Thread::Times& times) noexcept {
    rusage usage;
    getrusage(RUSAGE_THREAD, &usage);
    times.kernel = FileTimeOfUse(usage.ru_stime);
    times.user = FileTimeOfUse(usage.ru_utime);
}

// The clock tells another thread's time exactly, its status file how it divides, in clock ticks.
void ReadProcessorTimes(DWORD id, Thread::Times& times) noexcept {
    constexpr clockid_t ThreadClock = 6;
    const std::uint64_t total = StepsOf(ReadClock(static_cast<clockid_t>(~id << 3 | ThreadClock)));
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/task/%u/stat", id);
    char buffer[1024];
    std::string_view status = ReadStart(path, buffer);
    status.remove_prefix(
        std::min(status.rfind(')') + 1, status.size()));  // the thread's name may hold anything
    constexpr int UserField = 12;  // counted from the one after the name, in blanks before it
    std::uint64_t ticks[2] = {};   // user, kernel
    for (int field = 1; !status.empty(); ++field) {
        status.remove_prefix(1);
        if (field == UserField || field == UserField + 1)
            std::from_chars(status.data(), status.data() + status.size(), ticks[field - UserField]);
        status.remove_prefix(std::min(status.find(' '), status.size()));
    }
    const std::uint64_t sum = ticks[0] + ticks[1];
    const std::uint64_t kernel = sum == 0 ? 0 : total / sum * ticks[1];
    times.kernel = FileTimeOfSteps(kernel);
    times.user = FileTimeOfSteps(total - kernel);
}

// "Nice" values of the priorities.
struct PriorityValue {
    int priority;
    int nice;
};
constexpr PriorityValue Priorities[] = {
    {THREAD_PRIORITY_IDLE, 19},           {THREAD_PRIORITY_LOWEST, 10},
    {THREAD_PRIORITY_BELOW_NORMAL, 5},    {THREAD_PRIORITY_NORMAL, 0},
    {THREAD_PRIORITY_ABOVE_NORMAL, -5},   {THREAD_PRIORITY_HIGHEST, -10},
    {THREAD_PRIORITY_TIME_CRITICAL, -15},
};

// What the process had before any of its threads was changed here.
int ProcessNice() noexcept {
    static const int nice = getpriority(PRIO_PROCESS, static_cast<id_t>(getpid()));
    return nice;
}

bool MayRaiseTo(int nice) noexcept {
    rlimit limit;
    if (getrlimit(RLIMIT_NICE, &limit) == 0 && static_cast<rlim_t>(20 - nice) <= limit.rlim_cur) return true;
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    return syscall(SYS_capget, &header, data) == 0 && data[0].effective >> CAP_SYS_NICE & 1;
}

}  // namespace

// Living threads by id. Threads may end while the process does: it is never destroyed.
struct ThreadMap {
    std::map<DWORD, std::weak_ptr<Thread>> threads TQ_GUARDED_BY(Thread::s_mapLock);

    static ThreadMap& Instance() noexcept {
        alignas(ThreadMap) static std::byte memory[sizeof(ThreadMap)];
        static ThreadMap* const instance = new (memory) ThreadMap;
        TellOwnMemory(&instance, sizeof instance);
        return *instance;
    }

    // Made beforehand: a thread that begins cannot report that there is no memory.
    static Thread::MapEntry NewEntry() {
        std::map<DWORD, std::weak_ptr<Thread>> single{{0, {}}};
        return single.extract(single.begin());
    }
};

Waiter* CurrentWaiter() noexcept {
    Thread* const thread = Thread::Current();
    return thread ? &thread->AsWaiter() : nullptr;
}

Thread::Thread(LPTHREAD_START_ROUTINE function, void* parameter, bool suspended)
    : Waitable(Kind, StaysSignalled, 0),
      m_function(function),
      m_parameter(parameter),
      m_suspended(suspended ? 1 : 0),
      m_mapEntry(ThreadMap::NewEntry()) {
    m_times.creation = FileTimeOf(ReadClock(CLOCK_REALTIME));
    TellOwnMemory(this, sizeof *this);
}

DWORD Thread::Start(SIZE_T stackSize) noexcept {
    const SIZE_T least = static_cast<SIZE_T>(sysconf(_SC_THREAD_STACK_MIN)) + LeastUsableStack;
    const SIZE_T wanted = std::max(stackSize ? stackSize : DefaultStack, least);
    if (wanted > SIZE_MAX - StackStep) return ERROR_NOT_ENOUGH_MEMORY;
    m_reniced = t_current && t_current->m_reniced;
    m_self = std::static_pointer_cast<Thread>(shared_from_this());
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attributes, (wanted + StackStep - 1) / StackStep * StackStep);
    pthread_t native;
    const int error = pthread_create(&native, &attributes, &Thread::Main, this);
    pthread_attr_destroy(&attributes);
    if (error != 0) {
        m_self.reset();
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    // The id without waiting for the thread: it is what the clock of its processor time is made of.
    clockid_t clock = 0;
    pthread_getcpuclockid(native, &clock);
    Register(static_cast<DWORD>(~(clock >> 3)));
    if (m_known.exchange(Known) == Wanted) FutexWake(&m_known, 1, Reach::Process);
    return ERROR_SUCCESS;
}

// Not noexcept: pthread_exit unwinds through it.
void* Thread::Main(void* thread) {
    Thread& self = *static_cast<Thread*>(thread);
    if (self.m_ownIdentity) self.m_ownIdentity->PutOn();
    const bool endIsSeen = self.Adopt();
    if (self.m_reniced) self.ApplyPriority();  // the system hands on its maker's
    self.WaitForStart();
    if (setjmp(self.m_exit) == 0) self.m_result = self.m_function(self.m_parameter);
    if (!endIsSeen) self.End();
    return nullptr;
}

Thread* Thread::Current() noexcept {
    if (t_current) return t_current;
    try {
        const auto made = std::make_shared<Thread>(nullptr, nullptr, false);
        made->m_self = made;
        made->m_suspended = HasBegun;
        if (!made->Adopt()) made->End();
        return t_current;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// Makes the object that of the calling thread. False when there is no memory to be told of the thread's end.
bool Thread::Adopt() noexcept {
    t_current = this;
    const bool endIsSeen = pthread_setspecific(EndKey(), this) == 0;
    const DWORD id = GetCurrentThreadId();
    m_waiter.SetThread(id);
    Register(id);
    return endIsSeen;
}

// By the thread and by its maker, whoever comes first.
void Thread::Register(DWORD id) noexcept {
    ThreadMap& map = ThreadMap::Instance();
    const Guard lock(s_mapLock);
    if (!m_mapEntry) return;
    m_mapEntry.key() = id;
    m_mapEntry.mapped() = m_self;
    map.threads.insert(std::move(m_mapEntry));
    m_id = id;
}

// In the child of a fork the thread has another id, under which its entry goes on, and the others are gone.
void Thread::AfterFork(bool isChild) noexcept {
    ThreadMap& map = ThreadMap::Instance();
    MapEntry entry = isChild && t_current ? map.threads.extract(t_current->m_id) : MapEntry();
    if (isChild) map.threads.clear();
    if (isChild && t_current) {
        const DWORD id = GetCurrentThreadId();
        t_current->m_id = id;
        t_current->m_waiter.BecomeInFork(id);
        if (entry) {
            entry.key() = id;
            map.threads.insert(std::move(entry));
        }
    }
    s_mapLock.unlock();
}

const ForkPart g_threadForkPart(ForkOrder::Threads, &Thread::Hold, &Thread::AfterFork);

pthread_key_t Thread::EndKey() noexcept {
    static const pthread_key_t key = [] {
        pthread_key_t made;
        pthread_key_create(&made, &Thread::AtThreadEnd);
        return made;
    }();
    return key;
}

// Other keys' destructors still count as the thread's. The very last round is left to the sanitizers' own.
void Thread::AtThreadEnd(void* thread) noexcept {
    auto& self = *static_cast<Thread*>(thread);
    if (++self.m_endRounds < PTHREAD_DESTRUCTOR_ITERATIONS - 1)
        pthread_setspecific(EndKey(), &self);
    else
        self.End();
}

void Thread::End() noexcept {
    std::uint32_t unknown = 0;
    if (m_function && m_known.compare_exchange_strong(unknown, Wanted))
        while (m_known == Wanted)
            FutexWait(m_known, Wanted, Never, Reach::Process);
    const std::shared_ptr<Thread> alive = std::move(m_self);
    {
        const Guard lock(s_mapLock);
        ThreadMap::Instance().threads.erase(Id());
    }
    SetToken(nullptr);
    m_seat.Leave();
    m_messages.Close();
    m_waiter.End();
    {
        const Guard lock(m_timesLock);
        ReadOwnProcessorTimes(m_times);
        m_times.exit = FileTimeOf(ReadClock(CLOCK_REALTIME));
        m_ended = true;
    }
    m_exitCode.store(m_result, std::memory_order_release);
    t_current = nullptr;
    Signal();
    WithoutFork::GiveUpPlace();
}

void Thread::WaitForStart() noexcept {
    for (std::uint32_t count = m_suspended;;) {
        const bool isLetGo = (count & ~Asleep) == 0;
        if (isLetGo || !(count & Asleep)) {
            if (!m_suspended.compare_exchange_strong(count, isLetGo ? HasBegun : count | Asleep)) continue;
            TellAcquired(&m_suspended);
            if (isLetGo) return;
        }
        FutexWait(m_suspended, count | Asleep, Never, Reach::Process);
        count = m_suspended;
    }
}

std::shared_ptr<Thread> Thread::Find(DWORD id) noexcept {
    ThreadMap& map = ThreadMap::Instance();
    const Guard lock(s_mapLock);
    const auto found = map.threads.find(id);
    return found == map.threads.end() ? nullptr : found->second.lock();
}

std::shared_ptr<Object> Thread::Token() noexcept {
    const Guard lock(m_tokenLock);
    return m_token;
}

void Thread::SetToken(std::shared_ptr<Object> token) noexcept {
    const Guard lock(m_tokenLock);
    m_token.swap(token);
}

DWORD Thread::ExitCode() const noexcept {
    return m_exitCode.load(std::memory_order_acquire);
}

DWORD Thread::Resume(DWORD& previous) noexcept {
    TellReleased(&m_suspended);
    std::uint32_t count = m_suspended;
    do {
        previous = count == HasBegun ? 0 : count & ~Asleep;
        if (previous == 0) return ERROR_SUCCESS;
    } while (!m_suspended.compare_exchange_weak(count, count - 1));
    if (previous == 1 && count & Asleep) FutexWake(&m_suspended, 1, Reach::Process);
    return ERROR_SUCCESS;
}

DWORD Thread::Suspend(DWORD& previous) noexcept {
    std::uint32_t count = m_suspended;
    do {
        // Not suspended means on its way to its function, if not there already.
        previous = count & ~Asleep;
        if (count == HasBegun || previous == 0) return ERROR_NOT_SUPPORTED;
        if (previous == MAXIMUM_SUSPEND_COUNT) return ERROR_SIGNAL_REFUSED;
    } while (!m_suspended.compare_exchange_weak(count, count + 1));
    return ERROR_SUCCESS;
}

Thread::Times Thread::ReadTimes() noexcept {
    const Guard lock(m_timesLock);
    if (m_ended) return m_times;
    Times times = m_times;
    // Until it has passed this lock the thread has not ended, and its id is no other's.
    if (this == t_current)
        ReadOwnProcessorTimes(times);
    else
        ReadProcessorTimes(Id(), times);
    return times;
}

DWORD Thread::SetPriority(int priority) noexcept {
    const auto* const found = std::ranges::find(Priorities, priority, &PriorityValue::priority);
    if (found == std::end(Priorities)) return ERROR_INVALID_PARAMETER;
    m_priority.store(priority, std::memory_order_relaxed);
    ApplyPriority();
    return ERROR_SUCCESS;
}

void Thread::ApplyPriority() noexcept {
    const Guard lock(m_timesLock);
    if (m_ended) return;
    const auto* const found = std::ranges::find(Priorities, Priority(), &PriorityValue::priority);
    const int nice = std::clamp(ProcessNice() + found->nice, -20, 19);
    // Lowered for good is worse than not lowered.
    if (MayRaiseTo(std::min(nice, ProcessNice())) && setpriority(PRIO_PROCESS, Id(), nice) == 0)
        m_reniced = true;
}

void Thread::Exit(DWORD exitCode) {
    m_result = exitCode;
    if (m_function) std::longjmp(m_exit, 1);
    pthread_exit(nullptr);
}

}  // namespace Quellan::Platform
