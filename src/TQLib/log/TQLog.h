// The diagnostic log.
#pragma once

#include "TQLib/core/base/TQObject.h"
#include "TQLib/files/TQFileName.h"
#include "TQLib/platform/Types.h"
#include "TQLib/security/SecAttr.h"
#include "TQLib/text/STLString.h"
#include "TQLib/text/TQString.h"
#include "TQLib/text/memory/TQSmartPtr.h"

#include <functional>
#include <map>
#include <optional>

namespace Quellan::Corvel {

// What a record is about. Each level is one character in the file, the mark behind it here; every other value
// is written as '?'.
enum class TQLogLevel : int {
    Raw = 0,          // R
    Step = 1,         // s
    Loop = 2,         // L
    Input = 3,        // i
    Output = 4,       // o
    Debug = 5,        // D
    Audit = 6,        // A
    State = 7,        // S
    Trace = 8,        // T
    Information = 9,  // I
    Warning = 10,     // W
    Error = 11,       // E
    Exception = 12,   // X
    Critical = 13,    // #
};

class LogFile;
class TQLog;
using TQLogPtr = TQSmartPtr<TQLog, _TQRefThrPtr<TQLog, 1, 0>>;

// A plain-text log: one file, shared by all objects of the process that ask for its name and by all processes
// that write to it. Each message becomes a record of a header line (level, local time, application, process,
// module, thread, source and user) and the message, indented by four blanks; docs/formats/log-file.md has the
// details.
//
// A log without a file is the null log: it drops what it is given and its size is 0. It is what `GetLog`
// hands out where logging can't be set up, which is reported once to the system event log.
//
// Copies share the file. All members but `Close` and assignment may be called by several threads at once. A
// record that has been written is on the disk when `AddMsg` returns. Writing never throws. A record that
// can't be written, also because another writer keeps the file locked for two seconds, is lost, and so that
// it is not lost in silence: `Lost` counts it, the next record of this process that gets through brings
// another one with it that tells how many were lost, and the system event log gets an entry when the first
// one is. A record whose user can't be found has none. Writing leaves the last error alone.
//
// A log stays at its name. Where its file is moved or deleted, which Windows doesn't allow, the next record
// begins a new one. After a fork parent and child may both write; the child has lost nothing yet.
class TQLIB_API TQLog {
  public:
    // Where a log is rolled over if nothing else is said, in bytes.
    static constexpr ULONGLONG DefaultMaxSize = 0x200000;

    // All logs that this process has opened, by their full names in upper case.
    using LogMap = std::map<TQFileName, TQSPtrCont<TQLogPtr>, std::less<TQFileName>>;

    TQLog(const TQLog&) noexcept;
    TQLog& operator=(const TQLog&) noexcept;
    ~TQLog();

    // The log of that file, whatever the case of its name; without an extension it has the extension "tlg".
    // The first time it is opened, or made with a security descriptor that lets administrators do everything
    // and users read and write, and if it then has `maxSize` bytes or more (0 for the default) it is moved to
    // a backup, NAME_bak.EXTENSION, in the place of an older one, and begun anew. Where it can't be moved the
    // null log is handed out, for the life of the process; where it can't be opened too, and whoever asks
    // again tries again. On Linux a new file may be read and written by its owner and read by its group.
    //
    // A thread that impersonates somebody does all of this as the process itself. Throws "Process reverse
    // impersonation revert process failed." where it can't impersonate again, and the platform's code where
    // it can't stop to, 14 (ERROR_OUTOFMEMORY) where there is no memory.
    static TQLogPtr GetLog(const wchar_t* fileName, ULONGLONG maxSize);

    // The level's name in English, such as "Warning"; "Unknown" for every other value.
    [[nodiscard]] static const wchar_t* LevelName(TQLogLevel level) noexcept;

    // A null message is an empty one.
    void AddMsg(const wchar_t* message, TQLogLevel level) noexcept;
    void AddMsg(const wchar_t* message, TQLogLevel level, const STLString& source) noexcept;
    // The source is the object's description and its address; null stands for no source.
    void AddMsg(const wchar_t* message, TQLogLevel level, const TQObject* object) noexcept;

    // Gives this object's share of the file up: it is a null log from then on.
    void Close() noexcept;
    // Of the file now, in bytes. Throws `TQSysException` with the platform's code.
    [[nodiscard]] ULONGLONG Size() const;
    // How many records could not be written to the file since this process opened it, by all who share it
    // there. 0 for a null log, which has nothing to lose them from.
    [[nodiscard]] ULONGLONG Lost() const noexcept;

  private:
    friend class TQLib;
    struct Failure;
    struct State;

    TQLog();
    TQLog(const wchar_t* fileName, bool secure);

    [[nodiscard]] static Sarvek::SecAttr GetLogSecurity();
    [[nodiscard]] static State& TheState();
    [[nodiscard]] static TQLogPtr NullLog();
    [[nodiscard]] static TQLogPtr Find(const TQFileName& key);
    [[nodiscard]] static TQLogPtr OpenInTurn(const TQFileName& name, const TQFileName& key,
                                             ULONGLONG maxSize);
    // Tells what went wrong. Null where a file was there and was moved away.
    [[nodiscard]] static TQLogPtr Open(const TQFileName& name, ULONGLONG maxSize,
                                       std::optional<Failure>& failure);
    // `log` is the one that is kept afterwards; a failure that was told before is taken away.
    static void Keep(const TQFileName& key, TQLogPtr& log, std::optional<Failure>& failure);

    void AddMsg(const wchar_t* message, const wchar_t* source, TQLogLevel level) noexcept;

    TQString m_moduleName;
    TQString m_appName;
    TQSmartPtr<LogFile, _TQRefThrPtr<LogFile>> m_file;
    bool m_flag = false;
};

}  // namespace Quellan::Corvel
