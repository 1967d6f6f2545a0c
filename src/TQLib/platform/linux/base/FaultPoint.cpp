#include "TQLib/platform/linux/base/FaultPoint.h"

#include "TQLib/platform/linux/base/Durable.h"

#if defined(TQ_FAULT_POINTS)

#include <cstring>

namespace Quellan::Platform {

FaultPlan*& ThreadFaultPlans() noexcept {
    thread_local FaultPlan* plans = nullptr;
    return plans;
}

DWORD FaultDue(const char* function) noexcept {
    DWORD code = 0;
    for (FaultPlan* plan = ThreadFaultPlans(); plan; plan = plan->next) {
        if (std::strcmp(plan->function, function) != 0) continue;
        ++plan->calls;
        if (plan->reached) plan->reached();
        if (plan->nth == plan->calls || plan->nth == FaultPlan::EveryCall) code = plan->code;
    }
    return code;
}

Durable::Observer& Durable::TheObserver() noexcept {
    static Observer observer = nullptr;
    return observer;
}

}  // namespace Quellan::Platform

#endif
