// Many random identifiers.
#include "security/Identifiers.h"

#include <algorithm>
#include <compare>
#include <cstring>
#include <random>
#include <set>
#include <vector>

namespace Quellan::Corvel::Test {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t Count = 50'000;
#else
constexpr std::size_t Count = 1'000'000;
#endif

using Bytes = std::vector<BYTE>;

// Blocks, and none at all, that often begin alike and are sometimes the same.
class RandomBlocks {
  public:
    Bytes operator()(unsigned fewest = 0) {
        if (fewest == 0 && Below(50) == 0) return {};
        const unsigned count = fewest + Below(16 - fewest);
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

const void* AddressOf(const Bytes& block) {
    return block.empty() ? nullptr : block.data();
}

// The rule: the shorter one first, then byte by byte.
std::strong_ordering OrderOf(const Bytes& left, const Bytes& right) {
    if (left.size() != right.size()) return left.size() <=> right.size();
    return left <=> right;
}

TEST(RandomIdentifiers, AreOrderedByTheRule) {
    RandomBlocks next;
    Bytes before = next();
    SecID idBefore(AddressOf(before));
    std::size_t wrong = 0;
    for (std::size_t i = 0; i < Count; ++i) {
        const Bytes block = next();
        SecID id(AddressOf(block));
        const auto order = OrderOf(before, block);
        const bool agrees = (idBefore <=> id) == order && (id <=> idBefore) == (0 <=> order) &&
                            (idBefore == id) == (order == 0) && (idBefore <=> AddressOf(block)) == order;
        if (!agrees) ++wrong;
        before = block;
        idBefore = std::move(id);
    }
    EXPECT_EQ(wrong, 0u);
}

TEST(RandomIdentifiers, AreSortedAsTheirBlocks) {
    RandomBlocks next;
    std::vector<Bytes> blocks;
    std::vector<SecID> ids;
    for (std::size_t i = 0; i < Count; ++i) {
        blocks.push_back(next());
        ids.emplace_back(AddressOf(blocks.back()));
    }
    const auto isBefore = [](const Bytes& left, const Bytes& right) { return OrderOf(left, right) < 0; };
    std::ranges::sort(blocks, isBefore);
    std::ranges::sort(ids);
    const auto isSame = [](const Bytes& block, const SecID& id) { return id == AddressOf(block); };
    EXPECT_TRUE(std::ranges::equal(blocks, ids, isSame));
    const std::set<SecID> set(ids.begin(), ids.end());
    blocks.erase(std::ranges::unique(blocks).begin(), blocks.end());
    EXPECT_LT(blocks.size(), Count) << "none was the same as another one";
    EXPECT_TRUE(std::ranges::equal(blocks, set, isSame));
}

TEST(RandomIdentifiers, AreReadBackFromTheirText) {
    RandomBlocks next;
    std::size_t wrong = 0;
    for (std::size_t i = 0; i < Count; ++i) {
        const SecID id(AddressOf(next(1)));
        PSID read = nullptr;
        if (!ConvertStringSidToSidW(id.String().c_str(), &read) || id != read) ++wrong;
        LocalFree(read);
    }
    EXPECT_EQ(wrong, 0u);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
