// Security descriptors from outside, and as they are kept with files: what can be read is made anew, read as the same, and
// gives the same answers about access.
#include "Require.h"
#include "TQLib/core/TQException.h"
#include "TQLib/platform/AccessRules.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/platform/linux/files/FileSecurity.h"
#include "TQLib/platform/linux/files/SecurityDescriptors.h"
#include "TQLib/security/SecDesc.h"

#include <array>
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

// Everyone and, for denying only, the users; with a type that the bytes may name.
AccessAnswer AnswerOf(std::span<const BYTE> block, DWORD wanted) {
    static constexpr std::array<BYTE, 12> Everyone = {1, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0};
    static constexpr std::array<BYTE, 16> Users = {1, 2, 0, 0, 0, 0, 0, 5, 32, 0, 0, 0, 0x21, 2, 0, 0};
    static constexpr std::array<BYTE, 16> Type = {};
    constexpr SubjectId User{Everyone.data(), 0};
    const std::array<SubjectId, 1> groups = {{{Users.data(), SE_GROUP_USE_FOR_DENY_ONLY}}};
    std::array<AccessNode, 2> tree = {
        {{.level = 0, .type = Type.data()}, {.level = 1, .type = Users.data()}}};
    return CheckAccess({.user = User, .groups = groups, .restricting = {&User, 1}},
                       {.descriptor = block, .wanted = wanted, .rights = {1, 2, 4, 7}, .tree = tree});
}

void CheckBytes(const std::uint8_t* data, std::size_t size) {
    const AccessAnswer most = AnswerOf({data, size}, MAXIMUM_ALLOWED);
    if (most.granted != 0) Require(AnswerOf({data, size}, most.granted).granted == most.granted);
    SecDesc descriptor;
    try {
        descriptor = SecDesc::FromBytes(data, size);
    } catch (const TQCoreException&) {
        return;
    }
    const auto block = descriptor.Block();
    Require(SecDesc::FromBytes(block.Data(), block.Size()) == descriptor);
    Require(AnswerOf({block.Data(), block.Size()}, MAXIMUM_ALLOWED).granted == most.granted);
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
