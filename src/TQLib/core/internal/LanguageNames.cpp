#include "TQLib/core/internal/LanguageNames.h"

#include "TQLib/core/internal/CallFailure.h"
#include "TQLib/platform/Platform.h"

namespace Quellan::Corvel {

namespace {

TQString LocaleInfo(LCID locale, LCTYPE type) {
    wchar_t text[LOCALE_NAME_MAX_LENGTH];
    const int length = GetLocaleInfoW(locale, type, text, LOCALE_NAME_MAX_LENGTH);
    // An identifier that the platform does not know.
    if (length == 0 && GetLastError() == ERROR_INVALID_PARAMETER) return {};
    if (length == 0) ThrowCallFailure(L"TQLocale::LanguageString");
    return {text, static_cast<std::size_t>(length - 1)};
}

}  // namespace

TQString LanguageName(LCID locale) {
    return LocaleInfo(locale, LOCALE_SNAME);
}

TQString LanguageBaseName(LCID locale) {
    return LocaleInfo(locale, LOCALE_SISO639LANGNAME);
}

}  // namespace Quellan::Corvel
