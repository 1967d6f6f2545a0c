#include "TQLib/platform/linux/texts/Locale.h"

#include "TQLib/platform/linux/base/Case.h"
#include "TQLib/platform/linux/base/Descriptor.h"
#include "TQLib/platform/linux/base/Environment.h"
#include "TQLib/platform/linux/base/EnvironmentBlock.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Wide.h"
#include "TQLib/platform/linux/texts/LocaleTable.h"

#include <climits>
#include <cstring>
#include <cwchar>
#include <string>

namespace Quellan::Platform {

namespace {

constexpr LCID FallbackLocale = 0x0409;
constexpr LCID SortVersions = 0xFFFF0000;

LCID IdOfSystemName(std::string_view name) noexcept {
    const LocaleEntry* entry = FindSystemLocale(name);
    return entry ? entry->id : FallbackLocale;
}

// The value of LANG in a file of assignments; the last one counts. Values may stand in quotes.
std::string_view LangIn(std::string_view text) noexcept {
    constexpr std::string_view Name = "LANG=";
    std::string_view value;
    while (!text.empty()) {
        std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        if (!line.starts_with(Name)) continue;
        line.remove_prefix(Name.size());
        if (!line.empty() && (line.front() == '"' || line.front() == '\'')) line.remove_prefix(1);
        value = line.substr(0, line.find_first_of("\"' \t\r#"));
    }
    return value;
}

LCID ReadSystemLocale() noexcept {
    for (const char* path : {"/etc/locale.conf", "/etc/default/locale"}) {
        char buffer[4096];
        const std::string_view lang = LangIn(ReadStart(path, buffer));
        if (!lang.empty()) return IdOfSystemName(lang);
    }
    return FallbackLocale;
}

// Null when unknown.
const LocaleEntry* Resolve(LCID locale) noexcept {
    switch (locale) {
        case LOCALE_NEUTRAL:
        case LOCALE_USER_DEFAULT:
            return FindLocale(GetUserDefaultLCID());
        case LOCALE_SYSTEM_DEFAULT:
            return FindLocale(GetSystemDefaultLCID());
        default:
            return locale & SortVersions ? nullptr : FindLocale(locale);
    }
}

std::wstring_view LanguageOf(const LocaleEntry& entry) noexcept {
    return entry.name.empty() ? L"iv" : entry.name.substr(0, entry.name.find(L'-'));
}

std::wstring_view CountryOf(const LocaleEntry& entry) noexcept {
    return entry.name.empty() ? L"IV" : entry.name.substr(entry.name.rfind(L'-') + 1);
}

// Writes text and terminator under the rules of sizes that the calls of this topic share.
int Answer(std::wstring_view text, wchar_t* buffer, int size) noexcept {
    if (size < 0 || (size > 0 && !buffer)) return Fail(ERROR_INVALID_PARAMETER, 0);
    if (size > 0 && !CopyOut(text, buffer, static_cast<std::size_t>(size)))
        return Fail(ERROR_INSUFFICIENT_BUFFER, 0);
    return static_cast<int>(text.size() + 1);
}

bool IsUtf8CodePage(UINT codePage) noexcept {
    return codePage == CP_ACP || codePage == CP_UTF8;
}

// The checks that both directions of conversion share. The text's length is found where -1 stands for it.
template <class From, class To>
DWORD CheckConversion(UINT codePage, const From* text, int size, const To* out, int outSize,
                      std::basic_string_view<From>& source) noexcept {
    const bool sameBuffer = static_cast<const void*>(text) == static_cast<const void*>(out);
    if (!text || size == 0 || outSize < 0 || (outSize > 0 && (!out || sameBuffer)))
        return ERROR_INVALID_PARAMETER;
    if (!IsUtf8CodePage(codePage)) return ERROR_INVALID_PARAMETER;
    source = size < 0 ? std::basic_string_view<From>(text, std::char_traits<From>::length(text) + 1)
                      : std::basic_string_view<From>(text, static_cast<std::size_t>(size));
    return ERROR_SUCCESS;
}

DWORD CheckResultSize(std::size_t needed, int outSize) noexcept {
    if (needed > INT_MAX) return ERROR_INVALID_PARAMETER;
    return outSize > 0 && needed > static_cast<std::size_t>(outSize) ? ERROR_INSUFFICIENT_BUFFER
                                                                     : ERROR_SUCCESS;
}

}  // namespace

LCID GetUserDefaultLCID() noexcept {
    try {
        for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
            const auto value = EnvironmentVariable(name);
            if (value && !value->empty()) return IdOfSystemName(*value);
        }
    } catch (const std::bad_alloc&) {
        // There is always a locale.
    }
    return FallbackLocale;
}

