#include "core/TQException.h"
#include "platform/Win32.h"
#include "services/internal/SystemdUnit.h"

namespace Quellan::Corvel {

TQString WriteSystemdUnit(const std::vector<_TQService*>&, const TQStringArray&, const TQString&) {
    throw TQSysException(ERROR_NOT_SUPPORTED, L"There is no systemd on Windows.");
}

}  // namespace Quellan::Corvel
