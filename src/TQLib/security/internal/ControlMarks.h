// Marks of descriptors that not every platform's headers name.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Sarvek {

// That the list is to be inherited by what is below, and that it was made by inheritance.
constexpr WORD DaclAsked = 0x0100;
constexpr WORD SaclAsked = 0x0200;
constexpr WORD DaclInherited = 0x0400;
constexpr WORD SaclInherited = 0x0800;

}  // namespace Quellan::Sarvek
