#include "TQLib/platform/linux/accounts/Directory.h"

#include "TQLib/platform/linux/base/EnvironmentBlock.h"
#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/Futex.h"
#include "TQLib/platform/linux/base/Identity.h"
#include "TQLib/platform/linux/base/Lock.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <functional>
#include <grp.h>
#include <list>
#include <memory>
#include <pwd.h>
#include <shadow.h>
#include <signal.h>
#include <system_error>
#include <thread>

namespace Quellan::Platform {

namespace {

constexpr std::size_t FirstBufferSize = 1024;
constexpr std::size_t MostBufferSize = std::size_t{16} << 20;
constexpr unsigned MostAskers = 8;
constexpr DWORD IdleMs = 10'000;

// Lives until the asker and whoever waits for the answer are done with it.
class Question {
  public:
    Question() = default;
    virtual ~Question() = default;
    Question(const Question&) = delete;
    Question& operator=(const Question&) = delete;

    virtual void Find() noexcept = 0;

    void TellAnswered() noexcept {
        m_answered = 1;
        FutexWake(&m_answered, 1, Reach::Process);
    }

    // False when the time is over.
    bool WaitForAnswer(Deadline deadline) const noexcept {
        while (m_answered == 0)
            if (FutexWait(m_answered, 0, deadline, Reach::Process) == ETIMEDOUT) return m_answered != 0;
        return true;
    }

  private:
    Word m_answered{0};
};

template <class Answer>
class QuestionFor : public Question {
  public:
    explicit QuestionFor(std::function<DWORD(Answer&)> find) : m_find(std::move(find)) {}

    DWORD Take(Answer& answer) {
        if (m_code == ERROR_SUCCESS) answer = std::move(m_answer);
        return m_code;
    }

    void Find() noexcept override {
        m_code = WithMemory([this] { return m_find(m_answer); });
    }

  private:
    const std::function<DWORD(Answer&)> m_find;
    Answer m_answer{};
    DWORD m_code = ERROR_SUCCESS;
};

// The threads that ask. They may be asking while the process ends: it is never destroyed.
class Askers {
  public:
    static Askers& Instance() noexcept {
        alignas(Askers) static std::byte memory[sizeof(Askers)];
        static Askers& instance = *new (memory) Askers;
        return instance;
    }

    // While the process forks. The child has none of the threads, and nobody there waits for the answers.
    static void Hold() noexcept TQ_ACQUIRES(Instance().m_lock) { Instance().m_lock.lock(); }
    static void Resume(bool isChild) noexcept TQ_RELEASES(Instance().m_lock) {
        Instance().m_lock.unlock();
        if (isChild) new (&Instance()) Askers;
    }

    DWORD Add(std::shared_ptr<Question> question) {
        const Guard lock(m_lock);
        m_waiting.push_back(std::move(question));
        ++m_arrivals;
        if (m_idle >= m_waiting.size())
            FutexWake(&m_arrivals, 1, Reach::Process);
        else if (m_threads < MostAskers)
            StartThread();
        if (m_threads != 0) return ERROR_SUCCESS;
        m_waiting.pop_back();
        return ERROR_NO_SYSTEM_RESOURCES;
    }

    // Nobody waits for the answer any more.
    void Withdraw(const std::shared_ptr<Question>& question) noexcept {
        const Guard lock(m_lock);
        m_waiting.remove(question);
    }

  private:
    void StartThread() TQ_REQUIRES(m_lock) {
        const std::shared_ptr<const OwnIdentity> own = OwnIdentityForNewThread();
        sigset_t all, before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);  // signals are for the application's threads
        try {
            std::thread([this, own] {
                if (own) own->PutOn();
                while (const std::shared_ptr<Question> question = Next()) {
                    question->Find();
                    SetIdle();
                    question->TellAnswered();
                }
            }).detach();
            ++m_threads;
            ++m_idle;
        } catch (const std::system_error&) {
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }

    // Before the answer is told: whoever asks again at once finds the thread idle and needs no other.
    void SetIdle() noexcept {
        const Guard lock(m_lock);
        ++m_idle;
    }

