#include "TQLib/platform/Win32.h"
#include "TQLib/security/SecAccess.h"
#include "security/Cases.h"

#include <cstring>
#include <vector>

namespace Quellan::Corvel::Bench {

namespace {

using Sarvek::SecAccess;
using Sarvek::SecACE;
using Sarvek::SecACL;
using Sarvek::SecDesc;
using Sarvek::SecGenericMap;
using Sarvek::SecID;
using Sarvek::SecIDAttr;
using Sarvek::SecIDAttrArray;
using Sarvek::SecIDAuth;
using Sarvek::SecSubject;

constexpr unsigned EntryCount = 20;
constexpr unsigned GroupCount = 10;

SecID Account(unsigned number) {
    return SecID(SecIDAuth::NTSecIDAuth(), 21, 1, 2, 3, 1000 + number);
}

// Of a list whose last entry alone is for the user.
SecDesc Guarded() {
    SecACL list;
    for (unsigned i = 1; i < EntryCount; ++i)
        list.Allow(Account(100 + i), FILE_READ_DATA);
    list.Allow(Account(0), FILE_READ_DATA);
    return SecDesc().SetOwner(Account(200)).SetGroup(Account(200)).SetDACL(std::move(list));
}

std::vector<SecID> Identifiers() {
    std::vector<SecID> ids;
    for (unsigned i = 0; i <= GroupCount; ++i)
        ids.push_back(Account(i));
    return ids;
}

// As short as it can be said: each allowing entry beside each identifier.
DWORD AllowedByHand(const BYTE* list, const std::vector<SecID>& ids) {
    ACL head;
    std::memcpy(&head, list, sizeof head);
    const BYTE* at = list + sizeof head;
    DWORD allowed = 0;
    for (unsigned i = 0; i < head.AceCount; ++i) {
        ACCESS_ALLOWED_ACE entry;
        std::memcpy(&entry, at, sizeof entry);
        const BYTE* const sid = at + offsetof(ACCESS_ALLOWED_ACE, SidStart);
        for (const SecID& id : ids)
            if (std::memcmp(sid, id.Address(), id.Length()) == 0) allowed |= entry.Mask;
        at += entry.Header.AceSize;
    }
    return allowed;
}

}  // namespace

void AddAccess(Contest& contest) {
    const char* const work = "check of 20 entries, 10 groups";
    const std::vector<SecID> ids = Identifiers();
    SecIDAttrArray groups;
    for (unsigned i = 1; i <= GroupCount; ++i)
        groups.Add(SecIDAttr(ids[i], SE_GROUP_ENABLED));
    const auto subject = std::make_shared<SecSubject>(SecIDAttr(ids[0]), groups);
    const SecAccess access(Guarded(), SecGenericMap::OfFiles());
    contest.Add(work, "SecAccess",
                [subject, access] { Keep(access.Check(*subject, FILE_READ_DATA).isGranted); });
    const BYTEBuf list = Guarded().DACL()->Block();
    contest.Add(work, "allowing entries by memcmp", [list, ids] { Keep(AllowedByHand(list.Data(), ids)); });
}

}  // namespace Quellan::Corvel::Bench
