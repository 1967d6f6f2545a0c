#include "TQLib/core/TQEventLog.h"
#include "TQLib/core/TQLib.h"
#include "platform/Forked_linux.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

using namespace Quellan::Corvel;

namespace {

std::atomic<bool> g_isEntered = false, g_isLeft = false;

void Stay() {
    g_isEntered = true;
    while (!g_isLeft)
        std::this_thread::yield();
}

struct StayingSink : TQEventLogSink {
    void Write(const TQEventLogEntry&) override { Stay(); }
};

// In the child of a fork that happens while a thread is in a callback, which the child does not have.
template <class Call, class Operation>
void ExpectToEndInChild(Call call, Operation operation) {
    g_isEntered = g_isLeft = false;
    std::jthread caller(call);
    while (!g_isEntered)
        std::this_thread::yield();
    EXPECT_EQ(Test::Forked([&] {
                  alarm(20);
                  g_isLeft = true;
                  return operation() ? 0 : 1;
              }).Code(),
              0);
    g_isLeft = true;
}

TEST(Fork, BesideACallbackLeavesTheChildNothingToWaitFor) {
    StayingSink sink;
    TQEventLog::SetSink(&sink);
    ExpectToEndInChild([] { TQEventLog::LogStringEvent(L"s", 1, 1, TQEventType::Error, L"", L""); },
                       [] { return TQEventLog::SetSink(nullptr) != nullptr; });
    TQEventLog::SetSink(nullptr);

    static unsigned calls;
    const auto handler = [](void*) noexcept {
        ++calls;
        Stay();
    };
    calls = 0;
    TQLib::AddLowMemoryHandler(handler, nullptr);
    ExpectToEndInChild(&TQLib::CallLowMemoryHandlers, [&] {
        TQLib::CallLowMemoryHandlers();
        TQLib::RemoveLowMemoryHandler(handler, nullptr);
        return calls == 2;
    });
    TQLib::RemoveLowMemoryHandler(handler, nullptr);
}

}  // namespace
