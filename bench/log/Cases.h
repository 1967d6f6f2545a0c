// The cases of the log's benchmark.
#pragma once

#include "support/Bench.h"

namespace Quellan::Corvel::Bench {

void AddRecords(Contest& contest);

// What a process of a case with several processes does; false where the arguments are none of that.
bool RunWritingProcess(int argc, char** argv);

}  // namespace Quellan::Corvel::Bench
