// The cases of this program, one function a source file.
#pragma once

#include "support/Bench.h"

namespace Quellan::Corvel::Bench {

void AddExceptions(Contest& contest);
void AddFormatting(Contest& contest);
void AddConversion(Contest& contest);

}  // namespace Quellan::Corvel::Bench
