// Security descriptors as they are kept with files: what can be read is made anew and read as the same.
#include "TQLib/platform/linux/files/FileSecurity.h"
#include "TQLib/platform/linux/files/SecurityDescriptors.h"

#include <cstdint>
#include <cstdlib>

using namespace Quellan::Platform;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
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
