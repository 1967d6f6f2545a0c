#include "TQLib/text/TQHex.h"

#include "TQLib/text/internal/BytesAsText.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <array>
#include <cstring>

namespace Quellan::Corvel {

namespace {

constexpr BYTE NoHexDigit = 0xFF;

// "00" to "FF".
using HexPairs = std::array<std::array<char, 2>, 256>;

constexpr HexPairs MakeHexPairs(std::string_view digits) {
    HexPairs pairs{};
    for (unsigned byte = 0; byte < 256; ++byte)
        pairs[byte] = {digits[byte >> 4], digits[byte & 0xF]};
    return pairs;
}

constexpr HexPairs LowerPairs = MakeHexPairs("0123456789abcdef");
constexpr HexPairs UpperPairs = MakeHexPairs("0123456789ABCDEF");

constexpr auto HexValues = [] {
    std::array<BYTE, 256> values{};
    values.fill(NoHexDigit);
    for (unsigned byte = 0; byte < 16; ++byte)
        for (const HexPairs* pairs : {&LowerPairs, &UpperPairs})
            values[static_cast<unsigned char>((*pairs)[byte][1])] = static_cast<BYTE>(byte);
    return values;
}();

std::string InHex(std::span<const BYTE> bytes, TQHex::Digits digits) {
    const HexPairs& pairs = digits == TQHex::Digits::Upper ? UpperPairs : LowerPairs;
    std::string text(bytes.size() * 2, '\0');
    char* out = text.data();
    for (const BYTE byte : bytes) {
        std::memcpy(out, pairs[byte].data(), 2);
        out += 2;
    }
    return text;
}

bool FromHex(std::string_view text, BYTEBuf& bytes, std::size_t& place) {
    bytes.Resize(text.size() / 2);
    const auto valueAt = [text](std::size_t i) { return HexValues[static_cast<unsigned char>(text[i])]; };
    BYTE* out = bytes.Data();
    for (place = 0; place + 1 < text.size(); place += 2) {
        const BYTE high = valueAt(place);
        const BYTE low = valueAt(place + 1);
        if (high == NoHexDigit || low == NoHexDigit) {
            place += high != NoHexDigit;
            return false;
        }
        *out++ = static_cast<BYTE>(high << 4 | low);
    }
    if (place == text.size()) return true;
    place += valueAt(place) != NoHexDigit;
    return false;
}

}  // namespace

TQString TQHex::Encode(std::span<const BYTE> bytes, Digits digits) {
    return Translated(L"TQHex::Encode", [&] { return Widened(InHex(bytes, digits)); });
}

std::string TQHex::EncodeNarrow(std::span<const BYTE> bytes, Digits digits) {
    return Translated(L"TQHex::EncodeNarrow", [&] { return InHex(bytes, digits); });
}

BYTEBuf TQHex::Decode(std::string_view text, Space space) {
    constexpr auto Where = L"TQHex::Decode";
    return Translated(Where, [&] { return DecodedBytes(Where, text, space == Space::Skipped, &FromHex); });
}

BYTEBuf TQHex::Decode(std::wstring_view text, Space space) {
    return Translated(L"TQHex::Decode", [&] { return Decode(Narrowed(text), space); });
}

}  // namespace Quellan::Corvel
