#include "TQLib/platform/Win32.h"
#include "TQLib/security/SecDesc.h"
#include "WaitObjects.h"
#include "support/Role.h"

#include <initializer_list>
#include <memory>

namespace Quellan::Corvel::Test {
namespace {

// A name that no other test and no other run uses.
std::string NewName() {
    static int count = 0;
    return "tqtest." + std::to_string(GetCurrentProcessId()) + "." + std::to_string(count++);
}

enum RoleExit { Done = 0, NotThere = 10, TimedOut = 11, Unexpected = 12 };

Owned OpenEvent(const std::string& name) {
    return Owned(OpenEventW(EVENT_ALL_ACCESS, FALSE, Wide(name).c_str()));
}

// Takes the mutex of that name, tells so by the event of that name, and keeps it until the process is killed.
const Role g_holder("hold-mutex", [](const RoleArguments& arguments) -> int {
    const Owned mutex(OpenMutexW(MUTEX_ALL_ACCESS, FALSE, Wide(arguments.at(0)).c_str()));
    const Owned taken = OpenEvent(arguments.at(1));
    if (!mutex || !taken) return NotThere;
    if (Await(mutex) == WAIT_FAILED) return Unexpected;
    SetEvent(taken);
    Sleep(INFINITE);
    return Unexpected;
});

// The same with a thread that ends as the owner, and a process that goes on until the event is set again.
const Role g_careless("lose-mutex", [](const RoleArguments& arguments) -> int {
    const Owned mutex(OpenMutexW(MUTEX_ALL_ACCESS, FALSE, Wide(arguments.at(0)).c_str()));
    const Owned lost = OpenEvent(arguments.at(1));
    const Owned end = OpenEvent(arguments.at(2));
    if (!mutex || !lost || !end) return NotThere;
    Worker([&] { return Await(mutex); });
    SetEvent(lost);
    return Await(end) == WAIT_OBJECT_0 ? Done : TimedOut;
});

// Answers each signal of the first event with the second, as often as told.
const Role g_echo("echo", [](const RoleArguments& arguments) -> int {
    const Owned ping = OpenEvent(arguments.at(0));
    const Owned pong = OpenEvent(arguments.at(1));
    if (!ping || !pong) return NotThere;
    for (int i = std::stoi(arguments.at(2)); i > 0; --i) {
        if (Await(ping) != WAIT_OBJECT_0) return TimedOut;
        SetEvent(pong);
    }
    return Done;
});

// Creates an event of that name, tells so, and waits to be killed.
const Role g_creator("create-event", [](const RoleArguments& arguments) -> int {
    const Owned created = ManualEvent(true, Wide(arguments.at(0)).c_str());
    if (!created || GetLastError() != 0) return Unexpected;
    SetEvent(OpenEvent(arguments.at(1)));
    Sleep(INFINITE);
    return Unexpected;
});

class NamedObjects : public testing::Test {
  protected:
    const wchar_t* Name() const { return m_wide.c_str(); }

