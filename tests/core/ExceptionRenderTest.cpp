#include "TQLib/core/TQException.h"
#include "TQLib/core/TQLib.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/system/TQSysProc.h"
#include "support/FailCall.h"
#include "support/RecordingSink.h"

#include <gmock/gmock.h>
#include <string>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

using Level = _TQExceptionRoot::Level;
constexpr auto Log = TQStrResDestination::Log;

// What the platform says for a number, asked for as exceptions ask: in one line.
std::wstring SystemText(DWORD number) {
    wchar_t text[512] = L"";
    FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_MAX_WIDTH_MASK, nullptr, number, 0x400, text,
                   512, nullptr);
    return text;
}

std::wstring CodeString(unsigned code) {
    return TQException(code).ExcCodeString().Std();
}

std::wstring Block(const _TQWin32Exception& e, const wchar_t* where) {
    STLString block = L"something else";
    e.AssembleLogOutput(where, block);
    return block.Std();
}

// The second line of the block of an exception with this record.
std::wstring OSLine(const TQOSExceptionRecord& record) {
    const std::wstring block = Block(_TQWin32Exception(record), nullptr);
    const std::size_t begin = block.find(L"\r\n") + 2;
    EXPECT_EQ(block.substr(block.size() - 2), L"\r\n");
    return block.substr(begin, block.size() - begin - 2);
}

class ExceptionRender : public testing::Test {
  protected:
    ExceptionRender() { TQLib::SetAppName(L"tests"); }
    ~ExceptionRender() override { TQLib::SetAppName(L""); }
};

TEST_F(ExceptionRender, CodeStringIsTheSystemsTextAndTheCode) {
    EXPECT_EQ(CodeString(5), SystemText(5) + L"[0x00000005]");
    EXPECT_EQ(CodeString(0x80070005), SystemText(5) + L"[0x80070005]");
    EXPECT_EQ(CodeString(0xC0000005), SystemText(5) + L"[0xc0000005]")
        << "facility 0 keeps the low half only";
    EXPECT_EQ(CodeString(0), L"");
    EXPECT_EQ(CodeString(0x80070000), L"");
    EXPECT_EQ(CodeString(0xCFFF0005), SystemText(5) + L"[0xcfff0005]")
        << "as the last resort the low half is asked for";
    EXPECT_EQ(CodeString(0xCFFE0005), SystemText(5) + L"[0xcffe0005]");
    EXPECT_EQ(CodeString(0x800404D2), SystemText(0x800704D2) + L"[0x800404d2]")
        << "an interface's code may be a Win32 code";
    EXPECT_EQ(CodeString(0x8123FFF0), L"unknown[0x8123fff0]");
}

TEST_F(ExceptionRender, FullMessageIsBuiltOfItsParts) {
    TQException e(5u, L"The message");
    e.SetAction(L"Open");
    EXPECT_EQ(e.FullMsg(Log), L"The message (" + CodeString(5) + L") Action=Open");
    EXPECT_STREQ(TQException(L"The message").FullMsg(Log), L"The message");
    EXPECT_EQ(TQException(5u).FullMsg(Log), L" (" + CodeString(5) + L")");
    for (const LONG bad : {-1, 4})
        EXPECT_EQ(ThrownCode([&] { e.FullMsg(static_cast<TQStrResDestination>(bad)); }),
                  DWORD{ERROR_INVALID_PARAMETER});
}

TEST_F(ExceptionRender, OnlyTheFirstActionEmptiesTheCache) {
    TQException e(L"Message");
    EXPECT_STREQ(e.FullMsg(Log), L"Message");
    e.SetAction(L"First");
    EXPECT_STREQ(e.FullMsg(Log), L"Message Action=First");
    e.SetAction(L"Second");
    EXPECT_STREQ(e.FullMsg(Log), L"Message Action=First") << "cached lines keep the first action";
    EXPECT_STREQ(e.FullMsg(TQStrResDestination::User), L"Message Action=Second")
        << "lines rendered later show the second";
    EXPECT_STREQ(e.Action(), L"Second");
}

TEST_F(ExceptionRender, ShortTextsAndCachedMessagesNeedNoAllocation) {
    const TQException cached(5u, L"Message");
    const wchar_t* const first = cached.FullMsg(Log);
    FailAllocation count(0);
    EXPECT_EQ(cached.FullMsg(Log), first);
    const TQException thrown(5u, L"Thread Start Failed - Already started.");
    const TQException copy(thrown);
    EXPECT_EQ(count.Calls(), 0u);
}

