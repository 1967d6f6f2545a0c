// The base of the exception family: codes in the Windows convention, their level, source and text, and
// structured exceptions as C++ exceptions.
#pragma once

#include "TQLib/core/TQStrRes.h"
#include "TQLib/core/internal/CommonValue.h"
#include "TQLib/core/internal/ExceptionText.h"
#include "TQLib/core/internal/MessageCache.h"
#include "TQLib/platform/StructuredExceptions.h"
#include "TQLib/platform/Types.h"
#include "TQLib/text/STLString.h"
#include "TQLib/text/TQStringArray.h"
#include "TQLib/text/memory/TQStdExceptions.h"

#include <concepts>
#include <exception>
#include <iosfwd>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <system_error>
#include <type_traits>

namespace Quellan::Corvel {

// The codes of the family among those of the standard library: their texts are as `ExcCodeString` has them, in
// UTF-8, and a code that has a counterpart in `std::errc` is equivalent to it.
[[nodiscard]] TQLIB_API const std::error_category& TQErrorCategory() noexcept;

// The two enumerations of the family and what a code says of itself.
class TQLIB_API _TQExceptionRoot : public std::exception {
  public:
    enum class Level : unsigned int { Succeeded = 0, Information = 1, Warning = 2, Error = 3, Unknown = 4 };
    // `Facility` is what the facilities of the platform's subsystems give; it has no entry in the table of
    // names.
    enum class Source : unsigned int { Unknown = 0, App = 1, OS = 2, SubSystem = 3, Facility = 4 };

    // A plain Win32 error number (below 0x1000000) is an error; any other code carries its level in its top
    // two bits.
    [[nodiscard]] static constexpr Level CodeLevel(unsigned int code) noexcept {
        return code < 0x1000000 ? Level::Error : static_cast<Level>(code >> 30);
    }
    // The 13 bits from bit 16 on.
    [[nodiscard]] static constexpr unsigned short CodeFacility(unsigned int code) noexcept {
        return static_cast<unsigned short>((code >> 16) & 0x1FFF);
    }
    [[nodiscard]] static Source CodeSource(unsigned int code) noexcept;

    // "Success", "Information", "Warning", "Error", "Unknown"; the last for every other value too.
    [[nodiscard]] static const wchar_t* LevelName(Level level) noexcept;
    // "Unknown", "App", "OS", "SubSystem", and "Facility" for the value past them; "Unknown" for every other
    // value.
    [[nodiscard]] static const wchar_t* SourceName(Source source) noexcept;
    // The name of one of the platform's facilities, such as "Storage" for 3; "Unknown" for one that has none.
    [[nodiscard]] static const wchar_t* FacilityName(unsigned short facility) noexcept;
};

// The record of an operating-system exception.
struct TQOSExceptionRecord {
    DWORD code;
    DWORD flags;
    const void* address;    // of the faulting instruction
    DWORD parameterCount;   // of the parameters that follow; an exception may have had more
    std::uintptr_t access;  // 0 read, 1 write, 8 execute
    std::uintptr_t target;  // the accessed address
    std::uintptr_t status;  // an in-page error's cause, an NTSTATUS

    bool operator==(const TQOSExceptionRecord&) const noexcept = default;
};

// What an exception is made from: each constructor is a way to make one.
struct _TQExceptionContent {
    using Level = _TQExceptionRoot::Level;
    using Source = _TQExceptionRoot::Source;

    _TQExceptionContent(unsigned int number, const wchar_t* message = nullptr,
                        std::optional<Level> severity = {}, std::optional<Source> origin = {},
                        std::optional<unsigned short> facility = {})
        : code(number), text(message), level(severity), source(origin), subsystem(facility) {}
    _TQExceptionContent(unsigned int number, const wchar_t* message, Source origin)
        : _TQExceptionContent(number, message, {}, origin) {}
    _TQExceptionContent(const wchar_t* message) : _TQExceptionContent(0u, message) {}

    _TQExceptionContent(unsigned int number, unsigned int id, const TQBaseStrRes& store,
                        std::optional<Level> severity = {}, std::optional<Source> origin = {},
                        std::optional<unsigned short> facility = {})
        : _TQExceptionContent(number, nullptr, severity, origin, facility) {
        resource = store.WithID(id);
    }
    _TQExceptionContent(unsigned int number, unsigned int id, const TQBaseStrRes& store, Source origin)
        : _TQExceptionContent(number, id, store, {}, origin) {}
    _TQExceptionContent(unsigned int id, const TQBaseStrRes& store) : _TQExceptionContent(0u, id, store) {}

