#include "TQLib/platform/AccessConditions.h"

#include "TQLib/platform/UnicodeData.h"

#include <algorithm>
#include <array>
#include <compare>
#include <optional>
#include <utility>

namespace Quellan::Platform {

namespace {

enum class ValueKind : BYTE { Signed, Unsigned, Text, Octets, Identifier };

struct Value {
    ValueKind kind{};
    ULONGLONG number = 0;
    ByteView bytes;  // of what is no number
    bool isCaseSensitive = false;
};

// The published form of an attribute: offsets count from its beginning, texts end with a zero.
class Attribute {
  public:
    // Nothing where `bytes` are none.
    static std::optional<Attribute> At(ByteView bytes) noexcept {
        if (bytes.size() < HeadSize) return {};
        const Attribute attribute(bytes);
        if ((bytes.size() - HeadSize) / sizeof(DWORD) < attribute.Count()) return {};
        return attribute;
    }

    [[nodiscard]] DWORD Count() const noexcept { return NumberAt<DWORD>(&m_bytes[12]); }
    // Units of UTF-16; empty where there is no name.
    [[nodiscard]] ByteView Name() const noexcept { return TextAt(NumberAt<DWORD>(m_bytes.data())); }
    [[nodiscard]] bool CountsFor(bool denying) const noexcept {
        return !(Flags() & Disabled) && (denying || !(Flags() & ForDenyingOnly)) && Count() > 0;
    }
    // Nothing for a damaged one, and for a kind that conditions do not know.
    [[nodiscard]] std::optional<Value> ValueAt(DWORD index) const noexcept {
        const auto offset = NumberAt<DWORD>(&m_bytes[HeadSize + index * sizeof(DWORD)]);
        switch (NumberAt<WORD>(&m_bytes[4])) {
            case SignedType:
                return Number(ValueKind::Signed, offset);
            case UnsignedType:
            case BooleanType:
                return Number(ValueKind::Unsigned, offset);
            case TextType:
                if (!IsTextAt(offset)) return {};
                return Value{ValueKind::Text, 0, TextAt(offset), (Flags() & CaseSensitive) != 0};
            case IdentifierType:
                return Octets(ValueKind::Identifier, offset);
            case OctetsType:
                return Octets(ValueKind::Octets, offset);
            default:
                return {};
        }
    }

  private:
    static constexpr std::size_t HeadSize = 16;  // name, type, nothing, flags, count
    static constexpr WORD SignedType = 1;
    static constexpr WORD UnsignedType = 2;
    static constexpr WORD TextType = 3;
    static constexpr WORD IdentifierType = 5;
    static constexpr WORD BooleanType = 6;
    static constexpr WORD OctetsType = 0x10;
    static constexpr DWORD CaseSensitive = 2;
    static constexpr DWORD ForDenyingOnly = 4;
    static constexpr DWORD Disabled = 0x10;

    explicit Attribute(ByteView bytes) noexcept : m_bytes(bytes) {}

    [[nodiscard]] DWORD Flags() const noexcept { return NumberAt<DWORD>(&m_bytes[8]); }

    [[nodiscard]] ByteView From(DWORD offset) const noexcept {
        return offset < m_bytes.size() ? m_bytes.subspan(offset) : ByteView();
    }
    // Of the text at that offset, up to its zero; more than there is where it has none.
    [[nodiscard]] std::size_t TextSizeAt(DWORD offset) const noexcept {
        const ByteView bytes = From(offset);
        std::size_t size = 0;
        while (size + 1 < bytes.size() && NumberAt<WORD>(&bytes[size]) != 0)
            size += sizeof(WORD);
        return size + 1 < bytes.size() ? size : bytes.size() + 1;
    }
    [[nodiscard]] bool IsTextAt(DWORD offset) const noexcept {
        return TextSizeAt(offset) <= From(offset).size();
    }
    [[nodiscard]] ByteView TextAt(DWORD offset) const noexcept {
        return IsTextAt(offset) ? From(offset).first(TextSizeAt(offset)) : ByteView();
    }
    [[nodiscard]] std::optional<Value> Number(ValueKind kind, DWORD offset) const noexcept {
        const ByteView bytes = From(offset);
        if (bytes.size() < sizeof(ULONGLONG)) return {};
        return Value{kind, NumberAt<ULONGLONG>(bytes.data()), {}};
    }
    [[nodiscard]] std::optional<Value> Octets(ValueKind kind, DWORD offset) const noexcept {
        const ByteView bytes = From(offset);
        if (bytes.size() < sizeof(DWORD)) return {};
        const auto length = NumberAt<DWORD>(bytes.data());
        if (length > bytes.size() - sizeof(DWORD)) return {};
        return Value{kind, 0, bytes.subspan(sizeof(DWORD), length)};
    }

