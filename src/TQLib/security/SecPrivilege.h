// Privileges for a scope.
#pragma once

#include "TQLib/security/SecToken.h"

namespace Quellan::Sarvek {

// Enables privileges for the calling thread while it lives: the thread acts by a copy of its token in which they
// are enabled, and nothing else changes: neither its own token nor other threads, nor threads that it makes
// meanwhile by `TQThread`. Afterwards the thread acts as before, exactly, whatever was enabled before. What the
// library does as the process itself (`TQSecThreadToken::ProcImpersonate`) it does without them.
//
// Making one throws as `SecImpersonation`, with nothing changed: 1300 (ERROR_NOT_ALL_ASSIGNED) where one is not
// held, 1313 (ERROR_NO_SUCH_PRIVILEGE). Guards of one thread end in the reverse order, on that thread.
class TQLIB_API SecPrivilege {
  public:
    [[nodiscard]] explicit SecPrivilege(const Corvel::TQString& name);
    [[nodiscard]] explicit SecPrivilege(const SecPrivilegeSet& names);

  private:
    const SecImpersonation m_acting;
};

}  // namespace Quellan::Sarvek
