#include "support/PrivateManager_linux.h"
#include "support/ServiceManager.h"

namespace Quellan::Corvel::Test {

struct ServiceManager::Native {
    PrivateManager manager;
};

ServiceManager::ServiceManager() : m_native(std::make_unique<Native>()) {}
ServiceManager::~ServiceManager() = default;

}  // namespace Quellan::Corvel::Test