    ByteView m_bytes;
};

char32_t TakeCharacter(ByteView& text) noexcept {
    const auto first = NumberAt<char16_t>(text.data());
    text = text.subspan(sizeof first);
    if ((first & 0xFC00) != 0xD800 || text.size() < sizeof first) return first;
    const auto second = NumberAt<char16_t>(text.data());
    if ((second & 0xFC00) != 0xDC00) return first;
    text = text.subspan(sizeof second);
    return 0x10000 + ((first & 0x3FFu) << 10) + (second & 0x3FFu);
}

// By characters, in upper case unless `isCaseSensitive`.
std::strong_ordering CompareTexts(ByteView left, ByteView right, bool isCaseSensitive) noexcept {
    while (!left.empty() && !right.empty()) {
        char32_t one = TakeCharacter(left);
        char32_t other = TakeCharacter(right);
        if (!isCaseSensitive) {
            one = SimpleUpper(one);
            other = SimpleUpper(other);
        }
        if (one != other) return one <=> other;
    }
    return left.size() <=> right.size();
}

bool IsNegative(const Value& value) noexcept {
    return value.kind == ValueKind::Signed && value.number >> 63;
}

bool IsNumber(const Value& value) noexcept {
    return value.kind == ValueKind::Signed || value.kind == ValueKind::Unsigned;
}

// Unordered where the values are of different kinds, and for bytes that are not the same.
std::partial_ordering Compare(const Value& left, const Value& right) noexcept {
    if (IsNumber(left) && IsNumber(right)) {
        if (IsNegative(left) != IsNegative(right))
            return IsNegative(left) ? std::partial_ordering::less : std::partial_ordering::greater;
        return left.number <=> right.number;  // also in order where both are negative
    }
    if (left.kind != right.kind) return std::partial_ordering::unordered;
    if (left.kind == ValueKind::Text)
        return CompareTexts(left.bytes, right.bytes, left.isCaseSensitive || right.isCaseSensitive);
    return std::ranges::equal(left.bytes, right.bytes) ? std::partial_ordering::equivalent
                                                       : std::partial_ordering::unordered;
}

bool AreComparable(const Value& left, const Value& right) noexcept {
    return left.kind == right.kind || (IsNumber(left) && IsNumber(right));
}

bool IsLengthToken(BYTE token) noexcept {
    return token == Utf16Token || token == OctetsToken || token == CompositeToken ||
           token == IdentifierToken || (token >= LocalAttributeToken && token <= DeviceAttributeToken);
}

// What waits for an operator: a value, an attribute, or the answer of an operator.
struct Operand {
    BYTE token = PaddingToken;  // that of padding for an answer
    ByteView content;
    Truth answer = Truth::Unknown;
};

// The value or attribute at the beginning of `bytes`, which then begin behind it; nothing for what is neither.
std::optional<Operand> TakeOperand(ByteView& bytes) noexcept {
    constexpr std::size_t NumberSize = sizeof(ULONGLONG) + 2;  // with sign and base
    if (bytes.empty()) return {};
    const BYTE token = bytes[0];
    ByteView rest = bytes.subspan(1);
    std::size_t size = NumberSize;
    if (IsLengthToken(token)) {
        if (rest.size() < sizeof(DWORD)) return {};
        size = NumberAt<DWORD>(rest.data());
        rest = rest.subspan(sizeof(DWORD));
    } else if (token < Int8Token || token > Int64Token) {
        return {};
    }
    if (rest.size() < size) return {};
    bytes = rest.subspan(size);
    return Operand{token, rest.first(size)};
}

std::optional<Value> LiteralOf(const Operand& operand) noexcept {
    switch (operand.token) {
        case Utf16Token:
            if (operand.content.size() % sizeof(WORD) != 0) return {};
            return Value{ValueKind::Text, 0, operand.content};
        case OctetsToken:
            return Value{ValueKind::Octets, 0, operand.content};
        case IdentifierToken:
            if (ReadIdentifier(operand.content).size() != operand.content.size()) return {};
            return Value{ValueKind::Identifier, 0, operand.content};
        case CompositeToken:
            return {};
        default: {
            auto number = NumberAt<ULONGLONG>(operand.content.data());
            const bool isMagnitude = operand.content[sizeof number] == MinusSign && !(number >> 63);
            if (isMagnitude) number = 0 - number;
            return Value{ValueKind::Signed, number, {}};
        }
    }
}

// The values of one side of a comparison, one after the other.
class Values {
  public:
    explicit Values(const std::optional<Attribute>& attribute) noexcept
        : m_attribute(attribute), m_isKnown(attribute.has_value()) {}
    explicit Values(const Operand& literal) noexcept
        : m_literals(literal.content), m_literal(literal), m_isKnown(true) {}

