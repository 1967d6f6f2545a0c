// Conditions of entries: as a text, and as the published bytes, in which operators follow what they concern.
#include "TQLib/core/TQException.h"
#include "TQLib/platform/AccessConditions.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/security/internal/SecurityText.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>
#include <vector>

namespace Quellan::Sarvek {

using Corvel::_TQwString;
using Corvel::BYTEBuf;
using Corvel::TQSysException;
using Platform::ConditionSignature;
using enum Platform::ConditionToken;

namespace {

// How deep parentheses and negations may be nested; a negation and the parenthesis behind it count as one.
constexpr unsigned MostNested = 64;
constexpr const wchar_t* TooDeep = L"a condition too deeply nested";

enum Sign : BYTE { Plus = 1, Minus = Platform::MinusSign, NoSign = 3 };
enum Base : BYTE { Octal = 1, Decimal = 2, Hexadecimal = 3 };

struct Operator {
    std::wstring_view name;
    BYTE token;
};

// Of names with one beginning the longer one comes first.
constexpr Operator Comparisons[] = {
    {L"==", EqualToken},
    {L"!=", NotEqualToken},
    {L"<=", LessOrEqualToken},
    {L"<", LessToken},
    {L">=", GreaterOrEqualToken},
    {L">", GreaterToken},
    {L"Contains", ContainsToken},
    {L"Any_of", AnyOfToken},
    {L"Not_Contains", NotContainsToken},
    {L"Not_Any_of", NotAnyOfToken},
};

constexpr Operator Memberships[] = {
    {L"Member_of_Any", MemberOfAnyToken},
    {L"Member_of", MemberOfToken},
    {L"Device_Member_of_Any", DeviceMemberOfAnyToken},
    {L"Device_Member_of", DeviceMemberOfToken},
    {L"Not_Member_of_Any", NotMemberOfAnyToken},
    {L"Not_Member_of", NotMemberOfToken},
    {L"Not_Device_Member_of_Any", NotDeviceMemberOfAnyToken},
    {L"Not_Device_Member_of", NotDeviceMemberOfToken},
};

constexpr Operator Existences[] = {{L"Exists", ExistsToken}, {L"Not_Exists", NotExistsToken}};

// Where an attribute is looked for.
constexpr Operator Sources[] = {{L"@User.", UserAttributeToken},
                                {L"@Resource.", ResourceAttributeToken},
                                {L"@Device.", DeviceAttributeToken},
                                {L"", LocalAttributeToken}};

template <class Table>
const Operator* ByToken(const Table& table, BYTE token) noexcept {
    const auto* const found = std::ranges::find(table, token, &Operator::token);
    return found == std::end(table) ? nullptr : found;
}

bool IsLetterOrDigit(wchar_t c) noexcept {
    return (c >= L'0' && c <= L'9') || (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z');
}

// Others are written as % and four hexadecimal digits.
bool IsOfName(wchar_t c) noexcept {
    return IsLetterOrDigit(c) || c == L':' || c == L'.' || c == L'/' || c == L'_';
}

class ConditionReader {
  public:
    explicit ConditionReader(TextReader& reader) noexcept : m_reader(reader) {}

    BYTEBuf Read() {
        m_bytes.Append(ConditionSignature, sizeof ConditionSignature);
        Group();
        return std::move(m_bytes);
    }

  private:
    [[noreturn]] void Refuse(const wchar_t* what) const { m_reader.Refuse(ERROR_INVALID_ACL, what); }
    void Need(wchar_t c, const wchar_t* what) { m_reader.Need(c, ERROR_INVALID_ACL, what); }
    void SkipBlanks() noexcept {
        while (m_reader.Peek() == L' ' || (m_reader.Peek() >= L'\t' && m_reader.Peek() <= L'\r'))
            m_reader.Skip(1);
    }
    void Put(BYTE token) { m_bytes.Append(token); }
    template <class Number>
    void PutNumber(Number number) {
        m_bytes.Append(reinterpret_cast<const BYTE*>(&number), sizeof number);
    }
    // The length that stands before what was put in since then.
    void PutLengthAt(std::size_t at) noexcept {
        const auto length = static_cast<DWORD>(m_bytes.Size() - at - sizeof(DWORD));
        std::memcpy(&m_bytes[at], &length, sizeof length);
    }
    // Puts the token, a length and what `content` puts.
    void PutWithLength(BYTE token, auto content) {
        Put(token);
        const std::size_t at = m_bytes.Size();
        PutNumber(DWORD{0});
        content();
        PutLengthAt(at);
    }
    template <class Table>
    const Operator* TakeOperator(const Table& table) {
        SkipBlanks();
        const auto* const found =
            std::ranges::find_if(table, [&](const Operator& known) { return m_reader.Take(known.name); });
        return found == std::end(table) ? nullptr : found;
    }

    void Group() {
        if (++m_nested > MostNested) Refuse(TooDeep);
        Need(L'(', L"no condition");
        Alternatives();
        SkipBlanks();
        Need(L')', L"no end of a condition");
        --m_nested;
    }

    void Alternatives() {
        Conjunction();
        for (SkipBlanks(); m_reader.Take(L"||"); SkipBlanks()) {
            Conjunction();
            Put(OrToken);
        }
    }

    void Conjunction() {
        Factor();
        for (SkipBlanks(); m_reader.Take(L"&&"); SkipBlanks()) {
            Factor();
            Put(AndToken);
        }
    }

    void Factor() {
        const unsigned outer = m_nested;
        SkipBlanks();
        for (; m_reader.Peek() == L'!'; SkipBlanks()) {
            if (++m_nested > MostNested) Refuse(TooDeep);
            m_reader.Skip(1);
        }
        const unsigned negations = m_nested - outer;
        if (m_reader.Peek() == L'(') {
            if (negations != 0) --m_nested;
            Group();
        } else {
            Term();
        }
        for (unsigned i = 0; i < negations; ++i)
            Put(NotToken);
        m_nested = outer;
    }

    void Term() {
        if (const Operator* const membership = TakeOperator(Memberships)) {
            SkipBlanks();
            if (m_reader.Peek() == L'{')
                Values([&] { IdentifierValue(); });
            else
                IdentifierValue();
            Put(membership->token);
        } else if (const Operator* const existence = TakeOperator(Existences)) {
            SkipBlanks();
            Attribute();
            Put(existence->token);
        } else {
            Attribute();
            if (const Operator* const comparison = TakeOperator(Comparisons)) {
                SkipBlanks();
                Operand();
                Put(comparison->token);
            }
        }
    }

    void Attribute() {
        const Operator* const source = TakeOperator(Sources);
        if (!IsOfName(m_reader.Peek()) && m_reader.Peek() != L'%') Refuse(L"no attribute");
        PutWithLength(source->token, [&] {
            for (;;) {
                if (IsOfName(m_reader.Peek())) {
                    TakeUtf16(m_reader, m_bytes);
                } else if (m_reader.Take(L'%')) {
                    TakeEncodedUnit(m_reader, m_bytes);
                } else {
                    break;
                }
            }
        });
    }

    // An attribute, a value or values in braces.
    void Operand() {
        const wchar_t next = m_reader.Peek();
        if (next == L'{')
            Values([&] { Value(); });
        else if (next == L'"' || next == L'#' || next == L'+' || next == L'-' ||
                 (next >= L'0' && next <= L'9') || m_reader.Rest().starts_with(L"SID("))
            Value();
        else
            Attribute();
    }

    void Values(auto value) {
        PutWithLength(CompositeToken, [&] {
            m_reader.Skip(1);
            do {
                SkipBlanks();
                value();
                SkipBlanks();
            } while (m_reader.Take(L','));
            Need(L'}', L"no end of values");
        });
    }

    void Value() {
        switch (m_reader.Peek()) {
            case L'"':
                TextValue();
                break;
            case L'#':
                OctetValue();
                break;
            case L'S':
                IdentifierValue();
                break;
            default:
                NumberValue();
        }
    }

    void TextValue() {
        m_reader.Skip(1);
        PutWithLength(Utf16Token, [&] {
            while (!m_reader.Take(L'"'))
                TakeUtf16(m_reader, m_bytes);
        });
    }

    void OctetValue() {
        m_reader.Skip(1);
        PutWithLength(OctetsToken, [&] {
            for (; DigitOf(m_reader.Peek()) < 16; m_reader.Skip(2)) {
                const unsigned low = DigitOf(m_reader.Peek(1));
                if (low == 16) Refuse(L"half an octet");
                Put(static_cast<BYTE>(DigitOf(m_reader.Peek()) << 4 | low));
            }
        });
    }

    void IdentifierValue() {
        if (!m_reader.Take(L"SID(")) Refuse(L"no identifier");
        PutWithLength(IdentifierToken, [&] {
            const SecID id = TakeIdentifier(m_reader);
            m_bytes.Append(static_cast<const BYTE*>(id.Address()), id.Length());
        });
        Need(L')', L"no end of an identifier");
    }

    void NumberValue() {
        constexpr auto Most = static_cast<ULONGLONG>(std::numeric_limits<LONGLONG>::max());
        const BYTE sign = m_reader.Take(L'-') ? Minus : m_reader.Take(L'+') ? Plus : NoSign;
        BYTE base = Decimal;
        unsigned radix = 10;
        if (m_reader.Take(L"0x")) {
            base = Hexadecimal;
            radix = 16;
        } else if (m_reader.Peek() == L'0' && DigitOf(m_reader.Peek(1)) < 10) {
            base = Octal;
            radix = 8;
        }
        ULONGLONG value =
            m_reader.TakeNumber(radix, sign == Minus ? Most + 1 : Most, ERROR_INVALID_ACL, L"no value");
        if (sign == Minus) value = 0 - value;
        Put(Int64Token);
        PutNumber(value);
        Put(sign);
        Put(base);
    }

    TextReader& m_reader;
    BYTEBuf m_bytes;
    unsigned m_nested = 0;
};

class ConditionWriter {
  public:
    ConditionWriter(_TQwString& text, Bytes data) noexcept : m_text(text), m_bytes(data) {}

    void Write() {
        if (m_bytes.size() < sizeof ConditionSignature ||
            !std::ranges::equal(m_bytes.first(sizeof ConditionSignature), ConditionSignature))
            Refuse();
        m_bytes = m_bytes.subspan(sizeof ConditionSignature);
        while (!m_bytes.empty() && m_bytes[0] != PaddingToken)
            Push(m_bytes);
        if (m_open.size() != 1) Refuse();
        WriteInParentheses(m_open[0], 0);
    }

  private:
    struct Node {
        BYTE token;
        Bytes content;  // of a value or an attribute
        std::size_t left;
        std::size_t right;  // of an operator with two sides
    };

    [[noreturn]] static void Refuse() { throw TQSysException(ERROR_NOT_SUPPORTED, L"SecDesc::Text"); }

    static Bytes Take(Bytes& bytes, std::size_t size) {
        if (bytes.size() < size) Refuse();
        const Bytes taken = bytes.first(size);
        bytes = bytes.subspan(size);
        return taken;
    }
    static Bytes TakeWithLength(Bytes& bytes) {
        DWORD length;
        std::memcpy(&length, Take(bytes, sizeof length).data(), sizeof length);
        return Take(bytes, length);
    }

    static bool IsAttribute(BYTE token) noexcept {
        return token >= LocalAttributeToken && token <= DeviceAttributeToken;
    }
    static bool IsValue(BYTE token) noexcept {
        return (token >= Int8Token && token <= Int64Token) || token == Utf16Token || token == OctetsToken ||
               token == IdentifierToken;
    }

    // A value or an attribute.
    static Node TakeLeaf(Bytes& bytes) {
        constexpr std::size_t NumberSize = sizeof(LONGLONG) + 2;
        const BYTE token = Take(bytes, 1)[0];
        if (token >= Int8Token && token <= Int64Token) return {token, Take(bytes, NumberSize), 0, 0};
        if (!IsValue(token) && !IsAttribute(token) && token != CompositeToken) Refuse();
        return {token, TakeWithLength(bytes), 0, 0};
    }

    std::size_t Pop() {
        if (m_open.empty()) Refuse();
        const std::size_t node = m_open.back();
        m_open.pop_back();
        return node;
    }

    // The next token, with what it concerns.
    void Push(Bytes& bytes) {
        const BYTE token = bytes[0];
        Node node{token, {}, 0, 0};
        if (token == AndToken || token == OrToken || ByToken(Comparisons, token)) {
            Take(bytes, 1);
            node.right = Pop();
            node.left = Pop();
        } else if (token == NotToken || ByToken(Memberships, token) || ByToken(Existences, token)) {
            Take(bytes, 1);
            node.left = Pop();
        } else {
            node = TakeLeaf(bytes);
        }
        m_open.push_back(m_nodes.size());
        m_nodes.push_back(node);
    }

    // `nested` parentheses stand around it.
    void WriteNode(std::size_t index, unsigned nested) {
        const Node& node = m_nodes[index];
        if (node.token == AndToken || node.token == OrToken) {
            WriteChain(index, nested);
        } else if (node.token == NotToken) {
            m_text += L'!';
            WriteInParentheses(node.left, nested);
        } else if (const Operator* const comparison = ByToken(Comparisons, node.token)) {
            WriteAttribute(m_nodes[node.left]);
            (m_text += L' ') += comparison->name;
            m_text += L' ';
            WriteOperand(m_nodes[node.right]);
        } else if (const Operator* const membership = ByToken(Memberships, node.token)) {
            (m_text += membership->name) += L' ';
            WriteIdentifiers(m_nodes[node.left]);
        } else if (const Operator* const existence = ByToken(Existences, node.token)) {
            (m_text += existence->name) += L' ';
            WriteAttribute(m_nodes[node.left]);
        } else {
            WriteAttribute(node);
        }
    }

    void WriteInParentheses(std::size_t index, unsigned nested) {
        if (nested == MostNested) Refuse();
        m_text += L'(';
        WriteNode(index, nested + 1);
        m_text += L')';
    }

    // Operators of one kind side by side lean to the left, as deep as they are many.
    void WriteChain(std::size_t index, unsigned nested) {
        const BYTE token = m_nodes[index].token;
        std::vector<std::size_t> sides;
        for (; m_nodes[index].token == token; index = m_nodes[index].left)
            sides.push_back(m_nodes[index].right);
        WriteSide(index, token, nested);
        for (auto side = sides.rbegin(); side != sides.rend(); ++side) {
            m_text += token == AndToken ? L" && " : L" || ";
            WriteSide(*side, token, nested);
        }
    }

    void WriteSide(std::size_t index, BYTE chain, unsigned nested) {
        const BYTE token = m_nodes[index].token;
        if (token == OrToken || token == chain)
            WriteInParentheses(index, nested);
        else
            WriteNode(index, nested);
    }

    void WriteAttribute(const Node& node) {
        const Operator* const source = ByToken(Sources, node.token);
        if (!source || node.content.empty() || node.content.size() % sizeof(WORD) != 0) Refuse();
        m_text += source->name;
        for (std::size_t i = 0; i < node.content.size(); i += sizeof(WORD)) {
            const auto unit = Platform::NumberAt<WORD>(&node.content[i]);
            if (IsOfName(static_cast<wchar_t>(unit)))
                m_text += static_cast<wchar_t>(unit);
            else
                m_text.AppendFormat(L"%%%04x", unit);
        }
    }

    void WriteOperand(const Node& node) {
        if (IsAttribute(node.token))
            WriteAttribute(node);
        else
            WriteValues(node, [this](const Node& value) { WriteValue(value); });
    }

    void WriteIdentifiers(const Node& node) {
        WriteValues(node, [this](const Node& value) {
            if (value.token != IdentifierToken) Refuse();
            WriteValue(value);
        });
    }

    void WriteValues(const Node& node, auto write) {
        if (node.token != CompositeToken) {
            write(node);
            return;
        }
        Bytes content = node.content;
        if (content.empty()) Refuse();
        wchar_t before = L'{';
        while (!content.empty()) {
            m_text += before;
            write(TakeLeaf(content));
            before = L',';
        }
        m_text += L'}';
    }

    void WriteValue(const Node& node) {
        if (node.token == Utf16Token) {
            AppendQuoted(m_text, node.content);
        } else if (node.token == OctetsToken) {
            m_text += L'#';
            for (const BYTE octet : node.content)
                m_text.AppendFormat(L"%02x", octet);
        } else if (node.token == IdentifierToken) {
            const Bytes id = ReadIdentifier(node.content);
            if (id.empty() || id.size() != node.content.size()) Refuse();
            m_text += L"SID(";
            AppendIdentifier(m_text, id);
            m_text += L')';
        } else if (node.token >= Int8Token && node.token <= Int64Token) {
            WriteNumber(node.content);
        } else {
            Refuse();
        }
    }

    void WriteNumber(Bytes content) {
        ULONGLONG value;
        std::memcpy(&value, content.data(), sizeof value);
        const BYTE sign = content[sizeof value];
        const bool isNegative = value >> 63;
        if (sign < Plus || sign > NoSign) Refuse();
        if (sign == Minus || isNegative) {
            m_text += L'-';
            if (isNegative) value = 0 - value;
        } else if (sign == Plus) {
            m_text += L'+';
        }
        switch (content[sizeof value + 1]) {
            case Octal:
                m_text.AppendFormat(L"0%I64o", value);
                break;
            case Hexadecimal:
                m_text.AppendFormat(L"0x%I64x", value);
                break;
            default:
                m_text.AppendFormat(L"%I64u", value);
        }
    }

    _TQwString& m_text;
    Bytes m_bytes;
    std::vector<Node> m_nodes;
    std::vector<std::size_t> m_open;  // not yet concerned by an operator
};

}  // namespace

void TakeUtf16(TextReader& reader, BYTEBuf& units) {
    const auto put = [&](DWORD unit) {
        const auto half = static_cast<WORD>(unit);
        units.Append(reinterpret_cast<const BYTE*>(&half), sizeof half);
    };
    if (reader.IsAtEnd()) reader.Refuse(ERROR_INVALID_ACL, L"no end of a text");
    const auto point = static_cast<DWORD>(reader.Peek());
    if constexpr (sizeof(wchar_t) > sizeof(char16_t)) {
        if (point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF))
            reader.Refuse(ERROR_INVALID_ACL, L"no character");
    }
    if (point > 0xFFFF) put(0xD800 + ((point - 0x10000) >> 10));
    put(point > 0xFFFF ? 0xDC00 + (point & 0x3FF) : point);
    reader.Skip(1);
}

void TakeEncodedUnit(TextReader& reader, BYTEBuf& units) {
    unsigned unit = 0;
    for (int i = 0; i < 4; ++i) {
        const unsigned digit = DigitOf(reader.Peek());
        if (digit == 16) reader.Refuse(ERROR_INVALID_ACL, L"no hexadecimal digit");
        unit = unit << 4 | digit;
        reader.Skip(1);
    }
    const auto half = static_cast<WORD>(unit);
    units.Append(reinterpret_cast<const BYTE*>(&half), sizeof half);
}

void AppendQuoted(_TQwString& text, Bytes units) {
    const auto refuse = [] { throw TQSysException(ERROR_NOT_SUPPORTED, L"SecDesc::Text"); };
    const auto unitAt = [&](std::size_t at) {
        return at < units.size() ? DWORD{Platform::NumberAt<WORD>(&units[at])} : DWORD{0};
    };
    if (units.size() % sizeof(WORD) != 0) refuse();
    text += L'"';
    for (std::size_t i = 0; i < units.size(); i += sizeof(WORD)) {
        DWORD unit = unitAt(i);
        if (unit == L'"') refuse();
        if constexpr (sizeof(wchar_t) > sizeof(char16_t)) {
            if (unit >= 0xD800 && unit <= 0xDFFF) {
                i += sizeof(WORD);
                const DWORD low = unitAt(i);
                if (unit >= 0xDC00 || low < 0xDC00 || low > 0xDFFF) refuse();
                unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
            }
        }
        text += static_cast<wchar_t>(unit);
    }
    text += L'"';
}

BYTEBuf TakeCondition(TextReader& reader) {
    return ConditionReader(reader).Read();
}

void AppendCondition(_TQwString& text, Bytes data) {
    Corvel::Translated(L"SecDesc::Text", [&] { ConditionWriter(text, data).Write(); });
}

}  // namespace Quellan::Sarvek
