// Vector steps of base 64, on processors that have them.
#pragma once

#include "TQLib/platform/UtfVector.h"

#include <string_view>

namespace Quellan::Platform {

// `out` needs room for the result of all of it and no more. Read whole groups of three bytes and of four characters;
// leave some at the end, and decoding also what does not belong to the alphabet and what stands behind it.
VectorStep VectorToBase64(std::string_view bytes, char* out, bool isUrl) noexcept;
VectorStep VectorFromBase64(std::string_view text, char* out, bool isUrl) noexcept;

}  // namespace Quellan::Platform
