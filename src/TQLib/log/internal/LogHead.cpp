#include "TQLib/log/internal/LogHead.h"

#include "TQLib/core/TQException.h"
#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/log/internal/LogRecord.h"
#include "TQLib/log/time/TQTime.h"
#include "TQLib/platform/ActingUser.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/security/SecID.h"
#include "TQLib/system/internal/CurrentUser.h"

#include <array>
#include <cstring>
#include <memory>

namespace Quellan::Corvel {

namespace {

using Platform::UserKey;

// The text for the last key that it was asked for.
template <class Key, std::size_t Longest>
class KeptText {
  public:
    // `make` makes the text, and may correct `key` meanwhile. One that is too long to be kept goes to
    // `longTexts`; where `make` throws nothing changes.
    template <class Make>
    std::string_view For(const Key& key, std::forward_list<std::string>& longTexts, Make make) {
        if (m_size == 0 || !(m_key == key)) {
            std::string text = make();
            if (text.size() > Longest) return longTexts.emplace_front(std::move(text));
            m_size = text.copy(m_text, Longest);
            m_key = key;
        }
        return {m_text, m_size};
    }

  private:
    Key m_key{};
    std::size_t m_size = 0;
    char m_text[Longest]{};
};

struct WriterKey {
    ULONGLONG names;
    DWORD process;  // another one in the child of a fork, and there the thread is another one too

    bool operator==(const WriterKey&) const = default;
};

TQ_THERE_WITH_THREAD constinit thread_local KeptText<ULONGLONG, 16> t_time;
TQ_THERE_WITH_THREAD constinit thread_local KeptText<WriterKey, 64> t_writer;
TQ_THERE_WITH_THREAD constinit thread_local KeptText<UserKey, 96> t_user;

struct Now {
    ULONGLONG second;
    unsigned millisecond;
};

Now ReadClock() noexcept {
    constexpr ULONGLONG StepsInMs = 10'000;
    FILETIME time;
    GetSystemTimeAsFileTime(&time);
    const ULONGLONG ms = (ULONGLONG{time.dwHighDateTime} << 32 | time.dwLowDateTime) / StepsInMs;
    return {ms / 1000, static_cast<unsigned>(ms % 1000)};
}

// The time of day, and the moment of it: the clocks of both are read one after the other.
std::string TimeIn(Now& now) {
    TQTime time;
    for (ULONGLONG second = 0; second != now.second;) {
        second = now.second;
        time = TQTime::CurrentTime();
        now = ReadClock();
    }
    wchar_t text[80];
    return InOneLine({text, time.FormatTimeTo(text, TQTime::Hour24NoMarkerTimeFormat, LOCALE_USER_DEFAULT)});
}

// The last few users; a server that acts as many asks again for those it hasn't seen for long.
class KnownUsers {
  public:
    using Text = std::shared_ptr<const std::string>;

    Text Find(const UserKey& key) {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        LeaveToParent();
        for (const User& user : m_users)
            if (user.text && user.key == key) return user.text;
        return nullptr;
    }

    void Add(const UserKey& key, Text text) {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        LeaveToParent();
        m_users[m_next++ % m_users.size()] = {key, std::move(text)};
    }

  private:
    struct User {
        UserKey key;
        Text text;
    };

    // In the child of a fork: a thread of the parent may have been changing them.
    void LeaveToParent() TQ_REQUIRES(m_lock) {
        if (std::exchange(m_process, GetCurrentProcessId()) != GetCurrentProcessId())
            std::construct_at(&m_users);
    }

    TQThreadSynch m_lock;
    DWORD m_process TQ_GUARDED_BY(m_lock) = GetCurrentProcessId();
    std::array<User, 16> m_users TQ_GUARDED_BY(m_lock);
    std::size_t m_next TQ_GUARDED_BY(m_lock) = 0;
};

std::string UserText(const UserKey& key) {
    // Records may be written until the process has ended.
    static KnownUsers& known = *new KnownUsers;
    KnownUsers::Text text = known.Find(key);
    if (!text) {
        const Sarvek::SecID id(UserBlock().Sid());
        text = std::make_shared<const std::string>(
            InOneLine(_TQwString::Format(L"%s {%s}", id.Name().View(), id.String().View()).View()));
        known.Add(key, text);
    }
    return *text;
}

}  // namespace

LogHead::LogHead(const LogNames& names) {
    Now now = ReadClock();
    m_time = t_time.For(now.second, m_longTexts, [&] { return TimeIn(now); });
    m_millisecond = now.millisecond;
    const DWORD process = GetCurrentProcessId();
    m_writer = t_writer.For(WriterKey{names.number, process}, m_longTexts, [&] {
        return '[' + names.application + " : " + std::to_string(process) + " (" + names.module + "){" +
               std::to_string(GetCurrentThreadId()) + "}]";
    });
    try {
        UserKey key;
        if (FindActingUser(key) == ERROR_SUCCESS)
            m_user = t_user.For(key, m_longTexts, [&] { return UserText(key); });
    } catch (...) {
        // Whoever it is: the message counts.
    }
}

}  // namespace Quellan::Corvel