TEST_F(ExceptionRender, LogBlockNamesProcessThreadAndApplication) {
    const TQException e(5u, L"Message");
    const std::wstring head =
        TQString::Format(L"Exception[Prc:%lu:Thr:%lu]{tests} ", GetCurrentProcessId(), GetCurrentThreadId())
            .c_str();
    EXPECT_EQ(Block(e, L"Class::Member"), head + e.FullMsg(Log) + L" in Class::Member\r\n");
    EXPECT_EQ(Block(e, nullptr), head + e.FullMsg(Log) + L"\r\n");
    EXPECT_EQ(Block(e, L""), head + e.FullMsg(Log) + L"\r\n");
    EXPECT_EQ(Block(e, reinterpret_cast<const wchar_t*>(16)), head + e.FullMsg(Log) + L"\r\n")
        << "unreadable text is left out";
}

TEST_F(ExceptionRender, OSExceptionLineHasTenForms) {
    const auto address = reinterpret_cast<const void*>(std::uintptr_t{0x1234567890});
    constexpr DWORD Violation = 0xC0000005, InPageError = 0xC0000006, Division = 0xC0000094;
    const struct {
        DWORD code, parameters;
        std::uintptr_t access;
        const wchar_t *what, *how;
    } rows[] = {{Violation, 2, 0, L"-Read Access Violation", L" reading"},
                {Violation, 2, 1, L"-Write Access Violation", L" writing"},
                {Violation, 2, 8, L"-DEP Violation", L" accessing"},
                {Violation, 2, 7, L"-Access Violation", L" accessing"},
                {Violation, 0, 0, L"-Access Violation", nullptr},
                {InPageError, 3, 0, L"-Read In-Page Error", L" reading"},
                {InPageError, 3, 1, L"-Write In-Page Error", L" writing"},
                {InPageError, 3, 8, L"-DEP In-Page Error", L" accessing"},
                {InPageError, 3, 7, L"-In-Page Error", L" accessing"},
                {Division, 0, 0, L" (0xc0000094)", nullptr}};
    for (const auto& [code, parameters, access, what, how] : rows) {
        const std::wstring touched = how ? how + std::wstring(L" 000000ABCDEF0123") : L"";
        EXPECT_EQ(OSLine({code, 1, address, parameters, access, 0xABCDEF0123, 0xC000009A}),
                  std::wstring(L"OS Exception") + what + L" @ 0x34567890" + touched +
                      L". Flags = 0x00000001" + (code == InPageError ? L" - Status=0xc000009a" : L"") +
                      L"; Owner=unknown");
    }
}

TEST_F(ExceptionRender, OSExceptionLineNamesTheModuleOfTheAddress) {
    const auto own = reinterpret_cast<const void*>(&SystemText);
    const std::wstring expected = std::wstring(L"Owner=") + TQSysProc::ModuleAt(own).c_str();
    EXPECT_THAT(OSLine({0xC0000094, 0, own, 0, 0, 0, 0}), HasSubstr(expected));
    EXPECT_THAT(expected, HasSubstr(L"core_test"));
}

TEST_F(ExceptionRender, ATranslatedExceptionHasItsMessageAndSource) {
    const _TQWin32Exception e(TQOSExceptionRecord{0xC0000094, 0, nullptr, 0, 0, 0, 0});
    EXPECT_EQ(e.ExcMsg(Log), L"A System Exception Occurred.");
    EXPECT_EQ(e.ErrCode(), 0xC0000094u);
    EXPECT_STREQ(e.ExcSourceName(), L"OS");
    ASSERT_NE(TQCoreException(e).OSException(), nullptr)
        << "a copy as the library's own kind keeps the record";
    EXPECT_EQ(TQCoreException(e).OSException()->code, 0xC0000094u);
}

TEST_F(ExceptionRender, AnEventLoggedExceptionIsWrittenOnce) {
    RecordingSink sink;
    const TQException e(5u, L"Message");
    e.LogEvent(L"Class::Member", L"Source", 0x1234, 7);
    e.LogEvent(L"Class::Member", L"Source", 0x1234, 7);
    ASSERT_EQ(sink.Entries().size(), 1u);
    const auto entry = sink.Entries()[0];
    EXPECT_EQ(entry.source, L"Source");
    EXPECT_EQ(entry.eventId, DWORD{0x1234});
    EXPECT_EQ(entry.category, 7);
    EXPECT_EQ(entry.type, TQEventType::Error);
    EXPECT_EQ(entry.strings, (std::vector<std::wstring>{L"tests", Block(e, L"Class::Member")}));
    EXPECT_TRUE(e.HasEventLogged());
    EXPECT_FALSE(e.HasLogged());

    const TQException silent(5u);
    silent.SetDontLog();
    silent.LogEvent();
    EXPECT_EQ(sink.Entries().size(), 1u);
    TQException(5u, L"", Level::Warning).LogEvent();
    TQException(5u, L"", Level::Succeeded).LogEvent();
    ASSERT_EQ(sink.Entries().size(), 3u);
    EXPECT_EQ(sink.Entries()[1].type, TQEventType::Warning);
    EXPECT_EQ(sink.Entries()[2].type, TQEventType::Information);
    EXPECT_EQ(sink.Entries()[2].source, L"TQLib");
}

