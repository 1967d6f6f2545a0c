#include "TQLib/core/TQException.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/threads/TQMsgThread.h"
#include "TQLib/threads/TQMutex.h"
#include "support/FailCall.h"
#include "support/RecordingSink.h"
#include "support/Worker.h"

#include <atomic>
#include <gmock/gmock.h>
#include <optional>
#include <vector>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;
using testing::ElementsAre;

namespace {

// Keeps what comes; `onMessage` may do something about it.
class Receiver : public TQMsgThread {
  public:
    struct Message {
        UINT msg;
        ULONGLONG wParam;
        LONGLONG lParam;
        DWORD time;
    };

    ~Receiver() override { EndThread(); }

    std::function<void()> onStart = [] {};
    std::function<void(const Message&)> onMessage = [](const Message&) {};
    std::function<void(HANDLE)> onHandle = [](HANDLE) {};
    std::vector<Message> messages;  // to be read after the end
    std::vector<HANDLE> handles;
    const TQEvent handled{false};

  protected:
    unsigned int OnStart(const BYTEBuf& data) override {
        onStart();
        return TQMsgThread::OnStart(data);
    }
    void OnThreadMessage(UINT msg, ULONGLONG wParam, LONGLONG lParam, DWORD time) override {
        messages.push_back({msg, wParam, lParam, time});
        onMessage(messages.back());
    }
    void OnWaitHandle(HANDLE handle) override {
        handles.push_back(handle);
        onHandle(handle);
        handled.Set();
    }
};

TEST(MsgThread, HandlesInOrderWhatWasPostedBeforeTheStop) {
    Receiver thread;
    thread.Start();
    const DWORD before = GetTickCount();
    constexpr unsigned count = 1000;
    for (unsigned i = 0; i < count; ++i)
        EXPECT_TRUE(thread.PostMsg(WM_APP + 1, i, -static_cast<LONGLONG>(i)));
    EXPECT_EQ(thread.StopAndWait(INFINITE), 0u);
    ASSERT_EQ(thread.messages.size(), count);
    for (unsigned i = 0; i < count; ++i) {
        EXPECT_EQ(thread.messages[i].msg, UINT{WM_APP + 1});
        EXPECT_EQ(thread.messages[i].wParam, i);
        EXPECT_EQ(thread.messages[i].lParam, -static_cast<LONGLONG>(i));
    }
    EXPECT_LE(thread.messages[0].time - before, GetTickCount() - before);
}

TEST(MsgThread, EndsWithTheQuitMessage) {
    Receiver thread;
    thread.Start();
    thread.PostMsg(WM_APP, 1, 0);
    thread.PostMsg(WM_QUIT, 0, 0);
    EXPECT_EQ(thread.WaitForComplete(INFINITE), 0u);
    EXPECT_TRUE(thread.Stopped());
    EXPECT_EQ(thread.messages.size(), 1u);
}

TEST(MsgThread, EndsALoopOfItsHandlerToo) {
    Receiver thread;
    const TQEvent inLoop(true);
    thread.onMessage = [&](const Receiver::Message&) {
        inLoop.Set();
        MSG message;
        while (GetMessageW(&message, nullptr, 0, 0) > 0)
            DispatchMessageW(&message);
    };
    thread.Start();
    thread.PostMsg(WM_APP, 0, 0);
    inLoop.Wait(INFINITE);
    EXPECT_EQ(thread.StopAndWait(INFINITE), 0u);
}

TEST(MsgThread, TakesMessagesOnlyWhileThereIsAThread) {
    Receiver thread;
    const auto check = [&](const char* when) {
        SetLastError(0);
        EXPECT_FALSE(thread.PostMsg(WM_APP, 0, 0, false)) << when;
        EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_THREAD_ID}) << when;
        const auto post = [&] { thread.PostMsg(WM_APP, 0, 0, true); };
        EXPECT_EQ(ThrownCode(post), DWORD{ERROR_INVALID_THREAD_ID});
        EXPECT_EQ(ThrownText(post), L"Thread post message failed.");
    };
    check("never started");
    thread.Start();
    {
        const FailCall fail("PostThreadMessageW", ERROR_NOT_ENOUGH_QUOTA);
        EXPECT_EQ(ThrownCode([&] { thread.PostMsg(WM_APP, 0, 0); }), DWORD{ERROR_NOT_ENOUGH_QUOTA});
    }
    thread.StopAndWait(INFINITE);
    check("ended");
    thread.Start();
    EXPECT_TRUE(thread.PostMsg(WM_APP, 5, 0)) << "a new thread takes messages again";
    thread.StopAndWait(INFINITE);
    EXPECT_EQ(thread.messages.size(), 1u);
}

