#include "platform/linux/base/Fork.h"

#include "platform/linux/internal/Futex.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <iterator>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>

namespace Quellan::Corvel::Platform {

namespace {

constinit std::atomic<std::uint32_t> g_generation = 0;
// Sorted; changed only while the library is loaded.
constinit ForkPart* g_outermost = nullptr;
constinit ForkPart* g_innermost = nullptr;

}  // namespace

std::uint32_t ForkGeneration() noexcept {
    return g_generation.load(std::memory_order_relaxed);
}

namespace {

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
        if (isChild) g_generation.fetch_add(1, std::memory_order_relaxed);
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

namespace {

// How many threads are inside, spread over lines of memory that few of them share.
struct alignas(64) Inside {
    std::atomic<std::uint32_t> threads{0};
};
constinit Inside g_inside[16];
constinit std::atomic<bool> g_isForking = false;

struct Place {
    unsigned depth = 0;
    Inside* line = nullptr;
};
[[gnu::tls_model("initial-exec")]] constinit thread_local Place t_place;

Inside& OwnLine() noexcept {
    static constinit std::atomic<unsigned> threads{0};
    if (!t_place.line)
        t_place.line = g_inside + threads.fetch_add(1, std::memory_order_relaxed) % std::size(g_inside);
    return *t_place.line;
}

// Both sides write before they look at what the other one writes: one of them sees the other.
const ForkPart g_singleObjectsPart(
    ForkOrder::SingleObjects,
    []() noexcept {
        g_isForking = true;
        for (Backoff backoff; std::ranges::any_of(g_inside, [](Inside& each) { return each.threads != 0; });)
            backoff.Pause();
    },
    [](bool) noexcept { g_isForking = false; });

}  // namespace

void WithoutFork::Begin() noexcept {
    if (t_place.depth++ != 0) return;
    Inside& line = OwnLine();
    for (Backoff backoff;; backoff.Pause()) {
        ++line.threads;
        if (!g_isForking) return;
        --line.threads;
    }
}

void WithoutFork::End() noexcept {
    if (--t_place.depth == 0) t_place.line->threads.fetch_sub(1, std::memory_order_release);
}

struct ProcessDescriptors {
    static constinit inline std::mutex s_lock;
    static constinit inline ProcessDescriptor* s_first = nullptr;  // guarded by s_lock
    static constinit inline unsigned s_awaiting = 0;               // guarded by s_lock

    static void Add(ProcessDescriptor& descriptor) noexcept {
        const std::scoped_lock lock(s_lock);
        descriptor.m_next = s_first;
        if (s_first) s_first->m_previous = &descriptor;
        s_first = &descriptor;
        s_awaiting += descriptor.m_parent == ProcessDescriptor::Parent::AwaitsChild;
    }

    static void Remove(ProcessDescriptor& descriptor) noexcept {
        const std::scoped_lock lock(s_lock);
        Unlink(descriptor);
    }

    static void Unlink(ProcessDescriptor& descriptor) noexcept {
        (descriptor.m_previous ? descriptor.m_previous->m_next : s_first) = descriptor.m_next;
        if (descriptor.m_next) descriptor.m_next->m_previous = descriptor.m_previous;
        s_awaiting -= descriptor.m_parent == ProcessDescriptor::Parent::AwaitsChild;
    }

    static void Hold() noexcept {
        s_lock.lock();
        if (s_awaiting != 0) PrepareToAwaitChild();
    }

    static void Resume(bool isChild) noexcept {
        if (isChild) {
            MendAll();
            CloseEnd(t_childToAwait);
            CloseEnd(t_childIsMended);
        }
        s_lock.unlock();
    }

    static void MendAll() noexcept {
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

}  // namespace Quellan::Corvel::Platform
