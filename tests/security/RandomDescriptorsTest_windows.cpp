#include "security/RandomDescriptors.h"

#include <gtest/gtest.h>
#include <sddl.h>

namespace Quellan::Corvel::Test {
namespace {

using Sarvek::SecDesc;

struct LocalFreed {
    void* address = nullptr;
    ~LocalFreed() { LocalFree(address); }
};

SecDesc ReadByPlatform(const TQString& text) {
    LocalFreed block;
    ULONG size = 0;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(text.c_str(), SDDL_REVISION_1, &block.address,
                                                              &size))
        return {};
    return SecDesc::FromBytes(block.address, size);
}

TQString WrittenByPlatform(const SecDesc& descriptor) {
    LocalFreed text;
    constexpr DWORD All = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                          DACL_SECURITY_INFORMATION | SACL_SECURITY_INFORMATION;
    if (!ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor.Block().Data(), SDDL_REVISION_1, All,
                                                              reinterpret_cast<wchar_t**>(&text.address),
                                                              nullptr))
        return {};
    return static_cast<const wchar_t*>(text.address);
}

// The flags of a list are compared on the DACL alone, as Wine writes those of the DACL for both lists.
TEST(RandomDescriptors, MeanToThePlatformWhatTheyMeanHere) {
    RandomDescriptors random(true);
    for (int i = 0; i < 20'000; ++i) {
        SecDesc descriptor = random.Next();
        if (descriptor.SACL()) descriptor.SetControl(0x1500, 0);
        const TQString text = descriptor.Text();
        ASSERT_EQ(ReadByPlatform(text), descriptor) << text.ToUtf8().c_str();
        const TQString written = WrittenByPlatform(descriptor);
        ASSERT_EQ(SecDesc::FromText(written), descriptor) << text.ToUtf8().c_str() << "\n"
                                                          << written.ToUtf8().c_str();
    }
}

}  // namespace
}  // namespace Quellan::Corvel::Test
