#include "Exposure.h"

#include <algorithm>

using namespace Quellan::Corvel;
using namespace Quellan::Sarvek;

namespace {

constexpr DWORD Writing = FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_WRITE_EA | FILE_WRITE_ATTRIBUTES |
                          FILE_DELETE_CHILD | DELETE | WRITE_DAC | WRITE_OWNER;
constexpr SecGenericMap Rights = SecGenericMap::OfFiles();

// Whom everybody belongs to who is signed in.
SecIDAttrArray StrangersGroups() {
    SecIDAttrArray groups;
    for (const WELL_KNOWN_SID_TYPE type : {WinWorldSid, WinAuthenticatedUserSid, WinBuiltinUsersSid,
                                           WinInteractiveSid, WinNetworkSid, WinLocalSid})
        groups.Add(SecIDAttr(SecID(type), SE_GROUP_ENABLED));
    return groups;
}

}  // namespace

DWORD WritingByStrangers(const SecDesc& descriptor) {
    return SecAccess(descriptor, Rights).RightsOf(SecSubject(SecIDAttr(), StrangersGroups())) & Writing;
}

Repair WithoutStrangers(const SecDesc& descriptor) {
    Repair repair{descriptor, {}};
    if (!descriptor.DACL()) {
        // Whoever owns it, the system and its administrators keep everything.
        SecACL list;
        for (const SecID& id :
             {descriptor.Owner(), SecID(WinLocalSystemSid), SecID(WinBuiltinAdministratorsSid)})
            list.Allow(id, Rights.All());
        list.Allow(SecID(WinWorldSid), Rights.Read() | Rights.Execute());
        repair.changes = L"  it had no list and gets one\n";
        repair.descriptor.SetDACL(std::move(list));
        return repair;
    }
    const SecIDAttrArray strangers = StrangersGroups();
    SecACL list;
    bool wasInherited = false;
    for (const SecACE& entry : *descriptor.DACL()) {
        wasInherited = wasInherited || entry.IsInherited();
        const DWORD mapped = Rights.Map(entry.Rights());
        const bool isForStrangers = entry.IsAllowing() && strangers.IsIDInList(entry.SID());
        const DWORD left = isForStrangers ? mapped & ~Writing : mapped;
        SecACE kept = entry.WithFlags(static_cast<BYTE>(entry.Flags() & ~INHERITED_ACE));
        if (left == mapped) {
            list.Add(std::move(kept));
            continue;
        }
        kept = kept.WithRights(left);
        repair.changes += TQString::Format(L"  %s: now %s\n", entry.Describe(),
                                           left != 0 ? kept.Describe() : TQString(L"removed"));
        if (left != 0) list.Add(std::move(kept));
    }
    if (wasInherited) {
        repair.changes += L"  what it inherited is its own now\n";
        repair.descriptor.ProtectDACL();
    }
    repair.descriptor.SetDACL(std::move(list));
    return repair;
}
