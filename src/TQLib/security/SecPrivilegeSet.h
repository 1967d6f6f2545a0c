// Sets of privileges.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/text/TQString.h"

#include <cstddef>
#include <vector>

namespace Quellan::Sarvek {

// A set of account rights, each by its published name ("SeBackupPrivilege", "SeServiceLogonRight"): the
// privileges and the rights to log on. Names have no case and come in their order. A value.
//
// Failures: exhausted memory throws 14 (ERROR_OUTOFMEMORY), a position outside of the set 1413
// (ERROR_INVALID_INDEX); the set is unchanged then.
class TQLIB_API SecPrivilegeSet {
  public:
    SecPrivilegeSet() noexcept;
    SecPrivilegeSet(const SecPrivilegeSet& other);
    SecPrivilegeSet(SecPrivilegeSet&& other) noexcept;
    SecPrivilegeSet& operator=(const SecPrivilegeSet& other);
    SecPrivilegeSet& operator=(SecPrivilegeSet&& other) noexcept;
    virtual ~SecPrivilegeSet();

    [[nodiscard]] std::size_t Count() const noexcept { return m_names.size(); }
    [[nodiscard]] bool IsEmpty() const noexcept { return m_names.empty(); }
    const Corvel::TQString& operator[](std::size_t position) const;
    [[nodiscard]] bool Contains(const Corvel::TQString& name) const;

    // One that is there already stays as it is.
    void Add(const Corvel::TQString& name);
    void Add(const SecPrivilegeSet& other);

    // Whether it is a privilege, which tokens hold, and no right to log on.
    [[nodiscard]] static bool IsPrivilege(const Corvel::TQString& name) noexcept;

  private:
    std::vector<Corvel::TQString> m_names;
};

}  // namespace Quellan::Sarvek
