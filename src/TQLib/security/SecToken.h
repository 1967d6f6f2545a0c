// Access tokens, and acting by them.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/security/SecACL.h"
#include "TQLib/security/SecIDAttrArray.h"
#include "TQLib/security/SecPrivilegeSet.h"
#include "TQLib/text/memory/TQHandle.h"
#include "TQLib/text/memory/TQUniqueHandle.h"

#include <cstdint>
#include <optional>

namespace Quellan::Sarvek {

// Who a process or a thread is and what it may: the only owner of a token's handle, or of none. What it tells is
// asked for at that moment; several objects may stand for one token, and a change of one is seen by all.
//
// On Linux the token of the process is what the kernel says of the calling thread, and a change of its privileges
// is one for this thread and those that it makes afterwards (docs/tokens.md).
//
// Failures: every function throws `TQSysException` with the platform's code, 14 (ERROR_OUTOFMEMORY) or the
// platform's 8 where memory is exhausted, with nothing changed; 6 (ERROR_INVALID_HANDLE) without a token, 5 (ERROR_ACCESS_DENIED) where the
// handle does not grant what is asked for. One object belongs to one thread at a time.
class TQLIB_API SecToken {
  public:
    using Handle = Corvel::TQUniqueHandle<Corvel::_TQKernelHandleClose>;

    // What acting by a token is good for, in the order of the platform's numbers.
    enum class Level { Anonymous, Identification, Impersonation, Delegation };

    // Everything that the caller may have (MAXIMUM_ALLOWED).
    static constexpr DWORD MostAccess = 0x02000000;

    SecToken() noexcept = default;
    explicit SecToken(Handle handle) noexcept : m_handle(std::move(handle)) {}
    SecToken(SecToken&&) noexcept = default;
    SecToken& operator=(SecToken&&) noexcept = default;
    virtual ~SecToken();

    [[nodiscard]] static SecToken OfProcess(DWORD access = MostAccess);
    // None for a thread that acts as the process.
    [[nodiscard]] static SecToken OfThread(DWORD access = MostAccess);
    // The one of the calling thread, or else the process's.
    [[nodiscard]] static SecToken Effective(DWORD access = MostAccess);
    // Of an account of this machine (`domain` empty or ".") or of a domain, whose password is checked as the
    // platform does: on Linux it must be null or empty, the caller being somebody who may act as anybody (1314,
    // ERROR_PRIVILEGE_NOT_HELD, otherwise; 50, ERROR_NOT_SUPPORTED, with a password). 1326 (ERROR_LOGON_FAILURE).
    [[nodiscard]] static SecToken LogOn(const Corvel::TQString& user, const Corvel::TQString& domain,
                                        const wchar_t* password);

    [[nodiscard]] HANDLE Get() const noexcept { return m_handle.Get(); }
    [[nodiscard]] explicit operator bool() const noexcept { return m_handle.IsValid(); }

    // Who it is. `User` has SE_GROUP_USE_FOR_DENY_ONLY where it serves to deny only.
    [[nodiscard]] SecIDAttr User() const;
    [[nodiscard]] SecIDAttrArray Groups() const;
    // Whether the identifier is the user or an enabled group, and one of the restricting ones where there are any.
    // Needs TOKEN_DUPLICATE of a primary token.
    [[nodiscard]] bool IsMember(const SecID& id) const;
    [[nodiscard]] DWORD SessionId() const;

    // What it may.
    [[nodiscard]] SecPrivilegeSet Privileges() const;
    [[nodiscard]] SecPrivilegeSet EnabledPrivileges() const;
    [[nodiscard]] bool IsElevated() const;
    // A number of the platform's (SECURITY_MANDATORY_MEDIUM_RID); `SecID::MandatoryRIDName` names it.
    [[nodiscard]] DWORD IntegrityLevel() const;
    // Whether a second check by the restricting identifiers follows each first one.
    [[nodiscard]] bool IsRestricted() const;
    [[nodiscard]] SecIDAttrArray RestrictingIDs() const;

