#include "TQLib/core/TQException.h"
#include "TQLib/core/TQLib.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/system/TQLocale.h"
#include "TQLib/system/TQSysProc.h"
#include "sweep/Rows.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

namespace Quellan::Corvel::Test {

namespace {

const std::wstring Long(200, L'x');
const std::vector<LCID> English{0x0409};
constexpr auto User = TQStrResDestination::User;

TQException Plain() {
    return TQException(5u, L"message");
}

TQException Nested() {
    TQException e(TQException(1u, Long.c_str()), 5u, Long.c_str());
    e.SetAction(Long.c_str());
    e.AddErrFile(Long.c_str());
    std::ignore = e.FullMsg(User);
    return e;
}

TQException OfResource() {
    return TQException(5u, 0xCFFF4001u, TQMsgRes(TQLib::ResourceStoreID));
}

// For what has no object.
int Nothing() {
    return 0;
}

void Handler(void*) {}
void LowMemoryHandler(void*) noexcept {}

// The text of a code is left out of a message, and a language passed over, where it can't be had.
constexpr std::string_view Message = "new FormatMessageW GetLocaleInfoW LocalAlloc";
constexpr std::string_view Event =
    "new FormatMessageW GetModuleFileNameW LocalAlloc RegisterEventSourceW ReportEventW";

}  // namespace

std::vector<SweptOperation> CoreRows() {
    return {
        Swept("exception", Plain, [](TQException& e) { TQException(e, 7u, Long.c_str()); }),
        Swept("exception copy", Nested,
              [](TQException& e) { const std::unique_ptr<TQCoreException> copy(e.AllocCopy()); }),
        Swept("exception assign", Plain, {Unchanged, Message}, [](TQException& e) { e = Nested(); }),
        Swept("exception action", Plain, Unchanged, [](TQException& e) { e.SetAction(Long.c_str()); }),
        Swept("exception files", Plain, Unchanged, [](TQException& e) { e.AddErrFile(Long.c_str()); }),
        Swept("unknown exception", Nothing,
              [](int&) { std::ignore = TQCoreException::Unknown(Long.c_str(), L"text"); }),
        Swept("message", Plain, {Unchanged, Message},
              [](TQException& e) { std::ignore = TQException(e).FullMsg(User); }),
        Swept("message of a resource", OfResource, {Unchanged, Message},
              [](TQException& e) { std::ignore = TQException(e).FullMsg(User, L"a", L"b"); }),
        Swept("text of a resource", Nothing, Message,
              [](int&) {
                  PutUpWith(ERROR_MR_MID_NOT_FOUND, [] {
                      std::ignore = TQMsgRes(TQLib::ResourceStoreID, 0xCFFF4001)
                                        .Text(User, Long, std::wstring_view(L"b"));
                  });
              }),
        Swept("string of a resource", Nothing, "new LoadStringW GetLocaleInfoW",
              [](int&) {
                  PutUpWith(ERROR_RESOURCE_NAME_NOT_FOUND,
                            [] { std::ignore = TQStrRes(TQLib::ResourceStoreID, 1).Text(User); });
              }),
        Swept("log block", Plain, {Unchanged, "new FormatMessageW LocalAlloc GetModuleHandleExW"},
              [](TQException& e) {
                  STLString block;
                  TQException(e).AssembleLogOutput(L"where", block);
                  const auto address = reinterpret_cast<const void*>(&Handler);
                  const TQOSExceptionRecord record{0xC0000094, 0, address, 0, 0, 0, 0};
                  _TQWin32Exception(record).AssembleLogOutput(nullptr, block);
              }),
        Swept("event", Nothing,
              [](int&) { TQEventLog::LogStringEvent(L"TQTest", 1, 1, TQEventType::Error, L"", L""); }),
        Swept("event of an exception", Plain, {Unchanged, Event},
              [](TQException& e) { TQException(e).LogEvent(); }),
        Swept("event of an unhandled exception", Nothing, Event,
              [](int&) {
                  try {
                      throw std::runtime_error("text");
                  } catch (...) {
                      TQCoreException::LogUnhandledCurrent(L"where");
                  }
              }),
        Swept("application", Nothing,
              [](int&) {
                  TQLib::SetAppVersion(Long);
                  TQLib::SetProductName(Long);
                  std::ignore = TQLib::GetAppName() + TQLib::AppVersion() + TQLib::ProductName();
              }),
        Swept("registered store", Nothing, ForThrowing,
              [](int&) {
                  PutUpWith(ERROR_ALREADY_EXISTS,
                            [] { TQLib::RegisterResourceStore(TQLib::ResourceStoreID, Long); });
              }),
        // The platform's own locale is the neutral one where it can't be found out.
        Swept("locales", Nothing, "new",
              [](int&) {
                  std::ignore = TQLib::DestinationLocaleIDs(User);
                  TQLib::SetDestinationLocaleIDs(TQStrResDestination::Log, English);
                  std::ignore = TQLib::DestinationLocaleIDs(TQStrResDestination::Log);
              }),
        Swept("exit handler", Nothing,
              [](int&) {
                  TQLib::AddExitHandler(Handler, nullptr);
                  TQLib::RemoveExitHandler(Handler, nullptr);
              }),
        Swept("low-memory handler", Nothing,
              [](int&) {
                  TQLib::AddLowMemoryHandler(LowMemoryHandler, nullptr);
                  TQLib::RemoveLowMemoryHandler(LowMemoryHandler, nullptr);
              }),
        Swept("object", Plain, [](TQException& e) { std::ignore = e.Description(); }),
        Swept("modules", Nothing, "GetModuleHandleExW GetModuleBaseNameW",
              [](int&) {
                  std::ignore = TQSysProc::ModuleBaseName(nullptr);
                  std::ignore = TQSysProc::ModuleAt(reinterpret_cast<const void*>(&Handler));
                  std::ignore = TQSysProc::FindLoadedModule(L"no-such-module");
                  std::ignore = TQSysProc::LoadModule(L"TQRes_en.dll");
              }),
        Swept("command line", Nothing, [](int&) { std::ignore = TQSysProc::CommandLine(); }),
        Swept("locale", Nothing,
              [](int&) {
                  std::ignore = TQLocale(0x0409).LanguageString() + TQLocale(0x0409).LanguageBaseString();
              }),
    };
}

}  // namespace Quellan::Corvel::Test
