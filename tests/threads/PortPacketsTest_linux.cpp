// What a pool makes of a request that failed, which only the layer's fault point can show here.
#include "threads/TestPool.h"

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
