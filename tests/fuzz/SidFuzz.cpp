// Security identifiers from outside, each input once as the bytes of a block and once as a text in UTF-8.
#include "Require.h"
#include "TQLib/platform/Utf.h"
#include "TQLib/platform/linux/accounts/Sids.h"
#include "TQLib/platform/linux/base/Errors.h"
#include "TQLib/platform/linux/base/Memory.h"

#include <cstring>
#include <string>

using namespace Quellan::Platform;

namespace {

constexpr std::size_t GuardedBytes = 4096;

// The bytes right before a page that cannot be read.
std::uint8_t* BeforeTheEnd(const std::uint8_t* data, std::size_t size) {
    static auto* const pages = [] {
        auto* const made =
            static_cast<std::uint8_t*>(VirtualAlloc(nullptr, 2 * GuardedBytes, MEM_RESERVE, PAGE_NOACCESS));
        VirtualAlloc(made, GuardedBytes, MEM_COMMIT, PAGE_READWRITE);
        return made;
    }();
    std::uint8_t* const begin = pages + GuardedBytes - size;
    if (size != 0) std::memcpy(begin, data, size);
    return begin;
}

// What is written can be read, and is the same. Without sub-authorities it cannot.
void CheckText(PSID sid) {
    wchar_t* text = nullptr;
    PSID read = nullptr;
    Require(ConvertSidToStringSidW(sid, &text));
    Require(ConvertStringSidToSidW(text, &read) == (*GetSidSubAuthorityCount(sid) != 0));
    Require(!read || EqualSid(sid, read));
    LocalFree(read);
    LocalFree(text);
}

void CheckBlock(std::uint8_t* data, std::size_t size) {
    const bool whole = size >= 8 && data[0] == 1 && data[1] <= 15 && size >= 8u + 4u * data[1];
    Require((IsValidSid(data) != FALSE) == whole);
    if (!whole) return;
    CheckText(data);
    for (int type = WinNullSid; type <= WinBuiltinDeviceOwnersSid; ++type)
        IsWellKnownSid(data, static_cast<WELL_KNOWN_SID_TYPE>(type));
    std::uint8_t domain[SECURITY_MAX_SID_SIZE];
    DWORD domainSize = sizeof domain;
    BOOL equal = FALSE;
    if (GetWindowsAccountDomainSid(data, domain, &domainSize))
        Require(EqualDomainSid(data, domain, &equal) && equal);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > GuardedBytes) return 0;
    CheckBlock(BeforeTheEnd(data, size), size);
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    std::wstring text(WideLength(bytes), L'\0');
    Utf8ToWide(bytes, text);
    PSID sid = nullptr;
    if (ConvertStringSidToSidW(text.c_str(), &sid)) CheckText(sid);
    LocalFree(sid);
    return 0;
}
