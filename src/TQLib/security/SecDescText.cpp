// The texts of descriptors, which the platform calls SDDL.
#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/security/SecDesc.h"
#include "TQLib/security/internal/ControlMarks.h"
#include "TQLib/security/internal/SecurityText.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <optional>
#include <span>

namespace Quellan::Sarvek {

using Corvel::_TQwString;
using Corvel::TQString;
using Corvel::TQSysException;

namespace {

using Kind = SecACE::Kind;

constexpr const wchar_t* ReadingText = L"SecDesc::FromText";
constexpr const wchar_t* WritingText = L"SecDesc::Text";
constexpr std::wstring_view NullList = L"NO_ACCESS_CONTROL";

template <class Value>
struct Named {
    std::wstring_view name;
    Value value;
};

// What follows the identifier of an entry.
enum class Tail : BYTE { Nothing, Condition, Attribute };

struct KindName {
    std::wstring_view name;
    Kind kind;
    Tail tail = Tail::Nothing;
};

// Of names with one beginning the longer one comes first.
constexpr KindName KindNames[] = {
    {L"AU", Kind::Audit},
    {L"AL", Kind::Alarm},
    {L"A", Kind::Allow},
    {L"D", Kind::Deny},
    {L"OA", Kind::AllowObject},
    {L"OD", Kind::DenyObject},
    {L"OU", Kind::AuditObject},
    {L"OL", Kind::AlarmObject},
    {L"XA", Kind::AllowCallback, Tail::Condition},
    {L"XD", Kind::DenyCallback, Tail::Condition},
    {L"XU", Kind::AuditCallback, Tail::Condition},
    {L"ZA", Kind::AllowCallbackObject, Tail::Condition},
    {L"ML", Kind::Label},
    {L"RA", Kind::ResourceAttribute, Tail::Attribute},
    {L"SP", Kind::ScopedPolicy},
    {L"TL", Kind::ProcessTrust},
    {L"FL", Kind::AccessFilter, Tail::Condition},
};

constexpr Named<BYTE> FlagNames[] = {
    {L"OI", OBJECT_INHERIT_ACE},     {L"CI", CONTAINER_INHERIT_ACE}, {L"NP", NO_PROPAGATE_INHERIT_ACE},
    {L"IO", INHERIT_ONLY_ACE},       {L"ID", INHERITED_ACE},         {L"SA", SUCCESSFUL_ACCESS_ACE_FLAG},
    {L"FA", FAILED_ACCESS_ACE_FLAG},
};

constexpr Named<DWORD> LabelRights[] = {{L"NW", 1}, {L"NR", 2}, {L"NX", 4}};

// By their bits, from the lowest one.
constexpr Named<DWORD> SingleRights[] = {
    {L"CC", 0x1},        {L"DC", 0x2},        {L"LC", 0x4},     {L"SW", 0x8},        {L"RP", 0x10},
    {L"WP", 0x20},       {L"DT", 0x40},       {L"LO", 0x80},    {L"CR", 0x100},      {L"SD", 0x10000},
    {L"RC", 0x20000},    {L"WD", 0x40000},    {L"WO", 0x80000}, {L"GA", 0x10000000}, {L"GX", 0x20000000},
    {L"GW", 0x40000000}, {L"GR", 0x80000000},
};

// Those of files and keys; a value that has two names is written with the first one.
constexpr Named<DWORD> CombinedRights[] = {
    {L"FA", 0x1F01FF}, {L"FR", 0x120089}, {L"FW", 0x120116}, {L"FX", 0x1200A0},
    {L"KA", 0xF003F},  {L"KR", 0x20019},  {L"KW", 0x20006},  {L"KX", 0x20019},
};

struct ListMark {
    std::wstring_view name;
    WORD ofDacl;
    WORD ofSacl;
};

// In the order in which they are written.
constexpr ListMark ListMarks[] = {
    {L"P", SE_DACL_PROTECTED, SE_SACL_PROTECTED},
    {L"AR", DaclAsked, SaclAsked},
    {L"AI", DaclInherited, SaclInherited},
};

// Takes one of the names, if one comes next.
template <class Names>
auto TakeName(TextReader& reader, const Names& names) {
    const auto* const end = std::end(names);
    const auto* const found =
        std::find_if(std::begin(names), end, [&](const auto& known) { return reader.Take(known.name); });
    return found == end ? nullptr : found;
}

DWORD TakeRights(TextReader& reader, bool isLabel) {
    constexpr DWORD All = std::numeric_limits<DWORD>::max();
    constexpr const wchar_t* NoRight = L"no right";
    if (DigitOf(reader.Peek()) < 10) {
        const unsigned base = reader.Take(L"0x") ? 16 : reader.Peek() == L'0' ? 8 : 10;
        return static_cast<DWORD>(reader.TakeNumber(base, All, ERROR_INVALID_ACL, NoRight));
    }
    DWORD rights = 0;
    while (reader.Peek() != L';') {
        const Named<DWORD>* known = isLabel ? TakeName(reader, LabelRights) : nullptr;
        if (!known) known = TakeName(reader, SingleRights);
        if (!known) known = TakeName(reader, CombinedRights);
        if (!known) reader.Refuse(ERROR_INVALID_ACL, NoRight);
        rights |= known->value;
    }
    return rights;
}

// In the text the first three groups are numbers, whose bytes lie in the opposite order.
constexpr std::size_t TypeBytes[] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
constexpr bool HasDashBefore(std::size_t byte) {
    return byte == 4 || byte == 6 || byte == 8 || byte == 10;
}

std::optional<SecObjectType> TakeObjectType(TextReader& reader) {
    constexpr const wchar_t* NoType = L"no GUID";
    if (reader.Peek() == L';') return {};
    SecObjectType type{};
    for (std::size_t i = 0; i < type.size(); ++i) {
        if (HasDashBefore(i)) reader.Need(L'-', ERROR_INVALID_ACL, NoType);
        const unsigned high = DigitOf(reader.Peek());
        const unsigned low = DigitOf(reader.Peek(1));
        if (high == 16 || low == 16) reader.Refuse(ERROR_INVALID_ACL, NoType);
        type[TypeBytes[i]] = static_cast<BYTE>(high << 4 | low);
        reader.Skip(2);
    }
    return type;
}

// Behind its opening parenthesis.
SecACE TakeEntry(TextReader& reader) {
    const auto next = [&] { reader.Need(L';', ERROR_INVALID_ACL, L"no semicolon"); };
    const std::size_t begin = reader.Offset();
    const KindName* const name = TakeName(reader, KindNames);
    if (!name) reader.Refuse(ERROR_INVALID_ACL, L"no kind of an entry");
    if (name->tail == Tail::Attribute)
        reader.RefuseAt(ERROR_NOT_SUPPORTED, L"an attribute, which has no text here,", begin);
    next();
    BYTE flags = 0;
    while (reader.Peek() != L';') {
        const Named<BYTE>* const flag = TakeName(reader, FlagNames);
        if (!flag) reader.Refuse(ERROR_INVALID_ACL, L"no flag");
        flags |= flag->value;
    }
    next();
    const DWORD rights = TakeRights(reader, name->kind == Kind::Label);
    next();
    const std::size_t typeAt = reader.Offset();
    const auto type = TakeObjectType(reader);
    next();
    const auto inheritedType = TakeObjectType(reader);
    next();
    const bool hasTypes = type || inheritedType;
    if (hasTypes && !SecACE::HasObjectTypes(name->kind))
        reader.RefuseAt(ERROR_INVALID_ACL, L"a GUID in an entry that can have none", typeAt);
    SecACE entry(hasTypes ? name->kind : KindWithoutTypes(name->kind), TakeIdentifier(reader), rights, flags);
    if (hasTypes) entry = entry.ForObjects(type, inheritedType);
    if (name->tail == Tail::Condition) {
        next();
        const Corvel::BYTEBuf condition = TakeCondition(reader);
        entry = entry.WithData(condition.Data(), condition.Size());
    }
    reader.Need(L')', ERROR_INVALID_ACL, L"no end of an entry");
    return entry;
}

struct ListText {
    std::optional<SecACL> list;  // none for the null list
    WORD marks = 0;
};

ListText TakeList(TextReader& reader, WORD ListMark::*marks) {
    ListText result;
    for (const ListMark* mark; (mark = TakeName(reader, ListMarks));)
        result.marks = static_cast<WORD>(result.marks | mark->*marks);
    if (reader.Take(NullList)) return result;
    result.list.emplace();
    std::size_t size = sizeof(ACL);
    for (std::size_t at = reader.Offset(); reader.Take(L'('); at = reader.Offset()) {
        SecACE entry = TakeEntry(reader);
        size += entry.Size();
        if (size > std::numeric_limits<WORD>::max())
            reader.RefuseAt(ERROR_ALLOTTED_SPACE_EXCEEDED, L"an entry more than a list can hold", at);
        result.list->Add(std::move(entry));
    }
    return result;
}

Bytes IdentifierOf(const SecID& id) noexcept {
    return {static_cast<const BYTE*>(id.Address()), id.Length()};
}

void AppendObjectType(_TQwString& text, const std::optional<SecObjectType>& type) {
    for (std::size_t i = 0; type && i < type->size(); ++i) {
        if (HasDashBefore(i)) text += L'-';
        text.AppendFormat(L"%02x", (*type)[TypeBytes[i]]);
    }
}

void AppendEntry(_TQwString& text, const SecACE& entry) {
    const auto unknown = [] { return TQSysException(ERROR_NOT_SUPPORTED, WritingText); };
    const auto* const name = std::ranges::find(KindNames, entry.GetKind(), &KindName::kind);
    if (name == std::end(KindNames) || name->tail == Tail::Attribute) throw unknown();
    if (entry.SID().IsNull()) Corvel::TQStdExceptions::ThrowParameterInvalidError(WritingText);
    if (entry.Data().IsEmpty() != (name->tail == Tail::Nothing)) throw unknown();
    text += L'(';
    text += name->name;
    text += L';';
    unsigned left = entry.Flags();
    for (const Named<BYTE>& flag : FlagNames)
        if (left & flag.value) {
            text += flag.name;
            left &= ~unsigned{flag.value};
        }
    if (left != 0) throw unknown();
    text += L';';
    AppendRights(text, entry.Rights(), entry.GetKind() == Kind::Label);
    text += L';';
    AppendObjectType(text, entry.ObjectType());
    text += L';';
    AppendObjectType(text, entry.InheritedObjectType());
    text += L';';
    AppendIdentifier(text, IdentifierOf(entry.SID()));
    if (name->tail == Tail::Condition) {
        text += L';';
        AppendCondition(text, {entry.Data().Data(), entry.Data().Size()});
    }
    text += L')';
}

void AppendListText(_TQwString& text, const SecACL* list, WORD control, WORD ListMark::*marks) {
    for (const ListMark& mark : ListMarks)
        if (control & mark.*marks) text += mark.name;
    if (!list) text += NullList;
    for (std::size_t i = 0; list && i < list->Count(); ++i)
        AppendEntry(text, (*list)[i]);
}

}  // namespace

void AppendRights(_TQwString& text, DWORD rights, bool isLabel) {
    if (!isLabel) {
        const auto* const whole = std::ranges::find(CombinedRights, rights, &Named<DWORD>::value);
        if (whole != std::end(CombinedRights)) {
            text += whole->name;
            return;
        }
    }
    const std::span<const Named<DWORD>> names =
        isLabel ? std::span<const Named<DWORD>>(LabelRights) : std::span<const Named<DWORD>>(SingleRights);
    DWORD known = 0;
    for (const Named<DWORD>& right : names)
        known |= right.value;
    if (rights & ~known) {
        text.AppendFormat(L"0x%x", rights);
        return;
    }
    for (const Named<DWORD>& right : names)
        if (rights & right.value) text += right.name;
}

SecDesc SecDesc::FromText(Corvel::_TQTextT<wchar_t> text) {
    constexpr DWORD Code = ERROR_INVALID_SECURITY_DESCR;
    TextReader reader(text.View(), ReadingText);
    SecDesc descriptor;
    while (!reader.IsAtEnd()) {
        const std::size_t at = reader.Offset();
        const wchar_t part = reader.Peek();
        if (reader.Peek(1) != L':') reader.Refuse(Code, L"no part of a descriptor");
        reader.Skip(2);
        const auto once = [&](bool isKnown) {
            if (isKnown) reader.RefuseAt(Code, L"a part for the second time", at);
        };
        switch (part) {
            case L'O':
                once(!descriptor.m_owner.IsNull());
                descriptor.m_owner = TakeIdentifier(reader);
                break;
            case L'G':
                once(!descriptor.m_group.IsNull());
                descriptor.m_group = TakeIdentifier(reader);
                break;
            case L'D': {
                once(descriptor.HasDACL());
                ListText list = TakeList(reader, &ListMark::ofDacl);
                descriptor.m_dacl = std::move(list.list);
                descriptor.Mark(static_cast<WORD>(list.marks | SE_DACL_PRESENT), true);
                break;
            }
            case L'S': {
                once(descriptor.m_control & SE_SACL_PRESENT);
                ListText list = TakeList(reader, &ListMark::ofSacl);
                descriptor.m_sacl = std::move(list.list);
                descriptor.Mark(static_cast<WORD>(list.marks | SE_SACL_PRESENT), true);
                break;
            }
            default:
                reader.RefuseAt(Code, L"no part of a descriptor", at);
        }
    }
    return descriptor;
}

TQString SecDesc::Text() const {
    TQString text;
    if (!m_owner.IsNull()) AppendIdentifier(text += L"O:", IdentifierOf(m_owner));
    if (!m_group.IsNull()) AppendIdentifier(text += L"G:", IdentifierOf(m_group));
    if (HasDACL()) AppendListText(text += L"D:", DACL(), m_control, &ListMark::ofDacl);
    if (m_control & SE_SACL_PRESENT) AppendListText(text += L"S:", SACL(), m_control, &ListMark::ofSacl);
    return text;
}

}  // namespace Quellan::Sarvek
