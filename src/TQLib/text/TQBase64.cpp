#include "TQLib/text/TQBase64.h"

#include "TQLib/platform/Base64Vector.h"
#include "TQLib/text/internal/BytesAsText.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <array>
#include <cstdint>

namespace Quellan::Corvel {

namespace {

constexpr BYTE NoValue = 0xFF;
constexpr char Padding = '=';

// An alphabet, and the values of its characters.
struct Alphabet {
    std::array<char, 64> letters{};
    std::array<BYTE, 256> values{};
};

constexpr Alphabet MakeAlphabet(std::string_view lastLetters) {
    Alphabet alphabet;
    alphabet.values.fill(NoValue);
    for (unsigned i = 0; i < 64; ++i) {
        const char letter = i < 26   ? static_cast<char>('A' + i)
                            : i < 52 ? static_cast<char>('a' + (i - 26))
                            : i < 62 ? static_cast<char>('0' + (i - 52))
                                     : lastLetters[i - 62];
        alphabet.letters[i] = letter;
        alphabet.values[static_cast<unsigned char>(letter)] = static_cast<BYTE>(i);
    }
    return alphabet;
}

constexpr Alphabet Standard = MakeAlphabet("+/");
constexpr Alphabet Url = MakeAlphabet("-_");

std::string Encoded(std::span<const BYTE> bytes, TQBase64Rules rules) {
    const Alphabet& alphabet = rules.isUrl ? Url : Standard;
    const std::size_t rest = bytes.size() % 3;
    std::string text(bytes.size() / 3 * 4 + (rest == 0 ? 0 : rules.isPadded ? 4 : rest + 1), Padding);
    const std::string_view view(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    const auto [read, written] = Platform::VectorToBase64(view, text.data(), rules.isUrl);
    char* out = text.data() + written;
    const auto put = [&](std::uint32_t bits, std::size_t count) {
        for (int shift = 18; count != 0; --count, shift -= 6)
            *out++ = alphabet.letters[bits >> shift & 0x3F];
    };
    const BYTE* at = bytes.data() + read;
    for (const BYTE* const end = bytes.data() + (bytes.size() - rest); at != end; at += 3)
        put(std::uint32_t{at[0]} << 16 | std::uint32_t{at[1]} << 8 | at[2], 4);
    if (rest != 0) put(std::uint32_t{at[0]} << 16 | (rest == 2 ? std::uint32_t{at[1]} << 8 : 0), rest + 1);
    return text;
}

// The characters before the padding, which is as the rules ask; else false and the place of what is not.
bool TakePadding(std::string_view& text, bool isPadded, std::size_t& place) noexcept {
    const std::size_t letters = std::min(text.find(Padding), text.size());
    const std::size_t missing = (4 - letters % 4) % 4;  // 3 where one letter is left, which is no byte
    const std::size_t padding = isPadded && missing != 3 ? missing : 0;
    for (place = letters; place < letters + padding; ++place)
        if (place == text.size() || text[place] != Padding) return false;
    if (place != text.size() || missing == 3) return false;
    text = text.substr(0, letters);
    return true;
}

bool DecodeText(std::string_view text, TQBase64Rules rules, BYTEBuf& bytes, std::size_t& place) {
    const Alphabet& alphabet = rules.isUrl ? Url : Standard;
    std::size_t end = 0;
    std::string_view letters = text;
    const bool isPaddingRight = TakePadding(letters, rules.isPadded, end);
    if (!isPaddingRight) letters = letters.substr(0, std::min(text.find(Padding), text.size()));
    bytes.Resize(letters.size() / 4 * 3 + letters.size() % 4 * 3 / 4);
    const Platform::VectorStep step =
        Platform::VectorFromBase64(letters, reinterpret_cast<char*>(bytes.Data()), rules.isUrl);
    BYTE* out = bytes.Data() + step.written;
    const BYTE* const outEnd = bytes.end();
    for (place = step.read; place < letters.size();) {
        const std::size_t count = std::min<std::size_t>(4, letters.size() - place);
        std::uint32_t bits = 0;
        for (std::size_t i = 0; i < count; ++i) {
            const BYTE value = alphabet.values[static_cast<unsigned char>(letters[place + i])];
            if (value == NoValue) {
                place += i;
                return false;
            }
            bits |= std::uint32_t{value} << (18 - 6 * i);
        }
        place += count;
        for (int shift = 16; shift >= 0 && out != outEnd; shift -= 8)
            *out++ = static_cast<BYTE>(bits >> shift);
        const std::uint32_t unused = count == 2 ? 0xFFFF : count == 3 ? 0xFF : 0;
        if (isPaddingRight && (bits & unused) != 0) {
            --place;
            return false;
        }
    }
    place = end;
    return isPaddingRight;
}

}  // namespace

TQString TQBase64::Encode(std::span<const BYTE> bytes, TQBase64Rules rules) {
    return Translated(L"TQBase64::Encode", [&] { return Widened(Encoded(bytes, rules)); });
}

std::string TQBase64::EncodeNarrow(std::span<const BYTE> bytes, TQBase64Rules rules) {
    return Translated(L"TQBase64::EncodeNarrow", [&] { return Encoded(bytes, rules); });
}

BYTEBuf TQBase64::Decode(std::string_view text, TQBase64Rules rules) {
    constexpr auto Where = L"TQBase64::Decode";
    return Translated(Where, [&] {
        return DecodedBytes(Where, text, rules.skipsSpace,
                            [rules](std::string_view read, BYTEBuf& bytes, std::size_t& place) {
                                return DecodeText(read, rules, bytes, place);
                            });
    });
}

BYTEBuf TQBase64::Decode(std::wstring_view text, TQBase64Rules rules) {
    return Translated(L"TQBase64::Decode", [&] { return Decode(Narrowed(text), rules); });
}

}  // namespace Quellan::Corvel
