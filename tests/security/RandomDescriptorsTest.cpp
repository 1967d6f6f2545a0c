#include "security/RandomDescriptors.h"

#include <gtest/gtest.h>

namespace Quellan::Corvel::Test {
namespace {

using Sarvek::SecDesc;

TEST(RandomDescriptors, ComeBackFromTheirTextsAndBlocks) {
    RandomDescriptors random(false);
    for (int i = 0; i < 20'000; ++i) {
        const SecDesc descriptor = random.Next();
        const TQString text = descriptor.Text();
        ASSERT_EQ(SecDesc::FromText(text), descriptor) << text.ToUtf8().c_str();
        const BYTEBuf block = descriptor.Block();
        ASSERT_EQ(SecDesc::FromBytes(block.Data(), block.Size()), descriptor) << text.ToUtf8().c_str();
    }
}

}  // namespace
}  // namespace Quellan::Corvel::Test
