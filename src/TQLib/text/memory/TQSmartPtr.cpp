#include "TQLib/text/memory/TQSmartPtr.h"

#include "TQLib/platform/RaceTools.h"

namespace Quellan::Corvel {

bool _TQRefThrCount::Drop() noexcept {
    Platform::TellReleased(this);
    if (m_holders.fetch_sub(1, std::memory_order_acq_rel) != 1) return false;
    Platform::TellAcquired(this);
    return true;
}

}  // namespace Quellan::Corvel
