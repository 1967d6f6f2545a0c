// A service whose steps the test gives.
#pragma once

#include "TQLib/platform/Win32.h"
#include "TQLib/services/TQServiceMgr.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>

namespace Quellan::Corvel::Test {

// Every step calls a function of the test, and stays in one state for as long as it is told to.
class TestProcessor : public TQSvcProcessor {
  public:
    ~TestProcessor() override { EndThread(); }

    std::function<void()> prepare, pause, resume, finish;
    std::function<unsigned int(TestProcessor&)> process;

    using TQSvcProcessor::RequestTime;
    using TQSvcProcessor::SetCtrlAllow;
    using TQSvcProcessor::SetState;
    using TQSvcProcessor::WaitForTurn;

    // Stays in this pending state until `Release`.
    void Hold(ProcState state) { m_held = state; }
    void AwaitHeld() { m_isHeld.Wait(INFINITE); }
    void Release() { m_released.Set(); }

  protected:
    void Prepare() override { Step(ProcState::Starting, prepare); }
    void OnPause() override { Step(ProcState::Pausing, pause); }
    void OnContinue() override { Step(ProcState::Continuing, resume); }
    void Finish() override { Step(ProcState::Stopping, finish); }
    unsigned int Process(BYTEBuf& data) override {
        return process ? process(*this) : TQSvcProcessor::Process(data);
    }

  private:
    void Step(ProcState state, const std::function<void()>& step) {
        if (m_held == state) {
            m_isHeld.Set();
            m_released.Wait(INFINITE);
        }
        if (step) step();
    }

    std::atomic<ProcState> m_held{ProcState::Stop};
    const TQEvent m_isHeld{true}, m_released{true};
};

class TestService : public TQService {
  public:
    explicit TestService(const wchar_t* name = L"TestService", bool ownProcess = true)
        : TQService(name, ownProcess) {}

    TestProcessor processor;
    // In place of the processor.
    std::function<void(const TQStringArray& arguments)> main;
    std::function<bool(DWORD control)> request, own;
    std::function<bool(DWORD control, DWORD eventType, const void* eventData)> event;
    std::function<void(DWORD state)> changed;
    std::function<void()> asked;  // for the processor
    DWORD budget = BudgetMs;

    TQSvcProcessor& Processor() override {
        if (asked) asked();
        return processor;
    }
    DWORD PendingBudget() const override { return budget; }

    using TQService::RegisterHandler;
    using TQService::RunAppServiceMain;
    using TQService::SetExitCode;
    using TQService::SetState;
    using TQService::UpdateStatus;

    void Register() { EXPECT_TRUE(RegisterHandler(nullptr)); }

    bool HandleRequest(DWORD control) override {
        return request ? request(control) : TQService::HandleRequest(control);
    }
    bool HandleEvent(DWORD control, DWORD eventType, const void* eventData) override {
        return event ? event(control, eventType, eventData)
                     : TQService::HandleEvent(control, eventType, eventData);
    }
    bool HandleUserControl(DWORD control) override {
        return own ? own(control) : TQService::HandleUserControl(control);
    }

  protected:
    void ExecuteServiceMain(const TQStringArray& arguments) override {
        if (main)
            main(arguments);
        else
            TQService::ExecuteServiceMain(arguments);
    }
    void OnStateChanged(DWORD state) override {
        if (changed) changed(state);
    }
};

// Registers services while it lives.
class Hosting {
  public:
    explicit Hosting(std::initializer_list<TestService*> services) : m_services(services) {
        for (TestService* service : m_services)
            TQServiceMgr::RegisterService(service);
    }
    Hosting(const Hosting&) = delete;
    Hosting& operator=(const Hosting&) = delete;
    ~Hosting() {
        for (TestService* service : m_services)
            TQServiceMgr::UnRegisterService(service);
    }

  private:
    std::vector<TestService*> m_services;
};

}  // namespace Quellan::Corvel::Test
