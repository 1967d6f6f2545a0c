// monitor as a service.
#pragma once

#include "CommandThread.h"
#include "TQLib/platform/Win32.h"

#include <memory>

// Does the work of the service: watches until it is stopped or all groups have ended, which is a failure.
class MonitorProcessor : public Quellan::Corvel::TQSvcProcessor {
  public:
    MonitorProcessor();
    ~MonitorProcessor() override { EndThread(); }

    // Before the start.
    void SetOptions(Options options) { m_options = std::move(options); }
    // Whether something has failed while it watched.
    bool HasFailed() const noexcept { return m_hasFailed; }

  protected:
    void Prepare() override;
    unsigned int Process(Quellan::Corvel::BYTEBuf& data) override;
    void Finish() override;
    void OnPause() override { m_watch->Pause(true); }
    void OnContinue() override { m_watch->Pause(false); }

  private:
    Options m_options;
    std::unique_ptr<Watch> m_watch;
    std::unique_ptr<CommandThread> m_commands;
    const Quellan::Corvel::TQEvent m_changed;
    std::atomic<bool> m_hasFailed{false};
};

// What it is to watch are the arguments it was started with, or where it got none, those of the program.
class MonitorService : public Quellan::Corvel::TQService {
  public:
    MonitorService() : TQService(L"monitor") {}

    Quellan::Corvel::TQSvcProcessor& Processor() override { return m_processor; }
    Quellan::Corvel::TQString DisplayName() const override { return L"TQLib monitor"; }
    Quellan::Corvel::TQServiceOptions Options() const override;

    bool HasFailed() const noexcept { return m_processor.HasFailed(); }
    // Whether it was not told what to watch, or in a wrong way.
    bool IsMisused() const noexcept { return m_isMisused; }

  protected:
    void ExecuteServiceMain(const Quellan::Corvel::TQStringArray& arguments) override;
    // The log has the history of the states.
    void OnStateChanged(DWORD state) override;

  private:
    MonitorProcessor m_processor;
    std::atomic<bool> m_isMisused{false};
    std::atomic<DWORD> m_loggedState{0};
};
