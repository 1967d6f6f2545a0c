// What tokens tell.
#pragma once

#include "TQLib/platform/Platform.h"
#include "TQLib/text/memory/TQHandle.h"
#include "TQLib/text/memory/TQUniqueHandle.h"

#include <cstddef>
#include <vector>

namespace Quellan::Sarvek {

using TokenHandle = Corvel::TQUniqueHandle<Corvel::_TQKernelHandleClose>;

// Of the calling process, to be queried. Throws `TQSysException` with the platform's code, as the class does.
TokenHandle OpenOwnToken();

// Information of variable size, in memory that is aligned for every structure of it.
class TokenInformation {
  public:
    TokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS type);

    template <class T>
    const T& As() const noexcept {
        return *reinterpret_cast<const T*>(m_memory.data());
    }

  private:
    std::vector<std::max_align_t> m_memory;
};

}  // namespace Quellan::Sarvek
