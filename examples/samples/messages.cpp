#include "Samples.h"
#include "shop.h"

#include <TQLib/TQLib.h>

using namespace Quellan::Corvel;

namespace {

constexpr unsigned ShopStore = 100;

void Sell() {
    TQLib::RegisterResourceStore(ShopStore, L"Shop");
    const TQMsgRes messages(ShopStore);
    // "Tea is sold out, 5 are on order."
    const STLString text = messages.WithID(SHOP_SOLD_OUT).Text(TQStrResDestination::User, L"Tea", 5);
    throw TQAppException(SHOP_CLOSED, messages);  // its text is looked up when it is read
}

}  // namespace

void MessagesSample() {
    try {
        Sell();
    } catch (const TQAppException& e) {
        Expect(e.ExcMsg(TQStrResDestination::Log) == L"The shop is closed.",
               e.FullMsg(TQStrResDestination::User));
    }
    const STLString text =
        TQMsgRes(ShopStore).WithID(SHOP_SOLD_OUT).Text(TQStrResDestination::Log, L"Tea", 5);
    Expect(text == L"Tea is sold out, 5 are on order.", text.c_str());
}
