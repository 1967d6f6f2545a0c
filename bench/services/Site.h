// What is measured: a service manager of the program's own, and this program as a service.
#pragma once

#include "TQLib/services/TQServiceCtrl.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace Quellan::Corvel::Bench {

// tqscm with a registry of its own, in a folder that goes with it. The service calls of this process, and of
// those that it starts, ask it.
class Site {
  public:
    Site();
    Site(const Site&) = delete;
    Site& operator=(const Site&) = delete;
    ~Site();

    // Resident memory of the manager, in KiB.
    long ManagerKiB() const;
    // How often it went to sleep, which is as often as something woke it up.
    long ManagerWakeUps() const;
    const std::string& Folder() const { return m_folder; }

    // Installs this program as a service on demand.
    static TQSvcHandle Install(const wchar_t* name);

  private:
    long ManagerStatus(const std::string& key) const;

    std::string m_folder;
    pid_t m_manager = -1;
};

// Starts a program with arguments; its standard output goes to `output` where that is a descriptor.
pid_t Spawn(const std::vector<std::string>& line, int output = -1);
// The path of a program beside this one; of this one for the empty name.
std::string ProgramPath(const std::string& name);

// What this program does as the service: nothing, until it is stopped.
int RunAsService();

}  // namespace Quellan::Corvel::Bench
