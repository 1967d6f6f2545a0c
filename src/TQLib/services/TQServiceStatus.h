// What is known of a service: the record of its status, and how it is installed.
#pragma once

#include "TQLib/core/base/TQObject.h"
#include "TQLib/platform/Types.h"
#include "TQLib/text/TQString.h"
#include "TQLib/text/TQStringArray.h"

#include <vector>

namespace Quellan::Corvel {

// The states of a service, with the platform's numbers. Start, stop, continue and pause pending are the
// pending ones: a service is in them on its way to another.
struct TQSvcState {
    static constexpr DWORD Stopped = 1;
    static constexpr DWORD StartPending = 2;
    static constexpr DWORD StopPending = 3;
    static constexpr DWORD Running = 4;
    static constexpr DWORD ContinuePending = 5;
    static constexpr DWORD PausePending = 6;
    static constexpr DWORD Paused = 7;

    [[nodiscard]] static constexpr bool IsPending(DWORD state) noexcept {
        return state == StartPending || state == StopPending || state == ContinuePending ||
               state == PausePending;
    }
    // "stopped", "start pending" and so on; "unknown" for every other number.
    static TQLIB_API const wchar_t* Name(DWORD state) noexcept;
};

// The controls that a service knows, with the platform's numbers. An application's own are from 128 to 255.
struct TQSvcControl {
    static constexpr DWORD Stop = 1;
    static constexpr DWORD Pause = 2;
    static constexpr DWORD Continue = 3;
    static constexpr DWORD Interrogate = 4;
    static constexpr DWORD Shutdown = 5;
    static constexpr DWORD ParamChange = 6;
    static constexpr DWORD HardwareProfileChange = 12;
    static constexpr DWORD PowerEvent = 13;
    static constexpr DWORD SessionChange = 14;
    static constexpr DWORD FirstOwn = 128;
    static constexpr DWORD LastOwn = 255;
};

// The platform's SERVICE_STATUS: same fields, same order.
struct TQServiceRecord {
    DWORD serviceType = 0;
    DWORD currentState = TQSvcState::Stopped;
    DWORD controlsAccepted = 0;  // of `ProcControlAccept`
    DWORD exitCode = 0;
    DWORD specificExitCode = 0;  // where the exit code is 1066 (ERROR_SERVICE_SPECIFIC_ERROR)
    DWORD checkPoint = 0;
    DWORD waitHint = 0;  // milliseconds

    bool operator==(const TQServiceRecord&) const noexcept = default;
};

// One installed service: its name, the name for people, its status when it was asked. A value.
class TQLIB_API TQServiceStatus : public TQObject {
  public:
    TQServiceStatus() noexcept;
    TQServiceStatus(TQString name, TQString displayName, const TQServiceRecord& record) noexcept;
    TQServiceStatus(const TQServiceStatus&);
    TQServiceStatus(TQServiceStatus&&) noexcept;
    TQServiceStatus& operator=(const TQServiceStatus&);
    TQServiceStatus& operator=(TQServiceStatus&&) noexcept;
    ~TQServiceStatus() override;

    [[nodiscard]] const TQString& Name() const noexcept { return m_name; }
    [[nodiscard]] const TQString& DisplayName() const noexcept { return m_displayName; }
    [[nodiscard]] const TQServiceRecord& Record() const noexcept { return m_record; }

    // Field by field; the case of names counts.
    friend TQLIB_API bool operator==(const TQServiceStatus& left, const TQServiceStatus& right) noexcept;

  private:
    TQString m_name;
    TQString m_displayName;
    TQServiceRecord m_record;
};

// When a service is started. The values are the platform's.
enum class TQSvcStart : DWORD { Auto = 2, Demand = 3, Disabled = 4 };

// What the manager does when a service has failed, a first time, a second time and so on; the last action is
// repeated. The values are the platform's.
struct TQSvcFailureAction {
    enum class Kind : DWORD { Nothing = 0, Restart = 1, Reboot = 2, RunCommand = 3 };
    Kind kind = Kind::Nothing;
    DWORD delayMs = 0;

    bool operator==(const TQSvcFailureAction&) const noexcept = default;
};

// What may be said of a service beyond its names, account, type and start.
struct TQServiceOptions {
    TQString description;
    // Services that have to run before it.
    TQStringArray dependencies;
    // Of an automatic start: some time after the others.
    bool isStartDelayed = false;
    std::vector<TQSvcFailureAction> failureActions;
    // Seconds without a failure after which the next one is the first again; 0xFFFFFFFF: never.
    DWORD failureResetSeconds = 24 * 60 * 60;
    TQString failureCommand;  // for `RunCommand`

    bool operator==(const TQServiceOptions&) const noexcept = default;
};

// How a service is installed.
struct TQServiceConfig {
    TQString displayName;
    TQString commandLine;
    TQString account;
    DWORD type = 0;  // the platform's: 0x10 own process, 0x20 shared process
    TQSvcStart start = TQSvcStart::Demand;
    TQServiceOptions options;
};

}  // namespace Quellan::Corvel
