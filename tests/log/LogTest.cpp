#include "LogFiles.h"
#include "TQLib/core/TQLib.h"
#include "TQLib/files/TQFile.h"
#include "TQLib/files/registry/TQRegValue.h"
#include "TQLib/log/TQLog.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/system/TQSysProc.h"
#include "platform/PlatformTest.h"
#include "support/FailCall.h"
#include "support/RecordingSink.h"
#include "support/Role.h"

#include <gmock/gmock.h>
#include <regex>

namespace Quellan::Corvel::Test {
namespace {

using testing::ElementsAre;

std::string Utf8(const TQString& text) {
    const _TQaString bytes = text.ToUtf8();
    return std::string(bytes.View());
}

class Logs : public testing::Test {
  protected:
    // A file of that many bytes, as an earlier process would have left it.
    fs::path Old(const char* name, std::size_t size) const {
        const fs::path path = m_folder / name;
        std::string bytes(size, 'x');
        if (size > 1) bytes.replace(size - 2, 2, "\r\n");
        WriteBytes(path, bytes);
        return path;
    }

    bool Exists(const char* name) const { return fs::exists(m_folder / name); }
    std::uintmax_t SizeOf(const char* name) const { return fs::file_size(m_folder / name); }
    std::string Bytes(const char* name) const { return ReadBytes(m_folder / name); }
    std::vector<std::string> Lines(const char* name) const { return LinesOf(Bytes(name)); }
    std::wstring Full(const char* name) const {
        return TQFileName((m_folder / name).wstring().c_str()).FullName().c_str();
    }

    // What was reported about a failed rollover: code and texts.
    void ExpectRolloverFailure(DWORD code, const char* file, const char* backup) const {
        ASSERT_EQ(m_events.Entries().size(), 1u);
        const RecordingSink::Entry entry = m_events.Entries().front();
        EXPECT_EQ(entry.source, L"TQLib");
        EXPECT_EQ(entry.eventId, 0xCFFF400Du);
        EXPECT_EQ(entry.type, TQEventType::Error);
        EXPECT_THAT(entry.strings, ElementsAre(Full(file), Full(backup)));
        EXPECT_THAT(entry.data, ElementsAre(static_cast<BYTE>(code), static_cast<BYTE>(code >> 8), 0, 0));
    }

    // A log that drops what it is given.
    static void ExpectNull(const TQLogPtr& log) {
        EXPECT_EQ(log->Size(), 0u);
        log->AddMsg(L"dropped", TQLogLevel::Error);
        EXPECT_EQ(log->Size(), 0u);
    }

