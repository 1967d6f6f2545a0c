// A program that locks and waits rightly, against the library as it is: built for the thread sanitizer, and
// to run on helgrind. Both end it with a failure where they see a race. With the argument "race" there is
// one.
#include "TQLib/TQLib.h"
#include "TQLib/platform/Win32.h"

#include <string_view>

using namespace Quellan::Corvel;
using Guard = TQThreadSynch::TQSynchLock;

namespace {

constexpr unsigned Rounds = 200;
constexpr DWORD Forever = 0xFFFFFFFF;

bool g_guarded = true;

struct Shared {
    TQThreadSynch lock;
    TQThreadReadSynch readLock;
    TQThreadWriteSynch writeLock{readLock};
    TQMutex mutex;
    const TQEvent ping{false}, pong{false}, done{true};
    TQThreadSynch resultLock;
    unsigned byLock = 0, byMutex = 0, byReadLock = 0, byEvent = 0, seen = 0;
};

class Player : public TQThread {
  public:
    Player(Shared& shared, bool serves) : m_shared(shared), m_serves(serves) {}
    ~Player() override { EndThread(); }
    unsigned result = 0;  // read after the end

  protected:
    unsigned int RunWork(BYTEBuf&) override {
        for (unsigned i = 0; i < Rounds; ++i) {
            if (g_guarded) {
                const Guard guard(m_shared.lock);
                ++m_shared.byLock;
            } else {
                ++m_shared.byLock;
            }
            {
                const auto acquired = m_shared.mutex.Acquire(Forever);
                ++m_shared.byMutex;
            }
            if (m_serves) {
                const Guard guard(m_shared.writeLock);
                ++m_shared.byReadLock;
            } else {
                const Guard guard(m_shared.readLock);
                result = m_shared.byReadLock;
            }
            // Only one of the two is between the two events.
            if (!m_serves) m_shared.ping.Wait(Forever);
            ++m_shared.byEvent;
            (m_serves ? m_shared.ping : m_shared.pong).Set();
            if (m_serves) m_shared.pong.Wait(Forever);
        }
        ++result;
        return 0;
    }

  private:
    Shared& m_shared;
    const bool m_serves;
};

}  // namespace

int main(int count, char** arguments) {
    g_guarded = count < 2 || std::string_view(arguments[1]) != "race";
    Shared shared;
    Player first(shared, true), second(shared, false);
    first.Start();
    second.Start();
    TQWaitList list;
    list.Add(first.ThreadHandle());
    list.Add(second.ThreadHandle());
    if (!list.Wait(Forever)) return 1;
    first.WaitForComplete(Forever);
    second.WaitForComplete(Forever);
    const bool isRight = shared.byMutex == 2 * Rounds && shared.byReadLock == Rounds &&
                         shared.byEvent == 2 * Rounds && first.result + second.result > 0;
    return isRight ? 0 : 1;
}
