#include "TQLib/core/TQException.h"

#include "TQLib/core/TQLib.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/text/memory/TQStdExceptions.h"

#include <exception>

namespace Quellan::Corvel {

namespace {

TQEventType EventType(_TQExceptionRoot::Level level) {
    switch (level) {
        case _TQExceptionRoot::Level::Succeeded:
        case _TQExceptionRoot::Level::Information:
            return TQEventType::Information;
        case _TQExceptionRoot::Level::Warning:
            return TQEventType::Warning;
        default:
            return TQEventType::Error;
    }
}

// Describes the exception being handled.
STLString DescribeCurrent(const wchar_t* where) {
    STLString text;
    try {
        throw;
    } catch (const _TQWin32Exception& e) {
        e.AssembleLogOutput(where, text);
    } catch (const std::exception& e) {
        text = TQCoreException::Unknown(where, TQString::FromUtf8(e.what()).c_str())
                   .ExcMsg(TQStrResDestination::Log);
    } catch (...) {
        text = TQCoreException::Unknown(where).ExcMsg(TQStrResDestination::Log);
    }
    return text;
}

}  // namespace

TQCoreException::TQCoreException(const _TQWin32Exception& other) noexcept
    : _TQWin32Exception(other), m_isCopied(true) {}

TQCoreException::TQCoreException(const TQCoreException& other) noexcept
    : _TQWin32Exception(other),
      TQObject(other),
      m_isLogged(other.HasLogged()),
      m_isEventLogged(other.HasEventLogged()),
      m_isDontLog(other.DontLog()),
      m_isCopied(true) {}

TQCoreException& TQCoreException::operator=(const TQCoreException& other) noexcept {
    _TQWin32Exception::operator=(other);
    m_isLogged = other.HasLogged();
    m_isEventLogged = other.HasEventLogged();
    m_isDontLog = other.DontLog();
    m_isCopied = true;
    return *this;
}

TQCoreException::~TQCoreException() = default;

TQCoreException* TQCoreException::AllocCopy() const {
    return NewCopy(*this);
}

void TQCoreException::LogEvent(const wchar_t* where, const wchar_t* source, DWORD eventId,
                               WORD category) const noexcept {
    if (m_isEventLogged || m_isDontLog) return;
    try {
        STLString block;
        AssembleLogOutput(where, block);
        TQEventLog::LogStringEvent(source, eventId, category, EventType(ExcLevel()),
                                   TQEventLog::CurrentAppName().c_str(), block.c_str());
        m_isEventLogged = true;
    } catch (...) {
        DebugReport();
    }
}

void TQCoreException::LogUnhandled(const wchar_t* source, DWORD eventId, WORD category,
                                   const wchar_t* text) noexcept {
    if (!source || eventId == 0 || category == 0) {
        source = TQEventLog::LibrarySource;
        eventId = TQEventLog::UnhandledExceptionEvent;
        category = TQEventLog::UnhandledExceptionCategory;
    }
    if (!text) text = L"unknown";
    try {
        TQEventLog::LogStringEvent(source, eventId, category, TQEventType::Error,
                                   TQEventLog::CurrentAppName().c_str(), text);
    } catch (...) {
        OutputDebugStringW(text);
    }
}

void TQCoreException::LogUnhandledCurrent(const wchar_t* where) noexcept {
    try {
        LogUnhandled(nullptr, 0, 0, DescribeCurrent(where).c_str());
    } catch (...) {
        // The description could not be made, for want of memory; where it happened can still be told.
        LogUnhandled(nullptr, 0, 0, where);
    }
}

TQCoreException TQCoreException::Unknown(const wchar_t* where, const wchar_t* text) {
    constexpr auto code = static_cast<unsigned int>(E_UNEXPECTED);
    const bool hasText = text && *text;
    if (!where && !hasText) return TQCoreException(code, L"Unknown exception.");
    if (!where) where = L"unknown";
    if (!hasText)
        return TQCoreException(
            code,
            STLString::Format(L"Unknown exception occurred in %s with no detail message.", where).c_str());
    return TQCoreException(
        code, STLString::Format(L"Unknown exception occurred in %s with message '%s'.", where, text).c_str());
}

void TQCoreException::ThrowLastError(const wchar_t* where) {
    throw TQCoreException(LastError(), where);
}

void TQCoreException::ThrowLastError(const _TQWin32Exception& inner, const wchar_t* where) {
    throw TQCoreException(inner, LastError(), where);
}

void TQCoreException::ThrowLastError(unsigned int msgId, const TQBaseStrRes& store) {
    throw TQCoreException(LastError(), msgId, store);
}

void TQCoreException::ThrowLastError(const _TQWin32Exception& inner, unsigned int msgId,
                                     const TQBaseStrRes& store) {
    throw TQCoreException(inner, LastError(), msgId, store);
}

TQException::~TQException() = default;

const TQException& TQException::Reserved() {
    // Never destroyed: static objects may run out of memory when they end.
    static const TQException& instance =
        *new TQException(nullptr, _TQExceptionContent(ERROR_OUTOFMEMORY), true);
    return instance;
}

// Later there may be no memory for it.
const bool TQException::s_isMadeEarly = (static_cast<void>(Reserved()), true);

void TQStdExceptions::ThrowReserved() {
    TQLib::CallLowMemoryHandlers();
    TQException thrown(TQException::Reserved());
    thrown.SetArisen();
    throw thrown;
}

TQSysException::~TQSysException() = default;
bool TQSysException::IsSysException() const {
    return true;
}

TQAppException::~TQAppException() = default;
void TQAppException::ThrowLastError(DWORD code, const wchar_t* where) {
    throw TQAppException(code, where);
}

TQCriticalException::~TQCriticalException() = default;

void TQStdExceptions::ThrowLastError(const wchar_t* where) {
    throw TQCoreException(GetLastError(), where);
}
void TQStdExceptions::ThrowOverflowError(const wchar_t* where) {
    throw TQCoreException(ERROR_BUFFER_OVERFLOW, where);
}
void TQStdExceptions::ThrowDataInvalidError(const wchar_t* where) {
    throw TQCoreException(ERROR_INVALID_DATA, where);
}
void TQStdExceptions::ThrowIndexError(const wchar_t* where) {
    throw TQCoreException(ERROR_INVALID_INDEX, where);
}
void TQStdExceptions::ThrowAccessError(const wchar_t* where) {
    throw TQCoreException(ERROR_ACCESS_DENIED, where);
}
void TQStdExceptions::ThrowBadFuncError(const wchar_t* where) {
    throw TQCoreException(ERROR_INVALID_FUNCTION, where);
}
void TQStdExceptions::ThrowParameterInvalidError(const wchar_t* where) {
    throw TQCoreException(ERROR_INVALID_PARAMETER, where);
}
void TQStdExceptions::ThrowUnknown(const wchar_t* where) {
    throw TQCoreException::Unknown(where);
}

void TQStdExceptions::ThrowMemAllocError(const wchar_t* where) {
    TQLib::CallLowMemoryHandlers();
    throw TQException(ERROR_OUTOFMEMORY, where);
}

}  // namespace Quellan::Corvel
