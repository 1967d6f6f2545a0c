// Texts of descriptors, with conditions: what can be read can be written, and read as the same.
#include "Require.h"
#include "TQLib/core/TQException.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/security/SecDesc.h"

#include <cstdint>
#include <string_view>

using namespace Quellan;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Sarvek::SecDesc descriptor;
    try {
        descriptor = Sarvek::SecDesc::FromText(
            Corvel::TQString::FromUtf8(std::string_view(reinterpret_cast<const char*>(data), size)));
    } catch (const Corvel::TQCoreException&) {
        return 0;
    }
    const Corvel::TQString text = descriptor.Text();
    Require(Sarvek::SecDesc::FromText(text) == descriptor);
    const auto block = descriptor.Block();
    Require(Sarvek::SecDesc::FromBytes(block.Data(), block.Size()) == descriptor);
    return 0;
}
