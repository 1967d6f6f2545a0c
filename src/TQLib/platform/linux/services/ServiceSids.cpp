#include "TQLib/platform/linux/accounts/ServiceSids.h"

#include "TQLib/platform/linux/base/Case.h"
#include "TQLib/platform/linux/base/Errors.h"
#include "TQLib/platform/linux/registry/Registry.h"

#include <array>
#include <bit>

namespace Quellan::Platform {

namespace {

constexpr std::size_t Sha1BlockSize = 64;
constexpr std::size_t MostKeyName = 256;

using Sha1State = std::array<std::uint32_t, 5>;

void AddBlock(Sha1State& state, const unsigned char* block) noexcept {
    std::uint32_t words[80];
    for (std::size_t i = 0; i < 16; ++i)
        words[i] = std::uint32_t{block[4 * i]} << 24 | std::uint32_t{block[4 * i + 1]} << 16 |
                   std::uint32_t{block[4 * i + 2]} << 8 | block[4 * i + 3];
    for (std::size_t i = 16; i < 80; ++i)
        words[i] = std::rotl(words[i - 3] ^ words[i - 8] ^ words[i - 14] ^ words[i - 16], 1);
    auto [a, b, c, d, e] = state;
    for (std::size_t i = 0; i < 80; ++i) {
        const std::uint32_t choice = (b & c) | (~b & d), parity = b ^ c ^ d;
        const std::uint32_t majority = (b & c) | (b & d) | (c & d);
        const std::uint32_t mixed = i < 20   ? choice + 0x5a827999
                                    : i < 40 ? parity + 0x6ed9eba1
                                    : i < 60 ? majority + 0x8f1bbcdc
                                             : parity + 0xca62c1d6;
        const std::uint32_t next = std::rotl(a, 5) + mixed + e + words[i];
        e = d;
        d = c;
        c = std::rotl(b, 30);
        b = a;
        a = next;
    }
    const Sha1State added = {a, b, c, d, e};
    for (std::size_t i = 0; i < state.size(); ++i)
        state[i] += added[i];
}

// FIPS 180-4.
Sha1State Sha1(std::string bytes) {
    Sha1State state = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476, 0xc3d2e1f0};
    const std::uint64_t bits = std::uint64_t{bytes.size()} * 8;
    bytes += '\x80';
    while (bytes.size() % Sha1BlockSize != Sha1BlockSize - sizeof bits)
        bytes += '\0';
    for (int shift = 56; shift >= 0; shift -= 8)
        bytes += static_cast<char>(bits >> shift);
    for (std::size_t at = 0; at < bytes.size(); at += Sha1BlockSize)
        AddBlock(state, reinterpret_cast<const unsigned char*>(bytes.data()) + at);
    return state;
}

void AppendUtf16(std::string& bytes, std::uint32_t character) {
    const auto append = [&](std::uint32_t unit) {
        bytes += static_cast<char>(unit);
        bytes += static_cast<char>(unit >> 8);
    };
    if (character < 0x10000) return append(character);
    append(0xD800 + ((character - 0x10000) >> 10));
    append(0xDC00 + (character & 0x3FF));
}

constexpr std::uint32_t BytesReversed(std::uint32_t number) noexcept {
    return number << 24 | (number & 0xFF00) << 8 | (number >> 8 & 0xFF00) | number >> 24;
}

}  // namespace

SidValue SidOfService(std::wstring_view name) {
    std::string bytes;
    for (const wchar_t character : name)
        AppendUtf16(bytes, static_cast<std::uint32_t>(ToUpper(character)));
    SidValue sid(5, {SECURITY_SERVICE_ID_BASE_RID});
    for (const std::uint32_t number : Sha1(std::move(bytes)))
        sid = sid.With(BytesReversed(number));
    return sid;
}

std::wstring FindInstalledService(const SidValue& sid) {
    HKEY services = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Services", 0, KEY_ENUMERATE_SUB_KEYS,
                      &services) != ERROR_SUCCESS)
        return {};
    std::wstring found;
    wchar_t name[MostKeyName];
    for (DWORD index = 0; found.empty(); ++index) {
        DWORD size = MostKeyName;
        if (RegEnumKeyExW(services, index, name, &size, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        if (SidOfService({name, size}) == sid) found.assign(name, size);
    }
    RegCloseKey(services);
    return found;
}

}  // namespace Quellan::Platform
