// Attributes of resources: as a text, and as the published bytes.
#include "TQLib/core/TQException.h"
#include "TQLib/platform/AttributeBlocks.h"
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
using Platform::AttributeBlock;
using Platform::AttributeValue;

namespace {

struct AttributeType {
    std::wstring_view name;
    WORD type;
};

constexpr AttributeType AttributeTypes[] = {
    {L"TI", AttributeBlock::SignedType},  {L"TU", AttributeBlock::UnsignedType},
    {L"TS", AttributeBlock::TextType},    {L"TD", AttributeBlock::IdentifierType},
    {L"TB", AttributeBlock::BooleanType}, {L"TX", AttributeBlock::OctetsType},
};

class AttributeReader {
  public:
    explicit AttributeReader(TextReader& reader) noexcept : m_reader(reader) {}

    BYTEBuf Read() {
        SkipBlanks();
        Need(L'(', L"no attribute");
        SkipBlanks();
        BYTEBuf name;
        TakeText(name, true);
        if (name.Size() == sizeof(WORD)) Refuse(L"an attribute without a name");
        TakeComma();
        const auto* const type = std::ranges::find_if(
            AttributeTypes, [&](const AttributeType& known) { return m_reader.Take(known.name); });
        if (type == std::end(AttributeTypes)) Refuse(L"no type of an attribute");
        TakeComma();
        const auto flags = static_cast<DWORD>(TakeNumber(std::numeric_limits<DWORD>::max()));
        BYTEBuf values;
        std::vector<DWORD> places;
        for (SkipBlanks(); m_reader.Peek() == L','; SkipBlanks()) {
            TakeComma();
            places.push_back(static_cast<DWORD>(values.Size()));
            TakeValue(values, type->type);
            Fill(values);
        }
        Need(L')', L"no end of an attribute");
        return Block(name, type->type, flags, places, values);
    }

  private:
    [[noreturn]] void Refuse(const wchar_t* what) const { m_reader.Refuse(ERROR_INVALID_ACL, what); }
    void Need(wchar_t c, const wchar_t* what) { m_reader.Need(c, ERROR_INVALID_ACL, what); }
    void SkipBlanks() noexcept {
        while (m_reader.Peek() == L' ')
            m_reader.Skip(1);
    }
    void TakeComma() {
        SkipBlanks();
        Need(L',', L"no comma");
        SkipBlanks();
    }

    template <class Number>
    static void Put(BYTEBuf& bytes, Number number) {
        bytes.Append(reinterpret_cast<const BYTE*>(&number), sizeof number);
    }
    static void Fill(BYTEBuf& bytes) { bytes.Resize((bytes.Size() + 3) / sizeof(DWORD) * sizeof(DWORD)); }

    ULONGLONG TakeNumber(ULONGLONG most) {
        const unsigned base = m_reader.Take(L"0x") ? 16 : 10;
        return m_reader.TakeNumber(base, most, ERROR_INVALID_ACL, L"no value");
    }

    // With the zero behind it.
    void TakeText(BYTEBuf& units, bool isName) {
        Need(L'"', L"no text");
        while (!m_reader.Take(L'"')) {
            if (m_reader.Peek() == L'\0') Refuse(L"no end of a text");
            if (isName && m_reader.Take(L'%'))
                TakeEncodedUnit(m_reader, units);
            else
                TakeUtf16(m_reader, units);
        }
        Put(units, WORD{0});
    }

    void TakeValue(BYTEBuf& values, WORD type) {
        switch (type) {
            case AttributeBlock::SignedType: {
                constexpr auto Most = static_cast<ULONGLONG>(std::numeric_limits<LONGLONG>::max());
                const bool isNegative = m_reader.Take(L'-');
                const ULONGLONG value = TakeNumber(isNegative ? Most + 1 : Most);
                Put(values, isNegative ? 0 - value : value);
                break;
            }
            case AttributeBlock::UnsignedType:
                Put(values, TakeNumber(std::numeric_limits<ULONGLONG>::max()));
                break;
            case AttributeBlock::BooleanType:
                Put(values, TakeNumber(1));
                break;
            case AttributeBlock::TextType:
                TakeText(values, false);
                break;
            case AttributeBlock::IdentifierType: {
                const SecID id = TakeIdentifier(m_reader);
                Put(values, id.Length());
                values.Append(static_cast<const BYTE*>(id.Address()), id.Length());
                break;
            }
            default:
                TakeOctets(values);
        }
    }

