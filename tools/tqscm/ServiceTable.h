// The services by their names, and who needs whom.
#pragma once

#include "EventLoop.h"
#include "Journal.h"
#include "Launch.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/platform/linux/services/ServiceMessages.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace tqscm {

using namespace Quellan::Platform;

class Process;

// The same for every spelling of a name.
std::string KeyOf(const std::string& name);
bool IsServiceName(const std::string& name);

// Of a service that is started, as `Starts` keeps it.
struct StartState {
    bool isUnderWay = false;  // from the request on until the service has a process, in which it is pending
    bool isOwed = false;      // its process has not answered yet that it runs it
    std::vector<std::string> arguments;
    std::function<void(DWORD code)> done;  // hears how it went
    bool isAwaited = false;                // there was one when the process was told to run it
    std::size_t nextDependency = 0;        // those before were up
    std::shared_ptr<Account> account;      // once it has been looked up
    bool isLookedUp = false;               // it is being looked up
    bool wasToldLate = false;              // that the start waits for resources
};

// A service, as the table knows it and as those keep it who start it, watch it and stop it.
struct Service {
    explicit Service(EventLoop& loop) : action(loop), hang(loop) {}

    // The table's, and changed by it alone.
    std::string key;
    std::string name;
    ServiceConfig config;
    std::string displayKey;
    std::vector<std::string> dependencies;  // keys

    unsigned handles = 0;
    bool isMarked = false;      // to be deleted
    bool isGoing = false;       // it is being deleted: nobody finds it any more
    bool wasToldStays = false;  // that it could not be deleted

    SERVICE_STATUS status{};
    Process* process = nullptr;
    ProcessId gaveUpIn;         // the process in which it hung, which its other services still use
    bool isStopping = false;    // its handler took a control to stop
    bool isHung = false;        // pending, and nothing was reported for too long
    bool wasKilled = false;     // by request
    bool wasToldToEnd = false;  // while the manager ends

    StartState start;
    FailureState failures;
    Timer action;  // what is due after a failure, or a start that is tried again
    Timer hang;

    // What is due for a failure is not done any more.
    void DropAction() {
        action.Cancel();
        failures.dueAction = SC_ACTION_NONE;
    }
    bool IsActive() const { return status.dwCurrentState != SERVICE_STOPPED; }
    bool IsPending() const {
        return IsActive() && status.dwCurrentState != SERVICE_RUNNING &&
               status.dwCurrentState != SERVICE_PAUSED;
    }
    bool IsUp() const {
        return IsActive() && status.dwCurrentState != SERVICE_START_PENDING &&
               status.dwCurrentState != SERVICE_STOP_PENDING;
    }
    // Whether a start of it can begin.
    bool MayStart() const {
        return !IsActive() && !start.isUnderWay && !isMarked && config.start != SERVICE_DISABLED;
    }
};

// Each question is answered in time that is linear in services and dependencies, whatever their graph.
class ServiceTable {
  public:
    using Services = std::map<std::string, std::unique_ptr<Service>>;  // by key

    explicit ServiceTable(EventLoop& loop) : m_loop(loop) {}

    const Services& All() const { return m_services; }
    // None that is being deleted.
    Service* Find(const std::string& key) const;
    Service& Add(const std::string& name, ServiceConfig config);
    void SetConfig(Service& service, ServiceConfig config);
    void Remove(Service& service);

    // By another service, as its name or its display name.
    bool IsNameTaken(const std::string& key, const std::string& displayName) const;
    // Whether the service `key` would need itself with these dependencies.
    bool IsCircle(const std::string& key, const std::vector<std::string>& names) const;
    // What has to be started for `service`, each after what it needs and itself last. False for a circle.
    bool StartOrder(Service& service, std::vector<Service*>& order) const;
    // All that need it, in the order in which they can be stopped.
    std::vector<Service*> DependentsOf(const Service& service) const;
    // What an active service needs, directly or not.
    std::set<const Service*> NeededNow() const;

  private:
    template <class Neighbours>
    static bool Walk(Service& root, Neighbours neighbours, std::vector<Service*>& order);
    void SetNames(Service& service);
    void ForgetNames(Service& service);

    EventLoop& m_loop;
    Services m_services;
    std::map<std::string, std::set<std::string>> m_dependents;  // keys, by the key of what they need
};

}  // namespace tqscm
