// A program with two services, as an application writes it. Their first start argument: "fail" makes the work
// throw 1234, "slow" makes the start take some seconds. Where the last argument of the program is "none",
// they say that they take no arguments.
#include "TQLib.h"
#include "TestNames.h"

#include <string_view>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;

namespace {

constexpr DWORD SlowStartMs = 2'500;

class Processor : public TQSvcProcessor {
  public:
    ~Processor() override { EndThread(); }
    TQString mode;

  protected:
    void Prepare() override {
        if (mode == L"slow") StopEvent().Wait(SlowStartMs);
    }
    unsigned int Process(BYTEBuf& data) override {
        if (mode == L"fail") throw TQException(FailureCode, L"as it was told to");
        return TQSvcProcessor::Process(data);
    }
};

class Service : public TQService {
  public:
    explicit Service(const wchar_t* name) : TQService(name, false) {}
    TQSvcProcessor& Processor() override { return m_processor; }
    TQString DisplayName() const override { return L"Test of " + ServiceName(); }
    TQServiceOptions Options() const override {
        TQServiceOptions options;
        options.description = L"Is there for a test.";
        options.failureActions = {{TQSvcFailureAction::Kind::Restart, 60'000}};
        return options;
    }

  protected:
    void ExecuteServiceMain(const TQStringArray& arguments) override {
        m_processor.mode = arguments.Count() > 1 ? arguments[1] : TQString();
        TQService::ExecuteServiceMain(arguments);
    }

  private:
    class Processor m_processor;
};

}  // namespace

int main(int argc, char** argv) {
    Service first(FirstName), second(SecondName);
    TQServiceMgr::RegisterService(&first);
    TQServiceMgr::RegisterService(&second);
    return static_cast<int>(TQServiceApp::Run(argv[argc - 1] != std::string_view("none")));
}
