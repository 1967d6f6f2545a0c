// A thread that takes commands from the standard input.
#pragma once

#include "GroupThread.h"

// Takes one command a line: `pause`, `resume` and `report` are for all groups, `stop` sets the stop event.
// The end of the input ends nothing. What it is given must outlive it.
//
// The lines are read by a further thread, which posts each to this one as a message. A read from a console or
// a pipe may last for ever, so nobody waits for that thread: it owns nothing, refers to nothing but the id of
// this thread, and ends with the process.
class CommandThread : public Quellan::Corvel::TQMsgThread {
  public:
    CommandThread(const GroupList& groups, const CheckPool& pool, const Quellan::Corvel::TQEvent& stop)
        : m_groups(groups), m_pool(pool), m_stop(stop) {}
    ~CommandThread() override { EndThread(); }

  protected:
    unsigned int OnStart(const Quellan::Corvel::BYTEBuf& data) override;
    void OnThreadMessage(UINT msg, ULONGLONG wParam, LONGLONG lParam, DWORD time) override;

  private:
    const GroupList& m_groups;
    const CheckPool& m_pool;
    const Quellan::Corvel::TQEvent& m_stop;
};
