#include "TQLib/platform/linux/base/Fork.h"

#include "TQLib/platform/RaceTools.h"
#include "TQLib/platform/linux/base/Futex.h"
#include "TQLib/platform/linux/base/Lock.h"
#include "TQLib/platform/linux/base/Process.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <csignal>
#include <iterator>
#include <linux/membarrier.h>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace Quellan::Platform {

namespace {

// Sorted; changed only while the library is loaded.
constinit ForkPart* g_outermost = nullptr;
constinit ForkPart* g_innermost = nullptr;

// Of the fork under way on this thread: the end of a pipe that the child closes when it has mended itself, or
// when it ends, and the one on which its parent hears of it.
constinit thread_local int t_childIsMended = -1;
constinit thread_local int t_childToAwait = -1;

void PrepareToAwaitChild() noexcept {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return;
    t_childToAwait = ends[0];
    t_childIsMended = ends[1];
}

void CloseEnd(int& end) noexcept {
    if (end >= 0) close(std::exchange(end, -1));
}

// No lock is held meanwhile. A child that somebody has stopped is not waited for.
void AwaitChild() noexcept {
    constexpr int PatienceMs = 1'000;
    CloseEnd(t_childIsMended);
    if (t_childToAwait < 0) return;
    pollfd waiting{t_childToAwait, 0, 0};
    Retry([&] { return poll(&waiting, 1, PatienceMs); });
    CloseEnd(t_childToAwait);
}

}  // namespace

struct ForkPart::Registration {
    Registration() noexcept {
        pthread_atfork(
            [] {
                for (ForkPart* part = g_outermost; part; part = part->m_inner)
                    if (part->m_prepare) part->m_prepare();
            },
            [] { ResumeAll(false); }, [] { ResumeAll(true); });
    }

    static void ResumeAll(bool isChild) noexcept {
        const int saved = errno;
        if (isChild) g_forkGeneration.fetch_add(1, std::memory_order_relaxed);
        for (ForkPart* part = g_innermost; part; part = part->m_outer)
            part->m_resume(isChild);
        if (!isChild) AwaitChild();
        errno = saved;
    }
};

ForkPart::ForkPart(ForkOrder order, Prepare prepare, Resume resume) noexcept
    : m_order(order), m_prepare(prepare), m_resume(resume) {
    static const Registration registration;
    m_inner = g_outermost;
    while (m_inner && m_inner->m_order < m_order) {
        m_outer = m_inner;
        m_inner = m_inner->m_inner;
    }
    (m_outer ? m_outer->m_inner : g_outermost) = this;
    (m_inner ? m_inner->m_outer : g_innermost) = this;
}

struct ForksOfObjects {
    using Line = WithoutFork::Line;

    static constinit inline Line s_lines[256]{};
    struct Barrier {
        const bool isThere = syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
    };
    static const Barrier s_barrier;  // made before whatever else the library has

    // Lines are few and threads come and go, so a thread takes the line of one that has ended.
    static Line* FindLine() noexcept {
        constexpr std::size_t MostTries = 16;
        TellOwnMemory(s_lines, sizeof s_lines);
        if (!s_barrier.isThere) return nullptr;
        const int saved = errno;
        const auto self = static_cast<pid_t>(GetCurrentThreadId());
        Line* found = nullptr;
        for (std::size_t i = 0; i < MostTries && !found; ++i) {
            Line& line = s_lines[(static_cast<std::size_t>(self) + i) % std::size(s_lines)];
            pid_t thread = line.thread.load(std::memory_order_relaxed);
            const bool isFree = thread == 0 || thread == self ||
                                tgkill(static_cast<pid_t>(GetCurrentProcessId()), thread, 0) != 0;
            if (isFree && line.thread.compare_exchange_strong(thread, self)) found = &line;
        }
        errno = saved;
        return found;
    }

    // Whoever was not inside yet sees that a fork has begun, or is seen.
    static void Hold() noexcept {
        WithoutFork::s_isForking = true;
        syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0);
        const auto isAnyInside = [] {
            return WithoutFork::s_counted != 0 ||
                   std::ranges::any_of(s_lines, [](const Line& line) { return line.inside != 0; });
        };
        for (Backoff backoff; isAnyInside(); backoff.Pause()) {
        }
    }

    static void Resume(bool isChild) noexcept {
        if (isChild)
            for (Line& line : s_lines)
                line.thread.store(&line == WithoutFork::t_place.line ? gettid() : 0,
                                  std::memory_order_relaxed);
        WithoutFork::s_isForking = false;
    }
};

TQ_MADE_AT_LOAD const ForksOfObjects::Barrier ForksOfObjects::s_barrier;

namespace {

const ForkPart g_singleObjectsPart(ForkOrder::SingleObjects, &ForksOfObjects::Hold, &ForksOfObjects::Resume);

}  // namespace

