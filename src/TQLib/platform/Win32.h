// The platform's calls by their own names in the global namespace, for programs that ask for it: on Windows
// the system's, on Linux those of the layer, which without this header are known inside of `Quellan` alone.
#pragma once

#include "TQLib/platform/Platform.h"

#if !defined(_WIN32)
using namespace Quellan::Platform;
#endif
