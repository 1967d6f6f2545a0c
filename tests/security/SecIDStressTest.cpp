// Many random identifiers.
#include "security/Identifiers.h"

#include <random>
#include <vector>

namespace Quellan::Corvel::Test {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t Count = 50'000;
#else
constexpr std::size_t Count = 1'000'000;
#endif

using Bytes = std::vector<BYTE>;

class RandomBlocks {
  public:
    Bytes operator()() {
        const unsigned count = 1 + Below(15);
        Bytes block(8 + 4 * count);
        block[0] = 1;
        block[1] = static_cast<BYTE>(count);
        block[7] = static_cast<BYTE>(Below(3));
        // Wine writes authorities of more than 32 bits so that they cannot be read.
        if (Below(8) == 0 && !m_onWine) block[2] = static_cast<BYTE>(Below(256));
        for (std::size_t i = 8; i < block.size(); ++i)
            block[i] = static_cast<BYTE>(Below(4) == 0 ? Below(256) : 0);
        return block;
    }

  private:
    unsigned Below(unsigned end) { return std::uniform_int_distribution<unsigned>(0, end - 1)(m_engine); }
    std::mt19937 m_engine{20};
    bool m_onWine = OnWine();
};

TEST(RandomIdentifiers, AreReadBackFromTheirText) {
    RandomBlocks next;
    std::size_t wrong = 0;
    for (std::size_t i = 0; i < Count; ++i) {
        const SecID id(next().data());
        PSID read = nullptr;
        if (!ConvertStringSidToSidW(id.String().c_str(), &read) || id != read) ++wrong;
        LocalFree(read);
    }
    EXPECT_EQ(wrong, 0u);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