    // Whether there is an attribute.
    [[nodiscard]] bool IsKnown() const noexcept { return m_isKnown; }
    // Whether there may be other than one.
    [[nodiscard]] bool IsSet() const noexcept {
        return m_attribute ? m_attribute->Count() != 1 : m_literal.token == CompositeToken;
    }
    // The next one; nothing at the end and for a damaged one.
    std::optional<Value> Next() noexcept {
        std::optional<Value> value;
        if (m_attribute) {
            if (m_next == m_attribute->Count()) return {};
            value = m_attribute->ValueAt(m_next++);
        } else if (m_literal.token == CompositeToken) {
            if (m_literals.empty()) return {};
            const auto operand = TakeOperand(m_literals);
            if (operand && operand->token < LocalAttributeToken) value = LiteralOf(*operand);
        } else {
            if (m_next++ != 0) return {};
            value = LiteralOf(m_literal);
        }
        m_isDamaged = !value;
        return value;
    }
    [[nodiscard]] bool IsDamaged() const noexcept { return m_isDamaged; }

  private:
    std::optional<Attribute> m_attribute;
    ByteView m_literals;
    Operand m_literal;
    DWORD m_next = 0;
    bool m_isKnown;
    bool m_isDamaged = false;
};

Truth TruthOf(bool value) noexcept {
    return value ? Truth::True : Truth::False;
}

Truth Inverse(Truth truth) noexcept {
    return truth == Truth::Unknown ? truth : TruthOf(truth == Truth::False);
}

// Whether `all` of `values`, or one of them, are among `known`. Unknown where some cannot be compared.
Truth AreAmong(Values values, const Values& known, bool all) noexcept {
    bool areAll = true;
    bool isAny = false;
    while (const auto value = values.Next()) {
        bool isFound = false;
        Values others = known;
        while (const auto other = others.Next()) {
            if (!AreComparable(*value, *other)) return Truth::Unknown;
            isFound = isFound || Compare(*value, *other) == 0;
        }
        if (others.IsDamaged()) return Truth::Unknown;
        areAll = areAll && isFound;
        isAny = isAny || isFound;
    }
    if (values.IsDamaged()) return Truth::Unknown;
    return TruthOf(all ? areAll : isAny);
}

Truth And(Truth left, Truth right) noexcept {
    if (left == Truth::False || right == Truth::False) return Truth::False;
    return left == Truth::True && right == Truth::True ? Truth::True : Truth::Unknown;
}

class Evaluation {
  public:
    explicit Evaluation(const ConditionScene& scene) noexcept : m_scene(scene) {}

