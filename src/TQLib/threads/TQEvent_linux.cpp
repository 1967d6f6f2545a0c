#include "TQLib/platform/Platform.h"
#include "TQLib/threads/TQEvent.h"

namespace Quellan::Corvel {

bool operator==(const TQEvent& left, const TQEvent& right) noexcept {
    const _TQLastErrorKeeper keeper;
    return CompareObjectHandles(left.Handle(), right.Handle());
}

}  // namespace Quellan::Corvel
