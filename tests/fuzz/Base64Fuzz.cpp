// Base 64 and hexadecimal text. The first byte chooses the rules.
#include "Require.h"
#include "TQLib/core/TQException.h"
#include "TQLib/text/TQBase64.h"
#include "TQLib/text/TQHex.h"

#include <algorithm>
#include <span>
#include <string>

using namespace Quellan;
using namespace Quellan::Corvel;

namespace {

std::span<const BYTE> All(const BYTEBuf& bytes) {
    return {bytes.begin(), bytes.end()};
}

// There is one text of bytes: what is read is written again.
void Check(std::string_view text, TQBase64Rules rules) {
    try {
        const BYTEBuf bytes = TQBase64::Decode(text, rules);
        if (!rules.skipsSpace) Require(TQBase64::EncodeNarrow(All(bytes), rules) == text);
        const std::wstring wide(text.begin(), text.end());
        Require(TQBase64::EncodeNarrow(All(TQBase64::Decode(wide, rules)), rules) ==
                TQBase64::EncodeNarrow(All(bytes), rules));
    } catch (const TQCoreException&) {
    }
}

void CheckHex(std::string_view text) {
    try {
        const BYTEBuf bytes = TQHex::Decode(text, TQHex::Space::Skipped);
        const BYTEBuf again = TQHex::Decode(TQHex::Encode(All(bytes), TQHex::Digits::Upper).View());
        Require(std::ranges::equal(All(bytes), All(again)));
    } catch (const TQCoreException&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
    const TQBase64Rules rules{
        .isUrl = (data[0] & 1) != 0, .isPadded = (data[0] & 2) != 0, .skipsSpace = (data[0] & 4) != 0};
    Check(text, rules);
    Check(TQBase64::EncodeNarrow({data, size}, rules), rules);
    CheckHex(text);
    return 0;
}
