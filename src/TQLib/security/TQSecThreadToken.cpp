#include "TQLib/security/TQSecThreadToken.h"

#include "TQLib/platform/Platform.h"

namespace Quellan::Sarvek {

using Corvel::TQSysException;

TQSecThreadToken::Token TQSecThreadToken::SetAside() {
    constexpr const wchar_t* Where = L"TQSecThreadToken::ProcImpersonate";
    Token token;
    if (!OpenThreadToken(GetCurrentThread(), TOKEN_IMPERSONATE, TRUE, token.Put())) {
        if (GetLastError() == ERROR_NO_TOKEN) return {};
        TQSysException::ThrowLastError(Where);
    }
    if (!RevertToSelf()) TQSysException::ThrowLastError(Where);
    return token;
}

void TQSecThreadToken::TakeUp(const Token& token, const Corvel::_TQWin32Exception* inner) {
    constexpr const wchar_t* Failed = L"Process reverse impersonation revert process failed.";
    if (!token) return;
    const Corvel::_TQLastErrorKeeper keeper;
    if (SetThreadToken(nullptr, token.Get())) return;
    if (inner) TQSysException::ThrowLastError(*inner, Failed);
    TQSysException::ThrowLastError(Failed);
}

}  // namespace Quellan::Sarvek
