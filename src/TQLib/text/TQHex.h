// Bytes as text, two hexadecimal digits each.
#pragma once

#include "TQLib/text/TQString.h"
#include "TQLib/text/memory/TQDataBuf.h"

#include <span>
#include <string>
#include <string_view>

namespace Quellan::Corvel {

// Failures: 14 (ERROR_OUTOFMEMORY), 111 (ERROR_BUFFER_OVERFLOW). Threads: at will.
class TQLIB_API TQHex {
  public:
    enum class Digits { Lower, Upper };
    [[nodiscard]] static TQString Encode(std::span<const BYTE> bytes, Digits digits = Digits::Lower);
    [[nodiscard]] static std::string EncodeNarrow(std::span<const BYTE> bytes, Digits digits = Digits::Lower);

    // Takes digits of both cases, and where space is skipped blanks, tabs and line breaks anywhere. Throws 13
    // (ERROR_INVALID_DATA), with a message that tells its place in `text`, for the first other character; the place
    // is the end where the last digit is missing.
    enum class Space { Refused, Skipped };
    [[nodiscard]] static BYTEBuf Decode(std::string_view text, Space space = Space::Refused);
    [[nodiscard]] static BYTEBuf Decode(std::wstring_view text, Space space = Space::Refused);
};

}  // namespace Quellan::Corvel
