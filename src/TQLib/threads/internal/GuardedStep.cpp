#include "TQLib/threads/internal/GuardedStep.h"

#include "TQLib/core/TQEventLog.h"
#include "TQLib/threads/internal/ExceptionMessage.h"

#include <exception>

namespace Quellan::Corvel {

namespace {

constexpr WORD CaughtExceptionCategory = 2;

// An action that the exception already has is not given up for the context, which then stands behind the
// message.
void LogCaught(TQCoreException& e, const wchar_t* context) noexcept {
    if (e.HasLogged()) return;
    const bool hasAction = *e.Action() != 0;
    try {
        if (!hasAction) e.SetAction(context);
    } catch (...) {
        // Without memory the entry does without the context.
    }
    LogAsCaught(e, hasAction ? context : nullptr);
}

// The context, and on the next lines what is known of the exception.
void LogOther(const wchar_t* context, const TQString& details) noexcept {
    try {
        LogAsUnhandled(TQString::Format(L"%s\r\n%s", context, details.c_str()).c_str());
    } catch (...) {
        LogAsUnhandled(context);
    }
}

TQString BlockOf(const _TQWin32Exception& e) noexcept {
    try {
        STLString block;
        e.AssembleLogOutput(nullptr, block);
        return block;
    } catch (...) {
        return {};
    }
}

}  // namespace

void LogAsCaught(const TQCoreException& e, const wchar_t* where) noexcept {
    e.LogEvent(where, TQEventLog::LibrarySource, TQEventLog::CaughtExceptionEvent, CaughtExceptionCategory);
}

void LogAsUnhandled(const wchar_t* text) noexcept {
    TQCoreException::LogUnhandled(TQEventLog::LibrarySource, TQEventLog::UnhandledExceptionEvent,
                                  TQEventLog::UnhandledExceptionCategory, text);
}

unsigned int LogGuarded(const wchar_t* context, TQString& message) noexcept {
    try {
        throw;
    } catch (TQCoreException& e) {
        message = MessageOf(e);
        LogCaught(e, context);
        return e.ErrCode();
    } catch (const _TQWin32Exception& e) {
        message = MessageOf(e);
        LogOther(context, BlockOf(e));
        return e.ErrCode();
    } catch (const std::exception& e) {
        message = Described(context, e.what());
    } catch (...) {
        message = Described(context, nullptr);
    }
    LogOther(context, message);
    return UnknownExceptionCode;
}

}  // namespace Quellan::Corvel
