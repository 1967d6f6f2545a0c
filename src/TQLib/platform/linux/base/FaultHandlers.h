// The handlers of the signals that faults arrive as; StructuredExceptions.cpp has them.
#pragma once

namespace Quellan::Platform {

// From now on faults of threads with a translator are translated, and those in pages of shared objects that
// somebody cut off are mended (MendSharedPage); everything else goes as it would without.
void CatchFaults() noexcept;

}  // namespace Quellan::Platform
