// The handles of a pool.
#pragma once

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/text/memory/TQHandle.h"

#include <memory>

namespace Quellan::Corvel {

struct PoolHandleClose {
    void operator()(HANDLE handle) const noexcept { _TQKernelHandleClose::Close(handle); }
};
// One word, which every item goes by.
using PoolHandle = std::unique_ptr<void, PoolHandleClose>;

// Throws "Wakeup event could not be created for thread pool.".
[[nodiscard]] inline PoolHandle NewPoolEvent(bool manualReset, bool isSet) {
    const HANDLE event = CreateEventW(nullptr, manualReset, isSet, nullptr);
    if (!event) TQSysException::ThrowLastError(L"Wakeup event could not be created for thread pool.");
    return PoolHandle(event);
}

}  // namespace Quellan::Corvel
