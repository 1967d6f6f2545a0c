#include "TQLib/platform/ServiceControl.h"

#include "TQLib/platform/linux/objects/Threads.h"
#include "TQLib/platform/linux/services/ServiceClient.h"

#include <algorithm>

namespace Quellan::Platform {

DWORD KillService(SC_HANDLE service) noexcept {
    return WithServiceHandle<ServiceHandle>(
               service, [](ServiceClient& client) { return client.Ask(KillServiceMessage()); })
               ? ERROR_SUCCESS
               : GetLastError();
}

void AwaitServiceChange(SC_HANDLE service, DWORD state, DWORD checkPoint, DWORD ms) noexcept {
    // Where the manager cannot be asked, so that nobody asks it again and again.
    constexpr DWORD PauseMs = 100;
    const BOOL isAnswered = WithServiceHandle<ServiceHandle>(service, [&](ServiceClient& client) -> DWORD {
        StatusReplyMessage reply;
        return client.AskAside(AwaitChangeMessage{state, checkPoint}, reply, ms);
    });
    if (!isAnswered && GetLastError() != WAIT_TIMEOUT) Sleep(std::min(ms, PauseMs));
}

}  // namespace Quellan::Platform
