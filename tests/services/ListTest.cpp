#include "TQLib/platform/Win32.h"
#include "TQLib/services/TQServiceList.h"
#include "support/ThrownCode.h"

#include <gtest/gtest.h>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;

TEST(ServiceList, FindsByPositionAndByNameWhateverItsCase) {
    TQServiceList list;
    EXPECT_TRUE(list.IsEmpty());
    for (const wchar_t* name : {L"First", L"Second", L"SECOND"})
        list.Add(TQServiceStatus(name, L"", {.waitHint = static_cast<DWORD>(list.Count())}));
    EXPECT_EQ(&list[L"sECOND"], &list[1]) << "the first one of two";
    EXPECT_EQ(list.Find(L"second"), &list[1]);
    EXPECT_EQ(list[2].Record().waitHint, 2u);
    EXPECT_EQ(list.Find(L"Secon"), nullptr);
    EXPECT_EQ(ThrownCode([&] { list[3]; }), DWORD{ERROR_INVALID_INDEX});
    EXPECT_EQ(ThrownCode([&] { list[L"Third"]; }), DWORD{ERROR_SERVICE_DOES_NOT_EXIST});
    TQServiceList copy = list;
    copy.Add(TQServiceStatus(L"Third", L"", {}));
    EXPECT_EQ(copy.Count(), 4u);
    EXPECT_EQ(list.Count(), 3u);
    const TQServiceList moved = std::move(copy);
    EXPECT_NE(moved.Find(L"Third"), nullptr);
}
