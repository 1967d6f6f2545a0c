#include "TQLib/security/internal/TokenInformation.h"

#include "TQLib/core/TQException.h"
#include "TQLib/text/memory/internal/Translated.h"

namespace Quellan::Sarvek {

using Corvel::TQSysException;

TokenHandle OpenOwnToken() {
    TokenHandle token;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.Put()))
        TQSysException::ThrowLastError(L"OpenProcessToken");
    return token;
}

TokenInformation::TokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS type) {
    DWORD size = 0;
    while (!GetTokenInformation(token, type, m_memory.data(), size, &size)) {
        if (GetLastError() != ERROR_INSUFFICIENT_BUFFER)
            TQSysException::ThrowLastError(L"GetTokenInformation");
        Corvel::Translated(L"TokenInformation",
                           [&] { m_memory.resize(size / sizeof(std::max_align_t) + 1); });
    }
}

}  // namespace Quellan::Sarvek
