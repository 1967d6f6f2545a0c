#include "TQLib/log/internal/LogUsers.h"

#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/security/SecID.h"
#include "TQLib/system/internal/CurrentUser.h"

#include <array>

namespace Quellan::Corvel {

namespace {

using Sarvek::SecID;
using Text = std::shared_ptr<const std::wstring>;

// The last few users; a server that acts as many asks again for those it hasn't seen for long.
class KnownUsers {
  public:
    Text Find(PSID sid) {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        for (const User& user : m_users)
            // Both are identifiers: the comparison of `SecID` would ask the system about the address first.
            if (user.text && EqualSid(user.id.Address(), sid)) return user.text;
        return nullptr;
    }

    void Add(SecID id, Text text) {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        m_users[m_next++ % m_users.size()] = {std::move(id), std::move(text)};
    }

  private:
    struct User {
        SecID id;
        Text text;
    };

    TQThreadSynch m_lock;
    std::array<User, 16> m_users TQ_GUARDED_BY(m_lock);
    std::size_t m_next TQ_GUARDED_BY(m_lock) = 0;
};

}  // namespace

Text CurrentLogUser() {
    // Records may be written until the process has ended.
    static KnownUsers& known = *new KnownUsers;
    const UserBlock current;
    if (Text text = known.Find(current.Sid())) return text;
    const SecID id(current.Sid());
    Text text = std::make_shared<const std::wstring>(
        _TQwString::Format(L"%s {%s}", id.Name().View(), id.String().View()).View());
    known.Add(SecID(current.Sid()), text);
    return text;
}

}  // namespace Quellan::Corvel
