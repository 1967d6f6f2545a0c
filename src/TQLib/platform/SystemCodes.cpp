#include "TQLib/platform/SystemCodes.h"

#include <algorithm>
#include <cstddef>

namespace Quellan::Platform {
namespace {

// The names stand beside the number sign alone: where they are macros of the platform they must not be
// expanded. All of them lie in one object, and a code tells where its own begins: a pointer would have to be
// adjusted for each code whenever the library is loaded.
struct AllNames {
#define TQ_WIN32(code, name, text) wchar_t win32_##code[sizeof(#name)] = L"" #name;
#define TQ_HRESULT(code, name, text) wchar_t result_##code[sizeof(#name)] = L"" #name;
#define TQ_NTSTATUS(code, name, text) wchar_t status_##code[sizeof(#name)] = L"" #name;
#include "TQLib/platform/SystemCodes.def"
#undef TQ_WIN32
#undef TQ_HRESULT
#undef TQ_NTSTATUS
};
constexpr AllNames Names;

constexpr SystemCode Codes[] = {
#define TQ_WIN32(code, name, text) {code, SystemCodeFamily::Win32, offsetof(AllNames, win32_##code)},
#define TQ_HRESULT(code, name, text) {code, SystemCodeFamily::HResult, offsetof(AllNames, result_##code)},
#define TQ_NTSTATUS(code, name, text) {code, SystemCodeFamily::NtStatus, offsetof(AllNames, status_##code)},
#include "TQLib/platform/SystemCodes.def"
#undef TQ_WIN32
#undef TQ_HRESULT
#undef TQ_NTSTATUS
};

// The order of codes: by family, then by number.
constexpr ULONGLONG Place(SystemCodeFamily family, DWORD code) {
    return static_cast<ULONGLONG>(family) << 32 | code;
}
constexpr ULONGLONG PlaceOf(const SystemCode& known) {
    return Place(known.family, known.code);
}

static_assert(std::ranges::adjacent_find(Codes, std::ranges::greater_equal{}, PlaceOf) == std::end(Codes),
              "sorted by family and number, no number twice in a family");

// Names of codes are plain ASCII.
constexpr wchar_t Upper(wchar_t c) {
    return c >= L'a' && c <= L'z' ? static_cast<wchar_t>(c - L'a' + L'A') : c;
}

constexpr DWORD Win32Facility = 0x80070000;

}  // namespace

const wchar_t* SystemCode::Name() const noexcept {
    return reinterpret_cast<const wchar_t*>(reinterpret_cast<const std::byte*>(&Names) + nameBegin);
}

std::span<const SystemCode> SystemCodes() noexcept {
    return Codes;
}

const SystemCode* FindSystemCode(std::wstring_view name) noexcept {
    const auto found = std::ranges::find_if(Codes, [&](const SystemCode& known) {
        return std::ranges::equal(name, std::wstring_view(known.Name()), {}, Upper, Upper);
    });
    return found == std::end(Codes) ? nullptr : found;
}

const SystemCode* FindSystemCode(SystemCodeFamily family, DWORD code) noexcept {
    const ULONGLONG place = Place(family, code);
    const auto found = std::ranges::lower_bound(Codes, place, {}, PlaceOf);
    return found != std::end(Codes) && PlaceOf(*found) == place ? found : nullptr;
}

std::vector<SystemCode> SystemCodesOf(DWORD code) {
    std::vector<SystemCode> found;
    const auto add = [&](SystemCodeFamily family, DWORD number) {
        if (const SystemCode* known = FindSystemCode(family, number)) found.push_back(*known);
    };
    add(SystemCodeFamily::Win32, code);
    add(SystemCodeFamily::HResult, code);
    add(SystemCodeFamily::NtStatus, code);
    if ((code & 0xFFFF0000) == Win32Facility) add(SystemCodeFamily::Win32, code & 0xFFFF);
    return found;
}

}  // namespace Quellan::Platform
