// Text on its way between the layer's callers and the system.
#pragma once

#include "platform/Utf.h"
#include "platform/linux/Errors.h"

#include <climits>
#include <string>
#include <string_view>

namespace Quellan::Corvel::Platform {

// May throw std::bad_alloc.
inline std::string ToUtf8(std::wstring_view text) {
    std::string result(Utf8Length(text), '\0');
    WideToUtf8(text, result);
    return result;
}

// May throw std::bad_alloc.
inline std::wstring ToWide(std::string_view text) {
    std::wstring result(WideLength(text), L'\0');
    Utf8ToWide(text, result);
    return result;
}

// A file name as the system takes it, without allocation.
class NativePath {
  public:
    explicit NativePath(const wchar_t* name) noexcept {
        const std::wstring_view text(name ? name : L"");
        if (text.empty()) {
            m_code = ERROR_PATH_NOT_FOUND;
        } else if (Utf8Length(text) >= sizeof m_text) {
            m_code = ERROR_FILENAME_EXCED_RANGE;
        } else {
            m_size = WideToUtf8(text, m_text);
        }
        m_text[m_size] = '\0';
    }

    // Why there is no name: 3 (ERROR_PATH_NOT_FOUND) when none was given, 206 (ERROR_FILENAME_EXCED_RANGE)
    // when it is too long for the system; 0 when there is one.
    DWORD Code() const noexcept { return m_code; }
    const char* c_str() const noexcept { return m_text; }
    std::string_view View() const noexcept { return {m_text, m_size}; }

  private:
    char m_text[PATH_MAX];
    std::size_t m_size = 0;
    DWORD m_code = ERROR_SUCCESS;
};

// Copies `text` and a terminator into a caller's buffer of `size` characters. False, with nothing written,
// when it does not fit.
inline bool CopyOut(std::wstring_view text, wchar_t* buffer, std::size_t size) noexcept {
    if (text.size() >= size) return false;
    text.copy(buffer, text.size());
    buffer[text.size()] = L'\0';
    return true;
}

}  // namespace Quellan::Corvel::Platform
