// Attributes of resources, users and devices (claims) as their published bytes.
#pragma once

#include "TQLib/platform/SecurityBlocks.h"

#include <optional>

namespace Quellan::Platform {

struct AttributeValue {
    enum class Kind : BYTE { Signed, Unsigned, Text, Octets, Identifier };

    Kind kind{};
    ULONGLONG number = 0;
    ByteView bytes;  // of what is no number; those of a text are UTF-16
    bool isCaseSensitive = false;
};

// One attribute, in a block whose offsets count from its beginning and whose texts end with a zero. The bytes
// must outlive it; nothing is read behind them.
class AttributeBlock {
  public:
    static constexpr std::size_t HeadSize =
        16;  // name, type, nothing, flags, count; the values' places follow

    enum Type : WORD {
        SignedType = 1,
        UnsignedType = 2,
        TextType = 3,
        IdentifierType = 5,
        BooleanType = 6,
        OctetsType = 0x10
    };

    // Nothing where `bytes` are none.
    static std::optional<AttributeBlock> At(ByteView bytes) noexcept;

    [[nodiscard]] WORD GetType() const noexcept { return NumberAt<WORD>(&m_bytes[4]); }
    [[nodiscard]] DWORD Flags() const noexcept { return NumberAt<DWORD>(&m_bytes[8]); }
    [[nodiscard]] DWORD Count() const noexcept { return NumberAt<DWORD>(&m_bytes[12]); }
    // UTF-16; empty where there is no name.
    [[nodiscard]] ByteView Name() const noexcept { return TextAt(NumberAt<DWORD>(m_bytes.data())); }
    // Whether it is enabled, has a value, and is not for denying only unless something is denied.
    [[nodiscard]] bool CountsFor(bool denying) const noexcept;
    // `index` is below the count. Nothing for a damaged value, and for a type that conditions do not know.
    [[nodiscard]] std::optional<AttributeValue> ValueAt(DWORD index) const noexcept;

  private:
    explicit AttributeBlock(ByteView bytes) noexcept : m_bytes(bytes) {}

    [[nodiscard]] ByteView From(DWORD offset) const noexcept;
    [[nodiscard]] std::size_t TextSizeAt(DWORD offset) const noexcept;
    [[nodiscard]] bool IsTextAt(DWORD offset) const noexcept;
    [[nodiscard]] ByteView TextAt(DWORD offset) const noexcept;
    [[nodiscard]] std::optional<AttributeValue> Number(AttributeValue::Kind kind,
                                                       DWORD offset) const noexcept;
    [[nodiscard]] std::optional<AttributeValue> Octets(AttributeValue::Kind kind,
                                                       DWORD offset) const noexcept;

    ByteView m_bytes;
};

}  // namespace Quellan::Platform