    // What new descriptors get from it. No list is one that allows everybody everything.
    [[nodiscard]] SecID Owner() const;
    [[nodiscard]] SecID PrimaryGroup() const;
    [[nodiscard]] std::optional<SecACL> DefaultList() const;

    [[nodiscard]] bool IsPrimary() const;
    // Of a primary token that of a copy to act by.
    [[nodiscard]] Level ImpersonationLevel() const;
    struct Numbers {
        std::uint64_t token;     // all handles to a token tell the same
        std::uint64_t session;   // of the logon
        std::uint64_t modified;  // another one after each change
    };
    [[nodiscard]] Numbers Statistics() const;

    // Change privileges and give back those that were in the other state before. 1300 (ERROR_NOT_ALL_ASSIGNED)
    // where one is not held, 1313 (ERROR_NO_SUCH_PRIVILEGE), both with nothing changed.
    SecPrivilegeSet Enable(const SecPrivilegeSet& names);
    SecPrivilegeSet Disable(const SecPrivilegeSet& names);
    SecPrivilegeSet DisableAllPrivileges();
    // For good.
    void Remove(const SecPrivilegeSet& names);
    // 1300 for what is none of the groups, with the others changed; 1310 (ERROR_CANT_DISABLE_MANDATORY), 629
    // (ERROR_CANT_ENABLE_DENY_ONLY).
    void EnableGroups(const SecIDArray& groups);
    void DisableGroups(const SecIDArray& groups);
    // As they were at first.
    void ResetGroups();
    // 1307 (ERROR_INVALID_OWNER), 1308 (ERROR_INVALID_PRIMARY_GROUP).
    void SetOwner(const SecID& owner);
    void SetPrimaryGroup(const SecID& group);
    void SetDefaultList(const std::optional<SecACL>& list);
    // Not above the one that it has: 1314 (ERROR_PRIVILEGE_NOT_HELD).
    void SetIntegrityLevel(DWORD level);

    // Another token that says the same. Not above its own level: 1346 (ERROR_BAD_IMPERSONATION_LEVEL).
    [[nodiscard]] SecToken Duplicate() const { return Duplicate(ImpersonationLevel()); }
    [[nodiscard]] SecToken Duplicate(Level level) const;
    [[nodiscard]] SecToken DuplicatePrimary() const;
    // What a copy is to lack.
    struct Less {
        SecPrivilegeSet privileges = {};
        bool allPrivileges = false;     // but SeChangeNotifyPrivilege
        SecIDArray toDenyOnly = {};     // user or groups that shall serve to deny only
        SecIDArray restricting = {};    // for a second check; none: no such check
        bool restrictsWriting = false;  // the second check for writing only
    };
    [[nodiscard]] SecToken Restrict(const Less& less) const;

  private:
    [[nodiscard]] SecToken Duplicate(Level level, bool isPrimary) const;
    SecPrivilegeSet Adjust(const SecPrivilegeSet& names, DWORD attributes);
    void AdjustGroups(const SecIDArray& groups, DWORD attributes);
    void Set(int type, const void* information, std::size_t size);

    Handle m_handle;
};

// While it lives the calling thread acts by a token; afterwards by the one by which it acted before, or as the
// process. For a scope of one thread: guards end in the reverse order, on the thread that made them.
//
// Making one throws as `SecToken`, with nothing changed: 1346 (ERROR_BAD_IMPERSONATION_LEVEL) for a token that is
// not good for it, 1314 (ERROR_PRIVILEGE_NOT_HELD), on Linux 50 (ERROR_NOT_SUPPORTED) for one that the kernel cannot
// keep. Its end needs no memory; where the thread cannot leave the token, or is another one, the process ends.
class TQLIB_API SecImpersonation {
  public:
    // Needs TOKEN_IMPERSONATE and TOKEN_QUERY, of a primary token TOKEN_DUPLICATE.
    [[nodiscard]] explicit SecImpersonation(const SecToken& token);
    SecImpersonation(const SecImpersonation&) = delete;
    SecImpersonation& operator=(const SecImpersonation&) = delete;
    ~SecImpersonation();

  private:
    const SecToken m_before;
    const DWORD m_thread;
};

}  // namespace Quellan::Sarvek
