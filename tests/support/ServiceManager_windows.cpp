#include "support/ServiceManager.h"

namespace Quellan::Corvel::Test {

struct ServiceManager::Native {};

ServiceManager::ServiceManager() = default;
ServiceManager::~ServiceManager() = default;

}  // namespace Quellan::Corvel::Test
