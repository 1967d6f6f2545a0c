#include "TQLib/platform/linux/registry/RegistryValue.h"

#include "TQLib/platform/linux/base/Bytes.h"
#include "TQLib/platform/linux/base/Wide.h"
#include "TQLib/platform/linux/registry/Registry.h"
#include "TQLib/platform/linux/registry/RegistryNames.h"

#include <cstring>

namespace Quellan::Platform {

namespace {

constexpr std::string_view ValueMagic = "TQRV";
constexpr std::uint32_t Version = 1;

// Offsets of the numbers, each of four bytes.
constexpr std::size_t VersionAt = 4;
constexpr std::size_t TypeAt = 8;
constexpr std::size_t FormAt = 12;
constexpr std::size_t NameSizeAt = 16;
constexpr std::size_t DataSizeAt = 20;
constexpr std::size_t HeaderSize = 24;

enum class Form : std::uint32_t { Binary = 0, Text = 1 };

bool IsTextType(DWORD type) noexcept {
    return type == REG_SZ || type == REG_EXPAND_SZ || type == REG_LINK || type == REG_MULTI_SZ;
}

std::wstring CharactersOf(std::string_view bytes) {
    std::wstring text(bytes.size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), bytes.data(), text.size() * sizeof(wchar_t));
    return text;
}

std::string BytesOf(std::wstring_view text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

void AppendNumber(std::string& file, std::uint64_t number) {
    for (int shift = 0; shift < 32; shift += 8)
        file += static_cast<char>(number >> shift & 0xFF);
}

std::string_view AsText(std::span<const std::byte> bytes) noexcept {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

bool ParseParts(std::string_view name, Form form, std::string_view data, RegistryValue& value) {
    if (!IsValidText(name)) return false;
    value.name = ToWide(name);
    if (value.name.size() > MostValueNameCharacters || value.name.find(L'\0') != value.name.npos)
        return false;
    if (form == Form::Binary) {
        value.data = data;
    } else {
        if (!IsTextType(value.type) || !IsValidText(data)) return false;
        value.data = BytesOf(ToWide(data));
    }
    return value.data.size() <= MostValueBytes;
}

}  // namespace

std::string FormatRegistryValue(const RegistryValue& value) {
    // Data that only claims to be text keeps its bytes, so that everybody reads what was set.
    Form form = Form::Binary;
    std::string text;
    if (IsTextType(value.type) && value.data.size() % sizeof(wchar_t) == 0) {
        const std::wstring characters = CharactersOf(value.data);
        if (IsValidText(characters)) {
            form = Form::Text;
            text = ToUtf8(characters);
        }
    }
    const std::string& data = form == Form::Text ? text : value.data;
    const std::string name = ToUtf8(value.name);
    std::string file(ValueMagic);
    AppendNumber(file, Version);
    AppendNumber(file, value.type);
    AppendNumber(file, static_cast<std::uint32_t>(form));
    AppendNumber(file, name.size());
    AppendNumber(file, data.size());
    return file.append(name).append(data);
}

DWORD TakeRegistryValue(std::string_view& rest, RegistryValue& value) {
    const std::span<const std::byte> bytes = std::as_bytes(std::span(rest));
    if (rest.size() < HeaderSize || !rest.starts_with(ValueMagic) ||
        ReadNumber<std::uint32_t>(bytes, VersionAt) != Version)
        return ERROR_REGISTRY_CORRUPT;
    const std::uint32_t form = *ReadNumber<std::uint32_t>(bytes, FormAt);
    const std::uint64_t nameSize = *ReadNumber<std::uint32_t>(bytes, NameSizeAt);
    const std::uint64_t dataSize = *ReadNumber<std::uint32_t>(bytes, DataSizeAt);
    if (form > static_cast<std::uint32_t>(Form::Text) || HeaderSize + nameSize + dataSize > rest.size())
        return ERROR_REGISTRY_CORRUPT;
    RegistryValue parsed;
    parsed.type = *ReadNumber<DWORD>(bytes, TypeAt);
    const auto name = AsText(*Part(bytes, HeaderSize, nameSize));
    const auto data = AsText(*Part(bytes, HeaderSize + nameSize, dataSize));
    if (!ParseParts(name, static_cast<Form>(form), data, parsed)) return ERROR_REGISTRY_CORRUPT;
    value = std::move(parsed);
    rest.remove_prefix(static_cast<std::size_t>(HeaderSize + nameSize + dataSize));
    return ERROR_SUCCESS;
}

DWORD ParseRegistryValue(std::string_view file, RegistryValue& value) {
    RegistryValue parsed;
    if (TakeRegistryValue(file, parsed) || !file.empty()) return ERROR_REGISTRY_CORRUPT;
    value = std::move(parsed);
    return ERROR_SUCCESS;
}

}  // namespace Quellan::Platform
