// The service manager that tests of services talk to.
#pragma once

#include <memory>

namespace Quellan::Corvel::Test {

// On Linux a manager of the test's own, while this lives; on Windows the system's.
class ServiceManager {
  public:
    ServiceManager();
    ServiceManager(const ServiceManager&) = delete;
    ServiceManager& operator=(const ServiceManager&) = delete;

    // Whether a service that was deleted is gone, which one that has run is when its process is: waits for
    // that, up to a minute.
    static bool IsGone(const wchar_t* name);

  private:
    const std::shared_ptr<void> m_manager;
};

}  // namespace Quellan::Corvel::Test
