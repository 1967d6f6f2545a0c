// The service manager that tests of services talk to.
#pragma once

#include <memory>

namespace Quellan::Corvel::Test {

// On Linux a manager of the test's own, while this lives; on Windows the system's.
class ServiceManager {
  public:
    ServiceManager();
    ~ServiceManager();
    ServiceManager(const ServiceManager&) = delete;
    ServiceManager& operator=(const ServiceManager&) = delete;

  private:
    struct Native;
    const std::unique_ptr<Native> m_native;
};

}  // namespace Quellan::Corvel::Test