    TQLIB_API _TQExceptionContent(const std::error_code& failure, const wchar_t* message = nullptr);

    _TQExceptionContent(const TQOSExceptionRecord& raised)
        : _TQExceptionContent(raised.code, L"A System Exception Occurred.", Source::OS) {
        record = raised;
    }

    unsigned int code;
    const wchar_t* text;
    std::optional<Level> level;
    std::optional<Source> source;
    std::optional<unsigned short> subsystem;
    std::optional<TQBaseStrRes> resource;
    std::optional<TQOSExceptionRecord> record;
};

// What every exception carries, over its concrete class `T`. An exception is a value that belongs to one
// thread: it is built where it is thrown and copied into an inner slot or to another thread by `AllocCopy`.
// One that several threads hold (by a `std::exception_ptr`, say) may be read and rendered by all of them.
// Copying and assigning can't fail: copies share the long texts and the inner exceptions, with their marks.
// What is assigned may be an inner exception of the target.
template <class T>
class _TQExceptionBase : public _TQExceptionRoot {
  public:
    ~_TQExceptionBase() override;

    // True for a failure that the operating system reported.
    [[nodiscard]] virtual bool IsSysException() const;
    // The system's text for the code followed by the code, as in "Access is denied. [0x00000005]"; "unknown"
    // stands for a text that the system does not have. Empty for a code without a message number. Throws
    // nothing.
    [[nodiscard]] virtual STLString ExcCodeString() const;
    // The name of the subsystem; see `FacilityName`.
    [[nodiscard]] virtual const wchar_t* ExcSubSysName() const;
    // Says what was being done. The first action empties the cached messages, so that they show it; a later
    // one replaces the action, but messages rendered in between keep the first.
    virtual void SetAction(const wchar_t* action);
    // A copy of the same kind, owned by the caller, with its inner exceptions and marked as copied.
    [[nodiscard]] virtual T* AllocCopy() const = 0;

    // The message for the user, `FullMsg`, as UTF-8; never empty, and a fixed text where there is no memory to
    // render it. Valid until the exception is changed or destroyed.
    [[nodiscard]] const char* what() const noexcept override;

    [[nodiscard]] unsigned int ErrCode() const noexcept;
    // The code in `TQErrorCategory`.
    [[nodiscard]] std::error_code ErrorCode() const noexcept;
    [[nodiscard]] LONG COMErrCode() const noexcept;
    [[nodiscard]] Level ExcLevel() const noexcept;
    [[nodiscard]] Source ExcSource() const noexcept;
    [[nodiscard]] const wchar_t* ExcLevelName() const noexcept;
    [[nodiscard]] const wchar_t* ExcSourceName() const noexcept;
    [[nodiscard]] unsigned short ExcSubSys() const noexcept;
    [[nodiscard]] DWORD ExcProcess() const noexcept;  // the process and the thread that built it
    [[nodiscard]] DWORD ExcThread() const noexcept;
    [[nodiscard]] const wchar_t* Action() const noexcept;  // empty until it is set
    // Whether the message is a resource rather than literal text.
    [[nodiscard]] bool HasResMsg() const noexcept;
    // The exception that this one was built around, owned by this one; null without one.
    [[nodiscard]] const T* Inner() const noexcept;
    // The operating-system exception that this one stands for; null for all others.
    [[nodiscard]] const TQOSExceptionRecord* OSException() const noexcept;

    // The files that the failed operation was about, in the order in which they were added. Adding is for the
    // one thread that has the exception; throws 14 (ERROR_OUTOFMEMORY) with nothing changed.
    [[nodiscard]] TQStringArray ErrFileList() const;
    void AddErrFile(const wchar_t* file) const;

  protected:
    _TQExceptionBase(const T* inner, const _TQExceptionContent& content);
    _TQExceptionBase(const _TQExceptionBase& other) noexcept;
    _TQExceptionBase& operator=(const _TQExceptionBase& other) noexcept;
    // A copy on the heap, or the exception kept in reserve where memory is exhausted.
    template <class Value>
    [[nodiscard]] static Value* NewCopy(const Value& value) {
        try {
            return new Value(value);
        } catch (const std::bad_alloc&) {
            TQStdExceptions::ThrowReserved();
        }
    }
    // The exception arises here and now, in this process and on this thread.
    void SetArisen() noexcept;

