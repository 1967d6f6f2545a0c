// All groups of targets, with the pool that checks them.
#pragma once

#include "GroupThread.h"
#include "Options.h"

// Watches from `Start` to `Stop`. For one thread, but for `Report`.
class Watch {
  public:
    explicit Watch(const Options& options);

    void Start();
    void Pause(bool pause);
    // Tells how things are.
    void Report() const;
    // Breaks off the checks under way and waits for the threads.
    void Stop();
    // Tells what came of it all. True where something has failed, or strangers may write to a target.
    bool Summarise() const;

    const GroupList& Groups() const noexcept { return m_groups; }

  private:
    const bool m_isOnce;
    CheckPool m_pool;
    GroupList m_groups;
};
