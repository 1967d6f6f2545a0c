// What of a pool only the layer's fault points and the system's own files show.
#include "TQLib/threads/TQWorkPool.h"
#include "threads/TestPool.h"

#include <fstream>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;

TEST(PortPackets, ComeWithTheCodeOfTheRequestThatFailed) {
    Script script;
    PortPool pool(script);
    script.onWork = [](const std::string&) {
        ScriptedThread::FailNext<FailCall>("FailedCompletion", DWORD{ERROR_HANDLE_EOF});
    };
    pool.Post("");
    pool.AwaitQuiet();
    OVERLAPPED record{};
    const PortPool::Packet packet{5, 3, &record, 0};
    pool.PostPacket(packet);
    pool.PostPacket(packet);
    Until([&] { return pool.Packets().size() == 2; });
    EXPECT_EQ(pool.Packets()[0], (PortPool::Packet{5, 3, &record, ERROR_HANDLE_EOF}));
    EXPECT_EQ(pool.Packets()[1], packet);
    pool.StopThreads();
    EXPECT_TRUE(script.Errors().empty());
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which have heaps of their own
TEST(ThreadPool, GivesTheMemoryOfALongQueueBackToTheSystem) {
    const auto residentMB = [] {
        std::size_t all, resident = 0;
        std::ifstream("/proc/self/statm") >> all >> resident;
        return resident / 256;
    };
    const std::size_t before = residentMB();
    const auto queue = [&](bool isForRequestor) {
        _TQWorkPoolBase& pool = _TQWorkPoolBase::AddClient();
        static Gate* s_gate;
        Gate gate;
        s_gate = &gate;
        const DWORD requestor = isForRequestor ? pool.GetNewRequestorID() : 0;
        for (DWORD i = 0; i < 1'000'000; ++i)
            pool.AddWork([](BYTEBuf&) { s_gate->Pass(); }, nullptr, 0, requestor);
        EXPECT_GT(residentMB(), before + 64);
        gate.Open();
        Until([&] { return pool.WorkCount() == 0; });
        _TQWorkPoolBase::DelClient();
        EXPECT_LT(residentMB(), before + 16);
    };
    queue(false);
    queue(true);
}
#endif
