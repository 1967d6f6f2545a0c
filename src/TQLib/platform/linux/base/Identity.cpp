#include "TQLib/platform/linux/base/Identity.h"

#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/Errors.h"

#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <linux/capability.h>
#include <optional>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Quellan::Platform {

namespace {

// The users of the calling thread, as far as they are known.
struct KnownUsers {
    DWORD process;  // as last found
    bool isProcessKnown;
    bool isProcessForGood;  // the kernel lets the thread change none of its user ids
    bool isActing;
    DWORD acting;  // whom it impersonates
};

TQ_THERE_WITH_THREAD constinit thread_local KnownUsers t_users{};

struct Impersonation {
    std::shared_ptr<const Identity> identity;
    std::shared_ptr<const OwnIdentity> own;
};

// A thread ends as the process itself, whatever its last destructors do.
struct ThreadImpersonation : std::optional<Impersonation> {
    using std::optional<Impersonation>::operator=;
    ~ThreadImpersonation() {
        if (!has_value()) return;
        (*this)->own->PutOn();
        t_users.isActing = false;
    }
};

thread_local ThreadImpersonation t_impersonation;

constexpr DWORD Unchanged = ~DWORD{0};
constexpr std::uint64_t AllCapabilities = ~std::uint64_t{0};

struct Ids {
    DWORD real;
    DWORD effective;
    DWORD saved;
};

Ids UserIds() noexcept {
    Ids ids;
    getresuid(&ids.real, &ids.effective, &ids.saved);
    return ids;
}

Ids GroupIds() noexcept {
    Ids ids;
    getresgid(&ids.real, &ids.effective, &ids.saved);
    return ids;
}

std::vector<DWORD> SupplementaryGroups() {
    std::vector<DWORD> groups;
    long count;
    do {
        groups.resize(static_cast<std::size_t>(syscall(SYS_getgroups, 0, nullptr)));
        count = syscall(SYS_getgroups, groups.size(), groups.data());
    } while (count < 0);
    groups.resize(static_cast<std::size_t>(count));
    return groups;
}

// Each changes the calling thread alone, which is why none is the C library's.
bool SetUser(DWORD user) noexcept {
    return UserIds().effective == user || syscall(SYS_setresuid, Unchanged, user, Unchanged) == 0;
}

bool SetGroup(DWORD group) noexcept {
    return GroupIds().effective == group || syscall(SYS_setresgid, Unchanged, group, Unchanged) == 0;
}

bool SetGroups(const std::vector<DWORD>& groups) noexcept {
    return syscall(SYS_setgroups, groups.size(), groups.data()) == 0;
}

struct CapabilityData {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct words[_LINUX_CAPABILITY_U32S_3] = {};

    CapabilityData() noexcept { syscall(SYS_capget, &header, words); }

    std::uint64_t Effective() const noexcept {
        return words[0].effective | std::uint64_t{words[1].effective} << 32;
    }
    std::uint64_t Permitted() const noexcept {
        return words[0].permitted | std::uint64_t{words[1].permitted} << 32;
    }
};

bool SetCapabilities(const Capabilities& capabilities) noexcept {
    CapabilityData data;
    if (data.Effective() == capabilities.effective && data.Permitted() == capabilities.permitted) return true;
    for (unsigned i = 0; i < std::size(data.words); ++i) {
        data.words[i].effective = static_cast<std::uint32_t>(capabilities.effective >> 32 * i);
        data.words[i].permitted = static_cast<std::uint32_t>(capabilities.permitted >> 32 * i);
    }
    return syscall(SYS_capset, &data.header, data.words) == 0;
}

// Those of them that are permitted.
bool SetEffectiveCapabilities(std::uint64_t capabilities) noexcept {
    const std::uint64_t permitted = CapabilityData().Permitted();
    return SetCapabilities({capabilities & permitted, permitted});
}

// The kernel stops dumps and debuggers of a process whose ids change, for good.
bool WasDumpable() noexcept {
    static const bool dumpable = prctl(PR_GET_DUMPABLE) == 1;
    return dumpable;
}

DWORD PutOn(const Identity& identity, const OwnIdentity& own) noexcept {
    WasDumpable();
    if (identity.groups != own.Groups() && !SetGroups(identity.groups)) return CodeFromErrno(errno);
    if (SetGroup(identity.group) && SetUser(identity.user) && SetEffectiveCapabilities(identity.capabilities))
        return ERROR_SUCCESS;
    const DWORD code = CodeFromErrno(errno);
    own.PutOn();
    return code;
}

}  // namespace

