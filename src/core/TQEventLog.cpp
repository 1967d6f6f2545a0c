#include "core/TQEventLog.h"

#include "core/TQException.h"
#include "core/TQLib.h"
#include "platform/Win32.h"
#include "text/TQHandle.h"

#include <atomic>

namespace Quellan::Corvel {

namespace {

WORD PlatformType(TQEventType type) {
    switch (type) {
        case TQEventType::Information:
            return EVENTLOG_INFORMATION_TYPE;
        case TQEventType::Warning:
            return EVENTLOG_WARNING_TYPE;
        case TQEventType::AuditSuccess:
            return EVENTLOG_AUDIT_SUCCESS;
        case TQEventType::AuditFailure:
            return EVENTLOG_AUDIT_FAILURE;
        case TQEventType::Error:
            break;
    }
    return EVENTLOG_ERROR_TYPE;
}

class PlatformSink final : public TQEventLogSink {
  public:
    void Write(const TQEventLogEntry& entry) override {
        const TQHandle<_TQEventSourceClose> source(RegisterEventSourceW(nullptr, entry.source));
        if (!source.IsValid()) TQSysException::ThrowLastError(L"TQEventLog::RegisterEventSource");
        // The platform's parameters lack a const; it only reads.
        if (!ReportEventW(source.Get(), PlatformType(entry.type), entry.category, entry.eventId, nullptr,
                          static_cast<WORD>(entry.strings.size()), static_cast<DWORD>(entry.data.size()),
                          const_cast<const wchar_t**>(entry.strings.data()),
                          const_cast<BYTE*>(entry.data.data())))
            TQSysException::ThrowLastError(L"TQEventLog::ReportEvent");
    }
};

std::atomic<TQEventLogSink*> g_sink = nullptr;

void WriteEntry(const TQEventLogEntry& entry) {
    static PlatformSink platform;
    TQEventLogSink* const sink = g_sink.load(std::memory_order_acquire);
    (sink ? *sink : platform).Write(entry);
}

}  // namespace

TQEventLogSink::~TQEventLogSink() = default;

TQString TQEventLog::CurrentAppName() {
    return TQLib::AppName();
}

void TQEventLog::LogStringEvent(const wchar_t* source, DWORD eventId, WORD category, TQEventType type,
                                const wchar_t* first, const wchar_t* second) {
    if (!source) throw TQException(ERROR_INVALID_PARAMETER, L"TQEventLog::LogStringEvent");
    const wchar_t* const strings[] = {first ? first : L"", second ? second : L""};
    WriteEntry({source, eventId, category, type, strings, {}});
}

void TQEventLog::LogEvent(const wchar_t* source, DWORD eventId, DWORD lastError,
                          std::span<const wchar_t* const> strings) {
    if (!source) throw TQException(ERROR_INVALID_PARAMETER, L"TQEventLog::LogEvent");
    BYTE data[sizeof lastError];
    for (unsigned i = 0; i < sizeof data; ++i)
        data[i] = static_cast<BYTE>(lastError >> (8 * i));
    WriteEntry({source, eventId, GeneralCategory, TQEventType::Error, strings, data});
}

TQEventLogSink* TQEventLog::SetSink(TQEventLogSink* sink) noexcept {
    return g_sink.exchange(sink, std::memory_order_acq_rel);
}

}  // namespace Quellan::Corvel
