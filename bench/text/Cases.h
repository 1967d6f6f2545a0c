// The cases of this program, one function a source file.
#pragma once

#include "support/Bench.h"

namespace Quellan::Corvel::Bench {

void AddNumbers(Contest& contest);
void AddPieces(Contest& contest);
void AddSearches(Contest& contest);
void AddEscapes(Contest& contest);
void AddUnicode(Contest& contest);

}  // namespace Quellan::Corvel::Bench
