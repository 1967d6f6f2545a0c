// What the calls of the network management hand out.
#pragma once

#include "TQLib/platform/Platform.h"

namespace Quellan::Sarvek {

// Owns the answer of such a call, whose structures begin at its beginning.
class NetBuffer {
  public:
    NetBuffer() noexcept = default;
    NetBuffer(const NetBuffer&) = delete;
    NetBuffer& operator=(const NetBuffer&) = delete;
    ~NetBuffer() {
        if (m_buffer) NetApiBufferFree(m_buffer);
    }

    // For one call.
    BYTE** Receive() noexcept { return &m_buffer; }

    template <class T>
    const T* As() const noexcept {
        return reinterpret_cast<const T*>(m_buffer);
    }

  private:
    BYTE* m_buffer = nullptr;
};

}  // namespace Quellan::Sarvek