    // Nothing for what is no condition.
    std::optional<Truth> Run(ByteView bytes) noexcept {
        while (!bytes.empty() && bytes[0] != PaddingToken)
            if (!Step(bytes)) return {};
        const auto last = Pop();
        if (!last || m_count != 0) return {};
        return AnswerOf(*last);
    }

  private:
    bool Push(const Operand& operand) noexcept {
        if (m_count == m_waiting.size()) return false;
        m_waiting[m_count++] = operand;
        return true;
    }
    bool PushAnswer(std::optional<Truth> answer) noexcept {
        return answer && Push({PaddingToken, {}, *answer});
    }
    std::optional<Operand> Pop() noexcept {
        if (m_count == 0) return {};
        return m_waiting[--m_count];
    }

    // Goes over the next token. False where there is none that makes sense.
    bool Step(ByteView& bytes) noexcept {
        const BYTE token = bytes[0];
        if (token < EqualToken || token >= LocalAttributeToken) {
            const auto operand = TakeOperand(bytes);
            return operand && Push(*operand);
        }
        bytes = bytes.subspan(1);
        const auto last = Pop();
        if (!last) return false;
        switch (token) {
            case NotToken: {
                const auto answer = AnswerOf(*last);
                return answer && PushAnswer(Inverse(*answer));
            }
            case ExistsToken:
            case NotExistsToken:
                if (!IsAttribute(*last)) return false;
                return PushAnswer(TruthOf(Find(*last).has_value() == (token == ExistsToken)));
            case MemberOfToken:
            case DeviceMemberOfToken:
            case MemberOfAnyToken:
            case DeviceMemberOfAnyToken:
            case NotMemberOfToken:
            case NotDeviceMemberOfToken:
            case NotMemberOfAnyToken:
            case NotDeviceMemberOfAnyToken:
                return PushAnswer(Membership(token, *last));
            default: {
                const auto first = Pop();
                return first && PushAnswer(WithTwo(token, *first, *last));
            }
        }
    }

    std::optional<Truth> WithTwo(BYTE token, const Operand& left, const Operand& right) const noexcept {
        if (token == AndToken || token == OrToken) {
            const auto one = AnswerOf(left);
            const auto other = AnswerOf(right);
            if (!one || !other) return {};
            return token == AndToken ? And(*one, *other) : Inverse(And(Inverse(*one), Inverse(*other)));
        }
        if (!IsAttribute(left) || right.token == PaddingToken) return {};
        const Values values(Find(left));
        const Values others = IsAttribute(right) ? Values(Find(right)) : Values(right);
        if (!values.IsKnown() || !others.IsKnown()) return Truth::Unknown;
        switch (token) {
            case EqualToken:
                return And(AreAmong(values, others, true), AreAmong(others, values, true));
            case ContainsToken:
                return AreAmong(others, values, true);
            case NotContainsToken:
                return Inverse(AreAmong(others, values, true));
            case AnyOfToken:
                return AreAmong(values, others, false);
            case NotAnyOfToken:
                return Inverse(AreAmong(values, others, false));
            case NotEqualToken:
            case LessToken:
            case LessOrEqualToken:
            case GreaterToken:
            case GreaterOrEqualToken:
                return Ordered(token, values, others);
            default:
                return {};
        }
    }

    // These are for one value on either side.
    static Truth Ordered(BYTE token, Values values, Values others) noexcept {
        if (values.IsSet() || others.IsSet()) return Truth::Unknown;
        const auto value = values.Next();
        const auto other = others.Next();
        if (!value || !other || !AreComparable(*value, *other)) return Truth::Unknown;
        const std::partial_ordering order = Compare(*value, *other);
        if (token == NotEqualToken) return TruthOf(order != 0);
        if (!IsNumber(*value) && value->kind != ValueKind::Text) return Truth::Unknown;
        switch (token) {
            case LessToken:
                return TruthOf(order < 0);
            case LessOrEqualToken:
                return TruthOf(order <= 0);
            case GreaterToken:
                return TruthOf(order > 0);
            default:
                return TruthOf(order >= 0);
        }
    }

