#include "TQLib/security/SecACL.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/security/internal/EntryParts.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

namespace Quellan::Sarvek {

using Corvel::BYTEBuf;
using Corvel::TQSysException;

namespace {

using Kind = SecACE::Kind;

// Calls `use` with the parts of each entry.
void ForEachEntry(Bytes bytes, auto use) {
    Platform::EntryReader reader(bytes);
    while (const auto entry = reader.Next())
        use(*entry);
    if (reader.IsDamaged()) throw TQSysException(ERROR_INVALID_ACL, L"SecACL::SecACL");
}

Bytes BytesOf(const ACL& list) noexcept {
    return {reinterpret_cast<const BYTE*>(&list), list.AclSize};
}

// 0 first: what the object itself denies, the rest of its own, what is inherited.
int RankOf(const SecACE& entry) noexcept {
    return entry.IsInherited() ? 2 : entry.IsDenying() ? 0 : 1;
}

// Whether both entries may be one with the rights of both.
bool AreAlikeButForRights(const SecACE& left, const SecACE& right) noexcept {
    return left.GetKind() == right.GetKind() && left.Flags() == right.Flags() &&
           left.ObjectType() == right.ObjectType() &&
           left.InheritedObjectType() == right.InheritedObjectType() && left.SID() == right.SID() &&
           left.Data() == right.Data();
}

bool IsForEverything(const SecACE& entry) noexcept {
    return entry.GetKind() == Kind::Allow || (entry.GetKind() == Kind::AllowObject && !entry.ObjectType());
}

}  // namespace

SecACL::SecACL(const ACL& list) {
    ForEachEntry(BytesOf(list), [this](const EntryParts& parts) { Add(SecACE(parts)); });
}

SecACL SecACL::FromBytes(const void* bytes, std::size_t size) {
    SecACL list;
    ForEachEntry({static_cast<const BYTE*>(bytes), size},
                 [&](const EntryParts& parts) { list.Add(SecACE(parts)); });
    return list;
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
    for (int rank = 0; rank <= 2; ++rank)
        for (const SecACE& entry : *this)
            if (RankOf(entry) == rank) ordered.Add(entry);
    return ordered;
}

bool SecACL::IsCanonical() const noexcept {
    return std::ranges::is_sorted(begin(), end(), {}, RankOf);
}

SecACL SecACL::Merged(const SecACL& other) const {
    SecACL both(*this);
    for (const SecACE& entry : other)
        both.Add(entry);
    SecACL merged;
    std::vector<SecACE>& entries = merged.Items();
    for (const SecACE& entry : both.InCanonicalOrder()) {
        const bool mayJoin = !entry.IsInherited() && !SecACE::IsOpaque(entry.GetKind());
        const auto alike = std::ranges::find_if(
            entries, [&](const SecACE& known) { return mayJoin && AreAlikeButForRights(known, entry); });
        if (alike == entries.end())
            merged.Add(entry);
        else
            *alike = entry.WithRights(alike->Rights() | entry.Rights());
    }
    return merged;
}

SecACL SecACL::Effective() const {
    SecACL effective;
    for (const SecACE& entry : *this)
        if (!entry.IsInheritOnly()) effective.Add(entry);
    return effective;
}

std::size_t SecACL::Remove(const SecID& id) noexcept {
    return std::erase_if(Items(), [&](const SecACE& entry) { return entry.SID() == id; });
}

DWORD SecACL::RightsOf(const SecIDArray& ids) const noexcept {
    DWORD allowed = 0;
    DWORD denied = 0;
    for (const SecACE& entry : *this) {
        if (entry.IsInheritOnly() || entry.SID().IsNull() || !ids.Contains(entry.SID())) continue;
        if (entry.IsDenying())
            denied |= entry.Rights() & ~allowed;
        else if (IsForEverything(entry))
            allowed |= entry.Rights() & ~denied;
    }
    return allowed;
}

BYTEBuf SecACL::Block() const {
    std::size_t size = sizeof(ACL);
    ACL head{};
    head.AclRevision = ACL_REVISION;
    for (const SecACE& entry : *this) {
        size += entry.Size();
        if (SecACE::HasObjectTypes(entry.GetKind())) head.AclRevision = ACL_REVISION_DS;
    }
    if (size > std::numeric_limits<WORD>::max())
        throw TQSysException(ERROR_ALLOTTED_SPACE_EXCEEDED, L"SecACL::Block");
    head.AclSize = static_cast<WORD>(size);
    head.AceCount = static_cast<WORD>(Count());
    BYTEBuf block;
    block.Reserve(size);
    block.Append(reinterpret_cast<const BYTE*>(&head), sizeof head);
    for (const SecACE& entry : *this)
        entry.AppendTo(block);
    return block;
}

bool operator==(const SecACL& left, const ACL& right) {
    std::size_t count = 0;
    bool isEqual = left.Count() == right.AceCount;
    ForEachEntry(BytesOf(right), [&](const EntryParts& parts) {
        isEqual = isEqual && AreSame(left[count], parts);
        ++count;
    });
    return isEqual;
}

}  // namespace Quellan::Sarvek
