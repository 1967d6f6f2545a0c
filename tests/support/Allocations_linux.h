// Of the operator new that test programs bring.
#pragma once

#include <cstddef>

namespace Quellan::Corvel::Test {

// The number of blocks that all threads have allocated and not freed.
std::size_t LiveBlocks() noexcept;

}  // namespace Quellan::Corvel::Test
