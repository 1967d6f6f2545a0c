// The rows of the sweeps, a source for each folder of the library.
#pragma once

#include "support/Sweep.h"

namespace Quellan::Corvel::Test {

constexpr Promise Unchanged = Promise::Unchanged;

std::vector<SweptOperation> CoreRows();
std::vector<SweptOperation> TextRows();
std::vector<SweptOperation> FileRows();
std::vector<SweptOperation> SecurityRows();
std::vector<SweptOperation> LogRows();
std::vector<SweptOperation> ThreadRows();
std::vector<SweptOperation> ServiceRows();

}  // namespace Quellan::Corvel::Test
