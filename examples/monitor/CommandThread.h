// A thread that takes commands from the standard input.
#pragma once

#include "TQLib/platform/Win32.h"
#include "Watch.h"

// Takes one command a line: `pause`, `resume` and `stop` are requests to the processor of the service,
// `report` tells how things are. The end of the input ends nothing. What it is given must outlive it.
//
// The lines are read by a further thread, which posts each to this one as a message. A read from a console or
// a pipe may last for ever, so nobody waits for that thread: it owns nothing, refers to nothing but the id of
// this thread, and ends with the process.
class CommandThread : public Quellan::Corvel::TQMsgThread {
  public:
    CommandThread(Quellan::Corvel::TQSvcProcessor& processor, const Watch& watch)
        : m_processor(processor), m_watch(watch) {}
    ~CommandThread() override { EndThread(); }

  protected:
    unsigned int OnStart(const Quellan::Corvel::BYTEBuf& data) override;
    void OnThreadMessage(UINT msg, ULONGLONG wParam, LONGLONG lParam, DWORD time) override;

  private:
    Quellan::Corvel::TQSvcProcessor& m_processor;
    const Watch& m_watch;
};