    const std::string m_name = NewName();
    const std::wstring m_wide = Wide(m_name);
};

// Opens the object of that name and closes it again: the last error.
DWORD CodeOfOpening(const std::string& name, DWORD access) {
    const Owned opened(OpenEventW(access, FALSE, Wide(name).c_str()));
    return opened ? 0 : GetLastError();
}

const Role g_opener("open-event", [](const RoleArguments& arguments) -> int {
    return static_cast<int>(CodeOfOpening(arguments.at(0), static_cast<DWORD>(std::stoul(arguments.at(1)))));
});

// Within the process that made it, and from another one.
TEST_F(NamedObjects, ObeyTheirDescriptors) {
    struct Case {
        const wchar_t* list;
        DWORD wanted;
        DWORD code;
    };
    for (const Case& tried : std::initializer_list<Case>{
             {L"D:(A;;0x100000;;;WD)", SYNCHRONIZE, 0},
             {L"D:(A;;0x100000;;;WD)", EVENT_MODIFY_STATE, ERROR_ACCESS_DENIED},
             {L"D:(A;;0x100000;;;WD)", EVENT_MODIFY_STATE | SYNCHRONIZE, ERROR_ACCESS_DENIED},
             {L"D:(A;;0x100000;;;WD)", MAXIMUM_ALLOWED, 0},
             {L"D:(A;;GX;;;WD)", SYNCHRONIZE, 0},
             {L"D:(A;;0x1F0003;;;WD)", EVENT_ALL_ACCESS, 0},
             {L"D:(A;IO;0x1F0003;;;WD)", EVENT_MODIFY_STATE, ERROR_ACCESS_DENIED},
             {L"D:(D;;0x2;;;WD)(A;;0x1F0003;;;WD)", EVENT_MODIFY_STATE, ERROR_ACCESS_DENIED},
             {L"D:(D;;0x2;;;WD)(A;;0x1F0003;;;WD)", SYNCHRONIZE, 0},
             {L"D:(A;;0x1F0003;;;S-1-5-21-1-2-3-1000)", EVENT_MODIFY_STATE, ERROR_ACCESS_DENIED},
             {L"D:", EVENT_MODIFY_STATE, ERROR_ACCESS_DENIED},
             {L"D:", READ_CONTROL, 0},  // the owner's in any case
             {L"D:NO_ACCESS_CONTROL", EVENT_ALL_ACCESS, 0}}) {
        BYTEBuf block = Sarvek::SecDesc::FromText(tried.list).Block();
        SECURITY_ATTRIBUTES attributes{sizeof attributes, block.Data(), FALSE};
        const std::string name = NewName();
        const Owned made(CreateEventW(&attributes, TRUE, FALSE, Wide(name).c_str()));
        ASSERT_TRUE(made) << GetLastError();
        EXPECT_TRUE(SetEvent(made)) << "its maker has all rights";
        const std::string wanted = std::to_string(tried.wanted);
        EXPECT_EQ(CodeOfOpening(name, tried.wanted), tried.code) << TQString(tried.list).ToUtf8() << wanted;
        EXPECT_EQ(RoleProcess("open-event", {name, wanted}).ExitCode(), static_cast<int>(tried.code))
            << TQString(tried.list).ToUtf8() << wanted;
    }
}

TEST_F(NamedObjects, GrantWithTheirHandlesWhatTheirDescriptorsDo) {
    BYTEBuf block = Sarvek::SecDesc::FromText(L"D:(A;;0x100000;;;WD)").Block();
    SECURITY_ATTRIBUTES attributes{sizeof attributes, block.Data(), FALSE};
    const Owned made(CreateEventW(&attributes, TRUE, FALSE, Name()));
    const Owned most(OpenEventW(MAXIMUM_ALLOWED, FALSE, Name()));
    EXPECT_EQ(Poll(most), DWORD{WAIT_TIMEOUT});
    EXPECT_FALSE(SetEvent(most));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_FALSE(ManualEvent(false, Name())) << "who creates what is there asks for everything";
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
}

TEST_F(NamedObjects, TakeOtherLists) {
    const auto list = [](const wchar_t* text) { return Sarvek::SecDesc::FromText(text).Block(); };
    const auto set = [](HANDLE handle, BYTEBuf block) {
        return SetKernelObjectSecurity(handle, DACL_SECURITY_INFORMATION, block.Data()) ? 0 : GetLastError();
    };
    const Owned made(CreateEventW(nullptr, TRUE, FALSE, Name()));
    const Owned waiting(OpenEventW(SYNCHRONIZE, FALSE, Name()));
    EXPECT_EQ(set(waiting, list(L"D:(A;;0x1F0003;;;WD)")), DWORD{ERROR_ACCESS_DENIED});
    for (const wchar_t* const text :
         {L"D:(A;;0x100000;;;WD)(A;;0x20000;;;BU)(A;;0x20000;;;AU)", L"D:(A;;0x100000;;;WD)"}) {
        EXPECT_EQ(set(made, list(text)), 0u);
        EXPECT_EQ(RoleProcess("open-event", {m_name, std::to_string(SYNCHRONIZE)}).ExitCode(), 0);
        EXPECT_EQ(RoleProcess("open-event", {m_name, std::to_string(EVENT_MODIFY_STATE)}).ExitCode(),
                  ERROR_ACCESS_DENIED);
    }
    EXPECT_EQ(set(made, list(L"D:(A;;0x100002;;;WD)")), 0u);
    EXPECT_EQ(CodeOfOpening(m_name, EVENT_MODIFY_STATE), 0u);
}

TEST_F(NamedObjects, AreOneObjectWithManyHandles) {
    const Owned created = ManualEvent(false, Name());
    EXPECT_EQ(GetLastError(), 0u);
    const Owned again = AutoEvent(true, Name());  // what is asked for counts for new objects only
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ALREADY_EXISTS});
    const Owned opened(OpenEventW(SYNCHRONIZE, FALSE, Name()));
    EXPECT_EQ(Poll(opened), DWORD{WAIT_TIMEOUT});
    SetEvent(again);
    EXPECT_EQ(Poll(opened), WAIT_OBJECT_0);
    EXPECT_EQ(Poll(created), WAIT_OBJECT_0);
}