    void TakeOctets(BYTEBuf& values) {
        const std::size_t at = values.Size();
        Put(values, DWORD{0});
        Need(L'#', L"no octets");
        for (; DigitOf(m_reader.Peek()) < 16; m_reader.Skip(2)) {
            const unsigned low = DigitOf(m_reader.Peek(1));
            if (low == 16) Refuse(L"half an octet");
            values.Append(static_cast<BYTE>(DigitOf(m_reader.Peek()) << 4 | low));
        }
        const auto size = static_cast<DWORD>(values.Size() - at - sizeof(DWORD));
        std::memcpy(&values[at], &size, sizeof size);
    }

    // Behind the head stand the values' places, the name and the values, each filled up to a multiple of 4.
    static BYTEBuf Block(BYTEBuf name, WORD type, DWORD flags, const std::vector<DWORD>& places,
                         const BYTEBuf& values) {
        Fill(name);
        const auto nameAt = static_cast<DWORD>(AttributeBlock::HeadSize + places.size() * sizeof(DWORD));
        const auto valuesAt = static_cast<DWORD>(nameAt + name.Size());
        BYTEBuf block;
        Put(block, nameAt);
        Put(block, type);
        Put(block, WORD{0});
        Put(block, flags);
        Put(block, static_cast<DWORD>(places.size()));
        for (const DWORD place : places)
            Put(block, valuesAt + place);
        block.Append(name);
        block.Append(values);
        return block;
    }

    TextReader& m_reader;
};

[[noreturn]] void RefuseBlock() {
    throw TQSysException(ERROR_NOT_SUPPORTED, L"SecDesc::Text");
}

void AppendName(_TQwString& text, Bytes units) {
    if (units.empty()) RefuseBlock();
    text += L'"';
    for (std::size_t i = 0; i < units.size(); i += sizeof(WORD)) {
        const auto unit = Platform::NumberAt<WORD>(&units[i]);
        if (unit >= L' ' && unit < 0x7F && unit != L'"' && unit != L'%')
            text += static_cast<wchar_t>(unit);
        else
            text.AppendFormat(L"%%%04x", unit);
    }
    text += L'"';
}

void AppendValue(_TQwString& text, const AttributeValue& value) {
    switch (value.kind) {
        case AttributeValue::Kind::Signed:
            text.AppendFormat(L"%I64d", static_cast<LONGLONG>(value.number));
            break;
        case AttributeValue::Kind::Unsigned:
            text.AppendFormat(L"%I64u", value.number);
            break;
        case AttributeValue::Kind::Text:
            AppendQuoted(text, value.bytes);
            break;
        case AttributeValue::Kind::Identifier: {
            const Bytes id = Platform::ReadIdentifier(value.bytes);
            if (id.empty() || id.size() != value.bytes.size()) RefuseBlock();
            AppendIdentifier(text, id);
            break;
        }
        case AttributeValue::Kind::Octets:
            text += L'#';
            for (const BYTE octet : value.bytes)
                text.AppendFormat(L"%02x", octet);
    }
}

}  // namespace

BYTEBuf TakeAttribute(TextReader& reader) {
    return Corvel::Translated(L"SecDesc::FromText", [&] { return AttributeReader(reader).Read(); });
}

void AppendAttribute(_TQwString& text, Bytes data) {
    const auto attribute = AttributeBlock::At(data);
    if (!attribute) RefuseBlock();
    const auto* const type = std::ranges::find(AttributeTypes, attribute->GetType(), &AttributeType::type);
    if (type == std::end(AttributeTypes)) RefuseBlock();
    AppendName(text += L'(', attribute->Name());
    (text += L',') += type->name;
    text.AppendFormat(L",0x%x", attribute->Flags());
    // Values of which some share their bytes could fill any memory.
    std::size_t left = data.size();
    for (DWORD i = 0; i < attribute->Count(); ++i) {
        const auto value = attribute->ValueAt(i);
        if (!value || value->bytes.size() > left) RefuseBlock();
        if (type->type == AttributeBlock::BooleanType && value->number > 1) RefuseBlock();
        left -= value->bytes.size();
        AppendValue(text += L',', *value);
    }
    text += L')';
}

}  // namespace Quellan::Sarvek
