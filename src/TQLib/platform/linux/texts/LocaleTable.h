// The locales that the layer knows.
#pragma once

#include "TQLib/platform/Types.h"

#include <string_view>

namespace Quellan::Platform {

struct LocaleEntry {
    LCID id;
    std::wstring_view name;
    std::wstring_view language;  // in English
    std::wstring_view country;   // in English
};

// Null when unknown. A language on its own gives the language in its chief country.
const LocaleEntry* FindLocale(LCID id) noexcept;
// In any case.
const LocaleEntry* FindLocale(std::wstring_view name) noexcept;
// For a name as the system spells it, like de_AT.UTF-8 or sr_RS@latin.
const LocaleEntry* FindSystemLocale(std::string_view name) noexcept;

}  // namespace Quellan::Platform
