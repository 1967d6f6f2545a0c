#include "TQLib/platform/Win32.h"
#include "TQLib/text/memory/TQHandle.h"
#include "TQLib/threads/TQThread.h"
#include "threads/Cases.h"

#include <optional>
#include <sched.h>
#include <signal.h>
#include <thread>
#include <unistd.h>

namespace Quellan::Corvel::Bench {

namespace {

constexpr auto Where = Setting::OneCore;

// The first line of the body of a thread.
class FirstLine {
  public:
    // On the thread.
    void Reached() {
        m_reading = m_meter->Read();
        m_thread = gettid();
    }

    // From before `run`, which starts a thread and waits for its end, to `Reached`. The end is not measured:
    // before the next one begins the kernel has done with the thread.
    template <class Run>
    Measurement Measure(std::size_t count, Run run) {
        Measurement sum;
        const Meter whole(Where);
        for (; count != 0; --count) {
            m_meter.emplace(Where);
            run();
            sum.processor += m_reading.processor;
            sum.wall += m_reading.wall;
            while (tgkill(getpid(), m_thread, 0) == 0)
                sched_yield();
        }
        sum.allocations = whole.Read().allocations;
        return sum;
    }

  private:
    std::optional<Meter> m_meter;
    Measurement m_reading;
    pid_t m_thread = 0;
};

class LibraryThread {
  public:
    Measurement Measure(std::size_t count) {
        return m_line.Measure(count, [this] {
            Body thread(m_line);
            thread.Start();
            thread.WaitForComplete(INFINITE);
        });
    }

  private:
    class Body : public TQThread {
      public:
        explicit Body(FirstLine& line) : m_line(line) {}
        ~Body() override { EndThread(); }

      protected:
        unsigned int RunWork(BYTEBuf&) override {
            m_line.Reached();
            return 0;
        }

      private:
        FirstLine& m_line;
    };

    FirstLine m_line;
};

class PlatformThread {
  public:
    Measurement Measure(std::size_t count) {
        return m_line.Measure(count, [this] {
            const TQUniqueHandle<_TQKernelHandleClose> thread(
                CreateThread(nullptr, 0, Body, &m_line, 0, nullptr));
            WaitForSingleObject(thread.Get(), INFINITE);
        });
    }

  private:
    static DWORD Body(void* line) {
        static_cast<FirstLine*>(line)->Reached();
        return 0;
    }

    FirstLine m_line;
};

class StandardThread {
  public:
    Measurement Measure(std::size_t count) {
        return m_line.Measure(count, [this] { std::thread([this] { m_line.Reached(); }).join(); });
    }

  private:
    FirstLine m_line;
};

}  // namespace

void AddThreadStarts(Contest& contest) {
    const char* const work = "thread: start to first line";
    contest.AddMade<LibraryThread>(Where, work, "TQThread");
    contest.AddMade<PlatformThread>(Where, work, "CreateThread");
    contest.AddMade<StandardThread>(Where, work, "std::thread");
}

}  // namespace Quellan::Corvel::Bench
