// The file of account rights. What was read and changed can be read again.
#include "Require.h"
#include "TQLib/platform/linux/accounts/RightsText.h"
#include "TQLib/platform/linux/base/Errors.h"

using namespace Quellan::Platform;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    RightsText text;
    if (text.Parse({reinterpret_cast<const char*>(data), size}) != ERROR_SUCCESS) return 0;
    const SidValue account(5, {32, 551});
    RightNames rights = text.RightsOf(account);
    AddMissing(rights, {"SeBackupPrivilege"});
    text.SetRightsOf(account, rights);
    RightsText again;
    Require(again.Parse(text.Text()) == ERROR_SUCCESS);
    Require(again.Text() == text.Text());
    Require(again.RightsOf(account) == rights);
    again.SetRightsOf(account, {});
    Require(again.RightsOf(account).empty());
    return 0;
}
