#include "TQLib/platform/SystemCodes.h"

#include <algorithm>

namespace Quellan::Platform {
namespace {

// The names stand beside the number sign alone: where they are macros of the platform they must not be
// expanded.
constexpr SystemCode Codes[] = {
#define TQ_WIN32(code, name, text) {code, SystemCodeFamily::Win32, L"" #name},
#define TQ_HRESULT(code, name, text) {code, SystemCodeFamily::HResult, L"" #name},
#define TQ_NTSTATUS(code, name, text) {code, SystemCodeFamily::NtStatus, L"" #name},
#include "TQLib/platform/SystemCodes.def"
#undef TQ_WIN32
#undef TQ_HRESULT
#undef TQ_NTSTATUS
};

constexpr bool Before(const SystemCode& a, const SystemCode& b) {
    return a.family != b.family ? a.family < b.family : a.code < b.code;
}

static_assert(std::is_sorted(std::begin(Codes), std::end(Codes),
                             [](const SystemCode& a, const SystemCode& b) { return !Before(b, a); }),
              "sorted by family and number, no number twice in a family");

// Names of codes are plain ASCII.
constexpr wchar_t Upper(wchar_t c) {
    return c >= L'a' && c <= L'z' ? static_cast<wchar_t>(c - L'a' + L'A') : c;
}

constexpr DWORD Win32Facility = 0x80070000;

}  // namespace

std::span<const SystemCode> SystemCodes() noexcept {
    return Codes;
}

const SystemCode* FindSystemCode(std::wstring_view name) noexcept {
    const auto found = std::ranges::find_if(Codes, [&](const SystemCode& known) {
        return std::ranges::equal(name, std::wstring_view(known.name), {}, Upper, Upper);
    });
    return found == std::end(Codes) ? nullptr : found;
}

std::vector<SystemCode> SystemCodesOf(DWORD code) {
    std::vector<SystemCode> found;
    std::ranges::copy_if(Codes, std::back_inserter(found),
                         [&](const SystemCode& c) { return c.code == code; });
    if ((code & 0xFFFF0000) == Win32Facility)
        std::ranges::copy_if(Codes, std::back_inserter(found), [&](const SystemCode& known) {
            return known.family == SystemCodeFamily::Win32 && known.code == (code & 0xFFFF);
        });
    return found;
}

}  // namespace Quellan::Platform
