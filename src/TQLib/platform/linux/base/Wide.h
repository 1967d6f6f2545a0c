// Text on its way between the layer's callers and the system.
#pragma once

#include "TQLib/platform/Utf.h"
#include "TQLib/platform/linux/base/Errors.h"

#include <algorithm>
#include <climits>
#include <span>
#include <string>
#include <string_view>

namespace Quellan::Platform {

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

// Names of files need not be UTF-8 for the system. In a wide name a byte of 0x80 or more that belongs to no
// character is the lone surrogate 0xDC00 + byte, and becomes that byte again on its way back. In names alone:
// no text holds such a character.
constexpr bool IsNameByte(wchar_t c) noexcept {
    return c >= 0xDC80 && c <= 0xDCFF;
}

// May throw std::bad_alloc.
inline std::wstring NameToWide(std::string_view name) {
    if (IsValidText(name)) return ToWide(name);
    std::wstring wide;
    for (std::size_t size = 1; !name.empty(); name.remove_prefix(size)) {
        constexpr std::size_t LongestCharacter = 4;
        const std::size_t most = std::min(name.size(), LongestCharacter);
        for (size = 1; size <= most && !IsValidText(name.substr(0, size));)
            ++size;
        if (size <= most) {
            wide += ToWide(name.substr(0, size));
        } else {
            size = 1;
            wide += static_cast<wchar_t>(0xDC00 + static_cast<unsigned char>(name[0]));
        }
    }
    return wide;
}

inline std::size_t NativeLength(std::wstring_view name) noexcept {
    constexpr std::size_t SizeAsText = 3;  // of the character that stands for what is none
    return Utf8Length(name) -
           (SizeAsText - 1) * static_cast<std::size_t>(std::ranges::count_if(name, IsNameByte));
}

// Into `out`, which must hold NativeLength bytes; returns their number.
inline std::size_t NameToNative(std::wstring_view name, std::span<char> out) noexcept {
    std::size_t size = 0;
    for (;;) {
        const auto text = static_cast<std::size_t>(std::ranges::find_if(name, IsNameByte) - name.begin());
        size += WideToUtf8(name.substr(0, text), out.subspan(size));
        if (text == name.size()) return size;
        out[size++] = static_cast<char>(name[text] & 0xFF);
        name.remove_prefix(text + 1);
    }
}

// A file name as the system takes it, without allocation.
class NativePath {
  public:
    explicit NativePath(const wchar_t* name) noexcept {
        if (!name) name = L"";
        // As a rule all of it is ASCII, and one look at each character is enough.
        std::size_t size = 0;
        for (; static_cast<unsigned>(name[size]) - 1 < 0x7F && size < sizeof m_text - 1; ++size)
            m_text[size] = static_cast<char>(name[size]);
        if (size != 0 && name[size] == L'\0')
            m_size = size;
        else
            Convert(name);
        m_text[m_size] = '\0';
    }

    // Why there is no name: 3 (ERROR_PATH_NOT_FOUND) when none was given, 206 (ERROR_FILENAME_EXCED_RANGE)
    // when it is too long for the system; 0 when there is one.
    DWORD Code() const noexcept { return m_code; }
    const char* c_str() const noexcept { return m_text; }
    std::string_view View() const noexcept { return {m_text, m_size}; }

  private:
    void Convert(std::wstring_view name) noexcept {
        if (name.empty())
            m_code = ERROR_PATH_NOT_FOUND;
        else if (NativeLength(name) >= sizeof m_text)
            m_code = ERROR_FILENAME_EXCED_RANGE;
        else
            m_size = NameToNative(name, m_text);
    }

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

}  // namespace Quellan::Platform
