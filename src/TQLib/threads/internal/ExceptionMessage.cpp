#include "TQLib/threads/internal/ExceptionMessage.h"

#include "TQLib/core/TQException.h"

namespace Quellan::Corvel {

TQString MessageOf(const _TQWin32Exception& e) noexcept {
    try {
        return e.ExcMsg(TQStrResDestination::Log);
    } catch (const TQCoreException& failure) {
        return TQString(failure.FullMsg(TQStrResDestination::Log));
    } catch (...) {
        return {};
    }
}

TQString Described(const wchar_t* context, const char* text) noexcept {
    try {
        return TQCoreException::Unknown(context, text ? TQString::FromUtf8(text).c_str() : nullptr)
            .ExcMsg(TQStrResDestination::Log);
    } catch (...) {
        return {};
    }
}

}  // namespace Quellan::Corvel
