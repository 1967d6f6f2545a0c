#include "WaitObjects.h"
#include "platform/Win32.h"
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

const Role g_chain("control-chain", [](const RoleArguments&) {
    SetConsoleCtrlHandler(nullptr, FALSE);
    for (const PHANDLER_ROUTINE handler : {&PassItOn, &TakeIt, &PassItOn})
        SetConsoleCtrlHandler(handler, TRUE);
    return AwaitWord();
});

const Role g_thread("control-thread", [](const RoleArguments&) {
    SetConsoleCtrlHandler(nullptr, FALSE);
    SetConsoleCtrlHandler(&TellThread, TRUE);
    AwaitWord();
    return g_handlerThread != 0 && g_handlerThread != GetCurrentThreadId() ? 0 : 1;
});

const Role g_unhandled("control-unhandled", [](const RoleArguments&) {
    SetConsoleCtrlHandler(nullptr, FALSE);
    SetConsoleCtrlHandler(&PassItOn, TRUE);
    AwaitWord();
    return 5;
});

const Role g_removed("control-removed", [](const RoleArguments&) {
    SetConsoleCtrlHandler(nullptr, FALSE);
    for (const PHANDLER_ROUTINE handler : {&PassItOn, &TakeIt, &PassItOn})
        SetConsoleCtrlHandler(handler, TRUE);
    SetConsoleCtrlHandler(&PassItOn, FALSE);
    return AwaitWord();
});

const Role g_ignored("control-ignored", [](const RoleArguments&) {
    SetConsoleCtrlHandler(&TakeIt, TRUE);
    SetConsoleCtrlHandler(nullptr, TRUE);
    return AwaitWord();
});

const Role g_restored("control-restored", [](const RoleArguments&) {
    SetConsoleCtrlHandler(&TakeIt, TRUE);
    SetConsoleCtrlHandler(nullptr, TRUE);
    SetConsoleCtrlHandler(nullptr, FALSE);
    return AwaitWord();
});

// A process in a role that is ready for Ctrl+C.
class ConsoleControl : public testing::Test {
  protected:
    void SetUp() override {
        if (!ChildProcess::CanInterrupt()) GTEST_SKIP() << "signals from outside come late";
    }
    void Start(const char* role) {
        m_process = std::make_unique<RoleProcess>(role, RoleArguments{}, ChildProcess::Files::Piped);
        m_process->ReadTo("ready");
    }
    int End() {
        m_process->Write("end\n");
        return m_process->ExitCode();
    }

    std::unique_ptr<RoleProcess> m_process;
};

TEST_F(ConsoleControl, CallsTheHandlerAddedLastFirstUntilOneTakesTheEvent) {
    Start("control-chain");
    m_process->Interrupt();
    m_process->ReadTo("taken 0");
    m_process->Interrupt();
    EXPECT_EQ(m_process->ReadTo("taken 0"), "passed on\ntaken 0\n");
    EXPECT_EQ(End(), 0);
}

TEST_F(ConsoleControl, CallsHandlersOnAThreadOfTheirOwn) {
    Start("control-thread");
    m_process->Interrupt();
    m_process->ReadTo("told");
    EXPECT_EQ(End(), 0);
}

TEST_F(ConsoleControl, EndsTheProcessWhenNobodyTakesTheEvent) {
    Start("control-unhandled");
    m_process->Interrupt();
    EXPECT_EQ(m_process->ReadAll(), "passed on\n");
    EXPECT_NE(m_process->ExitCode(), 5);
}

TEST_F(ConsoleControl, CallsNoHandlerThatWasTakenAway) {
    Start("control-removed");
    m_process->Interrupt();
    EXPECT_EQ(m_process->ReadTo("taken 0"), "taken 0\n");
    EXPECT_EQ(End(), 0);
}

TEST_F(ConsoleControl, IsDeafToCtrlCWhileItIsIgnored) {
    Start("control-ignored");
    m_process->Interrupt();
    EXPECT_EQ(End(), 0);
    EXPECT_EQ(m_process->ReadAll(), "");
}

TEST_F(ConsoleControl, HearsCtrlCAgainAfterIgnoringIt) {
    Start("control-restored");
    m_process->Interrupt();
    m_process->ReadTo("taken 0");
    EXPECT_EQ(End(), 0);
}

TEST(ConsoleControlHandlers, AreTakenAwayOnlyWhenTheyAreThere) {
    SetConsoleCtrlHandler(&PassItOn, TRUE);
    EXPECT_EQ(CodeOf(SetConsoleCtrlHandler(&TakeIt, FALSE)), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(CodeOf(SetConsoleCtrlHandler(&PassItOn, FALSE)), 0u);
    EXPECT_EQ(CodeOf(SetConsoleCtrlHandler(&PassItOn, FALSE)), DWORD{ERROR_INVALID_PARAMETER});
}

}  // namespace
}  // namespace Quellan::Corvel::Test
