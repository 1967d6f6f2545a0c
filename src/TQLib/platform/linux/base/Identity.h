// Who a thread acts as. The kernel knows that thread by thread; impersonation changes the effective ids, the
// groups and the effective capabilities of the calling thread and leaves its real and saved ids alone, which
// remain the process's own.
//
// The C library's own calls (setuid, seteuid, setgroups and their kin) change every thread of the process:
// made while a thread impersonates they give that thread away or end the process, so nobody may.
#pragma once

#include "TQLib/platform/linux/base/Base.h"

#include <memory>
#include <vector>

namespace Quellan::Platform {

struct Identity {
    DWORD user = 0;
    DWORD group = 0;
    std::vector<DWORD> groups;       // the supplementary ones
    std::uint64_t capabilities = 0;  // the effective ones

    bool operator==(const Identity&) const = default;
};

// What a thread that impersonates somebody gets back. Immutable.
class OwnIdentity {
  public:
    OwnIdentity(std::vector<DWORD> groups, std::uint64_t capabilities, bool groupsAreOthers)
        : m_groups(std::move(groups)), m_capabilities(capabilities), m_groupsAreOthers(groupsAreOthers) {}

    // Gives it back to the calling thread. A thread that cannot leave somebody else's identity must not go
    // on: ends the process.
    void PutOn() const noexcept;

    const std::vector<DWORD>& Groups() const noexcept { return m_groups; }
    std::uint64_t EffectiveCapabilities() const noexcept { return m_capabilities; }
    bool GroupsAreOthers() const noexcept { return m_groupsAreOthers; }

  private:
    const std::vector<DWORD> m_groups;
    const std::uint64_t m_capabilities;
    const bool m_groupsAreOthers;  // while the thread impersonates
};

// The process's own, whomever the calling thread impersonates. May throw std::bad_alloc.
Identity ProcessIdentity();

// As whom the calling thread acts. May throw std::bad_alloc.
Identity ActingIdentity();

// The process's user alone. The kernel is asked where he may have changed since the thread asked last.
DWORD ProcessUser() noexcept;
// Of whom the calling thread impersonates, or the process's own.
DWORD ActingUser() noexcept;

struct Capabilities {
    std::uint64_t effective;
    std::uint64_t permitted;

    bool operator==(const Capabilities&) const = default;
};
// The process's own too.
Capabilities ProcessCapabilities() noexcept;

// Gives the calling thread, and those that it makes from now on, other capabilities: of the permitted ones, which
// it never gets back once they are gone, and of the effective ones among them. 50 (ERROR_NOT_SUPPORTED) for a
// thread that impersonates somebody, 1314 (ERROR_PRIVILEGE_NOT_HELD) for what is not permitted.
DWORD SetProcessCapabilities(const Capabilities& capabilities) noexcept;

// Makes the calling thread act as somebody, with those of his capabilities that the process is permitted, or with
// null as the process itself. 1314 (ERROR_PRIVILEGE_NOT_HELD) without the capabilities for it, with nothing
// changed. May throw std::bad_alloc, with nothing changed; never for null and for one as whom the thread has acted
// since it last was the process itself.
DWORD ActAs(std::shared_ptr<const Identity> identity);

// What a thread that the caller makes has to put on before it does anything; null where it has that already.
std::shared_ptr<const OwnIdentity> OwnIdentityForNewThread() noexcept;

}  // namespace Quellan::Platform
