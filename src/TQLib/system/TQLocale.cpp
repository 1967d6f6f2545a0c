#include "TQLib/system/TQLocale.h"

#include "TQLib/core/internal/LanguageNames.h"
#include "TQLib/platform/Platform.h"

namespace Quellan::Corvel {

TQLocale::TQLocale() noexcept : m_id(GetUserDefaultLCID()) {}

TQString TQLocale::LanguageString() const {
    return LanguageName(m_id);
}

TQString TQLocale::LanguageBaseString() const {
    return LanguageBaseName(m_id);
}

}  // namespace Quellan::Corvel