    // The message alone for a destination: the literal text, or the resource with its inserts expanded;
    // throws what the lookup throws.
    [[nodiscard]] STLString MessageFor(TQStrResDestination destination, std::span<const TQMsgArg> args) const;
    // The whole line, from the cache once it has been rendered.
    [[nodiscard]] const STLString& FullLine(TQStrResDestination destination,
                                            std::span<const TQMsgArg> args) const;
    // The whole line with `codeString` for the code.
    [[nodiscard]] STLString LineWith(const STLString& codeString, TQStrResDestination destination,
                                     std::span<const TQMsgArg> args) const;
    // Whether both say the same: code, level, source, subsystem, message, action, record and inner
    // exceptions.
    [[nodiscard]] bool SaysTheSame(const _TQExceptionBase& other) const noexcept;

  private:
    unsigned int m_code;
    Level m_level;
    Source m_source;
    unsigned short m_subsystem;
    DWORD m_process;
    DWORD m_thread;
    ExceptionText m_text;
    std::optional<TQBaseStrRes> m_resource;
    CommonValue<STLString> m_action;
    std::optional<TQOSExceptionRecord> m_record;
    mutable MessageCache m_cache;
    mutable CommonValue<TQStringArray> m_files;
    CommonValue<std::unique_ptr<const T>> m_inner;
    // The one before the last assignment, whose source may lie in it: subclasses still read it then.
    CommonValue<std::unique_ptr<const T>> m_formerInner;
};

class _TQWin32Exception;
extern template class TQLIB_API _TQExceptionBase<_TQWin32Exception>;

// An exception with a code in the Windows convention: a Win32 error number, an HRESULT or an NTSTATUS. The
// library throws its subclasses (core/TQException.h); this class itself is thrown for a structured exception
// on a thread with a `Trap_SEH`.
//
// Every class of the family is made from one of
//     (code)    (text)    (code, text, ...)    (id, store)    (code, id, store, ...)    (record)
//     (std::error_code)    (std::error_code, text)
// and from each of these behind an inner exception, which is copied. The message is a literal text, null being
// an empty one, or the message that `store` has for `id` when it is rendered. The dots stand for nothing, a
// level, a source, level and source, or level, source and subsystem; what is not given follows from the code.
// For an operating-system exception the code is the record's, the message "A System Exception Occurred.". A
// code of the standard library becomes the platform's code for the same: those of `TQErrorCategory`, of
// `std::system_category` and of `std::generic_category`; any other is 0x80004005 (E_FAIL).
// Texts of up to 63 characters are kept in place, longer ones are allocated; where that fails, `TQException`
// 14 is thrown instead.
//
// The throw helpers of `TQStdExceptions` are members of this class too.
class TQLIB_API _TQWin32Exception : public _TQExceptionBase<_TQWin32Exception>, public TQStdExceptions {
  public:
    template <class... What>
    requires std::constructible_from<_TQExceptionContent, What...>
    explicit(sizeof...(What) == 1) _TQWin32Exception(What... what)
        : _TQWin32Exception(nullptr, _TQExceptionContent(what...)) {}
    template <class... What>
    requires std::constructible_from<_TQExceptionContent, What...> _TQWin32Exception(
        const _TQWin32Exception& inner, What... what)
        : _TQWin32Exception(&inner, _TQExceptionContent(what...)) {}

    _TQWin32Exception(const _TQWin32Exception& other) noexcept;
    _TQWin32Exception& operator=(const _TQWin32Exception& other) noexcept;
    ~_TQWin32Exception() override;

    [[nodiscard]] _TQWin32Exception* AllocCopy() const override;

    // Equal when both say the same: code, level, source, subsystem, message, action, structured-exception
    // record and inner exceptions. Where and when they arose, and what has been done with them, does not
    // count.
    bool operator==(const _TQWin32Exception& other) const noexcept { return SaysTheSame(other); }

    // The message for a destination without code and action. Arguments fill the inserts of a resource
    // message. Throws what the lookup of the resource throws (`TQBaseStrRes::Text`).
    template <class... Args>
    [[nodiscard]] STLString ExcMsg(TQStrResDestination destination, const Args&... args) const {
        if constexpr (sizeof...(Args) == 0)
            return MessageFor(destination, {});
        else {
            const TQMsgArg array[] = {TQMsgArg(args)...};
            return MessageFor(destination, array);
        }
    }

    // The one-line message: the message, " (", the code string, ")", " Action=" and the action, leaving out
    // what is empty. Rendered once for each destination and then read from the cache, whatever the arguments;
    // valid until the exception is changed or destroyed. Where the resource is not found, the line begins
    // with the text of that failure. Throws `TQCoreException` 87 (ERROR_INVALID_PARAMETER) for a destination that
    // is none of the four.
    template <class... Args>
    [[nodiscard]] const wchar_t* FullMsg(TQStrResDestination destination, const Args&... args) const {
        if constexpr (sizeof...(Args) == 0)
            return FullLine(destination, {}).c_str();
        else {
            const TQMsgArg array[] = {TQMsgArg(args)...};
            return FullLine(destination, array).c_str();
        }
    }

