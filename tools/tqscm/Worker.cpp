#include "Worker.h"

#include "Print.h"
#include "TQLib/platform/linux/base/Errors.h"

#include <csignal>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <system_error>

namespace tqscm {

using namespace Quellan::Platform;

namespace {

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
    explicit Bell(Worker& worker) : m_worker(worker), m_event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (!m_event) throw std::system_error(errno, std::generic_category(), "eventfd");
    }
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

Worker::Worker(EventLoop& loop) : m_loop(loop) {
    auto bell = std::make_unique<Bell>(*this);
    m_bell = bell.get();
    m_loop.Watch(m_bell->Fd(), EPOLLIN, std::move(bell));
}

Worker::~Worker() {
    {
        const std::lock_guard lock(m_lock);
        m_isEnding = true;
    }
    m_wake.notify_one();
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
        const std::lock_guard lock(m_lock);
        m_tasks.splice(m_tasks.end(), task);
    }
    m_wake.notify_one();
}

void Worker::Finish(Tasks& task) {
    task.front().code = CodeOf(task.front().work);
    task.front().work = nullptr;
    const std::lock_guard lock(m_lock);
    m_finished.splice(m_finished.end(), task);
    m_bell->Ring();
}

void Worker::Run() {
    for (std::unique_lock lock(m_lock);;) {
        m_wake.wait(lock, [this] { return m_isEnding || !m_tasks.empty(); });
        if (m_tasks.empty()) return;
        Tasks task;
        task.splice(task.end(), m_tasks, m_tasks.begin());
        lock.unlock();
        Finish(task);
        lock.lock();
    }
}

void Worker::TellDone() {
    for (;;) {
        Tasks task;
        {
            const std::lock_guard lock(m_lock);
            if (m_finished.empty()) return;
            task.splice(task.end(), m_finished, m_finished.begin());
            if (!m_finished.empty()) m_bell->Ring();  // should this one throw
        }
        --m_posted;
        task.front().done(task.front().code);
    }
}

}  // namespace tqscm
