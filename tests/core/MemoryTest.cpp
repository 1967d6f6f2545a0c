#include "core/TQException.h"
#include "core/TQLib.h"
#include "platform/Win32.h"
#include "support/FailCall.h"
#include "support/RecordingSink.h"
#include "system/TQLocale.h"
#include "system/TQSysProc.h"
#include "text/TQDataBuf.h"
#include "text/TQHandle.h"

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <tuple>
#include <vector>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;

namespace {

constexpr auto User = TQStrResDestination::User;
constexpr auto Log = TQStrResDestination::Log;
const std::wstring Long(200, L'x');
const TQException Cause(5u, Long.c_str());
const std::vector<LCID> English{0x0409};
const TQMsgRes OwnMessages(TQLib::ResourceStoreID);

unsigned NewStore() {
    static unsigned last = 0x7000;
    return ++last;
}

void Handler(void*) {}
void LowMemoryHandler(void*) noexcept {}

// An operation that either does its work or throws 14, whichever of its allocations fails, and works
// afterwards.
struct Row {
    const char* name;
    std::function<void()> operation;
};

const Row Rows[] = {
    {"exception with text and inner one", [] { TQException(Cause, 5u, Long.c_str()); }},
    {"copy",
     [] {
         TQException e(Cause, 5u, Long.c_str());
         e.SetAction(Long.c_str());
         e.AddErrFile(Long.c_str());
         e.FullMsg(Log);
         TQException copy(e);
         copy = e;
         const std::unique_ptr<TQCoreException> another(e.AllocCopy());
     }},
    {"unknown exception", [] { std::ignore = TQCoreException::Unknown(Long.c_str(), L"text"); }},
    {"full message", [] { TQException(5u, L"message").FullMsg(User); }},
    {"full message of a resource",
     [] { TQException(5u, 0xCFFF4001u, OwnMessages).FullMsg(User, L"a", L"b"); }},
    {"full message of an unknown store", [] { TQException(5u, 1u, TQMsgRes(99)).FullMsg(User); }},
    {"message text",
     [] { std::ignore = OwnMessages.WithID(0xCFFF4001u).Text(User, Long, std::wstring_view(L"b")); }},
    {"log block",
     [] {
         STLString block;
         TQException(5u, L"message").AssembleLogOutput(L"where", block);
         const auto address = reinterpret_cast<const void*>(&Handler);
         _TQWin32Exception(TQOSExceptionRecord{0xC0000094, 0, address, 0, 0, 0, 0})
             .AssembleLogOutput(L"", block);
     }},
    {"event",
     [] {
         RecordingSink sink;
         TQException(5u, L"message").LogEvent();
         try {
             throw std::runtime_error("text");
         } catch (...) {
             TQCoreException::LogUnhandledCurrent(L"where");
         }
         TQException(5u, L"message").DebugReport();
     }},
    {"application",
     [] {
         TQLib::SetAppVersion(Long);
         TQLib::SetProductName(Long);
         std::ignore = TQLib::GetAppName() + TQLib::AppVersion() + TQLib::ProductName();
     }},
    {"store", [] { TQLib::RegisterResourceStore(NewStore(), Long); }},
    {"registered store",
     [] {
         try {
             TQLib::RegisterResourceStore(TQLib::ResourceStoreID, Long);
         } catch (const TQException& e) {
             if (e.ErrCode() != ERROR_ALREADY_EXISTS) throw;
         }
     }},
    {"language module",
     [] {
         const unsigned store = NewStore();
         TQLib::RegisterResourceStore(store, L"NoSuchStore");
         std::ignore = TQLib::GetResourceLanguageModule(store, L"xx");
         std::ignore = TQLib::GetResourceLanguageModule(TQLib::ResourceStoreID, L"en");
     }},
    {"locales",
     [] {
         std::ignore = TQLib::DestinationLocaleIDs(User);
         TQLib::SetDestinationLocaleIDs(TQStrResDestination::System, English);
         std::ignore = TQLib::DestinationLocaleIDs(TQStrResDestination::System);
     }},
    {"exit handler",
     [] {
         TQLib::AddExitHandler(Handler, nullptr);
         TQLib::RemoveExitHandler(Handler, nullptr);
     }},
    {"low-memory handler",
     [] {
         TQLib::AddLowMemoryHandler(LowMemoryHandler, nullptr);
         TQLib::RemoveLowMemoryHandler(LowMemoryHandler, nullptr);
     }},
    {"modules",
     [] {
         std::ignore = TQSysProc::ModuleBaseName(nullptr);
         std::ignore = TQSysProc::ModuleAt(reinterpret_cast<const void*>(&Handler));
         std::ignore = TQSysProc::FindLoadedModule(L"no-such-module");
         std::ignore = TQSysProc::LoadModule(L"TQRes_en.dll");
     }},
    {"command line", [] { std::ignore = TQSysProc::CommandLine(); }},
    {"locale",
     [] { std::ignore = TQLocale(0x0409).LanguageString() + TQLocale(0x0409).LanguageBaseString(); }},
    {"object", [] { std::ignore = Cause.Description(); }},
    {"format",
     [] { std::ignore = TQString::Format(L"%s%s", Long, Long) + TQString::FormatRuntime(L"%s", Long); }},
    {"string",
     [] {
         TQString text(Long);
         text = text + Long;
         text.Replace(L"x", L"yy");
         text.Insert(0, L"abcde");
         std::ignore = text.ToUpper() + text.ToLower() + text.Left(50) + text.Mid(50) + text.Right(50);
         std::ignore = text.FindNoCase(L"\x439");
         std::ignore = TQString::FromUtf8(text.ToUtf8()) + TQString::FromAnsi(text.ToAnsi());
     }},
    {"string array",
     [] {
         TQStringArray array{Long, Long};
         array.Add(Long);
         array.Insert(0, Long);
         array.SetAt(1, Long);
         const TQStringArray copy = array;
         std::ignore = TQStringArray::Split(copy.Join(L","), L",");
     }},
    {"buffer",
     [] {
         BYTEBuf buffer(100);
         buffer.Resize(1000);
         buffer.Append(BYTEBuf(buffer));
     }},
    {"secret buffers",
     [] {
         using Secret = TQDataBuf<BYTE>;
         constexpr auto level = Secret::_SecureLevel::WipeAndLock;
         const Secret a(2000, level), b(2000, level), c(2000, level);
         const Secret large(5000, level);
     }},
};

TEST(MemoryExhausted, IsThrownAs14ByEveryOperationOrNotAtAll) {
    TQLib::SetAppName(L"an application with a long name");
    for (const Row& row : Rows) {
        row.operation();
        for (unsigned n = 1;; ++n) {
            SCOPED_TRACE(testing::Message() << row.name << ", allocation " << n);
            bool hasFired = false;
            DWORD thrown = 0;
            try {
                FailAllocation fail(n);
                try {
                    row.operation();
                } catch (const TQCoreException& e) {
                    thrown = e.ErrCode();
                }
                hasFired = fail.Fired();
            } catch (...) {
                ADD_FAILURE() << "left by a foreign exception";
                hasFired = true;
            }
            EXPECT_TRUE(thrown == 0 || thrown == ERROR_OUTOFMEMORY) << thrown;
            if (!hasFired) break;
        }
        EXPECT_EQ(ThrownCode(row.operation), 0u) << row.name << " works afterwards";
    }
    TQLib::SetDestinationLocaleIDs(TQStrResDestination::System, {});
    TQLib::SetAppName(L"");
}

}  // namespace
