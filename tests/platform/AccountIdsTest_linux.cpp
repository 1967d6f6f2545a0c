#include "TQLib/platform/linux/base/Sha256.h"
#include "platform/SidTexts.h"

#include <fstream>
#include <string>

namespace Quellan::Corvel::Test {
namespace {

using Platform::Sha256;
using Hash = std::array<std::uint32_t, 8>;

TEST(Sha256, GivesThePublishedValues) {
    EXPECT_EQ(Sha256("abc"), (Hash{0xba7816bf, 0x8f01cfea, 0x414140de, 0x5dae2223, 0xb00361a3, 0x96177a9c,
                                   0xb410ff61, 0xf20015ad}));
    EXPECT_EQ(Sha256("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              (Hash{0x248d6a61, 0xd20638b8, 0xe5c02693, 0x0c3e6039, 0xa33ce459, 0x64ff2167, 0xf6ecedd4,
                    0x19db06c1}));
}

// Changing the derivation would give every file another owner.
TEST(MachineDomain, IsAHashOfTheMachineId) {
    std::string id;
    if (!std::getline(std::ifstream("/etc/machine-id"), id) || id.size() != 32)
        GTEST_SKIP() << "the machine has no id";
    const Hash hash = Sha256("TQLib machine domain " + id);
    EXPECT_EQ(TextOf(Sid(L"LA").Get()), L"S-1-5-21-" + std::to_wstring(hash[0]) + L"-" +
                                            std::to_wstring(hash[1]) + L"-" + std::to_wstring(hash[2]) +
                                            L"-500");
}

}  // namespace
}  // namespace Quellan::Corvel::Test