    const LogFolder m_folder;
    const RecordingSink m_events;
};

TEST_F(Logs, AreFoundByTheirNameWhateverItsCase) {
    const TQLogPtr log = Open(m_folder / "Service");
    EXPECT_TRUE(Exists("Service.tlg"));
    EXPECT_EQ(Open(m_folder / "service.TLG"), log);
    EXPECT_EQ(TQLog::GetLog((m_folder.Path() / "." / "SERVICE").wstring().c_str(), 1), log);
    EXPECT_NE(Open(m_folder / "Service.log"), log);
}

TEST_F(Logs, HaveRecordsWithHeadAndIndentedMessage) {
    const TQLogPtr log = Open(m_folder / "App");
    log->AddMsg(L"a\r\nb\nc", TQLogLevel::Warning);
    log->AddMsg(L"with a source", TQLogLevel::Error, L"Worker");
    const TQFileName object(L"described");
    log->AddMsg(L"with an object", static_cast<TQLogLevel>(14), &object);
    const std::vector<std::string> lines = Lines("App.tlg");
    ASSERT_EQ(lines.size(), 8u);

    const std::string process = std::to_string(GetCurrentProcessId());
    const std::string module = Utf8(TQSysProc::ModuleName(TQSysProc::GetAppModule()));
    const std::string head = R"( \d+:\d\d:\d\d\.\d\d\d \[)" + Utf8(TQLib::GetAppName()) + " : " + process +
                             R"( \()" + module + R"(\)\{)" + std::to_string(GetCurrentThreadId()) + R"(\}\])";
    const std::string user = R"( -- \[[^\]]+ \{S-1-5-[0-9-]+\}\])";
    EXPECT_TRUE(std::regex_match(lines[0], std::regex("W" + head + R"( -- \[\])" + user))) << lines[0];
    EXPECT_EQ(lines[1], "    a");
    EXPECT_EQ(lines[2], "        b");
    EXPECT_EQ(lines[3], "    c");
    EXPECT_TRUE(std::regex_match(lines[4], std::regex("E" + head + R"( -- \[Worker\])" + user))) << lines[4];
    EXPECT_EQ(lines[5], "    with a source");
    const std::string described = R"( -- \[.*described \([0-9A-F]{16}\)\])";
    EXPECT_TRUE(std::regex_match(lines[6], std::regex(R"(\?)" + head + described + user))) << lines[6];
    EXPECT_EQ(log->Size(), SizeOf("App.tlg"));
}

TEST_F(Logs, NameTheUserAsTheSystemDoes) {
    Open(m_folder / "App")->AddMsg(L"", TQLogLevel::Trace);
    const Sarvek::SecID user = TQSysProc::CurrentUser();
    const std::string head = Lines("App.tlg").at(0);
    EXPECT_TRUE(head.ends_with("[" + Utf8(user.Name()) + " {" + Utf8(user.String()) + "}]")) << head;
}

TEST_F(Logs, AreRolledOverFromTheirLimitOn) {
    constexpr std::size_t Limit = 0x200000;
    Open(Old("Below.tlg", Limit - 1));
    EXPECT_FALSE(Exists("Below_bak.tlg"));
    Old("At_bak.tlg", 7);
    Open(Old("At.tlg", Limit));
    EXPECT_EQ(SizeOf("At_bak.tlg"), Limit);
    EXPECT_EQ(SizeOf("At.tlg"), 0u);
    Open(Old("Own.log", 100), 100)->AddMsg(L"first", TQLogLevel::Trace);
    EXPECT_EQ(SizeOf("Own_bak.log"), 100u);
    EXPECT_EQ(Lines("Own.log").size(), 2u);
    EXPECT_TRUE(m_events.Entries().empty());
}

TEST_F(Logs, AreRolledOverAtTheirFirstOpeningAlone) {
    const fs::path path = m_folder / "App.tlg";
    const TQLogPtr log = Open(path, 100);
    log->AddMsg(L"more than a hundred bytes, with the head before it", TQLogLevel::Trace);
    ASSERT_GT(log->Size(), 100u);
    EXPECT_EQ(Open(path, 100), log);
    EXPECT_FALSE(Exists("App_bak.tlg"));
}

TEST_F(Logs, AreDroppedWhereTheBackupIsAFolder) {
    fs::create_directory(m_folder / "App_bak.tlg");
    ExpectNull(Open(Old("App.tlg", 200), 200));
    ExpectRolloverFailure(ERROR_ACCESS_DENIED, "App.tlg", "App_bak.tlg");
    ExpectNull(Open(m_folder / "App.tlg", 200));
    EXPECT_EQ(m_events.Entries().size(), 1u) << "it is reported once";
    EXPECT_EQ(SizeOf("App.tlg"), 200u);
}

// Has the file open as another log would, until its input ends.
const Role g_holder("hold-log", [](const RoleArguments& arguments) {
    const TQLogPtr log = Open(arguments.at(0), 1u << 30);
    log->AddMsg(L"held", TQLogLevel::Trace);
    std::puts("held");
    std::fflush(stdout);
    return std::getchar() == EOF ? 0 : 1;
});

TEST_F(Logs, AreDroppedWhereAnotherProcessHoldsTheFile) {
    const fs::path path = Old("App.tlg", 200);
    RoleProcess holder("hold-log", {path.string()}, ChildProcess::Files::Piped);
    holder.ReadTo("held");
    ExpectNull(Open(path, 200));
    ExpectRolloverFailure(ERROR_SHARING_VIOLATION, "App.tlg", "App_bak.tlg");
    holder.CloseInput();
    EXPECT_EQ(holder.ExitCode(), 0);
    EXPECT_GT(SizeOf("App.tlg"), 200u);
}

TEST_F(Logs, AreDroppedInAFolderThatIsNotThere) {
    const fs::path path = m_folder / "none" / "App.tlg";
    ExpectNull(Open(path));
    ExpectNull(Open(path));
    ASSERT_EQ(m_events.Entries().size(), 1u);
    EXPECT_EQ(m_events.Entries()[0].eventId, 0xCFFF400Eu);
    EXPECT_EQ(m_events.Entries()[0].data.at(0), ERROR_PATH_NOT_FOUND);
    ExpectNull(TQLog::GetLog(nullptr, 0));
    fs::create_directory(m_folder / "none");
    Open(path)->AddMsg(L"as soon as it is there", TQLogLevel::Trace);
    EXPECT_EQ(LinesOf(ReadBytes(path)).size(), 2u);
}

TEST_F(Logs, AreDroppedInSilenceWhereTheEventLogFailsToo) {
    RecordingSink refusing;
    refusing.Refuse();
    ExpectNull(Open(m_folder / "none" / "App.tlg"));
}

TEST_F(Logs, ThrowWhereTheThreadCannotImpersonateAgain) {
    ASSERT_TRUE(ImpersonateSelf(SecurityImpersonation));
    {
        const FailCall fail("SetThreadToken", ERROR_ACCESS_DENIED);
        EXPECT_EQ(ThrownCode([&] { Open(m_folder / "App.tlg"); }), DWORD{ERROR_ACCESS_DENIED});
    }
    RevertToSelf();
    Open(m_folder / "App.tlg")->AddMsg(L"opened", TQLogLevel::Trace);
    EXPECT_EQ(Lines("App.tlg").size(), 2u);
}

TEST_F(Logs, DropWhatCannotBeWrittenAndTellOfItOnce) {
    const TQLogPtr log = Open(m_folder / "App.tlg");
    const auto lose = [&](DWORD code) {
        const FailCall fail("WriteFile", code);
        SetLastError(77);
        log->AddMsg(L"lost", TQLogLevel::Trace);
        EXPECT_EQ(GetLastError(), 77u);
    };
    lose(ERROR_IO_DEVICE);
    lose(ERROR_DISK_FULL);
    for (const wchar_t* const message : {L"first", L"second"})
        log->AddMsg(message, TQLogLevel::Trace);
    RecordingSink refusing;
    refusing.Refuse();
    lose(ERROR_DISK_FULL);
    TQEventLog::SetSink(nullptr);  // the event log takes entries again before the disk does
    RecordingSink taking;
    log->AddMsg(L"third", TQLogLevel::Trace);

    const std::vector<std::string> lines = Lines("App.tlg");
    ASSERT_EQ(lines.size(), 10u);
    EXPECT_EQ(lines[0][0], 'W');
    EXPECT_NE(lines[0].find("}] -- [TQLog] -- ["), lines[0].npos) << lines[0];
    EXPECT_EQ(lines[1], "    2 records were lost (error 112).");
    EXPECT_EQ(lines[3], "    first");
    EXPECT_EQ(lines[5], "    second");
    EXPECT_EQ(lines[7], "    1 record was lost (error 112).");
    EXPECT_EQ(lines[9], "    third");
    EXPECT_EQ(log->Lost(), 3u);
    for (const auto& [sink, code] : {std::pair(&m_events, ERROR_IO_DEVICE), {&taking, ERROR_DISK_FULL}}) {
        ASSERT_EQ(sink->Entries().size(), 1u) << "one for each time";
        EXPECT_EQ(sink->Entries()[0].eventId, 0xCFFF400Fu);
        EXPECT_EQ(sink->Entries()[0].data.at(0), static_cast<BYTE>(code));
        EXPECT_THAT(sink->Entries()[0].strings, ElementsAre(Full("App.tlg")));
    }
}

TEST_F(Logs, WriteWithoutAUserWhoCannotBeFound) {
    const TQLogPtr log = Open(m_folder / "App.tlg");
    {
        const FailCall fail("GetTokenInformation", ERROR_ACCESS_DENIED, FailCall::EveryCall);
        log->AddMsg(L"nobody", TQLogLevel::Trace);
        log->AddMsg(L"nobody", TQLogLevel::Trace, L"Worker");
    }
    log->AddMsg(L"somebody", TQLogLevel::Trace);
    const std::vector<std::string> lines = Lines("App.tlg");
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_TRUE(lines[0].ends_with("}]")) << lines[0];
    EXPECT_EQ(lines[0].find(" -- "), lines[0].npos) << lines[0];
    EXPECT_TRUE(lines[2].ends_with("}] -- [Worker]")) << lines[2];
    EXPECT_NE(lines[4].find("}] -- [] -- ["), lines[4].npos) << lines[4];
}

TEST_F(Logs, WaitTwoSecondsForWhoeverLocksTheFile) {
    const TQLogPtr log = Open(m_folder / "App.tlg");
    const auto share = _TQFile::FileShare::Read | _TQFile::FileShare::Write;
    _TQFile other(TQFileName((m_folder / "App.tlg").wstring().c_str()), GENERIC_READ | GENERIC_WRITE,
                  OPEN_EXISTING, 0, share, {});
    constexpr ULONGLONG AppendLock = (1ULL << 62) - 1;
    ASSERT_TRUE(other.Lock(AppendLock, 1, 0));
    const ULONGLONG begin = GetTickCount64();
    log->AddMsg(L"lost", TQLogLevel::Trace);
    EXPECT_GE(GetTickCount64() - begin, 1990u);
    other.Unlock(AppendLock, 1);
    log->AddMsg(L"written", TQLogLevel::Trace);
    ASSERT_EQ(Lines("App.tlg").size(), 4u);
    EXPECT_EQ(Lines("App.tlg")[1], "    1 record was lost (error 33).");
    EXPECT_EQ(Lines("App.tlg")[3], "    written");
}

TEST_F(Logs, TakeMessagesOfAllKinds) {
    const TQLogPtr log = Open(m_folder / "App.tlg");
    const std::wstring large(10'000'000, L'm');
    log->AddMsg(nullptr, TQLogLevel::Trace);
    log->AddMsg(large.c_str(), TQLogLevel::Trace);
    log->AddMsg(L"\u0416\u4E2D", TQLogLevel::Trace);
    log->AddMsg(L"next", TQLogLevel::Trace, static_cast<const TQObject*>(nullptr));
    const std::vector<std::string> lines = Lines("App.tlg");
    ASSERT_EQ(lines.size(), 8u);
    EXPECT_EQ(lines[1], "    ");
    EXPECT_EQ(lines[3], "    " + std::string(large.size(), 'm'));
    const _TQaString ansi = TQString(L"\u0416\u4E2D").ToAnsi();
    EXPECT_EQ(lines[5], "    " + std::string(ansi.View()));
    EXPECT_EQ(lines[7], "    next");
}

TEST_F(Logs, AreSharedByTheirCopiesUntilThoseAreClosed) {
    const TQLogPtr log = Open(m_folder / "App.tlg");
    TQLog copy = *log;
    copy.AddMsg(L"through the copy", TQLogLevel::Trace);
    EXPECT_EQ(Lines("App.tlg").size(), 2u);
    copy.Close();
    EXPECT_EQ(copy.Size(), 0u);
    copy.AddMsg(L"lost", TQLogLevel::Trace);
    log->AddMsg(L"not closed", TQLogLevel::Trace);
    EXPECT_EQ(Lines("App.tlg").size(), 4u);
}

// Says where the application's log is by writing to it. Without a key it stays the null log, with `create` in
// the second argument the key is made, with `refused` not below the machine's.
const Role g_application("application", [](const RoleArguments& arguments) {
    TQLib::SetAppName(TQString::FromUtf8(arguments.at(0)));
    std::optional<FailCall> refused;
    if (arguments.at(1) == "refused")
        refused.emplace("RegCreateKeyExW", ERROR_ACCESS_DENIED, 1, ERROR_ACCESS_DENIED);
    const TQLogPtr log = TQLib::GetAppLog(arguments.at(1) != "find");
    log->AddMsg(L"from the application", TQLogLevel::Trace);
    return log->Size() > 0 ? 0 : 1;
});

class ApplicationLogs : public Logs {
  protected:
    ApplicationLogs() : m_name("tqlib-log-test-" + std::to_string(GetCurrentProcessId())) {}
    ~ApplicationLogs() override {
        for (const TQRegKey& root : {TQRegistry::MachineKey(), TQRegistry::UserKey()})
            root.DeleteKey(Path().c_str());
    }

