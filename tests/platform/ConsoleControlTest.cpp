#include "TQLib/platform/Win32.h"
#include "WaitObjects.h"
#include "support/Role.h"

#include <iostream>

namespace Quellan::Corvel::Test {
namespace {

void Say(const std::string& line) {
    std::cout << line << std::endl;
}

// Handlers for the roles; each says its name.
BOOL TakeIt(DWORD event) {
    Say("taken " + std::to_string(event));
    return TRUE;
}
BOOL PassItOn(DWORD) {
    Say("passed on");
    return FALSE;
}

std::atomic<DWORD> g_handlerThread{0};
BOOL TellThread(DWORD) {
    g_handlerThread = GetCurrentThreadId();
    Say("told");
    return TRUE;
}

// Runs until it is told to end, so that it ends with 0 if no event ends it.
int AwaitWord() {
    Say("ready");
    char byte;
    DWORD got = 0;
    return ReadFile(GetStdHandle(STD_INPUT_HANDLE), &byte, 1, &got, nullptr) ? 0 : 1;
}

// Prepares itself as the words say.
const Role g_prepared("control", [](const RoleArguments& words) {
    SetConsoleCtrlHandler(nullptr, FALSE);
    for (const std::string& word : words) {
        if (word == "pass") SetConsoleCtrlHandler(&PassItOn, TRUE);
        if (word == "pass-no-more") SetConsoleCtrlHandler(&PassItOn, FALSE);
        if (word == "take") SetConsoleCtrlHandler(&TakeIt, TRUE);
        if (word == "tell") SetConsoleCtrlHandler(&TellThread, TRUE);
        if (word == "ignore") SetConsoleCtrlHandler(nullptr, TRUE);
        if (word == "heed") SetConsoleCtrlHandler(nullptr, FALSE);
    }
    const int code = AwaitWord();
    if (words.back() == "end-with-5") return 5;
    return g_handlerThread == GetCurrentThreadId() ? 2 : code;
});

// A process in a role that is ready for Ctrl+C.
class ConsoleControl : public testing::Test {
  protected:
    void SetUp() override {
        if (!ChildProcess::CanInterrupt()) GTEST_SKIP() << "signals from outside come late";
    }
    void Start(const RoleArguments& words) {
        m_process = std::make_unique<RoleProcess>("control", words, ChildProcess::Files::Piped);
        m_process->ReadTo("ready");
    }
    int End() {
        m_process->Write("end\n");
        return m_process->ExitCode();
    }

    std::unique_ptr<RoleProcess> m_process;
};

TEST_F(ConsoleControl, CallsTheHandlerAddedLastFirstUntilOneTakesTheEvent) {
    const std::pair<RoleArguments, const char*> rows[] = {
        {{"pass", "take", "pass"}, "passed on\ntaken 0\n"},
        {{"pass", "take", "pass", "pass-no-more"}, "taken 0\n"},
        {{"take", "ignore", "heed"}, "taken 0\n"}};
    for (const auto& [words, said] : rows) {
        Start(words);
        for (int i = 0; i < 2; ++i) {
            m_process->Interrupt();
            EXPECT_EQ(m_process->ReadTo("taken 0"), said);
        }
        EXPECT_EQ(End(), 0);
    }
}

TEST_F(ConsoleControl, CallsHandlersOnAThreadOfTheirOwn) {
    Start({"tell"});
    m_process->Interrupt();
    m_process->ReadTo("told");
    EXPECT_EQ(End(), 0);
}

TEST_F(ConsoleControl, EndsTheProcessWhenNobodyTakesTheEvent) {
    Start({"pass", "end-with-5"});
    m_process->Interrupt();
    EXPECT_EQ(m_process->ReadAll(), "passed on\n");
    EXPECT_NE(m_process->ExitCode(), 5);
}

TEST_F(ConsoleControl, IsDeafToCtrlCWhileItIsIgnored) {
    Start({"take", "ignore"});
    m_process->Interrupt();
    EXPECT_EQ(End(), 0);
    EXPECT_EQ(m_process->ReadAll(), "");
}

TEST(ConsoleControlHandlers, AreTakenAwayOnlyWhenTheyAreThere) {
    SetConsoleCtrlHandler(&PassItOn, TRUE);
    EXPECT_EQ(CodeOf(SetConsoleCtrlHandler(&TakeIt, FALSE)), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(CodeOf(SetConsoleCtrlHandler(&PassItOn, FALSE)), 0u);
    EXPECT_EQ(CodeOf(SetConsoleCtrlHandler(&PassItOn, FALSE)), DWORD{ERROR_INVALID_PARAMETER});
}

}  // namespace
}  // namespace Quellan::Corvel::Test
