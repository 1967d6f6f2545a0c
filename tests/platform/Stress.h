// What cases have in common that run for a while and look for invariants.
#pragma once

#include "WaitObjects.h"

#include <atomic>
#include <cstdlib>
#include <memory>

namespace Quellan::Corvel::Test {

// A case runs for half a second, or for as many seconds as the environment variable TQ_STRESS_SECONDS says.
class Stress : public testing::Test {
  protected:
    Stress() {
        const char* const seconds = std::getenv("TQ_STRESS_SECONDS");
        m_length = seconds ? 1000 * std::strtoull(seconds, nullptr, 10) : DefaultMs;
    }

    bool Running() const { return GetTickCount64() < m_begin + m_length; }

    // Runs `body(i)` on `count` threads at once; the test goes on when all have ended.
    template <class Body>
    static void OnThreads(int count, Body body) {
        std::vector<std::unique_ptr<Worker>> workers;
        for (int i = 0; i < count; ++i)
            workers.push_back(std::make_unique<Worker>([&body, i] {
                body(i);
                return 0u;
            }));
    }

    // Returns once the counter is no longer what it was.
    static void AwaitChange(const std::atomic<long>& counter, long before) {
        for (ULONGLONG until = GetTickCount64() + Patience; counter == before && GetTickCount64() < until;)
            SwitchToThread();
        EXPECT_NE(counter, before) << "everything stands still";
    }

  private:
    static constexpr ULONGLONG DefaultMs = 500;

    ULONGLONG m_begin = GetTickCount64();
    ULONGLONG m_length;
};

}  // namespace Quellan::Corvel::Test
