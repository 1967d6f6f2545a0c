// The cases of this program.
#pragma once

#include "support/Bench.h"

namespace Quellan::Corvel::Bench {

void AddAccess(Contest& contest);
void AddIdentifiers(Contest& contest);

}  // namespace Quellan::Corvel::Bench