void OwnIdentity::PutOn() const noexcept {
    // Groups need a capability that the process may hold and not use at the moment.
    const bool done =
        SetUser(UserIds().saved) && SetGroup(GroupIds().saved) &&
        (!m_groupsAreOthers || (SetEffectiveCapabilities(AllCapabilities) && SetGroups(m_groups))) &&
        SetEffectiveCapabilities(m_capabilities);
    if (!done) std::abort();
    if (WasDumpable()) prctl(PR_SET_DUMPABLE, 1);
}

Identity ProcessIdentity() {
    return {UserIds().saved, GroupIds().saved,
            t_impersonation ? t_impersonation->own->Groups() : SupplementaryGroups(),
            ProcessCapabilities().effective};
}

Identity ActingIdentity() {
    return {UserIds().effective, GroupIds().effective, SupplementaryGroups(), CapabilityData().Effective()};
}

// Ids that are all the same stay what they are for a thread without the right to choose others, and rights that
// it has given up it gets back by a new program alone.
DWORD ProcessUser() noexcept {
    if (t_users.isProcessForGood) return t_users.process;
    const Ids ids = UserIds();
    if (!t_users.isProcessKnown || t_users.process != ids.saved) {
        const bool isOne = ids.real == ids.saved && ids.effective == ids.saved;
        t_users.process = ids.saved;
        t_users.isProcessKnown = true;
        t_users.isProcessForGood = isOne && !(CapabilityData().Permitted() >> CAP_SETUID & 1);
    }
    return ids.saved;
}

DWORD ActingUser() noexcept {
    return t_users.isActing ? t_users.acting : ProcessUser();
}

Capabilities ProcessCapabilities() noexcept {
    const CapabilityData data;
    return {t_impersonation ? t_impersonation->own->EffectiveCapabilities() : data.Effective(),
            data.Permitted()};
}

DWORD SetProcessCapabilities(const Capabilities& capabilities) noexcept {
    if (t_impersonation) return ERROR_NOT_SUPPORTED;
    return SetCapabilities(capabilities) ? ERROR_SUCCESS : ERROR_PRIVILEGE_NOT_HELD;
}

DWORD ActAs(std::shared_ptr<const Identity> identity) {
    // What the thread gets back is found out once. With others' groups it also serves somebody of the own ones.
    std::shared_ptr<const OwnIdentity> own = t_impersonation ? t_impersonation->own : nullptr;
    const auto serves = [&] { return own->GroupsAreOthers() || identity->groups == own->Groups(); };
    if (identity && (!own || !serves())) {
        Identity process = ProcessIdentity();
        const bool groupsAreOthers = identity->groups != process.groups;
        own = std::make_shared<const OwnIdentity>(std::move(process.groups), process.capabilities,
                                                  groupsAreOthers);
    }
    if (t_impersonation) t_impersonation->own->PutOn();
    const DWORD code = identity ? PutOn(*identity, *own) : DWORD{ERROR_SUCCESS};
    if (code == ERROR_SUCCESS) {
        t_users.isActing = identity != nullptr;
        t_users.acting = identity ? identity->user : 0;
        if (identity)
            t_impersonation = Impersonation{std::move(identity), std::move(own)};
        else
            t_impersonation.reset();
    } else if (t_impersonation && PutOn(*t_impersonation->identity, *t_impersonation->own) != ERROR_SUCCESS)
        std::abort();
    return code == ERROR_ACCESS_DENIED ? ERROR_PRIVILEGE_NOT_HELD : code;
}

std::shared_ptr<const OwnIdentity> OwnIdentityForNewThread() noexcept {
    return t_impersonation ? t_impersonation->own : nullptr;
}

}  // namespace Quellan::Platform
