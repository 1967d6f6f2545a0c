#include "WaitObjects.h"
#include "platform/Win32.h"

#include <memory>

namespace Quellan::Corvel::Test {
namespace {

class CriticalSection : public testing::Test {
  protected:
    CriticalSection() { InitializeCriticalSection(&m_section); }
    ~CriticalSection() override { DeleteCriticalSection(&m_section); }

    // Whether another thread can enter.
    bool IsFree() {
        return Worker([&] {
                   if (!TryEnterCriticalSection(&m_section)) return 0u;
                   LeaveCriticalSection(&m_section);
                   return 1u;
               }).Result() != 0;
    }

    CRITICAL_SECTION m_section;
};

TEST_F(CriticalSection, IsFreeOnceItWasLeftAsOftenAsEntered) {
    EnterCriticalSection(&m_section);
    EXPECT_TRUE(TryEnterCriticalSection(&m_section));
    EnterCriticalSection(&m_section);
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(IsFree()) << i;
        LeaveCriticalSection(&m_section);
    }
    EXPECT_TRUE(IsFree());
}

TEST_F(CriticalSection, LetsInOneThreadAtATime) {
    constexpr int Threads = 8;
    constexpr int Rounds = 5'000;
    long count = 0;
    {
        std::vector<std::unique_ptr<Worker>> workers;
        for (int i = 0; i < Threads; ++i)
            workers.push_back(std::make_unique<Worker>([&] {
                for (int round = 0; round < Rounds; ++round) {
                    EnterCriticalSection(&m_section);
                    const long seen = count;
                    if (round % 64 == 0) SwitchToThread();
                    count = seen + 1;
                    LeaveCriticalSection(&m_section);
                }
                return 0u;
            }));
    }
    EXPECT_EQ(count, long{Threads} * Rounds);
}

TEST(CriticalSectionSetup, AcceptsASpinCount) {
    CRITICAL_SECTION section;
    EXPECT_TRUE(InitializeCriticalSectionAndSpinCount(&section, 0));
    EnterCriticalSection(&section);
    LeaveCriticalSection(&section);
    DeleteCriticalSection(&section);
    EXPECT_TRUE(InitializeCriticalSectionEx(&section, 4000, CRITICAL_SECTION_NO_DEBUG_INFO));
    EnterCriticalSection(&section);
    LeaveCriticalSection(&section);
    DeleteCriticalSection(&section);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
