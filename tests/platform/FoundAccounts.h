// Accounts looked up, with what was found or the code.
#pragma once

#include "platform/SidTexts.h"

namespace Quellan::Corvel::Test {

struct Found {
    std::wstring name;
    std::wstring domain;
    int use = 0;
    DWORD code = 0;

    bool operator==(const Found&) const = default;
    friend void PrintTo(const Found& found, std::ostream* out) {
        *out << testing::PrintToString(found.domain) << " " << testing::PrintToString(found.name) << " use "
             << found.use << " code " << found.code;
    }
};

inline Found NameOf(PSID sid, const wchar_t* system = nullptr) {
    wchar_t name[300] = {}, domain[300] = {};
    DWORD nameSize = 300, domainSize = 300;
    SID_NAME_USE use{};
    if (!LookupAccountSidW(system, sid, name, &nameSize, domain, &domainSize, &use))
        return {.name = {}, .domain = {}, .use = 0, .code = GetLastError()};
    return {std::wstring(name, nameSize), std::wstring(domain, domainSize), use, 0};
}

inline Found NameOf(const wchar_t* sid, const wchar_t* system = nullptr) {
    return NameOf(Sid(sid).Get(), system);
}

struct FoundSid {
    std::wstring text;
    std::wstring domain;
    int use = 0;
    DWORD code = 0;
};

inline FoundSid SidOf(const std::wstring& name, const wchar_t* system = nullptr) {
    std::byte sid[SECURITY_MAX_SID_SIZE];
    wchar_t domain[300] = {};
    DWORD sidSize = sizeof sid, domainSize = 300;
    SID_NAME_USE use{};
    if (!LookupAccountNameW(system, name.c_str(), sid, &sidSize, domain, &domainSize, &use))
        return {.text = {}, .domain = {}, .use = 0, .code = GetLastError()};
    return {TextOf(sid), std::wstring(domain, domainSize), use, 0};
}

}  // namespace Quellan::Corvel::Test
