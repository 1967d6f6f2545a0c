#include "Samples.h"

#include <TQLib/TQLib.h>
#include <TQLib/platform/Win32.h>  // for INFINITE

using namespace Quellan::Corvel;

namespace {

void LookAround() {}

}  // namespace

void ThreadsSample() {
    class Watcher : public TQThread {
      public:
        ~Watcher() override { EndThread(); }

      protected:
        unsigned int RunWork(BYTEBuf&) override {
            while (!StopEvent().Wait(1000))
                LookAround();
            return 0;
        }
    };

    Watcher watcher;
    watcher.Start();

    watcher.StopAndWait(INFINITE);

    Expect(!watcher.ThreadRunning(), L"The thread has ended.");
}
