// The identity under which a thread acts.
#pragma once

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Types.h"
#include "TQLib/text/memory/TQHandle.h"
#include "TQLib/text/memory/TQUniqueHandle.h"

namespace Quellan::Sarvek {

// Static functions only; all of them concern the calling thread alone.
class TQLIB_API TQSecThreadToken {
  public:
    TQSecThreadToken() = delete;

    // Does `work` under the process's own identity: a thread that impersonates somebody sets that aside for
    // as long and takes it up again afterwards, also when `work` throws. Throws what `work` throws; the
    // platform's code when the impersonation can't be set aside, and then `work` isn't done; "Process reverse
    // impersonation revert process failed." when it can't be taken up again, around the exception of `work`
    // where there was one. In that last case the thread stays the process itself.
    template <class Work>
    static void ProcImpersonate(Work work);

  private:
    using Token = Corvel::TQUniqueHandle<Corvel::_TQKernelHandleClose>;

    // Empty for a thread that impersonates nobody.
    static Token SetAside();
    static void TakeUp(const Token& token, const Corvel::_TQWin32Exception* inner = nullptr);
};

template <class Work>
void TQSecThreadToken::ProcImpersonate(Work work) {
    const Token token = SetAside();
    try {
        work();
    } catch (const Corvel::_TQWin32Exception& failure) {
        TakeUp(token, &failure);
        throw;
    } catch (...) {
        TakeUp(token);
        throw;
    }
    TakeUp(token);
}

}  // namespace Quellan::Sarvek
