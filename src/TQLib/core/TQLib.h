// Library-wide state: who the application is, what runs at its exit and when memory runs low, where texts
// come from.
#pragma once

#include "TQLib/core/TQStrRes.h"
#include "TQLib/platform/Types.h"
#include "TQLib/text/TQString.h"
#include "TQLib/text/memory/TQSmartPtr.h"

#include <vector>

namespace Quellan::Corvel {

class TQLog;
class TQRegKey;

// Static functions only; all of them may be called from any thread at any time. Handlers are plain functions
// with a context that the caller owns and that must outlive the registration. Where memory is exhausted a
// function throws 14 (ERROR_OUTOFMEMORY), with nothing changed, unless it is noexcept.
class TQLIB_API TQLib {
  public:
    TQLib() = delete;

    // The store of the library's own messages (TQRes); registered from the start.
    static constexpr unsigned int ResourceStoreID = 0x54510001;

    // The application's name. Until it is set: the executable's file name without its extension, "unknown"
    // where that can't be had.
    [[nodiscard]] static TQString GetAppName();
    static void SetAppName(const TQString& name);
    // The application's version and product name; empty until they are set.
    [[nodiscard]] static TQString AppVersion();
    static void SetAppVersion(const TQString& version);
    [[nodiscard]] static TQString ProductName();
    static void SetProductName(const TQString& name);
    // The version of the library itself, such as "1.0.0".
    [[nodiscard]] static const wchar_t* Version() noexcept;

    // The application's settings: the key Software\NAME, by the application's name, below the machine's key
    // or, where there is none, below the key of the user as whom the process runs; to be read. None where
    // there is none at either place, unless `create` is set: then it is made, below the user's key where the
    // machine's refuses. Throws as `TQRegKey` does.
    static TQRegKey GetAppKey(bool create);
    // The application's own log. Its file is what the value "LogFile" of the application's key says, or else
    // `GetDefaultLogFileName`; its size limit is "MaxLogFileSize" in bytes, or else the default. Both count
    // the first time; later changes are for the next process. Where the key can't be opened or read it is the
    // null log, and the next call tries again. `create` is passed on to `GetAppKey`. Throws as
    // `TQLog::GetLog` does.
    static TQSmartPtr<TQLog, _TQRefThrPtr<TQLog, 1, 0>> GetAppLog(bool create);
    // NAME.tlg, by the application's name, in the first of these folders that is on a fixed drive: the
    // executable's, those that the variables TEMP, TMP, SYSTEMDRIVE and SYSTEMROOT name. Where none is, in
    // the user's folder for temporary files, on Linux in the folder "log" of his lasting state: the folder
    // for temporary files is everybody's there.
    [[nodiscard]] static TQString GetDefaultLogFileName();
    // That name in a folder; returns whether the folder is on a fixed drive.
    static bool SetDefaultLogFilename(const TQString& folder, TQString& result);

    using ExitHandler = void (*)(void* context);
    // Registers a handler that runs once when the process ends by `exit` or by returning from main, while its
    // other threads still run, or earlier by `RunExitHandlers`. The handler registered last runs first. An
    // exception that leaves a handler is logged as unhandled, and the next one runs. A process that ends
    // otherwise, as by `ExitProcess` or by a signal, runs none. On Windows the library stays loaded once a
    // handler was registered. Throws `TQException` 87 (ERROR_INVALID_PARAMETER) for a null handler.
    static void AddExitHandler(ExitHandler handler, void* context);
    // Takes back the registration of this handler with this context; without one it does nothing. Where the
    // handler is just running on another thread, waits for its end: what it uses may go afterwards.
    static void RemoveExitHandler(ExitHandler handler, void* context) noexcept;
    // Runs and forgets the registered handlers now, those included that they register themselves.
    static void RunExitHandlers() noexcept;

    using LowMemoryHandler = void (*)(void* context) noexcept;
    // Registers a handler that is called, in order of registration, each time the library is about to report
    // that memory is exhausted: it releases what the application can do without. It must not allocate. Throws
    // `TQException` 87 (ERROR_INVALID_PARAMETER) for a null handler.
    static void AddLowMemoryHandler(LowMemoryHandler handler, void* context);
    // Takes back the registration of this handler with this context; without one it does nothing. Where the
    // handler is just running on another thread, waits for its end, as `RemoveExitHandler` does.
    static void RemoveLowMemoryHandler(LowMemoryHandler handler, void* context) noexcept;
    // Calls the handlers; while they are being called, by whatever thread, a further call does nothing.
    static void CallLowMemoryHandlers() noexcept;

    // Makes a store known: its resource modules are `baseName`_LANGUAGE.dll (on Linux with .so in place of
    // .dll). Throws `TQException` 183 (ERROR_ALREADY_EXISTS) for an identifier that is registered already.
    static void RegisterResourceStore(unsigned int storeId, const TQString& baseName);
    // The base name of a store. Throws `TQException` 1168 (ERROR_NOT_FOUND) for one that is not registered.
    [[nodiscard]] static TQString ResourceBaseName(unsigned int storeId);
    // The store's module for a language name such as "en" or "en-US": one that the process has loaded
    // already, whatever the case of its name, or else the one loaded from its file; it then stays loaded.
    // Null where there is none and for an empty name; that is remembered, so a module file installed later is
    // seen by new processes only. Throws as `ResourceBaseName`, and as `TQSysProc::LoadModule` for a file
    // that can't be loaded at this moment; the next call tries again.
    [[nodiscard]] static HMODULE GetResourceLanguageModule(unsigned int storeId, const TQString& language);

    // The locales in whose languages a destination's texts are looked for, in order.
    [[nodiscard]] static std::vector<LCID> DestinationLocaleIDs(TQStrResDestination destination);
    // Replaces that list; an empty one restores the default. Throws `TQException` 87
    // (ERROR_INVALID_PARAMETER) for a destination that is none of the four.
    static void SetDestinationLocaleIDs(TQStrResDestination destination, const std::vector<LCID>& locales);
};

// An exit handler that is registered for as long as the object lives; see `TQLib::AddExitHandler` and
// `TQLib::RemoveExitHandler`.
class TQLIB_API TQLibCallOnExit {
  public:
    TQLibCallOnExit(TQLib::ExitHandler handler, void* context) : m_handler(handler), m_context(context) {
        TQLib::AddExitHandler(handler, context);
    }
    TQLibCallOnExit(const TQLibCallOnExit&) = delete;
    TQLibCallOnExit& operator=(const TQLibCallOnExit&) = delete;
    ~TQLibCallOnExit() { TQLib::RemoveExitHandler(m_handler, m_context); }

  private:
    TQLib::ExitHandler m_handler;
    void* m_context;
};

}  // namespace Quellan::Corvel