    // The log block: "Exception[Prc:PROCESS:Thr:THREAD]{APPLICATION} ", the message for the log, " in " and
    // `where` unless that is null, empty or unreadable, and a line break; for an operating-system exception a
    // second line that tells what happened at which address in which module. Replaces what `out` held.
    void AssembleLogOutput(const wchar_t* where, STLString& out) const;

    // The failure and what led to it, for people: `FullMsg`, then each with a line of its own the files, the
    // operating-system exception and, behind "Caused by: ", the same of each inner exception. In place of a
    // system text an NTSTATUS has its name. Throws as `FullMsg`.
    [[nodiscard]] STLString ChainMsg(TQStrResDestination destination) const;

    // Writes the log block to the debugger output, and what `ChainMsg` has beyond it. Throws nothing.
    void DebugReport() const noexcept;

    // Says that the process is not to be ended because of this exception.
    void SetDontExit(bool dontExit = true) const noexcept { m_isDontExit = dontExit; }
    [[nodiscard]] bool DontExit() const noexcept { return m_isDontExit; }
    // True for the instance that is kept in reserve for reporting that memory is exhausted, and for its
    // copies.
    [[nodiscard]] bool PreAllocatedException() const noexcept { return m_isPreAllocated; }

    // While it lives, operating-system exceptions on the thread that created it (an access violation, an
    // in-page error, a division by zero, an illegal instruction, whatever `RaiseException` raises) are thrown
    // as `_TQWin32Exception` from where they arose; destructors between there and the catch run in code
    // compiled with the options that the library hands on. Traps nest, last in first out; each belongs on the
    // stack of its thread. A thread without a trap is left alone. A stack overflow and a fault inside the
    // memory allocator end the process as without a trap. Throws 14 (ERROR_OUTOFMEMORY) where there is no
    // memory for a thread's first trap.
    class TQLIB_API Trap_SEH {
      public:
        // `name` tells the trap in a debugger; it must outlive the trap.
        explicit Trap_SEH(const wchar_t* name = nullptr);
        ~Trap_SEH();
        Trap_SEH(const Trap_SEH&) = delete;
        Trap_SEH& operator=(const Trap_SEH&) = delete;

        const wchar_t* Name() const noexcept { return m_name; }
        DWORD ThreadID() const noexcept { return m_thread; }

      private:
        friend class _TQWin32Exception;
        const wchar_t* m_name;
        DWORD m_thread;
        Platform::StructuredExceptionTranslator m_previousTranslator = nullptr;
        Trap_SEH* m_outer = nullptr;  // the thread's trap before this one
        Trap_SEH* m_next = nullptr;   // of the innermost traps, another thread's
    };

    // The innermost trap of a thread, null without one. The trap may end at any time unless the caller is its
    // thread.
    [[nodiscard]] static Trap_SEH* ThreadHandler(DWORD threadId) noexcept;

  protected:
    // Out of line, so that a function that throws stays short: the runtime reads through its table of calls for
    // each exception.
    _TQWin32Exception(const _TQWin32Exception* inner, const _TQExceptionContent& content,
                      bool isPreAllocated = false);
    // The calling thread's last error.
    static unsigned int LastError() noexcept;

  private:
    static void RegisterHandler(Trap_SEH& trap);
    static void UnregisterHandler(Trap_SEH& trap) noexcept;
    // Where the thread's innermost trap stands in the list, or the list's end.
    [[nodiscard]] static Trap_SEH** EntryOf(DWORD thread, Trap_SEH*& first) noexcept;
    static void _SEH_Trap(unsigned int code, _EXCEPTION_POINTERS* pointers);
    void AppendOSExceptionLine(STLString& out) const;
    // The lines of the chain behind its first, each with a line break.
    void AppendCauses(TQStrResDestination destination, bool withOwnFault, STLString& out) const;
    [[nodiscard]] STLString ChainLine(TQStrResDestination destination) const;

    bool m_isPreAllocated = false;
    mutable bool m_isDontExit = false;
};

// The user's message.
template <class C, class Traits>
std::basic_ostream<C, Traits>& operator<<(std::basic_ostream<C, Traits>& out,
                                          const _TQWin32Exception& failure) {
    if constexpr (std::is_same_v<C, wchar_t>)
        return out << failure.FullMsg(TQStrResDestination::User);
    else
        return out << failure.what();
}

}  // namespace Quellan::Corvel
