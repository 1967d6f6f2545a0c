// What tests of the registry share: keys that are closed, values at once, and a key for each test.
#pragma once

#include "PlatformTest.h"

#include <utility>
#include <vector>

namespace Quellan::Corvel::Test {

inline std::string Bytes(std::wstring_view text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

// A registry call's result, comparable with the names of codes.
inline DWORD Status(LSTATUS code) {
    return static_cast<DWORD>(code);
}

class OwnedKey {
  public:
    OwnedKey(HKEY key, LSTATUS code, DWORD disposition)
        : m_key(key), m_code(Status(code)), m_disposition(disposition) {}
    OwnedKey(OwnedKey&& other) noexcept
        : m_key(std::exchange(other.m_key, nullptr)),
          m_code(other.m_code),
          m_disposition(other.m_disposition) {}
    OwnedKey& operator=(OwnedKey&& other) noexcept {
        std::swap(m_key, other.m_key);
        std::swap(m_code, other.m_code);
        std::swap(m_disposition, other.m_disposition);
        return *this;
    }
    ~OwnedKey() {
        if (m_key) RegCloseKey(m_key);
    }

    operator HKEY() const { return m_key; }
    HKEY Get() const { return m_key; }
    // Of the call that opened it.
    DWORD Code() const { return m_code; }
    DWORD Disposition() const { return m_disposition; }

  private:
    HKEY m_key;
    DWORD m_code;
    DWORD m_disposition;
};

inline OwnedKey Open(HKEY key, const wchar_t* path, REGSAM access = KEY_ALL_ACCESS) {
    HKEY opened = nullptr;
    const LSTATUS code = RegOpenKeyExW(key, path, 0, access, &opened);
    return {opened, code, 0};
}

inline OwnedKey Make(HKEY key, const wchar_t* path) {
    HKEY opened = nullptr;
    DWORD disposition = 0;
    const LSTATUS code =
        RegCreateKeyExW(key, path, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &opened, &disposition);
    return {opened, code, disposition};
}

struct RegData {
    DWORD type = 0;
    std::string data;
    DWORD code = 0;  // of reading it

    bool operator==(const RegData&) const = default;
};

inline DWORD Set(HKEY key, const wchar_t* name, const RegData& value) {
    // Wine takes a terminator behind a text for a part of it.
    const std::string bytes = value.data + "\xFF\xFF\xFF\xFF";
    return Status(RegSetValueExW(key, name, 0, value.type, reinterpret_cast<const BYTE*>(bytes.data()),
                                 static_cast<DWORD>(value.data.size())));
}

inline RegData Get(HKEY key, const wchar_t* name) {
    RegData value{0, std::string(200'000, '\0'), 0};
    DWORD size = static_cast<DWORD>(value.data.size());
    value.code = Status(
        RegQueryValueExW(key, name, nullptr, &value.type, reinterpret_cast<BYTE*>(value.data.data()), &size));
    value.data.resize(value.code == 0 ? size : 0);
    return value;
}

constexpr DWORD KeyNameLimit = 255;
constexpr DWORD ValueNameLimit = 16'383;

// The names in a key, by RegEnumKeyExW or RegEnumValueW.
template <class Call>
std::vector<std::wstring> Listed(HKEY key, Call call) {
    std::vector<std::wstring> names;
    std::vector<wchar_t> name(ValueNameLimit + 1);
    for (DWORD size = ValueNameLimit + 1; call(key, static_cast<DWORD>(names.size()), name.data(), &size,
                                               nullptr, nullptr, nullptr, nullptr) == 0;
         size = ValueNameLimit + 1)
        names.emplace_back(name.data(), size);
    return names;
}

// A key of its own, below the user's, which goes with the test.
class RegistryTest : public testing::Test {
  protected:
    RegistryTest() : m_key(Make(HKEY_CURRENT_USER, Wide(Path()).c_str())) {
        EXPECT_EQ(m_key.Code(), 0u);
        EXPECT_EQ(Status(RegDeleteTreeW(m_key, nullptr)), 0u);
    }
    ~RegistryTest() override { RegDeleteTreeW(HKEY_CURRENT_USER, Wide(Path()).c_str()); }

    static std::string Path() { return "Software\\tqlib-test-" + std::to_string(GetCurrentProcessId()); }

    const OwnedKey m_key;
};

}  // namespace Quellan::Corvel::Test
