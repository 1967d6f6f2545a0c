// One service that many threads change, ask and control at once. What must never be reported, the manager
// looks for.
#include "ScriptedManager.h"
#include "TestService.h"
#include "services/TQServiceMgr.h"

#include <cstdlib>
#include <random>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;
using S = TQSvcState;
using C = TQSvcControl;

namespace {

constexpr const wchar_t* Name = L"TestService";

// A case runs for half a second, or for as many seconds as the environment variable TQ_STRESS_SECONDS says.
class ServiceStress : public testing::Test {
  protected:
    class Random {
      public:
        explicit Random(int seed) : m_numbers(static_cast<unsigned>(seed)) {}
        unsigned Below(unsigned bound) { return static_cast<unsigned>(m_numbers()) % bound; }

      private:
        std::mt19937 m_numbers;
    };

    ServiceStress() {
        if (const char* const seconds = std::getenv("TQ_STRESS_SECONDS"))
            m_length = 1000 * std::strtoull(seconds, nullptr, 10);
    }

    bool Running() const { return GetTickCount64() < m_begin + m_length; }

    // Runs `body(i)` on `count` threads at once; the test goes on when all have ended.
    template <class Body>
    static void OnThreads(int count, Body body) {
        std::vector<std::unique_ptr<Worker>> workers;
        for (int i = 0; i < count; ++i)
            workers.push_back(std::make_unique<Worker>([&body, i] { body(i); }));
        for (const auto& worker : workers)
            worker->Join();
    }

    ScriptedManager manager;
    TestService service;
    Hosting hosting{&service};

  private:
    ULONGLONG m_begin = GetTickCount64();
    ULONGLONG m_length = 500;
};

}  // namespace

TEST_F(ServiceStress, StatesReportedByManyThreadsAreInOrder) {
    while (Running()) {
        service.Register();
        OnThreads(4, [&](int thread) {
            Random random(thread);
            for (int i = 0; i < 200; ++i) {
                // Rarely stopped: nothing is reported after that.
                const DWORD state = random.Below(400) == 0 ? S::Stopped : 2 + random.Below(6);
                if (random.Below(2))
                    service.SetState(state, random.Below(3) * 1'000);
                else if (state != S::Stopped)
                    service.UpdateStatus(state, random.Below(2) * 500);
            }
        });
        service.SetState(S::Stopped);
    }
    EXPECT_GT(manager.Reports(Name).size(), 0u);
}

TEST_F(ServiceStress, ControlsOfManyThreadsEndInAStop) {
    int runs = 0;
    for (; Running() || runs == 0; ++runs) {
        Worker dispatcher([] { EXPECT_EQ(TQServiceMgr::RunServices(), 0); });
        manager.Await(Name, S::Running);
        OnThreads(3, [&](int thread) {
            Random random(runs * 3 + thread);
            constexpr DWORD controls[] = {C::Pause, C::Continue, C::Interrogate, C::ParamChange};
            for (int i = 0; i < 50; ++i)
                manager.Call(Name, controls[random.Below(4)]);
            if (thread == 0) manager.Call(Name, C::Stop);
        });
        dispatcher.Join();
        EXPECT_EQ(service.CurrentState(), S::Stopped);
        EXPECT_EQ(manager.Reports(Name).back().dwCurrentState, S::Stopped);
    }
}
