// Security identifiers as texts, so that tests of the security calls can be read.
#pragma once

#include "platform/PlatformTest.h"
#include "support/DataLines.h"

#include <cstddef>
#include <cstring>
#include <sstream>
#include <vector>

namespace Quellan::Corvel::Test {

// S-1-...; what is wrong in place of a text where there is none.
inline std::wstring TextOf(PSID sid) {
    wchar_t* text = nullptr;
    if (!ConvertSidToStringSidW(sid, &text)) return L"error " + std::to_wstring(GetLastError());
    const std::wstring result = text;
    LocalFree(text);
    return result;
}

// An identifier in memory of exactly its size.
class Sid {
  public:
    Sid() = default;
    // From a text; empty, with the code to be asked for, when it is none.
    explicit Sid(const wchar_t* text) {
        PSID sid = nullptr;
        if (!ConvertStringSidToSidW(text, &sid)) {
            m_code = GetLastError();
            return;
        }
        const auto* const bytes = static_cast<const std::byte*>(sid);
        m_bytes.assign(bytes, bytes + GetLengthSid(sid));
        LocalFree(sid);
    }

    PSID Get() { return m_bytes.empty() ? nullptr : m_bytes.data(); }
    DWORD Code() const { return m_code; }

  private:
    std::vector<std::byte> m_bytes;
    DWORD m_code = 0;
};

// A row of WellKnownSids.txt.
struct PublishedSid {
    WELL_KNOWN_SID_TYPE type;
    std::wstring text;    // of one of a domain, what follows that
    std::string classes;  // each between blanks

    bool Is(const char* name) const { return classes.find(' ' + std::string(name) + ' ') != classes.npos; }
};

inline std::vector<PublishedSid> PublishedSids(bool ofDomain) {
    std::vector<PublishedSid> published;
    for (const std::string& line : DataLines("WellKnownSids.txt")) {
        std::istringstream words(line);
        int type;
        std::string text, classes;
        std::getline(words >> type >> text, classes);
        if ((text[0] == '-') == ofDomain)
            published.push_back({static_cast<WELL_KNOWN_SID_TYPE>(type), Wide(text), classes + ' '});
    }
    return published;
}

inline std::wstring WellKnownText(WELL_KNOWN_SID_TYPE type, PSID domain = nullptr) {
    std::byte sid[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof sid;
    if (!CreateWellKnownSid(type, domain, sid, &size)) return L"error " + std::to_wstring(GetLastError());
    return TextOf(sid);
}

}  // namespace Quellan::Corvel::Test
