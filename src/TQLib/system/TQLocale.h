// A locale: a language as it is used in a country.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/text/TQString.h"

namespace Quellan::Corvel {

// A value that names one of the platform's locales; two are equal when their identifiers are.
class TQLIB_API TQLocale {
  public:
    // The locale of the user that the process runs for.
    TQLocale() noexcept;
    explicit TQLocale(LCID id) noexcept : m_id(id) {}

    [[nodiscard]] LCID ID() const noexcept { return m_id; }

    // The full name of its language, such as "en-US", and the name of the language alone, such as "en"; both
    // empty for an identifier that the platform does not know. Throw `TQSysException` with the platform's
    // code for any other failure, 14 (ERROR_OUTOFMEMORY) for exhausted memory.
    [[nodiscard]] TQString LanguageString() const;
    [[nodiscard]] TQString LanguageBaseString() const;

    bool operator==(const TQLocale&) const noexcept = default;

  private:
    LCID m_id;
};

}  // namespace Quellan::Corvel

template <>
struct std::hash<Quellan::Corvel::TQLocale> {
    std::size_t operator()(Quellan::Corvel::TQLocale locale) const noexcept {
        return std::hash<unsigned long long>{}(locale.ID());
    }
};