    // For a thread that is idle, and is not any more then. Null after some time; the thread is not counted
    // any more then.
    std::shared_ptr<Question> Next() noexcept {
        const Deadline idleUntil = DeadlineAfter(IdleMs);
        for (bool isOver = false;;) {
            std::uint32_t seen;
            {
                const Guard lock(m_lock);
                if (!m_waiting.empty()) {
                    --m_idle;
                    std::shared_ptr<Question> question = std::move(m_waiting.front());
                    m_waiting.pop_front();
                    return question;
                }
                if (isOver) {
                    --m_threads, --m_idle;
                    return nullptr;
                }
                seen = m_arrivals;
            }
            isOver = FutexWait(m_arrivals, seen, idleUntil, Reach::Process) == ETIMEDOUT;
        }
    }

    PlainLock m_lock;
    std::list<std::shared_ptr<Question>> m_waiting TQ_GUARDED_BY(m_lock);
    unsigned m_threads TQ_GUARDED_BY(m_lock) = 0;
    unsigned m_idle TQ_GUARDED_BY(m_lock) = 0;
    Word m_arrivals{0};  // changed under m_lock
};

const ForkPart g_directoryForkPart(ForkOrder::Directory, &Askers::Hold, &Askers::Resume);

template <class Answer>
DWORD AskFor(Answer& answer, Deadline deadline, std::function<DWORD(Answer&)> find) {
    const auto question = std::make_shared<QuestionFor<Answer>>(std::move(find));
    if (DWORD code = Askers::Instance().Add(question)) return code;
    if (question->WaitForAnswer(deadline)) return question->Take(answer);
    Askers::Instance().Withdraw(question);
    return ERROR_TIMEOUT;
}

bool MeansNotFound(int error) noexcept {
    return error == 0 || error == ENOENT || error == ESRCH || error == EBADF || error == EPERM;
}

// One of the system's reading calls, with as much memory as the entry takes.
template <class Entry, class Call, class Take>
DWORD Fetch(Call call, Take take) {
    std::vector<char> buffer(FirstBufferSize);
    for (;;) {
        Entry entry;
        Entry* found = nullptr;
        const int error = call(&entry, buffer.data(), buffer.size(), &found);
        if (error == 0 && found) {
            take(*found);
            return ERROR_SUCCESS;
        }
        if (error == ERANGE && buffer.size() < MostBufferSize)
            buffer.resize(buffer.size() * 4);
        else if (error != EINTR)
            return MeansNotFound(error) ? ERROR_NONE_MAPPED : CodeFromErrno(error);
    }
}

UserRecord RecordOf(const passwd& entry) {
    const auto text = [](const char* value) { return std::string(value ? value : ""); };
    return {text(entry.pw_name), entry.pw_uid, entry.pw_gid, text(entry.pw_gecos), text(entry.pw_dir)};
}

GroupRecord RecordOf(const group& entry) {
    GroupRecord record{entry.gr_name, entry.gr_gid, {}};
    for (char** member = entry.gr_mem; member && *member; ++member)
        record.members.emplace_back(*member);
    return record;
}

template <class Entry, class Record, class Call>
DWORD FetchRecord(Record& record, Call call) {
    return Fetch<Entry>(call, [&](const Entry& entry) { record = RecordOf(entry); });
}

template <class Entry, class Record, class Read>
DWORD ReadLocal(const char* path, std::vector<Record>& records, Read read) {
    struct Closer {
        void operator()(std::FILE* file) const noexcept { std::fclose(file); }
    };
    const std::unique_ptr<std::FILE, Closer> file(std::fopen(path, "re"));
    if (!file) return CodeFromErrno(errno, path);
    std::vector<Record> result;
    DWORD code = ERROR_SUCCESS;
    for (Record record; code == ERROR_SUCCESS; result.push_back(std::move(record))) {
        code = FetchRecord<Entry>(record, [&](Entry* entry, char* buffer, std::size_t size, Entry** found) {
            return read(file.get(), entry, buffer, size, found);
        });
        if (code) break;
    }
    if (code != ERROR_NONE_MAPPED) return code;
    records = std::move(result);
    return ERROR_SUCCESS;
}

bool IsLockedOrExpired(const spwd& entry) noexcept {
    constexpr long SecondsInDay = 86'400;
    if (entry.sp_pwdp && entry.sp_pwdp[0] == '!') return true;
    return entry.sp_expire > 0 && std::time(nullptr) / SecondsInDay >= entry.sp_expire;
}

}  // namespace

Deadline DirectoryDeadline() {
    DWORD limit = DirectoryLimitMs;
    if (const auto text = TrustedEnvironmentVariable("TQLIB_DIRECTORY_LIMIT_MS"))
        std::from_chars(text->data(), text->data() + text->size(), limit);
    return DeadlineAfter(limit);
}

DWORD FindUser(std::string_view name, UserRecord& user, Deadline deadline) {
    return AskFor<UserRecord>(user, deadline, [name = std::string(name)](UserRecord& record) {
        return FetchRecord<passwd>(record,
                                   [&](passwd* entry, char* buffer, std::size_t size, passwd** found) {
                                       return getpwnam_r(name.c_str(), entry, buffer, size, found);
                                   });
    });
}

DWORD FindUser(DWORD id, UserRecord& user, Deadline deadline) {
    return AskFor<UserRecord>(user, deadline, [id](UserRecord& record) {
        return FetchRecord<passwd>(record,
                                   [&](passwd* entry, char* buffer, std::size_t size, passwd** found) {
                                       return getpwuid_r(id, entry, buffer, size, found);
                                   });
    });
}

DWORD FindGroup(std::string_view name, GroupRecord& found, Deadline deadline) {
    return AskFor<GroupRecord>(found, deadline, [name = std::string(name)](GroupRecord& record) {
        return FetchRecord<group>(record, [&](group* entry, char* buffer, std::size_t size, group** result) {
            return getgrnam_r(name.c_str(), entry, buffer, size, result);
        });
    });
}

DWORD FindGroup(DWORD id, GroupRecord& found, Deadline deadline) {
    return AskFor<GroupRecord>(found, deadline, [id](GroupRecord& record) {
        return FetchRecord<group>(record, [&](group* entry, char* buffer, std::size_t size, group** result) {
            return getgrgid_r(id, entry, buffer, size, result);
        });
    });
}

DWORD FindGroupsOf(const UserRecord& user, std::vector<DWORD>& groups, Deadline deadline) {
    return AskFor<std::vector<DWORD>>(
        groups, deadline, [name = user.name, own = user.group](std::vector<DWORD>& ids) -> DWORD {
            static_assert(sizeof(gid_t) == sizeof(DWORD));
            for (int given = 32, size = given;; given = size) {
                ids.resize(static_cast<std::size_t>(given));
                const bool fits = getgrouplist(name.c_str(), own, ids.data(), &size) != -1;
                if (!fits && size <= given) return ERROR_NOT_ENOUGH_MEMORY;
                ids.resize(static_cast<std::size_t>(size));
                if (fits) return ERROR_SUCCESS;
            }
        });
}

DWORD ReadLocalUsers(std::vector<UserRecord>& users) {
    return ReadLocal<passwd>("/etc/passwd", users, fgetpwent_r);
}

DWORD ReadLocalGroups(std::vector<GroupRecord>& groups) {
    return ReadLocal<group>("/etc/group", groups, fgetgrent_r);
}

DWORD ReadIsDisabled(const UserRecord& user, bool& disabled, Deadline deadline) {
    const DWORD code = AskFor<bool>(disabled, deadline, [name = user.name](bool& isDisabled) {
        return Fetch<spwd>([&](spwd* entry, char* buffer, std::size_t size,
                               spwd** found) { return getspnam_r(name.c_str(), entry, buffer, size, found); },
                           [&](const spwd& entry) { isDisabled = IsLockedOrExpired(entry); });
    });
    if (code != ERROR_NONE_MAPPED) return code;
    disabled = false;
    return ERROR_SUCCESS;
}

}  // namespace Quellan::Platform