TEST_F(ExceptionRender, ALogThatTakesNoEntryLeavesTheExceptionUnmarked) {
    RecordingSink sink;
    sink.Refuse();
    const TQException e(5u, L"Message");
    e.LogEvent();
    EXPECT_FALSE(e.HasEventLogged());
    TQCoreException::LogUnhandled(L"Source", 1, 2, L"text");
}

TEST_F(ExceptionRender, UnhandledEntriesFallBackToTheLibrarysOwnSource) {
    RecordingSink sink;
    TQCoreException::LogUnhandled(L"Source", 0x1234, 7, L"text");
    TQCoreException::LogUnhandled(nullptr, 0x1234, 7, L"text");
    TQCoreException::LogUnhandled(L"Source", 0, 7, L"text");
    TQCoreException::LogUnhandled(L"Source", 0x1234, 0, nullptr);
    ASSERT_EQ(sink.Entries().size(), 4u);
    EXPECT_EQ(sink.Entries()[0].source, L"Source");
    EXPECT_EQ(sink.Entries()[0].eventId, DWORD{0x1234});
    EXPECT_EQ(sink.Entries()[0].category, 7);
    for (const std::size_t i : {1u, 2u, 3u}) {
        EXPECT_EQ(sink.Entries()[i].source, L"TQLib");
        EXPECT_EQ(sink.Entries()[i].eventId, DWORD{0xCFFF4002});
        EXPECT_EQ(sink.Entries()[i].category, 9);
        EXPECT_EQ(static_cast<int>(sink.Entries()[i].type), 2);
    }
    EXPECT_EQ(sink.Entries()[0].strings, (std::vector<std::wstring>{L"tests", L"text"}));
    EXPECT_EQ(sink.Entries()[3].strings, (std::vector<std::wstring>{L"tests", L"unknown"}));
}

TEST_F(ExceptionRender, TheExceptionBeingHandledIsDescribed) {
    RecordingSink sink;
    const auto log = [](auto thrown) {
        try {
            throw thrown;
        } catch (...) {
            TQCoreException::LogUnhandledCurrent(L"Here");
        }
    };
    log(TQException(5u, L"Message"));
    log(std::runtime_error("text"));
    log(42);
    ASSERT_EQ(sink.Entries().size(), 3u);
    EXPECT_THAT(sink.Entries()[0].strings[1], StartsWith(L"Exception[Prc:"));
    EXPECT_THAT(sink.Entries()[0].strings[1], HasSubstr(L" in Here\r\n"));
    EXPECT_EQ(sink.Entries()[1].strings[1], L"Unknown exception occurred in Here with message 'text'.");
    EXPECT_EQ(sink.Entries()[2].strings[1], L"Unknown exception occurred in Here with no detail message.");
}

TEST_F(ExceptionRender, TheChainTellsCausesFilesAndFaults) {
    TQException open(ERROR_FILE_NOT_FOUND, L"Open");
    open.AddErrFile(L"/etc/a");
    open.AddErrFile(L"/etc/b");
    const TQAppException outer(TQException(open, 0u, L"Read the settings"), 0xC0000094, L"Start");
    EXPECT_EQ(outer.ChainMsg(Log), STLString(L"Start (STATUS_INTEGER_DIVIDE_BY_ZERO[0xc0000094])\r\n"
                                             L"Caused by: Read the settings\r\n"
                                             L"Caused by: ") +
                                       open.FullMsg(Log) + L"\r\n    File: /etc/a\r\n    File: /etc/b");
    EXPECT_EQ(outer.FullMsg(Log), L"Start (" + CodeString(0xC0000094) + L")") << "the line stays as it is";
    EXPECT_EQ(TQException(0x80004005, L"Call").ChainMsg(Log), TQException(0x80004005, L"Call").FullMsg(Log));
    EXPECT_EQ(TQException(0xC0DE0001, L"Call").ChainMsg(Log), L"Call (NTSTATUS [0xc0de0001])");

    const _TQWin32Exception fault(TQOSExceptionRecord{.code = 0xC0000005,
                                                      .flags = 0,
                                                      .address = nullptr,
                                                      .parameterCount = 2,
                                                      .access = 1,
                                                      .target = 16,
                                                      .status = 0});
    EXPECT_THAT(fault.ChainMsg(Log).Std(), HasSubstr(L"(STATUS_ACCESS_VIOLATION[0xc0000005])\r\n"
                                                     L"    OS Exception-Write Access Violation @ 0x"));
}

}  // namespace