TEST(MsgThread, CallsTheHandlerForEachSignalledObject) {
    Receiver thread;
    const TQEvent early(false), late(false);
    thread.AddWaitHandle(early.Handle());
    thread.AddWaitHandle(early.Handle());
    thread.Start();
    for (int i = 0; i < 3; ++i) {
        early.Set();
        EXPECT_TRUE(thread.handled.Wait(INFINITE));
    }
    thread.AddWaitHandle(late.Handle());
    late.Set();
    EXPECT_TRUE(thread.handled.Wait(INFINITE));
    thread.RemoveWaitHandle(early.Handle());
    thread.RemoveWaitHandle(early.Handle());
    late.Set();
    EXPECT_TRUE(thread.handled.Wait(INFINITE)) << "it waits for the new list by now";
    early.Set();
    EXPECT_FALSE(thread.handled.Wait(NeverMs));
    thread.StopAndWait(INFINITE);
    EXPECT_THAT(thread.handles,
                ElementsAre(early.Handle(), early.Handle(), early.Handle(), late.Handle(), late.Handle()));
}

TEST(MsgThread, TakesAnAbandonedMutexForSignalled) {
    Receiver thread;
    const TQMutex mutex;
    Worker([&] { WaitForSingleObject(mutex.Handle(), INFINITE); }).Join();
    thread.onHandle = [&](HANDLE handle) { thread.RemoveWaitHandle(handle); };
    thread.AddWaitHandle(mutex.Handle());
    thread.Start();
    EXPECT_TRUE(thread.handled.Wait(INFINITE));
    EXPECT_FALSE(mutex.Acquire(0)) << "the thread owns it";
}

TEST(MsgThread, HasItsTickWhenNothingHappens) {
    // A class that ends by itself is asked at each tick.
    class Impatient : public TQMsgThread {
      public:
        ~Impatient() override { EndThread(); }
        bool Stopped() const override { return ++m_asked > 1 || TQMsgThread::Stopped(); }

      private:
        mutable std::atomic<int> m_asked = 0;
    };
    Impatient thread;
    thread.Start();
    EXPECT_EQ(thread.WaitForComplete(INFINITE), 0u);
}

TEST(MsgThread, WaitsForSoManyObjectsAndNoMore) {
    TQMsgThread thread;
    std::vector<TQEvent> events;
    for (DWORD i = 0; i < TQMsgThread::MaxWaitHandles; ++i) {
        events.emplace_back(false);
        thread.AddWaitHandle(events.back().Handle());
    }
    const TQEvent tooMany(false);
    EXPECT_EQ(ThrownCode([&] { thread.AddWaitHandle(tooMany.Handle()); }), DWORD{ERROR_BUFFER_OVERFLOW});
    thread.Start();
    EXPECT_TRUE(thread.ThreadRunning());
    events.back().Set();
    while (events.back().Wait(0))
        events.back().Set();
    EXPECT_EQ(thread.StopAndWait(INFINITE), 0u) << "the platform's limit was kept";
}

TEST(MsgThread, EndsWithTheCodeOfAMessageThatCannotBeTaken) {
    std::optional<FailCall> fail;
    Receiver thread;
    thread.onStart = [&] {
        fail.emplace("GetMessageW", ERROR_GEN_FAILURE, 2, static_cast<std::uintptr_t>(-1));
    };
    thread.Start();
    thread.PostMsg(WM_APP, 0, 0);
    thread.PostMsg(WM_APP, 1, 0);
    EXPECT_EQ(thread.WaitForComplete(INFINITE), DWORD{ERROR_GEN_FAILURE});
    EXPECT_TRUE(thread.Stopped());
    EXPECT_EQ(thread.messages.size(), 2u) << "what could not be taken is taken in the last pass";
}

// A closed handle's value may be another object's at once; this one is never any's.
TEST(MsgThread, EndsWhereAHandleOfItsListIsInvalid) {
    const RecordingSink log;
    Receiver thread;
    thread.Start();
    thread.AddWaitHandle(reinterpret_cast<HANDLE>(std::uintptr_t{0x7FFFFFF0}));
    thread.PostMsg(WM_APP, 0, 0, false);  // so that it comes to its next pass, if it is there still
    EXPECT_EQ(thread.WaitForComplete(INFINITE), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(thread.ResultMessage(), L"Wait on synch object failed.");
    EXPECT_EQ(log.Entries().size(), 1u);
}

}  // namespace
