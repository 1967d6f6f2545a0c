#include "TQLib/platform/Win32.h"
#include "WaitObjects.h"

namespace Quellan::Corvel::Test {
namespace {

constexpr UINT First = WM_APP + 1;
constexpr UINT Second = WM_APP + 2;

BOOL Peek(MSG& message, UINT first = 0, UINT last = 0, UINT flags = PM_REMOVE) {
    return PeekMessageW(&message, nullptr, first, last, flags);
}

DWORD WaitForInput(const std::vector<HANDLE>& handles, DWORD ms, DWORD flags = 0, DWORD mask = QS_ALLINPUT) {
    return MsgWaitForMultipleObjectsEx(static_cast<DWORD>(handles.size()), handles.data(), ms, mask, flags);
}

// Each test begins with an open queue without messages, and leaves none.
class Messages : public testing::Test {
  protected:
    Messages() { Clear(); }
    ~Messages() override { Clear(); }

    static void Clear() {
        for (MSG message; Peek(message);) {
        }
    }
    static DWORD Post(UINT message, WPARAM wParam = 0, LPARAM lParam = 0) {
        return CodeOf(PostThreadMessageW(GetCurrentThreadId(), message, wParam, lParam));
    }
};

TEST_F(Messages, AreTakenByRange) {
    Post(First);
    Post(Second);
    MSG message{};
    EXPECT_FALSE(Peek(message, WM_USER, WM_USER));
    ASSERT_TRUE(Peek(message, Second, Second));
    EXPECT_EQ(message.message, Second);
    ASSERT_TRUE(Peek(message));
    EXPECT_EQ(message.message, First);
}

TEST_F(Messages, EndWithTheQuitMessage) {
    PostQuitMessage(17);
    Post(First);
    MSG message{};
    EXPECT_EQ(GetMessageW(&message, nullptr, 0, 0), 1);
    EXPECT_EQ(message.message, First);
    EXPECT_EQ(GetMessageW(&message, nullptr, 0, 0), 0);
    EXPECT_EQ(message.message, UINT{WM_QUIT});
    EXPECT_EQ(message.wParam, 17u);
    EXPECT_FALSE(Peek(message));
}

TEST_F(Messages, ReachNoThreadWithoutAQueue) {
    const Owned opened = AutoEvent();
    const Owned proceed = AutoEvent();
    const Worker thread([&] {
        MSG message;
        Await(proceed);
        Peek(message, 0, 0, PM_NOREMOVE);
        SetEvent(opened);
        return static_cast<DWORD>(GetMessageW(&message, nullptr, 0, 0));
    });
    const auto post = [&] { return CodeOf(PostThreadMessageW(thread.Id(), WM_QUIT, 0, 0)); };
    if (!OnWine()) {  // which gives every thread a queue
        EXPECT_EQ(post(), DWORD{ERROR_INVALID_THREAD_ID});
    }
    SetEvent(proceed);
    Await(opened);
    EXPECT_EQ(post(), 0u);
    EXPECT_EQ(thread.Result(), 0u);
    if (!OnWine()) {  // which says ERROR_INVALID_PARAMETER
        EXPECT_EQ(post(), DWORD{ERROR_INVALID_THREAD_ID});
    }
}

TEST_F(Messages, FillAQueueOfTenThousand) {
    if (OnWine()) GTEST_SKIP() << "Wine has no limit";
    for (int i = 0; i < 10'000; ++i)
        ASSERT_EQ(Post(First), 0u) << i;
    EXPECT_EQ(Post(First), DWORD{ERROR_NOT_ENOUGH_QUOTA});
    MSG message;
    EXPECT_TRUE(Peek(message));
    EXPECT_EQ(Post(Second), 0u);
}

TEST_F(Messages, OfWindowsThereAreNone) {
    MSG message{};
    const auto window = reinterpret_cast<HWND>(std::uintptr_t{0x1234});
    EXPECT_FALSE(PeekMessageW(&message, window, 0, 0, PM_REMOVE));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_WINDOW_HANDLE});
    EXPECT_EQ(GetMessageW(&message, window, 0, 0), -1);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_WINDOW_HANDLE});
    message.message = First;
    EXPECT_FALSE(TranslateMessage(&message));
    EXPECT_EQ(DispatchMessageW(&message), 0);
}

TEST_F(Messages, EndAWaitAfterTheHandlesBeforeThem) {
    const Owned event = AutoEvent();
    EXPECT_EQ(WaitForInput({event}, 0), DWORD{WAIT_TIMEOUT});
    Post(First);
    SetEvent(event);
    EXPECT_EQ(WaitForInput({event}, 0, MWMO_ALERTABLE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForInput({event}, 0), WAIT_OBJECT_0 + 1);
    Post(First);
    EXPECT_EQ(WaitForInput({}, INFINITE), WAIT_OBJECT_0);
}

TEST_F(Messages, LookedAtAndLeftAreNotNew) {
    MSG message;
    Post(First);
    ASSERT_TRUE(Peek(message, 0, 0, PM_NOREMOVE));
    EXPECT_EQ(WaitForInput({}, 0), DWORD{WAIT_TIMEOUT});
    const Owned event = AutoEvent(true);
    EXPECT_EQ(WaitForInput({event}, 0, MWMO_INPUTAVAILABLE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForInput({event}, 0), DWORD{WAIT_TIMEOUT}) << "what counted for one wait alone";
    EXPECT_EQ(WaitForInput({event}, 0, MWMO_INPUTAVAILABLE), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(WaitForInput({event}, 0, MWMO_INPUTAVAILABLE | MWMO_WAITALL), DWORD{WAIT_TIMEOUT});
    SetEvent(event);
    EXPECT_EQ(WaitForInput({event}, 0, MWMO_INPUTAVAILABLE | MWMO_WAITALL), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForInput({}, 0, MWMO_INPUTAVAILABLE), WAIT_OBJECT_0);
    Post(First);
    EXPECT_EQ(WaitForInput({}, 0), WAIT_OBJECT_0);
}

TEST_F(Messages, EndNoWaitThatDoesNotAskForThem) {
    constexpr DWORD NoPostedMessages = QS_ALLINPUT & ~DWORD{QS_POSTMESSAGE};
    const Owned event = AutoEvent();
    Post(First);
    EXPECT_EQ(WaitForInput({event}, 0, 0, NoPostedMessages), DWORD{WAIT_TIMEOUT});
}

TEST_F(Messages, AreAwaitedWithSixtyThreeHandlesAtMost) {
    std::vector<Owned> events;
    std::vector<HANDLE> handles;
    for (unsigned i = 0; i < MAXIMUM_WAIT_OBJECTS - 1; ++i)
        handles.push_back(events.emplace_back(AutoEvent()));
    Post(First);
    EXPECT_EQ(WaitForInput(handles, 0), WAIT_OBJECT_0 + 63);
    handles.push_back(events.emplace_back(AutoEvent()));
    EXPECT_EQ(WaitCode(WaitForInput(handles, 0)), DWORD{ERROR_INVALID_PARAMETER});
}

}  // namespace
}  // namespace Quellan::Corvel::Test
