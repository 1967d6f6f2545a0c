#include "TQLib/platform/linux/accounts/PolicyStore.h"

#include "TQLib/platform/linux/accounts/PrivilegeNames.h"
#include "TQLib/platform/linux/base/Errors.h"
#include "TQLib/platform/linux/base/StateFile.h"

#include <algorithm>
#include <functional>

namespace Quellan::Platform {

namespace {

constexpr char FolderName[] = "security";
constexpr char FileName[] = "rights";
constexpr char NewFileName[] = "rights.new";
constexpr char RightsLockName[] = "rights.lock";
constexpr unsigned ReadableForAll = 0644;
constexpr std::size_t MostBytes = std::size_t{16} << 20;

DWORD ReadFile(const Descriptor& folder, RightsText& rights) {
    std::string text;
    const DWORD code = ReadStateFile(folder, FileName, MostBytes, text);
    if (code == ERROR_FILE_NOT_FOUND) return rights.Parse(DefaultAccountRights());
    if (code == ERROR_FILE_CORRUPT) return ERROR_INTERNAL_DB_CORRUPTION;
    return code ? code : rights.Parse(text);
}

// Changes one account's rights while nobody else changes any.
DWORD ChangeRights(const SidValue& account, const std::function<DWORD(RightNames&)>& change) {
    Descriptor folder;
    StateLock lock;
    DWORD code = OpenStateFolder(StateKind::Machine, FolderName, folder);
    if (!code) code = lock.Take(folder, RightsLockName);
    if (code) return code;
    RightsText text;
    if ((code = ReadFile(folder, text))) return code;
    const RightNames before = text.RightsOf(account);
    RightNames after = before;
    if ((code = change(after)) || after == before) return code;
    text.SetRightsOf(account, after);
    return ReplaceStateFile(folder, NewFileName, folder, FileName, ReadableForAll, text.Text());
}

}  // namespace

DWORD ReadRights(const SidValue& account, RightNames& rights) {
    Descriptor folder;
    RightsText text;
    DWORD code = OpenExistingStateFolder(StateKind::Machine, FolderName, folder);
    if (!code) code = ReadFile(folder, text);
    if (code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND)
        code = text.Parse(DefaultAccountRights());
    if (!code) rights = text.RightsOf(account);
    return code;
}

DWORD AddRights(const SidValue& account, const RightNames& rights) {
    return ChangeRights(account, [&](RightNames& held) {
        AddMissing(held, rights);
        return ERROR_SUCCESS;
    });
}

DWORD RemoveRights(const SidValue& account, const RightNames& rights) {
    return ChangeRights(account, [&](RightNames& held) {
        if (held.empty()) return ERROR_NONE_MAPPED;
        std::erase_if(held, [&](const std::string& right) { return HasRight(rights, right); });
        return ERROR_SUCCESS;
    });
}

DWORD RemoveAllRights(const SidValue& account) {
    return ChangeRights(account, [](RightNames& held) {
        if (held.empty()) return ERROR_NONE_MAPPED;
        held.clear();
        return ERROR_SUCCESS;
    });
}

}  // namespace Quellan::Platform
