// A program with two services, as an application writes it. Their first start argument, or where they get none,
// the program's: "fail" makes the work throw 1234, "denied" 5, "fail-on-reload" that of the first one 1234 when
// parameters have changed; "slow" makes the start take some seconds, "hang" the stop for ever. Where the last
// argument of the program is "none", they say that they take no arguments.
#include "TQLib/TQLib.h"
#include "TQLib/platform/Win32.h"
#include "TestNames.h"

#include <string_view>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;

namespace {

constexpr DWORD SlowStartMs = 2'500;
constexpr DWORD BudgetOfHangMs = 1'500;

class Processor : public TQSvcProcessor {
  public:
    ~Processor() override { EndThread(); }
    TQString mode;
    const TQEvent isToFail{true};

  protected:
    void Prepare() override {
        SetCtrlAllow(ProcControlAccept::ParamChange, true);
        if (mode == L"slow") StopEvent().Wait(SlowStartMs);
    }
    unsigned int Process(BYTEBuf& data) override {
        const HANDLE events[] = {StopEvent().Handle(), isToFail.Handle()};
        const bool fails = mode == L"fail" || (mode == L"fail-on-reload" &&
                                               WaitForMultipleObjects(2, events, FALSE, INFINITE) == 1);
        if (fails) throw TQException(FailureCode, L"as it was told to");
        if (mode == L"denied") throw TQException(ERROR_ACCESS_DENIED, L"as it was told to");
        return TQSvcProcessor::Process(data);
    }
    void Finish() override {
        if (mode == L"hang") Sleep(INFINITE);
    }
};

class TestService : public TQService {
  public:
    explicit TestService(const wchar_t* name) : TQService(name, false) {}
    TQSvcProcessor& Processor() override { return m_processor; }
    TQString DisplayName() const override { return L"Test of " + ServiceName(); }
    TQServiceOptions Options() const override {
        TQServiceOptions options;
        options.description = L"Is there for a test.";
        options.failureActions = {{TQSvcFailureAction::Kind::Restart, 60'000}};
        return options;
    }

    DWORD PendingBudget() const override {
        return m_processor.mode == L"hang" ? BudgetOfHangMs : TQService::PendingBudget();
    }

  protected:
    void ExecuteServiceMain(const TQStringArray& arguments) override {
        const TQStringArray given = arguments.Count() > 1 ? arguments : TQSysProc::CommandLine();
        if (given.Count() > 1) m_processor.mode = given[1];
        if (m_processor.mode == L"fail-on-reload" && ServiceName() != FirstName) m_processor.mode = L"";
        TQService::ExecuteServiceMain(arguments);
    }
    bool HandleRequest(DWORD control) override {
        if (control == TQSvcControl::ParamChange) m_processor.isToFail.Set();
        return TQService::HandleRequest(control);
    }

  private:
    class Processor m_processor;
};

}  // namespace

int main(int argc, char** argv) {
    TestService first(FirstName), second(SecondName);
    TQServiceMgr::RegisterService(&first);
    TQServiceMgr::RegisterService(&second);
    return static_cast<int>(TQServiceApp::Run(argv[argc - 1] != std::string_view("none")));
}