TEST_F(NamedObjects, EndWithTheirLastHandle) {
    Owned first = ManualEvent(true, Name());
    Owned second(OpenEventW(SYNCHRONIZE, FALSE, Name()));
    first.Close();
    EXPECT_EQ(CodeOf(Owned(OpenEventW(SYNCHRONIZE, FALSE, Name()))), 0u);
    second.Close();
    EXPECT_EQ(CodeOf(OpenEventW(SYNCHRONIZE, FALSE, Name())), DWORD{ERROR_FILE_NOT_FOUND});
    const Owned anew = ManualEvent(false, Name());
    EXPECT_EQ(GetLastError(), 0u);
    EXPECT_EQ(Poll(anew), DWORD{WAIT_TIMEOUT});
}

TEST_F(NamedObjects, HaveOneKind) {
    const Owned mutex = Mutex(false, Name());
    EXPECT_EQ(CodeOf(CreateEventW(nullptr, TRUE, FALSE, Name())), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(CodeOf(OpenSemaphoreW(SYNCHRONIZE, FALSE, Name())), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(CodeOf(Owned(OpenMutexW(SYNCHRONIZE, FALSE, Name()))), 0u);
}

TEST_F(NamedObjects, AreFoundByTheirNamesAlone) {
    const std::wstring upper = L"T" + m_wide.substr(1), odd = m_wide + L" /:*\x00E4\x4E2D.";
    const struct {
        std::wstring made, asked;
        DWORD code;
    } rows[] = {{m_wide, L"Local\\" + m_wide, 0},
                {m_wide, upper, ERROR_FILE_NOT_FOUND},
                {m_wide, L"Global\\" + m_wide, ERROR_FILE_NOT_FOUND},
                {odd, odd, 0}};
    for (const auto& [made, asked, code] : rows) {
        const Owned event = ManualEvent(false, made.c_str());
        EXPECT_EQ(CodeOf(Owned(OpenEventW(SYNCHRONIZE, FALSE, asked.c_str()))), code);
    }
    const Owned first = ManualEvent(true, L""), second = ManualEvent(false, L"");
    EXPECT_EQ(Poll(second), DWORD{WAIT_TIMEOUT}) << "an empty name is none";
}

TEST_F(NamedObjects, RefuseNamesThatAreNone) {
    const std::pair<std::wstring, DWORD> rows[] = {{L"\\" + m_wide, ERROR_BAD_PATHNAME},
                                                   {L"Else\\" + m_wide, ERROR_PATH_NOT_FOUND},
                                                   {L"Global\\a\\" + m_wide, ERROR_PATH_NOT_FOUND},
                                                   {L"Global\\", ERROR_INVALID_NAME}};
    for (const auto& [name, code] : rows) {
        EXPECT_EQ(CodeOf(ManualEvent(false, name.c_str())), code);
        EXPECT_EQ(CodeOf(OpenEventW(SYNCHRONIZE, FALSE, name.c_str())), code);
    }
    EXPECT_EQ(CodeOf(OpenEventW(SYNCHRONIZE, FALSE, nullptr)), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(CodeOf(OpenMutexW(SYNCHRONIZE, FALSE, L"")), DWORD{ERROR_INVALID_HANDLE});
}

TEST_F(NamedObjects, BelongToTheirMakerFromTheBeginning) {
    const Owned mutex = Mutex(true, Name());
    const Owned again = Mutex(true, Name());
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ALREADY_EXISTS});
    EXPECT_EQ(Worker([&] { return Poll(again); }).Result(), DWORD{WAIT_TIMEOUT});
    EXPECT_EQ(Poll(again), WAIT_OBJECT_0);
    EXPECT_EQ(CodeOf(ReleaseMutex(mutex)), 0u);
    EXPECT_EQ(CodeOf(ReleaseMutex(mutex)), 0u);
    EXPECT_EQ(CodeOf(ReleaseMutex(again)), DWORD{ERROR_NOT_OWNER});
    EXPECT_EQ(Worker([&] { return Poll(again); }).Result(), WAIT_OBJECT_0);
}

TEST_F(NamedObjects, PassSignalsBetweenProcesses) {
    constexpr int Rounds = 1'000;
    const std::string pongName = NewName();
    const Owned ping = AutoEvent(false, Name());
    const Owned pong = AutoEvent(false, Wide(pongName).c_str());
    const Owned never = AutoEvent();
    RoleProcess echo("echo", {m_name, pongName, std::to_string(Rounds)});
    for (int i = 0; i < Rounds; ++i) {
        SetEvent(ping);
        // Together with an object of this process every other time.
        const DWORD status = i % 2 ? WaitAny({never, pong}, Patience) - 1 : Await(pong);
        ASSERT_EQ(status, WAIT_OBJECT_0) << i;
    }
    EXPECT_EQ(echo.ExitCode(), Done);
}

TEST_F(NamedObjects, EndWithTheProcessThatIsKilled) {
    const std::string readyName = NewName();
    const Owned ready = AutoEvent(false, Wide(readyName).c_str());
    RoleProcess creator("create-event", {m_name, readyName});
    ASSERT_EQ(Await(ready), WAIT_OBJECT_0);
    EXPECT_EQ(Poll(Owned(OpenEventW(SYNCHRONIZE, FALSE, Name()))), WAIT_OBJECT_0);
    creator.Kill();
    EXPECT_EQ(CodeOf(OpenEventW(SYNCHRONIZE, FALSE, Name())), DWORD{ERROR_FILE_NOT_FOUND});
    const Owned anew = ManualEvent(false, Name());
    EXPECT_EQ(GetLastError(), 0u);
    EXPECT_EQ(Poll(anew), DWORD{WAIT_TIMEOUT});
}

class HeldMutex : public NamedObjects {
  protected:
    // Another process holds the mutex when this returns.
    std::unique_ptr<RoleProcess> Hold() {
        auto holder = std::make_unique<RoleProcess>("hold-mutex", RoleArguments{m_name, m_takenName});
        EXPECT_EQ(Await(m_taken), WAIT_OBJECT_0);
        return holder;
    }

    void ExpectOwned() {
        EXPECT_EQ(CodeOf(ReleaseMutex(m_mutex)), 0u);
        EXPECT_EQ(Poll(m_mutex), WAIT_OBJECT_0);  // nobody hears of it twice
        EXPECT_EQ(CodeOf(ReleaseMutex(m_mutex)), 0u);
    }

    const std::string m_takenName = NewName();
    Owned m_mutex = Mutex(false, Name());
    Owned m_taken = AutoEvent(false, Wide(m_takenName).c_str());
    Owned m_never = AutoEvent();
};

TEST_F(HeldMutex, IsGivenToAWaiterWhenItsProcessIsKilled) {
    const auto holder = Hold();
    const Owned waiting = ManualEvent();
    const Worker single([&] {
        SetEvent(waiting);
        const DWORD status = Await(m_mutex);
        return ReleaseMutex(m_mutex) ? status : DWORD{WAIT_FAILED};
    });
    Await(waiting);
    holder->Kill();
    EXPECT_EQ(single.Result(), DWORD{WAIT_ABANDONED_0});
}

TEST_F(HeldMutex, IsAbandonedForWaitsOfEveryForm) {
    const Owned set = ManualEvent(true);
    const Owned alsoNamed = ManualEvent(true, Wide(NewName()).c_str());
    Hold()->Kill();
    EXPECT_EQ(WaitAny({m_never, m_mutex}, Patience), WAIT_ABANDONED_0 + 1);
    ExpectOwned();
    Hold()->Kill();
    EXPECT_EQ(WaitAll({set, m_mutex, alsoNamed}, Patience), DWORD{WAIT_ABANDONED_0});
    ExpectOwned();
}

TEST_F(HeldMutex, IsAbandonedByAThreadOfALivingProcess) {
    const std::string endName = NewName();
    const Owned end = AutoEvent(false, Wide(endName).c_str());
    RoleProcess careless("lose-mutex", {m_name, m_takenName, endName});
    ASSERT_EQ(Await(m_taken), WAIT_OBJECT_0);
    EXPECT_EQ(Await(m_mutex), DWORD{WAIT_ABANDONED_0});
    ExpectOwned();
    SetEvent(end);
    EXPECT_EQ(careless.ExitCode(), Done);
}

TEST_F(NamedObjects, AreAwaitedTogetherWithThoseOfTheProcess) {
    const Owned named = AutoEvent(false, Name());
    const Owned mine = AutoEvent();
    SetEvent(mine);
    EXPECT_EQ(WaitAny({named, mine}), WAIT_OBJECT_0 + 1);
    SetEvent(named);
    SetEvent(mine);
    EXPECT_EQ(WaitAny({named, mine}), WAIT_OBJECT_0);
    EXPECT_EQ(WaitAll({named, mine}), DWORD{WAIT_TIMEOUT});
    EXPECT_EQ(WaitAll({named, mine}, 1), DWORD{WAIT_TIMEOUT});
    SetEvent(named);
    EXPECT_EQ(WaitAll({named, mine}), WAIT_OBJECT_0);
    EXPECT_EQ(WaitAny({named, mine}), DWORD{WAIT_TIMEOUT});
}

TEST_F(NamedObjects, EndMixedWaitsFromEitherSide) {
    ExchangeMixedSignals(Name(), 2'000, [] { return 0; });
}

}  // namespace
}  // namespace Quellan::Corvel::Test
