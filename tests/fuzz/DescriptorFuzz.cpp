// Security descriptors from outside, and as they are kept with files: what can be read is made anew and read as the same.
#include "Require.h"
#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/platform/linux/files/FileSecurity.h"
#include "TQLib/platform/linux/files/SecurityDescriptors.h"
#include "TQLib/security/SecDesc.h"

#include <cstdint>
#include <cstdlib>

using namespace Quellan::Platform;

namespace {

using Quellan::Corvel::TQCoreException;
using Quellan::Sarvek::SecDesc;

// A text may need more bytes than the block that it was made of.
void CheckText(const SecDesc& descriptor) {
    Quellan::Corvel::TQString text;
    try {
        text = descriptor.Text();
        Require(SecDesc::FromText(text).Text() == text);
    } catch (const TQCoreException& failure) {
        Require(failure.ErrCode() ==
                DWORD{text.IsEmpty() ? ERROR_NOT_SUPPORTED : ERROR_ALLOTTED_SPACE_EXCEEDED});
    }
}

void CheckBytes(const std::uint8_t* data, std::size_t size) {
    SecDesc descriptor;
    try {
        descriptor = SecDesc::FromBytes(data, size);
    } catch (const TQCoreException&) {
        return;
    }
    const auto block = descriptor.Block();
    Require(SecDesc::FromBytes(block.Data(), block.Size()) == descriptor);
    if (descriptor.DACL()) Require(descriptor.DACL()->InCanonicalOrder().IsCanonical());
    CheckText(descriptor);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    CheckBytes(data, size);
    FileSecurity first, second;
    if (ParseDescriptor({data, size}, first)) return 0;
    mode_t mode = 0;
    const bool hasMode = first.hasList && ModeOf(first, 1000, 1000, mode) == 0;
    if (!hasMode) return 0;  // with entries that are not kept
    constexpr DWORD All = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
    const auto block = MakeDescriptor(first, All);
    mode_t again = 0;
    if (ParseDescriptor(block, second) || ModeOf(second, 1000, 1000, again) || mode != again ||
        first.owner != second.owner || first.group != second.group)
        std::abort();
    return 0;
}
