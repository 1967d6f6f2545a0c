// A thread that watches one group of targets.
#pragma once

#include "CheckPool.h"
#include "Options.h"
#include "TQLib/platform/Win32.h"

#include <atomic>
#include <memory>
#include <optional>
#include <vector>

// Has its targets checked when it starts and then whenever the interval has passed; without an interval it
// ends after the first checks. Each target's checks are work of a requestor of their own in the pool: one
// that takes long is not waited for by the others, and is checked anew once it is over. An exception ends the
// thread, and no other: the library logs it and keeps its code as the thread's result. All members may be
// called by several threads at once.
class GroupThread : public Quellan::Corvel::TQThread {
  public:
    // The target that raises an access violation in this thread, behind it the file that has to be there for
    // that; without one it does so at once.
    static constexpr const wchar_t* Fault = L"fault:";

    // The pool must outlive it.
    GroupThread(std::size_t number, const Quellan::Corvel::TQStringArray& targets, const Options& options,
                CheckPool& pool);
    // Stops the pool, as checks of these targets may be under way.
    ~GroupThread() override;

    // Lets the checks rest, or go on at once; those under way are finished.
    void Pause(bool pause);

    // Of all targets, as their last finished checks left them.
    CheckSummary Summary() const;
    // Whether the thread, or the check of a target, has ended by an exception.
    bool HasFailed() const;
    // Such as "group 1".
    Quellan::Corvel::TQString Name() const;
    // One line that tells how things are.
    Quellan::Corvel::TQString Report() const;

  protected:
    unsigned int RunWork(Quellan::Corvel::BYTEBuf& data) override;

  private:
    struct Watched {
        std::unique_ptr<Target> target;
        DWORD requestorID;
    };

    bool IsFaultDue() const;
    void CheckAll();
    void OnCheckEnd();

    const std::size_t m_number;
    const std::optional<DWORD> m_intervalMs;
    CheckPool& m_pool;
    std::optional<Quellan::Corvel::TQString> m_faultFile;
    Quellan::Corvel::TQString m_targetNames;
    std::vector<Watched> m_targets;
    std::atomic<std::size_t> m_underWay{0};  // checks, and one more while some are posted
    const Quellan::Corvel::TQEvent m_allChecked{false};
    std::atomic<bool> m_isPaused{false};
    const Quellan::Corvel::TQEvent m_pauseChanged{false};
};

using GroupList = std::vector<std::unique_ptr<GroupThread>>;
