// A thread that watches one group of targets.
#pragma once

#include "Monitor.h"

#include <atomic>
#include <memory>
#include <optional>
#include <vector>

// Checks its targets when it starts and then whenever the interval has passed; without an interval it ends
// with the first check. An exception ends it, and no other thread: the library logs it and keeps its code as
// the thread's result. All members may be called by several threads at once.
class GroupThread : public Quellan::Corvel::TQThread {
  public:
    GroupThread(std::size_t number, Quellan::Corvel::TQStringArray targets, std::optional<DWORD> intervalMs);
    ~GroupThread() override { EndThread(); }

    // Lets the checks rest, or go on at once; a check under way is finished.
    void Pause(bool pause);

    // As the last check that was finished left it.
    MonitorSummary Summary() const;
    // Whether the thread has ended by an exception.
    bool HasFailed() const { return !ThreadRunning() && ResultCode() != 0; }
    // One line that tells how things are.
    Quellan::Corvel::TQString Report() const;

  protected:
    unsigned int RunWork(Quellan::Corvel::BYTEBuf& data) override;

  private:
    const std::size_t m_number;
    const Quellan::Corvel::TQStringArray m_targets;
    const std::optional<DWORD> m_intervalMs;
    std::atomic<bool> m_isPaused{false};
    const Quellan::Corvel::TQEvent m_pauseChanged{false};
    mutable Quellan::Corvel::TQThreadSynch m_lock;
    MonitorSummary m_summary TQ_GUARDED_BY(m_lock);
};

using GroupList = std::vector<std::unique_ptr<GroupThread>>;
