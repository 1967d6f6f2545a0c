#include "core/TQEventLog.h"
#include "core/TQException.h"
#include "core/TQLib.h"
#include "platform/Win32.h"

#include <atomic>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

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
    const pid_t child = fork();
    if (child == 0) {
        alarm(20);
        g_isLeft = true;
        _exit(operation() ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
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

TEST(Fork, BesideThreadsThatRenderExceptionsLeavesTheChildAbleTo) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's own locks may be held";
#endif
    const auto render = [] {
        try {
            throw TQSysException(ERROR_FILE_NOT_FOUND, L"Test");
        } catch (const TQCoreException& failure) {
            return failure.ExcMsg(TQStrResDestination::Log).Length() > 0;
        }
    };
    std::atomic<bool> goOn = true;
    const auto keepRendering = [&] {
        while (goOn)
            render();
    };
    std::jthread first(keepRendering), second(keepRendering);
    int status = 0;
    for (int i = 0; i < 200 && status == 0; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(20);
            _exit(render() ? 0 : 1);
        }
        waitpid(child, &status, 0);
    }
    goOn = false;
    EXPECT_EQ(status, 0);
}

}  // namespace
