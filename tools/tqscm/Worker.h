// What takes time and is not for the loop's thread, which others wait for: looking up accounts, writing
// records so that they last.
#pragma once

#include "EventLoop.h"
#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/platform/Win32.h"

#include <list>
#include <thread>

namespace tqscm {

// One thread, on which one thing is done after the other. Called on the loop's thread alone.
class Worker {
  public:
    // Throws std::system_error.
    explicit Worker(EventLoop& loop);
    // What was posted is still worked on to its end; its `done` is not called any more.
    ~Worker();
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // `work` may touch nothing that belongs to the loop. `done` is called on the loop's thread, in the order of
    // the posts and never from here, with the code that `work` returned: 8 (ERROR_NOT_ENOUGH_MEMORY) or 31
    // (ERROR_GEN_FAILURE) where it threw. Where the system has no thread to give the work is done here and now.
    void Post(std::function<DWORD()> work, std::function<void(DWORD code)> done);
    // Whether nothing is worked on and each `done` was called.
    bool IsIdle() const { return m_posted == 0; }

  private:
    class Bell;
    struct Task {
        std::function<DWORD()> work;
        std::function<void(DWORD)> done;
        DWORD code = 0;
    };

    // Lists, so that a task goes from one to the other without memory of its own.
    using Tasks = std::list<Task>;

    bool HasThread();
    void Run();
    void Finish(Tasks& task);
    void TellDone();

    EventLoop& m_loop;
    const Descriptor m_toDo;   // counts the tasks for the thread, and one more in the end
    Bell* m_bell;              // the loop's
    std::size_t m_posted = 0;  // and not done yet
    std::thread m_thread;      // from the first post on
    bool m_wasTold = false;    // that there is no thread

    Quellan::Corvel::TQThreadSynch m_lock;
    Tasks m_tasks TQ_GUARDED_BY(m_lock);
    Tasks m_finished TQ_GUARDED_BY(m_lock);
};

}  // namespace tqscm
