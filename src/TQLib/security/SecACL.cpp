#include "TQLib/security/SecACL.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <vector>

namespace Quellan::Sarvek {

using Corvel::BYTEBuf;
using Corvel::TQException;
using Corvel::TQSysException;

namespace {

constexpr std::size_t EntryHead = offsetof(ACCESS_ALLOWED_ACE, SidStart);

void Append(BYTEBuf& block, const void* bytes, std::size_t size) {
    block.Append(static_cast<const BYTE*>(bytes), size);
}

// Calls `use` with each entry of the platform's list.
void ForEachEntry(const ACL& list, auto use) {
    const auto invalid = [] { return TQSysException(ERROR_INVALID_ACL, L"SecACL::SecACL"); };
    const auto* at = reinterpret_cast<const BYTE*>(&list);
    if (list.AclRevision < ACL_REVISION || list.AclRevision > ACL_REVISION_DS || list.AclSize < sizeof(ACL))
        throw invalid();
    const BYTE* const end = at + list.AclSize;
    at += sizeof(ACL);
    for (unsigned i = 0; i < list.AceCount; ++i) {
        const auto left = static_cast<std::size_t>(end - at);
        const auto& entry = *reinterpret_cast<const ACE_HEADER*>(at);
        if (left < sizeof(ACE_HEADER) || entry.AceSize < sizeof(ACE_HEADER) || entry.AceSize > left)
            throw invalid();
        use(entry);
        at += entry.AceSize;
    }
}

// 0 first: denied by the object itself, allowed by it, then the same of what is inherited.
int RankOf(const SecACE& entry) noexcept {
    return (entry.IsInherited() ? 2 : 0) + (entry.GetKind() == SecACE::Kind::Deny ? 0 : 1);
}

}  // namespace

SecACL::SecACL(const ACL& list) {
    ForEachEntry(list, [this](const ACE_HEADER& entry) { Add(SecACE(entry)); });
}

SecACL& SecACL::Allow(SecID id, DWORD rights, BYTE flags) {
    Add(SecACE::Allow(std::move(id), rights, flags));
    return *this;
}

SecACL& SecACL::Deny(SecID id, DWORD rights, BYTE flags) {
    Add(SecACE::Deny(std::move(id), rights, flags));
    return *this;
}

SecACL SecACL::InCanonicalOrder() const {
    SecACL ordered;
    for (int rank = 0; rank < 4; ++rank)
        for (const SecACE& entry : *this)
            if (RankOf(entry) == rank) ordered.Add(entry);
    return ordered;
}

BYTEBuf SecACL::Block() const {
    constexpr const wchar_t* Where = L"SecACL::Block";
    std::size_t size = sizeof(ACL);
    for (const SecACE& entry : *this) {
        if (entry.SID().IsNull()) throw TQException(ERROR_INVALID_PARAMETER, Where);
        size += EntryHead + entry.SID().Length();
    }
    if (size > std::numeric_limits<WORD>::max()) throw TQException(ERROR_INVALID_PARAMETER, Where);
    ACL head{};
    head.AclRevision = ACL_REVISION;
    head.AclSize = static_cast<WORD>(size);
    head.AceCount = static_cast<WORD>(Count());
    BYTEBuf block;
    block.Reserve(size);
    Append(block, &head, sizeof head);
    for (const SecACE& entry : *this) {
        const DWORD rights = entry.Rights();
        ACE_HEADER header{};
        header.AceType = static_cast<BYTE>(entry.GetKind());
        header.AceFlags = entry.Flags();
        header.AceSize = static_cast<WORD>(EntryHead + entry.SID().Length());
        Append(block, &header, sizeof header);
        Append(block, &rights, sizeof rights);
        Append(block, entry.SID().Address(), entry.SID().Length());
    }
    return block;
}

bool operator==(const SecACL& left, const ACL& right) {
    std::size_t count = 0;
    bool isEqual = left.Count() == right.AceCount;
    ForEachEntry(right, [&](const ACE_HEADER& entry) {
        isEqual = isEqual && left[count] == entry;
        ++count;
    });
    return isEqual;
}

}  // namespace Quellan::Sarvek
