// Bytes as text, in base 64 (RFC 4648).
#pragma once

#include "TQLib/text/TQString.h"
#include "TQLib/text/memory/TQDataBuf.h"

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace Quellan::Corvel {

// `isUrl` is the alphabet with "-" and "_" in place of "+" and "/". With `isPadded`, "=" fills the last group of four
// when it is written and must when it is read; without, it is not written and refused. `skipsSpace`: blanks, tabs and
// line breaks count for nothing when it is read.
struct TQBase64Rules {
    bool isUrl = false;
    bool isPadded = true;
    bool skipsSpace = false;
};

// Failures: 14 (ERROR_OUTOFMEMORY), 111 (ERROR_BUFFER_OVERFLOW). Threads: at will.
class TQLIB_API TQBase64 {
  public:
    [[nodiscard]] static TQString Encode(std::span<const BYTE> bytes, TQBase64Rules rules = {});
    [[nodiscard]] static std::string EncodeNarrow(std::span<const BYTE> bytes, TQBase64Rules rules = {});

    // Throws 13 (ERROR_INVALID_DATA), with a message that tells its place in `text`, for the first character that
    // the rules do not allow: another character, padding elsewhere than at the end or too much of it, or the last
    // one before the end where bits are set that belong to no byte. The place is the end where characters are
    // missing.
    [[nodiscard]] static BYTEBuf Decode(std::string_view text, TQBase64Rules rules = {});
    [[nodiscard]] static BYTEBuf Decode(std::wstring_view text, TQBase64Rules rules = {});
};

}  // namespace Quellan::Corvel
