// Locales, code pages and comparison of text.
//
// The user's default locale comes from the environment variables LC_ALL, LC_MESSAGES and LANG, the first one
// that is set; the system's from /etc/locale.conf or /etc/default/locale. What is not set, "C", "POSIX" and
// unknown names stand for en-US, 0x0409.
#pragma once

#include "TQLib/platform/linux/base/Base.h"

namespace Quellan::Platform {

using LCTYPE = DWORD;

// The longest name of a locale, terminator included.
inline constexpr int LOCALE_NAME_MAX_LENGTH = 85;

inline constexpr LCID LOCALE_NEUTRAL = 0x0000;
inline constexpr LCID LOCALE_INVARIANT = 0x007F;
inline constexpr LCID LOCALE_USER_DEFAULT = 0x0400;
inline constexpr LCID LOCALE_SYSTEM_DEFAULT = 0x0800;

inline constexpr LCTYPE LOCALE_ILANGUAGE = 0x0001;         // the language identifier, four hexadecimal digits
inline constexpr LCTYPE LOCALE_SISO639LANGNAME = 0x0059;   // "en"
inline constexpr LCTYPE LOCALE_SISO3166CTRYNAME = 0x005A;  // "US"
inline constexpr LCTYPE LOCALE_SNAME = 0x005C;             // "en-US"
inline constexpr LCTYPE LOCALE_SENGLISHLANGUAGENAME = 0x1001;  // "English"
inline constexpr LCTYPE LOCALE_SENGLANGUAGE = LOCALE_SENGLISHLANGUAGENAME;
inline constexpr LCTYPE LOCALE_SENGCOUNTRY = 0x1002;  // "United States"
inline constexpr LCTYPE LOCALE_NOUSEROVERRIDE = 0x80000000;

constexpr LANGID MAKELANGID(WORD primary, WORD sub) noexcept {
    return static_cast<LANGID>(sub << 10 | primary);
}
constexpr WORD PRIMARYLANGID(LANGID language) noexcept {
    return language & 0x3FF;
}
constexpr WORD SUBLANGID(LANGID language) noexcept {
    return static_cast<WORD>(language >> 10);
}
constexpr LANGID LANGIDFROMLCID(LCID locale) noexcept {
    return static_cast<LANGID>(locale);
}

TQLIB_API LCID GetUserDefaultLCID() noexcept;
TQLIB_API LCID GetSystemDefaultLCID() noexcept;

// The number of characters written, terminator included, or with a size of 0 the number needed. 0 with 87 for
// an unknown locale, 1004 (ERROR_INVALID_FLAGS) for a type that is none of the above, 122
// (ERROR_INSUFFICIENT_BUFFER) for a buffer that is too small. A language without a country stands for the
// language in its chief country.
TQLIB_API int GetLocaleInfoW(LCID locale, LCTYPE type, wchar_t* buffer, int size) noexcept;
// Results as above. The only flags are 0.
TQLIB_API int LCIDToLocaleName(LCID locale, wchar_t* name, int size, DWORD flags) noexcept;
// Null stands for the user's default. 0 with 87 for an unknown name.
TQLIB_API LCID LocaleNameToLCID(const wchar_t* name, DWORD flags) noexcept;

inline constexpr DWORD TIME_NOMINUTESORSECONDS = 0x1;
inline constexpr DWORD TIME_NOSECONDS = 0x2;
inline constexpr DWORD TIME_NOTIMEMARKER = 0x4;
inline constexpr DWORD TIME_FORCE24HOURFORMAT = 0x8;

// The time of day of `time`, null for now, as the locale writes it; here that is the same for all of them,
// HH:mm:ss with two digits and 24 hours, so that the last two flags change nothing. Results as above. 87
// (ERROR_INVALID_PARAMETER) for an unknown locale and what is no time of day, 1004 (ERROR_INVALID_FLAGS), 50
// (ERROR_NOT_SUPPORTED) with a format of the caller's own.
TQLIB_API int GetTimeFormatW(LCID locale, DWORD flags, const SYSTEMTIME* time, const wchar_t* format,
                             wchar_t* buffer, int size) noexcept;

inline constexpr UINT CP_ACP = 0;
inline constexpr UINT CP_UTF8 = 65001;

inline constexpr DWORD MB_PRECOMPOSED = 0x01;
inline constexpr DWORD MB_ERR_INVALID_CHARS = 0x08;
inline constexpr DWORD WC_ERR_INVALID_CHARS = 0x80;
inline constexpr DWORD WC_NO_BEST_FIT_CHARS = 0x0400;

// Both convert `size` units, or with -1 all up to the terminator and the terminator too. They return the
// number of units written, or with an `outSize` of 0 the number needed. The process's code page is UTF-8.
// Invalid text becomes U+FFFD unless the flag for invalid characters forbids it: 1113
// (ERROR_NO_UNICODE_TRANSLATION). 0 with 87 for other code pages, no text, a size of 0 and the same buffer
// twice, with 122 for a buffer that is too small, with 1004 for other flags.
TQLIB_API int MultiByteToWideChar(UINT codePage, DWORD flags, const char* text, int size, wchar_t* out,
                                  int outSize) noexcept;
// Every character can be expressed: a default character is refused with 87 for CP_UTF8 and never used for
// CP_ACP.
TQLIB_API int WideCharToMultiByte(UINT codePage, DWORD flags, const wchar_t* text, int size, char* out,
                                  int outSize, const char* defaultCharacter,
                                  BOOL* usedDefaultCharacter) noexcept;

inline constexpr int CSTR_LESS_THAN = 1;
inline constexpr int CSTR_EQUAL = 2;
inline constexpr int CSTR_GREATER_THAN = 3;

// By the values of characters as UTF-16, of their upper case when case is ignored; a size of -1 stands for
// text with a terminator. 0 with 87 for null and other negative sizes.
TQLIB_API int CompareStringOrdinal(const wchar_t* left, int leftSize, const wchar_t* right, int rightSize,
                                   BOOL ignoreCase) noexcept;
// Change the characters in place, each on its own, and return their number.
TQLIB_API DWORD CharUpperBuffW(wchar_t* text, DWORD size) noexcept;
TQLIB_API DWORD CharLowerBuffW(wchar_t* text, DWORD size) noexcept;

}  // namespace Quellan::Platform