LCID GetSystemDefaultLCID() noexcept {
    static const LCID locale = ReadSystemLocale();
    return locale;
}

int GetLocaleInfoW(LCID locale, LCTYPE type, wchar_t* buffer, int size) noexcept {
    if (DWORD code = FaultDue("GetLocaleInfoW")) return Fail(code, 0);
    const LocaleEntry* entry = Resolve(locale);
    if (!entry) return Fail(ERROR_INVALID_PARAMETER, 0);
    switch (type & ~LOCALE_NOUSEROVERRIDE) {
        case LOCALE_ILANGUAGE: {
            constexpr wchar_t Digits[] = L"0123456789abcdef";
            const wchar_t text[] = {Digits[entry->id >> 12 & 0xF], Digits[entry->id >> 8 & 0xF],
                                    Digits[entry->id >> 4 & 0xF], Digits[entry->id & 0xF]};
            return Answer({text, std::size(text)}, buffer, size);
        }
        case LOCALE_SISO639LANGNAME:
            return Answer(LanguageOf(*entry), buffer, size);
        case LOCALE_SISO3166CTRYNAME:
            return Answer(CountryOf(*entry), buffer, size);
        case LOCALE_SNAME:
            return Answer(entry->name, buffer, size);
        case LOCALE_SENGLISHLANGUAGENAME:
            return Answer(entry->language, buffer, size);
        case LOCALE_SENGCOUNTRY:
            return Answer(entry->country, buffer, size);
        default:
            return Fail(ERROR_INVALID_FLAGS, 0);
    }
}

int GetTimeFormatW(LCID locale, DWORD flags, const SYSTEMTIME* time, const wchar_t* format, wchar_t* buffer,
                   int size) noexcept {
    if (DWORD code = FaultDue("GetTimeFormatW")) return Fail(code, 0);
    constexpr DWORD Known =
        TIME_NOMINUTESORSECONDS | TIME_NOSECONDS | TIME_NOTIMEMARKER | TIME_FORCE24HOURFORMAT;
    // The defaults are known ones, whichever they are.
    const bool isDefault = locale == LOCALE_USER_DEFAULT || locale == LOCALE_SYSTEM_DEFAULT;
    if (!isDefault && !Resolve(locale)) return Fail(ERROR_INVALID_PARAMETER, 0);
    if (flags & ~Known) return Fail(ERROR_INVALID_FLAGS, 0);
    if (format) return Fail(ERROR_NOT_SUPPORTED, 0);
    SYSTEMTIME now;
    if (!time) GetLocalTime(&now);
    const SYSTEMTIME& shown = time ? *time : now;
    if (shown.wHour > 23 || shown.wMinute > 59 || shown.wSecond > 59) return Fail(ERROR_INVALID_PARAMETER, 0);
    wchar_t text[] = L"00:00:00";
    const auto put = [&](std::size_t at, WORD value) {
        text[at] = static_cast<wchar_t>(L'0' + value / 10);
        text[at + 1] = static_cast<wchar_t>(L'0' + value % 10);
    };
    put(0, shown.wHour);
    put(3, shown.wMinute);
    put(6, shown.wSecond);
    const std::size_t length = flags & TIME_NOMINUTESORSECONDS ? 2 : flags & TIME_NOSECONDS ? 5 : 8;
    return Answer({text, length}, buffer, size);
}

