// The cases of this program, one function a source file.
#pragma once

#include "support/Bench.h"

namespace Quellan::Corvel::Bench {

void AddEvents(Contest& contest);
void AddWaitsForAny(Contest& contest);
void AddLocks(Contest& contest);
void AddWaitLists(Contest& contest);
void AddThreadStarts(Contest& contest);

}  // namespace Quellan::Corvel::Bench
