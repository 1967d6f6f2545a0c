// Threads for tests.
#pragma once

#include "TQLib/platform/Win32.h"
#include "TQLib/threads/TQThread.h"

#include <functional>
#include <utility>

namespace Quellan::Corvel::Test {

// Runs one function on a thread of its own and ends with it.
class Worker : public TQThread {
  public:
    explicit Worker(std::function<void()> work) : m_work(std::move(work)) { Start(); }
    ~Worker() override { EndThread(); }

    void Join() { WaitForComplete(INFINITE); }

  protected:
    unsigned int RunWork(BYTEBuf&) override {
        m_work();
        return 0;
    }

  private:
    std::function<void()> m_work;
};

// How long a test looks for something that must not happen. Were it to happen, it would at once; a shorter
// time would only miss more of it, never report what did not happen.
constexpr DWORD NeverMs = 40;

}  // namespace Quellan::Corvel::Test
