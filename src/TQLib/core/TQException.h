// The exceptions that the library throws and applications catch.
#pragma once

#include "TQLib/core/TQEventLog.h"
#include "TQLib/core/TQWin32Exception.h"
#include "TQLib/core/base/TQObject.h"

#include <atomic>

namespace Quellan::Corvel {

// Every failure of the library is one of these; catch it by reference. Besides what every exception of the
// family carries it knows whether it has been written to a log: these marks may be set on a caught `const`
// reference, also by several threads that hold the same one.
class TQLIB_API TQCoreException : public _TQWin32Exception, public TQObject {
  public:
    using _TQWin32Exception::_TQWin32Exception;
    // The same failure, copied; for one that was caught as its base.
    explicit TQCoreException(const _TQWin32Exception& other) noexcept;
    TQCoreException(const TQCoreException& other) noexcept;
    TQCoreException& operator=(const TQCoreException& other) noexcept;
    ~TQCoreException() override;

    [[nodiscard]] TQCoreException* AllocCopy() const override;
    using _TQWin32Exception::operator==;

    [[nodiscard]] bool HasLogged() const noexcept { return m_isLogged; }
    [[nodiscard]] bool HasEventLogged() const noexcept { return m_isEventLogged; }
    [[nodiscard]] bool DontLog() const noexcept { return m_isDontLog; }
    [[nodiscard]] bool Copied() const noexcept { return m_isCopied; }
    void SetLogged(bool logged = true) const noexcept { m_isLogged = logged; }
    void SetEventLogged(bool logged = true) const noexcept { m_isEventLogged = logged; }
    void SetDontLog(bool dontLog = true) const noexcept { m_isDontLog = dontLog; }
    void SetCopied(bool copied = true) const noexcept { m_isCopied = copied; }

    // Writes the log block to the system event log and marks the exception as event-logged; does nothing for
    // one that is marked so already, or as not to be logged. The entry's type follows the level. Throws
    // nothing: where the log takes no entry, the block goes to the debugger output and the mark stays off.
    void LogEvent(const wchar_t* where = nullptr, const wchar_t* source = TQEventLog::LibrarySource,
                  DWORD eventId = TQEventLog::ReportedExceptionEvent,
                  WORD category = TQEventLog::GeneralCategory) const noexcept;

    // Writes an entry for an exception that nobody caught, with the application's name and `text` ("unknown"
    // where that is null). Unless source, event and category are all given, all three are the library's own:
    // "TQLib", 0xCFFF4002 and 9. Throws nothing: where the log takes no entry, the text goes to the debugger
    // output.
    static void LogUnhandled(const wchar_t* source, DWORD eventId, WORD category,
                             const wchar_t* text) noexcept;
    // The same under the library's own source, inside a catch clause: the text tells of the exception being
    // handled.
    static void LogUnhandledCurrent(const wchar_t* where) noexcept;

    // The exception that stands for one that is not of this family: code 0x8000FFFF (E_UNEXPECTED) and as
    // much as is known of where it arose and of its text.
    [[nodiscard]] static TQCoreException Unknown(const wchar_t* where = nullptr,
                                                 const wchar_t* text = nullptr);

    [[noreturn]] static void ThrowLastError(const wchar_t* where);
    [[noreturn]] static void ThrowLastError(const _TQWin32Exception& inner, const wchar_t* where);
    [[noreturn]] static void ThrowLastError(unsigned int msgId, const TQBaseStrRes& store);
    [[noreturn]] static void ThrowLastError(const _TQWin32Exception& inner, unsigned int msgId,
                                            const TQBaseStrRes& store);

  private:
    mutable std::atomic<bool> m_isLogged = false;
    mutable std::atomic<bool> m_isEventLogged = false;
    mutable std::atomic<bool> m_isDontLog = false;
    mutable std::atomic<bool> m_isCopied = false;
};

// What the kinds have in common: constructors, copies and throw helpers of their own type.
//
// A program's own kind derives from it too, over the library's kind that it refines, as in
//     class OrderRefused : public _TQExceptionKind<OrderRefused, TQAppException> {
//         using _TQExceptionKind::_TQExceptionKind;
//     };
// Derived from the library's kind itself, it would become that kind wherever it is copied by `AllocCopy`: as
// an inner exception and on its way to another thread.
template <class Kind, class Refined = TQCoreException>
class _TQExceptionKind : public Refined {
  public:
    using Refined::Refined;

    [[nodiscard]] TQCoreException* AllocCopy() const override {
        return Refined::NewCopy(static_cast<const Kind&>(*this));
    }

    // The inner exception where it is of this kind, else null; `TQCoreException::Inner` gives it whatever it
    // is.
    [[nodiscard]] const Kind* Inner() const noexcept {
        return dynamic_cast<const Kind*>(TQCoreException::Inner());
    }

    // Throw this kind with the calling thread's last error.
    [[noreturn]] static void ThrowLastError(const wchar_t* where) {
        throw Kind(TQCoreException::LastError(), where);
    }
    [[noreturn]] static void ThrowLastError(const _TQWin32Exception& inner, const wchar_t* where) {
        throw Kind(inner, TQCoreException::LastError(), where);
    }
    [[noreturn]] static void ThrowLastError(unsigned int msgId, const TQBaseStrRes& store) {
        throw Kind(TQCoreException::LastError(), msgId, store);
    }
    [[noreturn]] static void ThrowLastError(const _TQWin32Exception& inner, unsigned int msgId,
                                            const TQBaseStrRes& store) {
        throw Kind(inner, TQCoreException::LastError(), msgId, store);
    }
};

// A general failure of the library.
class TQLIB_API TQException : public _TQExceptionKind<TQException> {
  public:
    using _TQExceptionKind::_TQExceptionKind;
    TQException(const TQException&) = default;
    TQException& operator=(const TQException&) = default;
    ~TQException() override;

  private:
    friend class TQStdExceptions;
    [[nodiscard]] static const TQException& Reserved();
    static const bool s_isMadeEarly;
};

// A failure that the operating system reported.
class TQLIB_API TQSysException : public _TQExceptionKind<TQSysException> {
  public:
    using _TQExceptionKind::_TQExceptionKind;
    TQSysException(const TQSysException&) = default;
    TQSysException& operator=(const TQSysException&) = default;
    ~TQSysException() override;
    [[nodiscard]] bool IsSysException() const override;
};

// A failure of the application's own logic; its code may be one that the application defines.
class TQLIB_API TQAppException : public _TQExceptionKind<TQAppException> {
  public:
    using _TQExceptionKind::_TQExceptionKind;
    TQAppException(const TQAppException&) = default;
    TQAppException& operator=(const TQAppException&) = default;
    ~TQAppException() override;

    using _TQExceptionKind::ThrowLastError;
    // Throws with `code` in place of the last error.
    [[noreturn]] static void ThrowLastError(DWORD code, const wchar_t* where);
};

// A failure after which the process is not to be trusted.
class TQLIB_API TQCriticalException : public _TQExceptionKind<TQCriticalException> {
  public:
    using _TQExceptionKind::_TQExceptionKind;
    TQCriticalException(const TQCriticalException&) = default;
    TQCriticalException& operator=(const TQCriticalException&) = default;
    ~TQCriticalException() override;
};

}  // namespace Quellan::Corvel
