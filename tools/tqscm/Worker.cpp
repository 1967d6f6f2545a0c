#include "Worker.h"

#include "Print.h"
#include "TQLib/platform/linux/base/Errors.h"

#include <csignal>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <system_error>

namespace tqscm {

using namespace Quellan::Platform;
using Quellan::Corvel::TQThreadSynch;

namespace {

Descriptor MakeCounter(int flags) {
    Descriptor counter(eventfd(0, EFD_CLOEXEC | flags));
    if (!counter) throw std::system_error(errno, std::generic_category(), "eventfd");
    return counter;
}

DWORD CodeOf(const std::function<DWORD()>& work) noexcept {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    } catch (...) {
        return ERROR_GEN_FAILURE;
    }
}

}  // namespace

// By which the loop's thread is told that something is done.
class Worker::Bell : public Source {
  public:
    explicit Bell(Worker& worker) : m_worker(worker), m_event(MakeCounter(EFD_NONBLOCK)) {}
    int Fd() const { return m_event.Get(); }
    void Ring() const { eventfd_write(m_event.Get(), 1); }
    void OnReady(unsigned) override {
        eventfd_t count = 0;
        eventfd_read(m_event.Get(), &count);
        m_worker.TellDone();
    }

  private:
    Worker& m_worker;
    const Descriptor m_event;
};

Worker::Worker(EventLoop& loop) : m_loop(loop), m_toDo(MakeCounter(EFD_SEMAPHORE)) {
    auto bell = std::make_unique<Bell>(*this);
    m_bell = bell.get();
    m_loop.Watch(m_bell->Fd(), EPOLLIN, std::move(bell));
}

Worker::~Worker() {
    eventfd_write(m_toDo.Get(), 1);
    if (m_thread.joinable()) m_thread.join();
    m_loop.Forget(m_bell->Fd(), *m_bell);
}

// Made when it is first needed. Signals are the loop's.
bool Worker::HasThread() {
    if (m_thread.joinable()) return true;
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        m_thread = std::thread([this] { Run(); });
        m_wasTold = false;
    } catch (const std::system_error& failure) {
        if (!std::exchange(m_wasTold, true))
            Print("there is no thread for what takes time: %s", failure.what());
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return m_thread.joinable();
}

void Worker::Post(std::function<DWORD()> work, std::function<void(DWORD code)> done) {
    Tasks task;
    task.push_back({std::move(work), std::move(done)});
    ++m_posted;
    if (!HasThread()) return Finish(task);
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        m_tasks.splice(m_tasks.end(), task);
    }
    eventfd_write(m_toDo.Get(), 1);
}

void Worker::Finish(Tasks& task) {
    task.front().code = CodeOf(task.front().work);
    task.front().work = nullptr;
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        m_finished.splice(m_finished.end(), task);
    }
    m_bell->Ring();
}

// Until it is woken for nothing: in the end.
void Worker::Run() {
    for (;;) {
        eventfd_t one = 0;
        Retry([&] { return eventfd_read(m_toDo.Get(), &one); });
        Tasks task;
        {
            const TQThreadSynch::TQSynchLock guard(m_lock);
            if (m_tasks.empty()) return;
            task.splice(task.end(), m_tasks, m_tasks.begin());
        }
        Finish(task);
    }
}

void Worker::TellDone() {
    for (;;) {
        Tasks task;
        bool isLast = false;
        {
            const TQThreadSynch::TQSynchLock guard(m_lock);
            if (m_finished.empty()) return;
            task.splice(task.end(), m_finished, m_finished.begin());
            isLast = m_finished.empty();
        }
        if (!isLast) m_bell->Ring();  // should this one throw
        --m_posted;
        task.front().done(task.front().code);
    }
}

}  // namespace tqscm
