#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/security/internal/DirectoryGroups.h"

namespace Quellan::Sarvek {

SecIDArray DirectoryGroups(const SecID&) {
    throw Corvel::TQSysException(ERROR_NOT_SUPPORTED, L"SecID::MemberOfList");
}

}  // namespace Quellan::Sarvek
