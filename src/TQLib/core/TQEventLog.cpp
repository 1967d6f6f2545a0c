#include "TQLib/core/TQEventLog.h"

#include "TQLib/core/TQException.h"
#include "TQLib/core/TQLib.h"
#include "TQLib/core/internal/CallFailure.h"
#include "TQLib/core/internal/CallsUnderWay.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/text/memory/TQHandle.h"
#include "TQLib/text/memory/TQUniqueHandle.h"

#include <utility>

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
        const TQUniqueHandle<_TQEventSourceClose> source(RegisterEventSourceW(nullptr, entry.source));
        if (!source.IsValid()) ThrowCallFailure(L"TQEventLog::RegisterEventSource");
        // The platform's parameters lack a const; it only reads.
        if (!ReportEventW(source.Get(), PlatformType(entry.type), entry.category, entry.eventId, nullptr,
                          static_cast<WORD>(entry.strings.size()), static_cast<DWORD>(entry.data.size()),
                          const_cast<const wchar_t**>(entry.strings.data()),
                          const_cast<BYTE*>(entry.data.data())))
            ThrowCallFailure(L"TQEventLog::ReportEvent");
    }
};

struct Sinks {
    CallsUnderWay<TQEventLogSink*> calls;
    TQEventLogSink* current TQ_GUARDED_BY(calls.lock) = nullptr;
};

// Never destroyed: exceptions are logged to the very end.
Sinks& TheSinks() {
    static Sinks& sinks = *new Sinks;
    return sinks;
}

// Made while the library is loaded: later there may be no memory for it.
[[maybe_unused]] const Sinks& g_sinksMadeEarly = TheSinks();

// One call of the sink in place, from its choice to its end.
class SinkCall {
  public:
    SinkCall() noexcept {
        const TQThreadSynch::TQSynchLock guard(m_sinks.calls.lock);
        m_call.key = m_sinks.current;
        m_sinks.calls.Begin(m_call);
    }
    SinkCall(const SinkCall&) = delete;
    SinkCall& operator=(const SinkCall&) = delete;
    ~SinkCall() { m_sinks.calls.End(m_call); }

    void Write(const TQEventLogEntry& entry) {
        static PlatformSink platform;
        (m_call.key ? *m_call.key : platform).Write(entry);
    }

  private:
    Sinks& m_sinks = TheSinks();
    CallsUnderWay<TQEventLogSink*>::Call m_call;
};

}  // namespace

TQEventLogSink::~TQEventLogSink() = default;

TQString TQEventLog::CurrentAppName() {
    return TQLib::GetAppName();
}

void TQEventLog::LogStringEvent(const wchar_t* source, DWORD eventId, WORD category, TQEventType type,
                                const wchar_t* first, const wchar_t* second) {
    if (!source) throw TQException(ERROR_INVALID_PARAMETER, L"TQEventLog::LogStringEvent");
    const wchar_t* const strings[] = {first ? first : L"", second ? second : L""};
    SinkCall().Write({source, eventId, category, type, strings, {}});
}

void TQEventLog::LogEvent(const wchar_t* source, DWORD eventId, DWORD lastError,
                          std::span<const wchar_t* const> strings) {
    if (!source) throw TQException(ERROR_INVALID_PARAMETER, L"TQEventLog::LogEvent");
    BYTE data[sizeof lastError];
    for (unsigned i = 0; i < sizeof data; ++i)
        data[i] = static_cast<BYTE>(lastError >> (8 * i));
    SinkCall().Write({source, eventId, GeneralCategory, TQEventType::Error, strings, data});
}

TQEventLogSink* TQEventLog::SetSink(TQEventLogSink* sink) noexcept {
    Sinks& sinks = TheSinks();
    TQEventLogSink* previous = nullptr;
    {
        const TQThreadSynch::TQSynchLock guard(sinks.calls.lock);
        previous = std::exchange(sinks.current, sink);
    }
    if (previous) sinks.calls.WaitFor(previous);
    return previous;
}

}  // namespace Quellan::Corvel
