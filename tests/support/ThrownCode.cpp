#include "support/ThrownCode.h"

#include "TQLib/core/TQException.h"

namespace Quellan::Corvel::Test {

DWORD ThrownCodeOf(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const TQCoreException& failure) {
        return static_cast<DWORD>(failure.COMErrCode());
    }
    return 0;
}

Failure FailureOf(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const TQCoreException& failure) {
        return {static_cast<DWORD>(failure.COMErrCode()), failure.ExcMsg(TQStrResDestination::Log).Std()};
    }
    return {};
}

}  // namespace Quellan::Corvel::Test
