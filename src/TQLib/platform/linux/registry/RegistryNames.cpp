#include "TQLib/platform/linux/registry/RegistryNames.h"

#include "TQLib/platform/linux/base/Case.h"
#include "TQLib/platform/linux/base/Sha256.h"
#include "TQLib/platform/linux/base/Wide.h"

#include <algorithm>

namespace Quellan::Platform {

namespace {

constexpr char Readable = '.';
constexpr char Hashed = '#';
constexpr std::size_t MostFileNameBytes = 255;
constexpr char LowerHexDigits[] = "0123456789abcdef";

std::string ToFolded(std::wstring_view name) {
    std::wstring upper(name);
    std::ranges::transform(upper, upper.begin(), ToUpper);
    return ToUtf8(upper);
}

void AppendReadable(std::string& text, std::string_view folded) {
    for (const char character : folded) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= ' ' && byte != 0x7F && byte != '/' && byte != '%')
            text += character;
        else
            text += {'%', LowerHexDigits[byte >> 4], LowerHexDigits[byte & 0xF]};
    }
}

void AppendHash(std::string& text, std::string_view folded) {
    for (const std::uint32_t word : Sha256(folded))
        for (int shift = 28; shift >= 0; shift -= 4)
            text += LowerHexDigits[word >> shift & 0xF];
}

}  // namespace

std::string RegistryFileName(RegistryEntry kind, std::wstring_view name) {
    const std::string folded = ToFolded(name);
    std::string text{static_cast<char>(kind), Readable};
    AppendReadable(text, folded);
    if (text.size() <= MostFileNameBytes) return text;
    text = {static_cast<char>(kind), Hashed};
    AppendHash(text, folded);
    return text;
}

bool IsRegistryEntry(RegistryEntry kind, std::string_view fileName) noexcept {
    return fileName.size() >= 2 && fileName[0] == static_cast<char>(kind) &&
           (fileName[1] == Readable || fileName[1] == Hashed);
}

}  // namespace Quellan::Platform
