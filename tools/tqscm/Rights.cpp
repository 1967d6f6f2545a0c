#include "Rights.h"

#include "TQLib/platform/Win32.h"

#include <iterator>

namespace tqscm {

DWORD Grant(const Rights& rights, bool isTrusted, DWORD wanted, DWORD& granted) {
    constexpr DWORD Generic[] = {GENERIC_READ, GENERIC_WRITE, GENERIC_EXECUTE, GENERIC_ALL};
    const DWORD allowed = isTrusted ? rights.all : rights.everybodys;
    granted = wanted & ~(MAXIMUM_ALLOWED | GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL);
    for (std::size_t i = 0; i < std::size(Generic); ++i)
        if (wanted & Generic[i]) granted |= rights.generic[i];
    if (granted & ~allowed) return ERROR_ACCESS_DENIED;
    if (wanted & MAXIMUM_ALLOWED) granted = allowed;
    return ERROR_SUCCESS;
}

DWORD AccessFor(DWORD control) {
    switch (control) {
        case SERVICE_CONTROL_STOP:
            return SERVICE_STOP;
        case SERVICE_CONTROL_INTERROGATE:
            return SERVICE_INTERROGATE;
        case SERVICE_CONTROL_PAUSE:
        case SERVICE_CONTROL_CONTINUE:
        case SERVICE_CONTROL_PARAMCHANGE:
        case SERVICE_CONTROL_NETBINDADD:
        case SERVICE_CONTROL_NETBINDREMOVE:
        case SERVICE_CONTROL_NETBINDENABLE:
        case SERVICE_CONTROL_NETBINDDISABLE:
            return SERVICE_PAUSE_CONTINUE;
        default:
            return control >= 128 && control <= 255 ? SERVICE_USER_DEFINED_CONTROL : 0;
    }
}

DWORD AcceptanceOf(DWORD control) {
    switch (control) {
        case SERVICE_CONTROL_STOP:
            return SERVICE_ACCEPT_STOP;
        case SERVICE_CONTROL_PAUSE:
        case SERVICE_CONTROL_CONTINUE:
            return SERVICE_ACCEPT_PAUSE_CONTINUE;
        case SERVICE_CONTROL_PARAMCHANGE:
            return SERVICE_ACCEPT_PARAMCHANGE;
        case SERVICE_CONTROL_NETBINDADD:
        case SERVICE_CONTROL_NETBINDREMOVE:
        case SERVICE_CONTROL_NETBINDENABLE:
        case SERVICE_CONTROL_NETBINDDISABLE:
            return SERVICE_ACCEPT_NETBINDCHANGE;
        default:
            return 0;
    }
}

}  // namespace tqscm
