#include "platform/Win32.h"
#include "security/internal/LocalPolicy.h"

namespace Quellan::Sarvek {

bool EveryoneIncludesAnonymous() noexcept {
    DWORD value = 0;
    DWORD size = sizeof value;
    const LSTATUS code = RegGetValueW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Control\\Lsa",
                                      L"everyoneincludesanonymous", RRF_RT_REG_DWORD, nullptr, &value, &size);
    return code == ERROR_SUCCESS && value != 0;
}

}  // namespace Quellan::Sarvek
