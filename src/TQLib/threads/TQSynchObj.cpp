#include "TQLib/threads/TQSynchObj.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/threads/internal/WaitFailure.h"

namespace Quellan::Corvel {

TQSynchObj::~TQSynchObj() = default;

HANDLE TQSynchObj::Handle() const noexcept {
    return m_handle.Get();
}

bool TQSynchObj::Wait(DWORD ms) const {
    switch (WaitForSingleObject(Handle(), ms)) {
        case WAIT_OBJECT_0:
        case WAIT_ABANDONED:
            return true;
        case WAIT_TIMEOUT:
            return false;
        default:
            TQSysException::ThrowLastError(WaitFailed);
    }
}

TQString TQSynchObj::KernelObjectName(const wchar_t* name, bool global) {
    OSVERSIONINFOEXW record = {};
    record.dwOSVersionInfoSize = sizeof record;
    if (!GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&record)))
        TQSysException::ThrowLastError(L"TQSynchObj::KernelObjectName");
    const PlatformVersion version{record.dwPlatformId, record.dwMajorVersion, record.wSuiteMask,
                                  record.wProductType};
    return TQString(KernelObjectPrefix(version, global)) + name;
}

const wchar_t* TQSynchObj::KernelObjectPrefix(const PlatformVersion& version, bool global) noexcept {
    if (version.platform != VER_PLATFORM_WIN32_NT || version.major < 4) return L"";
    const bool hasSessions = (version.suites & (VER_SUITE_TERMINAL | VER_SUITE_SINGLEUSERTS)) != 0;
    // Version 4 has no product type in its record.
    const bool isServer = version.major >= 5 &&
                          (version.product == VER_NT_SERVER || version.product == VER_NT_DOMAIN_CONTROLLER);
    if (!hasSessions && !isServer) return L"";
    return global ? L"Global\\" : L"Local\\";
}

}  // namespace Quellan::Corvel
