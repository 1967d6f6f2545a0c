#include "core/TQException.h"
#include "platform/Win32.h"
#include "security/internal/DirectoryGroups.h"

namespace Quellan::Sarvek {

SecIDArray DirectoryGroups(const SecID&) {
    throw Corvel::TQSysException(ERROR_NOT_SUPPORTED, L"SecID::MemberOfList");
}

}  // namespace Quellan::Sarvek
