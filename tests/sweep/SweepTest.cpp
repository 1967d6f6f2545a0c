#include "sweep/Rows.h"

#include <algorithm>
#include <cctype>

namespace Quellan::Corvel::Test {

namespace {

std::vector<SweptOperation> AllRows() {
    std::vector<SweptOperation> all;
    for (const auto& rows : {TextRows(), FileRows(), SecurityRows()})
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

}  // namespace

}  // namespace Quellan::Corvel::Test
