#include "support/ServiceManager.h"

namespace Quellan::Corvel::Test {

ServiceManager::ServiceManager() = default;

}  // namespace Quellan::Corvel::Test
