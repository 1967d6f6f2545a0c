// Entries and descriptors in words.
#include "TQLib/platform/Platform.h"
#include "TQLib/security/SecDesc.h"
#include "TQLib/security/internal/SecurityText.h"

#include <algorithm>
#include <iterator>

namespace Quellan::Sarvek {

using Corvel::_TQwString;
using Corvel::TQString;

namespace {

using Kind = SecACE::Kind;

struct RightsInWords {
    DWORD rights;
    const wchar_t* words;
};

constexpr RightsInWords FileRights[] = {
    {0x10000000, L"full control"},
    {0x1F01FF, L"full control"},
    {0x1301BF, L"modify"},
    {0x1200A9, L"read and execute"},
    {0xA0000000, L"read and execute"},
    {0x1201FF, L"read, write and execute"},
    {0x1201BF, L"read, write and execute"},
    {0x12019F, L"read and write"},
    {0xC0000000, L"read and write"},
    {0x120089, L"read"},
    {0x80000000, L"read"},
    {0x120116, L"write"},
    {0x40000000, L"write"},
    {0x1200A0, L"execute"},
    {0x20000000, L"execute"},
    {0, L"nothing"},
};

struct FlagInWords {
    BYTE flag;
    const wchar_t* words;
};

constexpr FlagInWords FlagWords[] = {
    {SUCCESSFUL_ACCESS_ACE_FLAG, L"on success"},
    {FAILED_ACCESS_ACE_FLAG, L"on failure"},
    {INHERITED_ACE, L"inherited"},
    {OBJECT_INHERIT_ACE, L"for objects below"},
    {CONTAINER_INHERIT_ACE, L"for folders below"},
    {NO_PROPAGATE_INHERIT_ACE, L"one level deep"},
    {INHERIT_ONLY_ACE, L"not for this one"},
};

// Before the rights; nothing for what allows.
const wchar_t* EffectOf(const SecACE& entry) noexcept {
    switch (entry.GetKind()) {
        case Kind::Audit:
        case Kind::AuditObject:
        case Kind::AuditCallback:
        case Kind::AuditCallbackObject:
            return L"audited ";
        case Kind::Alarm:
        case Kind::AlarmObject:
        case Kind::AlarmCallback:
        case Kind::AlarmCallbackObject:
            return L"alarm at ";
        case Kind::Label:
            return L"integrity level, policy ";
        case Kind::ResourceAttribute:
            return L"attribute, ";
        case Kind::ScopedPolicy:
            return L"central policy, ";
        case Kind::ProcessTrust:
            return L"trusted processes, ";
        case Kind::AccessFilter:
            return L"at most ";
        default:
            return entry.IsDenying() ? L"denied " : L"";
    }
}

void AppendWords(_TQwString& text, const SecACE& entry) {
    const bool isLabel = entry.GetKind() == Kind::Label;
    const auto* const known = std::ranges::find(FileRights, entry.Rights(), &RightsInWords::rights);
    if (isLabel || known == std::end(FileRights))
        AppendRights(text, entry.Rights(), isLabel);
    else
        text += known->words;
}

void AppendNameLine(_TQwString& text, const wchar_t* what, const SecID& id) {
    if (!id.IsNull()) text.AppendFormat(L"%s: %s\n", what, id.Name(nullptr, true).View());
}

void AppendLines(_TQwString& text, const wchar_t* what, const SecACL& list) {
    text.AppendFormat(L"%s:%s\n", what, list.IsEmpty() ? L" nobody" : L"");
    for (const SecACE& entry : list)
        text.AppendFormat(L"  %s\n", entry.Describe().View());
}

}  // namespace

TQString SecACE::Describe() const {
    if (IsOpaque(m_kind)) return TQString::Format(L"entry of kind %u", static_cast<unsigned>(m_kind));
    TQString text(m_id.Name(nullptr, true).View());
    text += L": ";
    text += EffectOf(*this);
    AppendWords(text, *this);
    for (const FlagInWords& flag : FlagWords)
        if (m_flags & flag.flag) text.AppendFormat(L", %s", flag.words);
    if (m_objectType || m_inheritedType) text += L", for one kind of objects";
    if (!m_data.IsEmpty()) text += L", under a condition";
    return text;
}

TQString SecDesc::Describe() const {
    TQString text;
    AppendNameLine(text, L"Owner", m_owner);
    AppendNameLine(text, L"Group", m_group);
    if (m_dacl)
        AppendLines(text, IsDACLProtected() ? L"Access, protected" : L"Access", *m_dacl);
    else
        text += HasDACL() ? L"Access: everybody, everything\n" : L"Access: not said\n";
    if (m_sacl && !m_sacl->IsEmpty()) AppendLines(text, L"System", *m_sacl);
    return text;
}

}  // namespace Quellan::Sarvek
