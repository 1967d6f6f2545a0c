// The threads that check targets.
#pragma once

#include "TQLib/platform/Win32.h"
#include "Target.h"

// An item is a pointer to the target, whose check has begun and which outlives its end.
class CheckThread : public Quellan::Corvel::TQPoolThread {
  public:
    ~CheckThread() override { EndThread(); }

  protected:
    void OnWork(Quellan::Corvel::BYTEBuf& data) override;
};

// An exception that leaves a check is logged and ends the checks of its target, and of no other.
class CheckExceptionHandler {
  public:
    static void ReportException(DWORD threadID, unsigned int code, const wchar_t* message, const void* work,
                                ULONGLONG workSize, const void* poolData, ULONGLONG poolDataSize);
};

class CheckPool : public Quellan::Corvel::TQThreadPool<CheckThread, CheckExceptionHandler, 16> {
  public:
    ~CheckPool() override { CloseUp(); }

    // False, with nothing done, where the target's check can't begin.
    bool Post(Target& target, DWORD requestorID);
    // One line that tells how things are.
    Quellan::Corvel::TQString Report() const;
};