void WithoutFork::BeginSlowly() noexcept {
    if (!t_place.line && !std::exchange(t_place.isCounted, true)) t_place.line = ForksOfObjects::FindLine();
    std::atomic<std::uint32_t>& inside = t_place.line ? t_place.line->inside : s_counted;
    if (t_place.line) inside = 0;  // it came too late
    for (Backoff backoff;; backoff.Pause()) {
        ++inside;
        if (!s_isForking) return;
        --inside;
    }
}

struct ProcessDescriptors {
    static constinit inline PlainLock s_lock;
    static constinit inline ProcessDescriptor* s_first TQ_GUARDED_BY(s_lock) = nullptr;
    static constinit inline unsigned s_awaiting TQ_GUARDED_BY(s_lock) = 0;

    static void Add(ProcessDescriptor& descriptor) noexcept {
        const Guard lock(s_lock);
        descriptor.m_next = s_first;
        if (s_first) s_first->m_previous = &descriptor;
        s_first = &descriptor;
        s_awaiting += descriptor.m_parent == ProcessDescriptor::Parent::AwaitsChild;
    }

    static void Remove(ProcessDescriptor& descriptor) noexcept {
        const Guard lock(s_lock);
        Unlink(descriptor);
    }

    static void Unlink(ProcessDescriptor& descriptor) noexcept TQ_REQUIRES(s_lock) {
        (descriptor.m_previous ? descriptor.m_previous->m_next : s_first) = descriptor.m_next;
        if (descriptor.m_next) descriptor.m_next->m_previous = descriptor.m_previous;
        s_awaiting -= descriptor.m_parent == ProcessDescriptor::Parent::AwaitsChild;
    }

    static void Hold() noexcept TQ_ACQUIRES(s_lock) {
        s_lock.lock();
        if (s_awaiting != 0) PrepareToAwaitChild();
    }

    static void Resume(bool isChild) noexcept TQ_RELEASES(s_lock) {
        if (isChild) {
            MendAll();
            CloseEnd(t_childToAwait);
            CloseEnd(t_childIsMended);
        }
        s_lock.unlock();
    }

    static void MendAll() noexcept TQ_REQUIRES(s_lock) {
        for (ProcessDescriptor *descriptor = s_first, *next; descriptor; descriptor = next) {
            next = descriptor->m_next;
            if (descriptor->m_child == ProcessDescriptor::Child::OpensAnew) {
                Replace(*descriptor);
            } else {
                Unlink(*descriptor);
                close(descriptor->Get());
            }
        }
    }

    static void Replace(ProcessDescriptor& descriptor) noexcept {
        const int fd = descriptor.Get();
        struct stat info;
        if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) return;
        Descriptor fresh = OpenSame(fd);
        const off_t position = lseek(fd, 0, SEEK_CUR);
        if (fresh && position > 0 && lseek(fresh.Get(), position, SEEK_SET) != position) fresh = Descriptor();
        descriptor.OpenAnew(fresh);
        descriptor.m_ownsLocks = fresh && dup3(fresh.Get(), fd, O_CLOEXEC) == fd;
    }

    static Descriptor OpenSame(int fd) noexcept {
        constexpr std::string_view Folder = "/proc/self/fd/";
        char path[Folder.size() + 12] = {};
        std::to_chars(path + Folder.copy(path, Folder.size()), std::end(path) - 1, fd);
        constexpr int Kept = O_ACCMODE | O_APPEND | O_SYNC | O_NONBLOCK | O_DIRECT | O_NOATIME;
        const int flags = (fcntl(fd, F_GETFL) & Kept) | O_CLOEXEC | O_NOCTTY;
        return Descriptor(Retry([&] { return open(path, flags); }));
    }
};

namespace {

const ForkPart g_descriptorsPart(ForkOrder::Descriptors, &ProcessDescriptors::Hold,
                                 &ProcessDescriptors::Resume);

}  // namespace

ProcessDescriptor::ProcessDescriptor(Descriptor descriptor, Parent parent, Child child) noexcept
    : m_descriptor(std::move(descriptor)), m_parent(parent), m_child(child) {
    ProcessDescriptors::Add(*this);
}

ProcessDescriptor::~ProcessDescriptor() {
    if (m_descriptor && m_ownsLocks) {
        const int saved = errno;
        struct flock all {};
        all.l_type = F_UNLCK;
        all.l_whence = SEEK_SET;
        fcntl(m_descriptor.Get(), F_OFD_SETLK, &all);
        errno = saved;
    }
    ProcessDescriptors::Remove(*this);
}

void ProcessDescriptor::OpenAnew(const Descriptor&) noexcept {}

}  // namespace Quellan::Platform
