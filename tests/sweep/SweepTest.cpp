#include "support/DataLines.h"
#include "sweep/Rows.h"

#include <algorithm>
#include <cctype>
#include <set>

namespace Quellan::Corvel::Test {

namespace {

std::vector<SweptOperation> AllRows() {
    std::vector<SweptOperation> all;
    for (const auto& rows :
         {CoreRows(), TextRows(), FileRows(), SecurityRows(), LogRows(), ThreadRows(), ServiceRows()})
        all.insert(all.end(), rows.begin(), rows.end());
    return all;
}

std::string RowName(const testing::TestParamInfo<SweptOperation>& row) {
    std::string name = row.param.name;
    std::erase_if(name, [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); });
    return name;
}

class Sweep : public testing::TestWithParam<SweptOperation> {};

TEST_P(Sweep, Allocations) {
    SweepAllocationsOf(GetParam());
}

TEST_P(Sweep, PlatformCalls) {
    SweepCallsOf(GetParam());
}

INSTANTIATE_TEST_SUITE_P(All, Sweep, testing::ValuesIn(AllRows()), RowName);

// At the end of the whole program: each call of the library has failed in some row.
class AllCallsSwept : public testing::Environment {
  public:
    void TearDown() override {
        if (testing::GTEST_FLAG(filter) != "*") return;
        const std::vector<std::string> unswept = DataLines("UnsweptCalls.txt");
        std::set<std::string> known(SweptCalls().begin(), SweptCalls().end());
        known.merge(std::set<std::string>(unswept.begin(), unswept.end()));
        for (const char* call : LibraryCalls())
            EXPECT_TRUE(known.contains(call)) << call << " never fails in a row";
    }

  private:
    static std::vector<const char*> LibraryCalls() {
        return {
#if __has_include("sweep/LibraryCalls.inc")
#include "sweep/LibraryCalls.inc"
#endif
        };
    }
};

const testing::Environment* const g_allCallsSwept = testing::AddGlobalTestEnvironment(new AllCallsSwept);

}  // namespace

}  // namespace Quellan::Corvel::Test
