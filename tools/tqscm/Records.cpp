#include "Records.h"

#include "Launch.h"
#include "Print.h"
#include "Store.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/platform/linux/base/Wide.h"

#include <algorithm>

namespace tqscm {

namespace {

// After which the registry is asked again to delete what it did not.
constexpr std::chrono::seconds DeletePause{5};

bool IsKnown(DWORD value, DWORD first, DWORD last) {
    return value >= first && value <= last;
}

bool IsTooLong(const std::string& text) {
    return WideLength(text) > MostServiceNameCharacters;
}

DWORD CheckAccount(const std::string& name) {
    Account account;
    return FindAccount(name, account);
}

}  // namespace

// Services that were marked for deletion under an earlier manager go once they are seen to be stopped.
void Records::Load() {
    for (StoredService& stored : ReadServices())
        m_table.Add(stored.name, std::move(stored.config)).isMarked = stored.isMarked;
}

void Records::Add(Task task) {
    m_tasks.push_back(std::move(task));
    Next();
}

void Records::Next() {
    while (!m_isBusy && !m_tasks.empty()) {
        Task task = std::move(m_tasks.front());
        m_tasks.pop_front();
        Work work;
        if (const DWORD code = task.check(work)) {
            task.done(code);
            continue;
        }
        m_isBusy = true;
        m_worker.Post(std::move(work), [this, done = std::move(task.done)](DWORD code) {
            m_isBusy = false;
            done(code);
            Next();
        });
    }
}

DWORD Records::Check(const std::string& key, const ServiceConfig& config) const {
    if (config.type != SERVICE_WIN32_OWN_PROCESS && config.type != SERVICE_WIN32_SHARE_PROCESS)
        return ERROR_INVALID_PARAMETER;
    if (!IsKnown(config.start, SERVICE_AUTO_START, SERVICE_DISABLED) ||
        !IsKnown(config.errorControl, SERVICE_ERROR_IGNORE, SERVICE_ERROR_CRITICAL))
        return ERROR_INVALID_PARAMETER;
    if (config.commandLine.empty()) return ERROR_INVALID_PARAMETER;
    if (IsTooLong(config.displayName)) return ERROR_INVALID_NAME;
    for (const FailureAction& action : config.failure.actions)
        if (action.type > SC_ACTION_RUN_COMMAND || action.type == SC_ACTION_REBOOT)
            return ERROR_INVALID_PARAMETER;
    // What could not be said to anybody in one message.
    if (FormatMessage(ConfigReplyMessage{config}).size() > MostServiceMessageBytes)
        return ERROR_INVALID_PARAMETER;
    if (m_table.IsNameTaken(key, config.displayName)) return ERROR_DUPLICATE_SERVICE_NAME;
    if (!std::ranges::all_of(config.dependencies, IsServiceName)) return ERROR_INVALID_NAME;
    return m_table.IsCircle(key, config.dependencies) ? ERROR_CIRCULAR_DEPENDENCY : ERROR_SUCCESS;
}

void Records::Create(const std::string& name, const ServiceConfig& config, Done done) {
    const auto made = std::make_shared<ServiceConfig>(config);
    const auto check = [this, name, made](Work& work) -> DWORD {
        if (!IsServiceName(name)) return ERROR_INVALID_NAME;
        const std::string key = KeyOf(name);
        if (const auto there = m_table.All().find(key); there != m_table.All().end())
            return there->second->isMarked ? ERROR_SERVICE_MARKED_FOR_DELETE : ERROR_SERVICE_EXISTS;
        if (made->displayName.empty()) made->displayName = name;
        if (made->delayed && made->start != SERVICE_AUTO_START) return ERROR_INVALID_PARAMETER;
        work = [name, made] {
            const DWORD code = CheckAccount(made->account);
            return code ? code : CreateRecord(name, *made);
        };
        return Check(key, *made);
    };
    Add({check, [this, name, made, done = std::move(done)](DWORD code) {
             if (!code) m_table.Add(name, std::move(*made));
             done(code);
         }});
}

void Records::Change(const std::string& key, const ServiceChange& change, Done done) {
    const auto after = std::make_shared<ServiceConfig>();
    const auto check = [this, key, change, after](Work& work) -> DWORD {
        const Service* const service = m_table.Find(key);
        if (!service || service->isMarked) return ERROR_SERVICE_MARKED_FOR_DELETE;
        *after = service->config;
        change.ApplyTo(*after);
        if (after->displayName.empty()) after->displayName = service->name;
        if (change.delayed.value_or(0) && after->start != SERVICE_AUTO_START) return ERROR_INVALID_PARAMETER;
        work = [name = service->name, before = service->config, after,
                isNewAccount = change.account.has_value()] {
            const DWORD code = isNewAccount ? CheckAccount(after->account) : ERROR_SUCCESS;
            return code ? code : ChangeRecord(name, before, *after);
        };
        return Check(key, *after);
    };
    Add({check, [this, key, after, done = std::move(done)](DWORD code) {
             if (Service* const service = m_table.Find(key); service && !code)
                 m_table.SetConfig(*service, std::move(*after));
             done(code);
         }});
}

void Records::Mark(const std::string& key, Done done) {
    const auto check = [this, key](Work& work) -> DWORD {
        const Service* const service = m_table.Find(key);
        if (!service || service->isMarked) return ERROR_SERVICE_MARKED_FOR_DELETE;
        work = [name = service->name] { return MarkRecord(name); };
        return ERROR_SUCCESS;
    };
    Add({check, std::move(done)});
}

void Records::Delete(Service& service) {
    if (!service.isMarked || service.isGoing || service.handles || service.IsActive() ||
        service.start.isUnderWay)
        return;
    service.isGoing = true;
    const auto check = [name = service.name](Work& work) -> DWORD {
        work = [name] { return DeleteRecord(name); };
        return ERROR_SUCCESS;
    };
    Add({check, [this, &service](DWORD code) { OnDeleted(service, code); }});
}

void Records::OnDeleted(Service& service, DWORD code) {
    if (!code || code == ERROR_FILE_NOT_FOUND) {
        m_journal.Remove(service.name);
        return m_table.Remove(service);
    }
    if (!std::exchange(service.wasToldStays, true))
        Print("%s cannot be deleted yet: error %u", service.name.c_str(), code);
    service.isGoing = false;
    m_undeleted.insert(service.key);
    m_again.Set(DeletePause, [this] {
        for (const std::string& key : std::exchange(m_undeleted, {}))
            if (Service* const undeleted = m_table.Find(key)) Delete(*undeleted);
    });
}

}  // namespace tqscm
