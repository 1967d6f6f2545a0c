#include "support/PrivateManager_linux.h"
#include "support/ServiceManager.h"

namespace Quellan::Corvel::Test {

ServiceManager::ServiceManager() : m_manager(std::make_shared<PrivateManager>()) {}

}  // namespace Quellan::Corvel::Test