    TQString Path() const { return L"Software\\" + TQString::FromUtf8(m_name); }
    TQRegKey Key() const { return TQRegistry::MachineKey().Create(Path().c_str()); }
    int Run(const char* create = "find") const {
        return RoleProcess("application", {m_name, create}).ExitCode();
    }

    const std::string m_name;
};

TEST_F(ApplicationLogs, AreWhereTheRegistrySays) {
    const TQString file((m_folder / "Set").wstring().c_str());
    TQStringRegValue(Key(), L"LogFile").Set(file);
    TQDWORDRegValue(Key(), L"MaxLogFileSize").Set(1);
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Lines("Set.tlg").size(), 2u);
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Lines("Set.tlg").size(), 2u);
    EXPECT_EQ(Lines("Set_bak.tlg").size(), 2u);
}

TEST_F(ApplicationLogs, AreWhereTheVariablesOfTheSettingLead) {
    const EnvironmentVariable folder(L"TQ_LOG_TEST", m_folder.Path().wstring().c_str());
    TQExpandStringRegValue(Key(), L"LogFile").Set(L"%TQ_LOG_TEST%/Expanded");
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Lines("Expanded.tlg").size(), 2u);
}

TEST_F(ApplicationLogs, AreNullWithoutAKeyAndElseBesideTheProgram) {
    EXPECT_EQ(Run(), 1);
    EXPECT_EQ(Run("refused"), 0);
    EXPECT_TRUE(TQRegistry::MachineKey().Find(Path().c_str()).IsNull());
    const TQString module = TQSysProc::ModuleFileName(TQSysProc::GetAppModule());
    const fs::path file = fs::path(std::wstring(TQFileName(module).Path().View())) / (m_name + ".tlg");
    EXPECT_EQ(LinesOf(ReadBytes(file)).size(), 2u);
    fs::remove(file);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
