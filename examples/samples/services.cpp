#include "Samples.h"

#include <TQLib/TQLib.h>

namespace Services {

using namespace Quellan::Corvel;

bool isOpen = false;
int looks = 0;

void OpenFiles() {
    isOpen = true;
}
void CloseFiles() {
    isOpen = false;
}
// Once is enough for a sample: what leaves a service's work ends it.
void LookAround() {
    ++looks;
    throw TQAppException(0xE0045004, L"Nothing to watch.");
}

class Watcher : public TQSvcProcessor {
  public:
    ~Watcher() override { EndThread(); }

  protected:
    void Prepare() override { OpenFiles(); }
    unsigned int Process(BYTEBuf&) override {
        while (WaitForTurn(1000))
            LookAround();
        return 0;
    }
    void Finish() override { CloseFiles(); }
};

class WatchService : public TQService {
  public:
    WatchService() : TQService(L"Watch") {}
    TQSvcProcessor& Processor() override { return m_watcher; }

  private:
    Watcher m_watcher;
};

int main() {
    WatchService service;
    TQServiceMgr::RegisterService(&service);
    return static_cast<int>(TQServiceApp::Run());
}

}  // namespace Services

void ServicesSample() {
    Expect(Services::main() == 1, L"The program of a service that failed ends with 1.");
    Expect(Services::looks == 1 && !Services::isOpen, L"The service has looked around and cleaned up.");
}
