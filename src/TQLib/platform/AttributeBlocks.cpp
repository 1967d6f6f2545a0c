#include "TQLib/platform/AttributeBlocks.h"

namespace Quellan::Platform {

namespace {

using Kind = AttributeValue::Kind;

constexpr DWORD CaseSensitiveFlag = 2;
constexpr DWORD DenyingOnlyFlag = 4;
constexpr DWORD DisabledFlag = 0x10;

}  // namespace

std::optional<AttributeBlock> AttributeBlock::At(ByteView bytes) noexcept {
    if (bytes.size() < HeadSize) return {};
    const AttributeBlock attribute(bytes);
    if ((bytes.size() - HeadSize) / sizeof(DWORD) < attribute.Count()) return {};
    return attribute;
}

bool AttributeBlock::CountsFor(bool denying) const noexcept {
    return !(Flags() & DisabledFlag) && (denying || !(Flags() & DenyingOnlyFlag)) && Count() > 0;
}

std::optional<AttributeValue> AttributeBlock::ValueAt(DWORD index) const noexcept {
    const auto offset = NumberAt<DWORD>(&m_bytes[HeadSize + index * sizeof(DWORD)]);
    switch (GetType()) {
        case SignedType:
            return Number(Kind::Signed, offset);
        case UnsignedType:
        case BooleanType:
            return Number(Kind::Unsigned, offset);
        case TextType:
            if (!IsTextAt(offset)) return {};
            return AttributeValue{Kind::Text, 0, TextAt(offset), (Flags() & CaseSensitiveFlag) != 0};
        case IdentifierType:
            return Octets(Kind::Identifier, offset);
        case OctetsType:
            return Octets(Kind::Octets, offset);
        default:
            return {};
    }
}

ByteView AttributeBlock::From(DWORD offset) const noexcept {
    return offset < m_bytes.size() ? m_bytes.subspan(offset) : ByteView();
}

// Of the text at that offset, up to its zero; more than there is where it has none.
std::size_t AttributeBlock::TextSizeAt(DWORD offset) const noexcept {
    const ByteView bytes = From(offset);
    std::size_t size = 0;
    while (size + 1 < bytes.size() && NumberAt<WORD>(&bytes[size]) != 0)
        size += sizeof(WORD);
    return size + 1 < bytes.size() ? size : bytes.size() + 1;
}

bool AttributeBlock::IsTextAt(DWORD offset) const noexcept {
    return TextSizeAt(offset) <= From(offset).size();
}

ByteView AttributeBlock::TextAt(DWORD offset) const noexcept {
    const std::size_t size = TextSizeAt(offset);
    const ByteView bytes = From(offset);
    return size <= bytes.size() ? bytes.first(size) : ByteView();
}

std::optional<AttributeValue> AttributeBlock::Number(Kind kind, DWORD offset) const noexcept {
    const ByteView bytes = From(offset);
    if (bytes.size() < sizeof(ULONGLONG)) return {};
    return AttributeValue{kind, NumberAt<ULONGLONG>(bytes.data()), {}};
}

std::optional<AttributeValue> AttributeBlock::Octets(Kind kind, DWORD offset) const noexcept {
    const ByteView bytes = From(offset);
    if (bytes.size() < sizeof(DWORD)) return {};
    const auto length = NumberAt<DWORD>(bytes.data());
    if (length > bytes.size() - sizeof(DWORD)) return {};
    return AttributeValue{kind, 0, bytes.subspan(sizeof(DWORD), length)};
}

}  // namespace Quellan::Platform