int LCIDToLocaleName(LCID locale, wchar_t* name, int size, DWORD flags) noexcept {
    if (flags != 0) return Fail(ERROR_INVALID_FLAGS, 0);
    const LocaleEntry* entry = Resolve(locale);
    if (!entry) return Fail(ERROR_INVALID_PARAMETER, 0);
    return Answer(entry->name, name, size);
}

LCID LocaleNameToLCID(const wchar_t* name, DWORD flags) noexcept {
    if (flags != 0) return Fail(ERROR_INVALID_FLAGS, LCID{0});
    const LocaleEntry* entry = name ? FindLocale(name) : Resolve(LOCALE_USER_DEFAULT);
    if (!entry) return Fail(ERROR_INVALID_PARAMETER, LCID{0});
    return entry->id;
}

int MultiByteToWideChar(UINT codePage, DWORD flags, const char* text, int size, wchar_t* out,
                        int outSize) noexcept {
    if (DWORD code = FaultDue("MultiByteToWideChar")) return Fail(code, 0);
    std::string_view source;
    if (DWORD code = CheckConversion(codePage, text, size, out, outSize, source)) return Fail(code, 0);
    const DWORD known = MB_ERR_INVALID_CHARS | (codePage == CP_ACP ? MB_PRECOMPOSED : 0);
    if (flags & ~known) return Fail(ERROR_INVALID_FLAGS, 0);
    if (flags & MB_ERR_INVALID_CHARS && !IsValidText(source)) return Fail(ERROR_NO_UNICODE_TRANSLATION, 0);
    const std::size_t needed = WideLength(source);
    if (DWORD code = CheckResultSize(needed, outSize)) return Fail(code, 0);
    if (outSize > 0) Utf8ToWide(source, {out, needed});
    return static_cast<int>(needed);
}

int WideCharToMultiByte(UINT codePage, DWORD flags, const wchar_t* text, int size, char* out, int outSize,
                        const char* defaultCharacter, BOOL* usedDefaultCharacter) noexcept {
    if (DWORD code = FaultDue("WideCharToMultiByte")) return Fail(code, 0);
    std::wstring_view source;
    if (DWORD code = CheckConversion(codePage, text, size, out, outSize, source)) return Fail(code, 0);
    if (codePage == CP_UTF8 && (defaultCharacter || usedDefaultCharacter))
        return Fail(ERROR_INVALID_PARAMETER, 0);
    const DWORD known = codePage == CP_UTF8 ? WC_ERR_INVALID_CHARS : WC_NO_BEST_FIT_CHARS;
    if (flags & ~known) return Fail(ERROR_INVALID_FLAGS, 0);
    if (flags & WC_ERR_INVALID_CHARS && !IsValidText(source)) return Fail(ERROR_NO_UNICODE_TRANSLATION, 0);
    const std::size_t needed = Utf8Length(source);
    if (DWORD code = CheckResultSize(needed, outSize)) return Fail(code, 0);
    if (outSize > 0) WideToUtf8(source, {out, needed});
    if (usedDefaultCharacter) *usedDefaultCharacter = FALSE;
    return static_cast<int>(needed);
}

int CompareStringOrdinal(const wchar_t* left, int leftSize, const wchar_t* right, int rightSize,
                         BOOL ignoreCase) noexcept {
    if (!left || !right || leftSize < -1 || rightSize < -1) return Fail(ERROR_INVALID_PARAMETER, 0);
    const auto view = [](const wchar_t* text, int size) {
        return size < 0 ? std::wstring_view(text) : std::wstring_view(text, static_cast<std::size_t>(size));
    };
    const int order = CompareOrdinal(view(left, leftSize), view(right, rightSize), ignoreCase != FALSE);
    return order < 0 ? CSTR_LESS_THAN : order > 0 ? CSTR_GREATER_THAN : CSTR_EQUAL;
}

DWORD CharUpperBuffW(wchar_t* text, DWORD size) noexcept {
    for (DWORD i = 0; i < size; ++i)
        text[i] = ToUpper(text[i]);
    return size;
}

DWORD CharLowerBuffW(wchar_t* text, DWORD size) noexcept {
    for (DWORD i = 0; i < size; ++i)
        text[i] = ToLower(text[i]);
    return size;
}

}  // namespace Quellan::Platform
