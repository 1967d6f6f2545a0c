// What the calls of the network management hand out.
#pragma once

#include "TQLib/platform/Platform.h"
#include "TQLib/text/memory/TQHandle.h"
#include "TQLib/text/memory/TQUniqueHandle.h"

namespace Quellan::Sarvek {

struct NetBufferClose : Corvel::_TQNullHandle<BYTE*> {
    static void Close(BYTE* buffer) noexcept { NetApiBufferFree(buffer); }
};

// The answer of such a call, whose structures begin at its beginning.
class NetBuffer : public Corvel::TQUniqueHandle<NetBufferClose> {
  public:
    template <class T>
    const T* As() const noexcept {
        return reinterpret_cast<const T*>(Get());
    }
};

}  // namespace Quellan::Sarvek
