// The manager of services that run in the foreground.
#pragma once

#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/services/internal/ServiceHost.h"
#include "TQLib/system/TQConsole.h"
#include "TQLib/text/TQStringArray.h"
#include "TQLib/threads/TQEvent.h"

#include <memory>
#include <vector>

namespace Quellan::Corvel {

// Starts all services of the table at once, each with the arguments, and prints their states. Ctrl+C or a
// request to end the process becomes the control stop, for each service once it accepts it; a second Ctrl+C
// ends the process.
class ForegroundHost : public ServiceHost {
  public:
    explicit ForegroundHost(TQStringArray arguments);
    ~ForegroundHost() override;

    BOOL Dispatch(const SERVICE_TABLE_ENTRYW* table) override;
    SERVICE_STATUS_HANDLE RegisterHandler(const wchar_t* name, LPHANDLER_FUNCTION_EX handler,
                                          void* context) override;
    BOOL SetStatus(SERVICE_STATUS_HANDLE handle, SERVICE_STATUS* status) override;

  private:
    struct Entry;
    class MainThread;

    void Print(const TQString& name, const SERVICE_STATUS& status);
    bool AllEnded() const;
    void SendStops();

    const TQStringArray m_arguments;
    TQConsole m_output;
    const TQEvent m_stopEvent;
    const TQEvent m_changedEvent;
    std::vector<std::unique_ptr<Entry>> m_entries;
    TQThreadSynch m_lock;  // of the entries
};

}  // namespace Quellan::Corvel
