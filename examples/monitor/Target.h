// One of the files and folders that are watched.
#pragma once

#include "Journal.h"
#include "TQLib/platform/Win32.h"

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <vector>

struct CheckSummary {
    ULONGLONG checks = 0;
    ULONGLONG folders = 0;  // in the last check, as are the files
    ULONGLONG files = 0;
    ULONGLONG bytes = 0;  // read in all checks, as are the next two
    ULONGLONG changes = 0;
    ULONGLONG failures = 0;
    ULONGLONG exposed = 0;  // 1 where strangers may write to the target

    CheckSummary& operator+=(const CheckSummary& other);
};

// A file, or a folder with all that is below it, which is looked at again and again: names its owner, tells
// whether strangers may write to it, reads what is new, tells what has changed and reports every platform call
// that fails, also as an entry of the event log. Failures are reported when they arise, and counted, never thrown.
//
// A check goes from `Begin` through `Check` to `End`, or to `Fail` where an exception left it; they may be
// called on different threads, one after the other. The other members are for any thread.
class Target {
  public:
    // The target whose check raises an access violation, to show what becomes of one.
    static constexpr const wchar_t* FaultyCheck = L"fault:check";

    // `isToFix`: rights of strangers to write to the target are taken away, and it is told which. `isStopped`
    // is asked again and again during a check; once it says yes, the check ends and counts for
    // nothing. `onEnd` is called at the end of each check. Neither may throw.
    Target(Quellan::Corvel::TQString path, bool isToFix, std::function<bool()> isStopped,
           std::function<void()> onEnd)
        : m_path(std::move(path)),
          m_isToFix(isToFix),
          m_isStopped(std::move(isStopped)),
          m_onEnd(std::move(onEnd)) {}

    // False while a check is under way, and for good after one that failed.
    bool Begin() noexcept { return !m_isTaken.exchange(true); }
    // A file is read if it is new, has changed or could not be read before. From the second check on, files
    // that were added, removed or changed in size or time are named; of what could not be looked at, nothing
    // is said.
    void Check();
    void End();
    // Tells so.
    void Fail(unsigned int code, const wchar_t* message);

    // As the last check that was finished left it.
    CheckSummary Summary() const;
    bool HasFailed() const noexcept { return m_hasFailed; }

  private:
    struct FileState {
        DWORD attributes;
        ULONGLONG size;
        ULONGLONG written;
        bool operator==(const FileState&) const = default;
    };
    struct Snapshot {
        std::map<Quellan::Corvel::TQString, FileState> files;
        std::map<Quellan::Corvel::TQString, DWORD> failures;  // codes
    };

    template <class Data>
    static FileState StateOf(const Data& data);

    void CheckTarget();
    void CheckOwner(const Quellan::Sarvek::SecDesc& descriptor);
    void CheckList(const Quellan::Sarvek::SecDesc& descriptor);
    void CheckEntry(const Quellan::Corvel::TQString& path, const FileState& state);
    void CheckFolder(const Quellan::Corvel::TQString& path);
    void CheckFile(const Quellan::Corvel::TQString& path, const FileState& state);
    void TellChanges();
    void TellChange(const wchar_t* change, const Quellan::Corvel::TQString& path);
    void Report(const Quellan::Corvel::TQCoreException& failure, const wchar_t* where,
                const Quellan::Corvel::TQString& path);

    const Quellan::Corvel::TQString m_path;
    const bool m_isToFix;
    const std::function<bool()> m_isStopped;
    const std::function<void()> m_onEnd;
    std::atomic<bool> m_isTaken{false};
    std::atomic<bool> m_hasFailed{false};

    // Of the check under way.
    Quellan::Sarvek::SecID m_owner;  // null until it was named
    bool m_isExposureTold = false;
    Snapshot m_before;  // what the last one found
    Snapshot m_now;
    CheckSummary m_counts;

    mutable Quellan::Corvel::TQThreadSynch m_lock;
    CheckSummary m_summary TQ_GUARDED_BY(m_lock);
};

using TargetList = std::vector<std::unique_ptr<Target>>;
