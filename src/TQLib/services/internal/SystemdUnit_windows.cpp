#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/services/internal/SystemdUnit.h"

namespace Quellan::Corvel {

TQString WriteSystemdUnit(const std::vector<_TQService*>&, const TQStringArray&, const TQString&) {
    throw TQSysException(ERROR_NOT_SUPPORTED, L"There is no systemd on Windows.");
}

}  // namespace Quellan::Corvel