    std::optional<Truth> Membership(BYTE token, const Operand& operand) const noexcept {
        if (operand.token != IdentifierToken && operand.token != CompositeToken) return {};
        const bool isDevice = token == DeviceMemberOfToken || token == DeviceMemberOfAnyToken ||
                              token == NotDeviceMemberOfToken || token == NotDeviceMemberOfAnyToken;
        const bool any = token == MemberOfAnyToken || token == DeviceMemberOfAnyToken ||
                         token == NotMemberOfAnyToken || token == NotDeviceMemberOfAnyToken;
        bool isMember = !any;
        Values ids(operand);
        while (const auto id = ids.Next()) {
            if (id->kind != ValueKind::Identifier) return {};
            const bool has = Has(id->bytes.data(), isDevice);
            isMember = any ? isMember || has : isMember && has;
        }
        if (ids.IsDamaged()) return {};
        return TruthOf(isMember == (token < NotMemberOfToken));
    }

    [[nodiscard]] bool Has(const BYTE* sid, bool isDevice) const noexcept {
        if (isDevice) return HasIdentifier(m_scene.subject.deviceGroups, sid, m_scene.forDenying);
        return HasIdentifier(m_scene.subject, sid, m_scene.forDenying);
    }

    static bool IsAttribute(const Operand& operand) noexcept { return operand.token >= LocalAttributeToken; }

    // What an operand says as a condition of its own; nothing for a value, which is none.
    [[nodiscard]] std::optional<Truth> AnswerOf(const Operand& operand) const noexcept {
        if (operand.token == PaddingToken) return operand.answer;
        if (!IsAttribute(operand)) return {};
        const auto attribute = Find(operand);
        if (!attribute || attribute->Count() != 1) return Truth::Unknown;
        const auto value = attribute->ValueAt(0);
        if (value && IsNumber(*value)) return TruthOf(value->number != 0);
        if (value && value->kind == ValueKind::Text) return TruthOf(!value->bytes.empty());
        return Truth::Unknown;
    }

    // The attribute of that name, if there is one that counts.
    [[nodiscard]] std::optional<Attribute> Find(const Operand& operand) const noexcept {
        switch (operand.token) {
            case UserAttributeToken:
                return Find(operand.content, m_scene.subject.userAttributes);
            case DeviceAttributeToken:
                return Find(operand.content, m_scene.subject.deviceAttributes);
            case LocalAttributeToken:
                return Find(operand.content, m_scene.question.localAttributes);
            default: {
                EntryReader entries(m_scene.sacl);
                while (const auto entry = entries.Next())
                    if (entry->kind == AttributeEntry && !(entry->flags & InheritOnly)) {
                        const auto attribute = Named(operand.content, entry->data);
                        if (attribute) return attribute;
                    }
                return {};
            }
        }
    }
    [[nodiscard]] std::optional<Attribute> Find(ByteView name,
                                                std::span<const ByteView> attributes) const noexcept {
        for (const ByteView bytes : attributes) {
            const auto attribute = Named(name, bytes);
            if (attribute) return attribute;
        }
        return {};
    }
    [[nodiscard]] std::optional<Attribute> Named(ByteView name, ByteView bytes) const noexcept {
        const auto attribute = Attribute::At(bytes);
        if (name.empty() || name.size() % sizeof(WORD) != 0 || !attribute ||
            !attribute->CountsFor(m_scene.forDenying) || CompareTexts(name, attribute->Name(), false) != 0)
            return {};
        return attribute;
    }

    static constexpr BYTE InheritOnly = 8;

    const ConditionScene& m_scene;
    std::array<Operand, 256> m_waiting;
    std::size_t m_count = 0;
};

}  // namespace

Truth Evaluate(ByteView condition, const ConditionScene& scene) noexcept {
    constexpr std::size_t Head = sizeof ConditionSignature;
    if (condition.size() < Head || !std::ranges::equal(condition.first(Head), ConditionSignature))
        return Truth::Unknown;
    return Evaluation(scene).Run(condition.subspan(Head)).value_or(Truth::Unknown);
}

}  // namespace Quellan::Platform
