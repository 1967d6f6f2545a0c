// Writing to the system event log.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/text/TQString.h"

#include <span>

namespace Quellan::Corvel {

// What an entry reports. The values are the library's own, not the platform's.
enum class TQEventType : WORD { Information = 0, Warning = 1, Error = 2, AuditSuccess = 3, AuditFailure = 4 };

// One entry on its way to the event log; everything in it is borrowed.
struct TQEventLogEntry {
    const wchar_t* source;
    DWORD eventId;
    WORD category;
    TQEventType type;
    std::span<const wchar_t* const> strings;
    std::span<const BYTE> data;
};

// Where entries go. The library's own sink hands them to the platform; an application may put another in its
// place, for a log of its own or for a test.
class TQLIB_API TQEventLogSink {
  public:
    virtual ~TQEventLogSink();
    // May be called from several threads at once. A failure is thrown.
    virtual void Write(const TQEventLogEntry& entry) = 0;
};

// Static functions only; all may be called from any thread.
class TQLIB_API TQEventLog {
  public:
    TQEventLog() = delete;

    // The source under which the library itself writes, and its event identifiers; their texts are in TQRes.
    static constexpr const wchar_t* LibrarySource = L"TQLib";
    static constexpr DWORD CaughtExceptionEvent = 0xCFFF4001;     // a library exception caught in a thread
    static constexpr DWORD UnhandledExceptionEvent = 0xCFFF4002;  // an exception that nobody caught
    static constexpr DWORD ReportedExceptionEvent = 0xCFFF4003;   // an exception that an application reports
    static constexpr DWORD LogRolloverFailedEvent = 0xCFFF400D;   // a log file that could not be rolled over
    static constexpr DWORD LogOpenFailedEvent = 0xCFFF400E;       // a log file that could not be opened
    static constexpr DWORD LogRecordsLostEvent = 0xCFFF400F;  // records that could not be written to a log
    static constexpr DWORD ServiceFailedEvent = 0xCFFF4010;   // a service that ended with a code
    static constexpr WORD GeneralCategory = 1;
    static constexpr WORD UnhandledExceptionCategory = 9;

    // The running application's name, as entries and log blocks show it: `TQLib::GetAppName`.
    [[nodiscard]] static TQString CurrentAppName();

    // Writes one entry with two strings (a null one is written as an empty text). Throws `TQSysException`
    // with the platform's code when the log takes no entry, and `TQException` 87 (ERROR_INVALID_PARAMETER)
    // for a null source.
    static void LogStringEvent(const wchar_t* source, DWORD eventId, WORD category, TQEventType type,
                               const wchar_t* first, const wchar_t* second);

    // Writes one entry of type error and the general category about a failed operation, with its code as the
    // entry's data (four bytes, the least significant first) and with these strings. Throws as
    // `LogStringEvent`.
    static void LogEvent(const wchar_t* source, DWORD eventId, DWORD lastError,
                         std::span<const wchar_t* const> strings);

    // Replaces the sink, which must live until it is replaced in turn; null puts the library's own back.
    // Returns the previous one, null for the library's own, once no other thread writes to it any more: it
    // may go then, unless this is called by the sink itself.
    static TQEventLogSink* SetSink(TQEventLogSink* sink) noexcept;

    // Makes `source` known to the event log of this machine, with the texts of its events and of its
    // `categoryCount` categories in the module file `messageFile`; `RemoveSource` undoes it. Both need the
    // rights of an administrator and throw `TQSysException` with the platform's code. On Linux, where a
    // source needs no registration and texts are found through the resource stores, both throw 50
    // (ERROR_NOT_SUPPORTED).
    static void InstallSource(const wchar_t* source, const wchar_t* messageFile, DWORD categoryCount);
    static void RemoveSource(const wchar_t* source);
};

}  // namespace Quellan::Corvel
