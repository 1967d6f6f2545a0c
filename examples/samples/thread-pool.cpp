#include "Samples.h"

#include <TQLib/TQLib.h>
#include <atomic>
#include <cstring>

using namespace Quellan::Corvel;

namespace {

std::atomic<int> checked;

int TargetIn(const BYTEBuf& data) {
    int target;
    std::memcpy(&target, data.Data(), sizeof target);
    return target;
}
void Check(int target) {
    checked += target;
}

}  // namespace

void ThreadPoolSample() {
    const int target = 1;

    class Checker : public TQPoolThread {
      public:
        ~Checker() override { EndThread(); }

      protected:
        void OnWork(BYTEBuf& data) override { Check(TargetIn(data)); }
    };

    TQThreadPool<Checker, TQThreadPoolExceptionHandler, 4> pool;  // up to 4 threads
    const auto group = pool.GetNewRequestorID();
    pool.AddWork(&target, sizeof target);         // anonymous
    pool.AddWork(&target, sizeof target, group);  // for a requestor
    pool.ClearRequestorItems(group);              // what no thread has taken of it
    pool.StopThreads();

    Expect(pool.WorkCount() == 0 && checked <= 2, L"A pool that has stopped has no work.");
}
