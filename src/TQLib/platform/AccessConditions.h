// Conditions of entries, as their published bytes: operators stand behind what they concern.
#pragma once

#include "TQLib/platform/AccessRules.h"

namespace Quellan::Platform {

constexpr BYTE ConditionSignature[] = {'a', 'r', 't', 'x'};

enum ConditionToken : BYTE {
    PaddingToken = 0,
    Int8Token = 1,
    Int64Token = 4,
    Utf16Token = 0x10,
    OctetsToken = 0x18,
    CompositeToken = 0x50,
    IdentifierToken = 0x51,
    EqualToken = 0x80,
    NotEqualToken = 0x81,
    LessToken = 0x82,
    LessOrEqualToken = 0x83,
    GreaterToken = 0x84,
    GreaterOrEqualToken = 0x85,
    ContainsToken = 0x86,
    ExistsToken = 0x87,
    AnyOfToken = 0x88,
    MemberOfToken = 0x89,
    DeviceMemberOfToken = 0x8A,
    MemberOfAnyToken = 0x8B,
    DeviceMemberOfAnyToken = 0x8C,
    NotExistsToken = 0x8D,
    NotContainsToken = 0x8E,
    NotAnyOfToken = 0x8F,
    NotMemberOfToken = 0x90,
    NotDeviceMemberOfToken = 0x91,
    NotMemberOfAnyToken = 0x92,
    NotDeviceMemberOfAnyToken = 0x93,
    AndToken = 0xA0,
    OrToken = 0xA1,
    NotToken = 0xA2,
    LocalAttributeToken = 0xF8,
    UserAttributeToken = 0xF9,
    ResourceAttributeToken = 0xFA,
    DeviceAttributeToken = 0xFB
};

constexpr BYTE MinusSign = 2;

enum class Truth : BYTE { False, True, Unknown };

// What a condition is asked about.
struct ConditionScene {
    const AccessSubject& subject;
    const AccessQuestion& question;
    ByteView sacl;            // whole and undamaged, or empty
    bool forDenying = false;  // then identifiers and attributes for denying only count too
};

// Of an entry's data. Unknown for what is no condition, and for one that keeps more than 256 operands waiting.
Truth Evaluate(ByteView condition, const ConditionScene& scene) noexcept;

}  // namespace Quellan::Platform
