// Text files that many write to at once.
#pragma once

#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/files/TQFile.h"
#include "TQLib/log/time/TQTimer.h"

#include <memory>
#include <string>
#include <string_view>

namespace Quellan::Platform {

class SharedFlush;

}  // namespace Quellan::Platform

namespace Quellan::Corvel {

// A file of lines in the system's ANSI code page (UTF-8 on Linux), to which records are appended whole: those
// of several threads, objects and processes follow each other and never mix. A writer that is killed in the
// middle leaves at most its own record unfinished, and the next one begins on a new line.
//
// Threads that append to one object at the same time share the work: one of them writes the records of all
// who have come meanwhile, in one write, and returns theirs as well. Each returns when its own record has
// been written and flushed. Threads are served in the order in which they came. Among objects and processes
// one waits next to the lock, and while it does each of the others can take it once at most; who of them
// follows is a matter of chance, in which the one who has waited longest has most lots. On Linux the objects
// and processes of one user share the work, too: what waits for the lock is written by whoever has it next.
class TQLIB_API TQTextFile : public _TQFile {
  public:
    // As `_TQFile`. Appending takes the rights to read and to write data.
    TQTextFile(const TQFileName& name, DWORD access, DWORD disposition, DWORD flags, FileShare share,
               const Sarvek::SecAttr& security);
    ~TQTextFile() override;

    // Appends `record` and a line feed, with each line break in it as CR-LF, and flushes the file. Waits up
    // to `ms` milliseconds for the file's append lock, and throws 33 (ERROR_LOCK_VIOLATION) when the time is
    // up. Throws 1006 (ERROR_FILE_INVALID) when the file is no longer at its name: the record belongs into
    // another one. What can't be written whole is taken back, and the platform's code thrown. A record that
    // another process was writing when that was stopped is waited for ten seconds more, and then may be
    // written after all.
    void Append(std::wstring_view record, DWORD ms);
    // The same for a record that is in the file's code page already, with CR-LF behind each of its lines.
    void AppendBytes(std::string_view record, DWORD ms);

  private:
    struct Pending;
    struct Turn;
    struct Queue {
        DWORD process;  // whose threads they are
        Pending* first = nullptr;
        Pending* last = nullptr;
        bool hasWriter = false;
        bool isShared = false;          // with other processes, who may write what is in it
        std::unique_ptr<Turn> turns{};  // not in use, each owns the next
    };

    // In the child of a fork: none of the threads in the queue are there, and what they were changing may be
    // half changed.
    void LeaveQueueToParent(DWORD process) noexcept TQ_REQUIRES(m_lock);
    // False where it would have to wait and has no turn to wait for.
    bool Enter(Pending& own) noexcept;
    void PutBack(std::unique_ptr<Turn> turn) noexcept TQ_REQUIRES(m_lock);
    // Offers the record to other processes, unless it would come before one that is not.
    void Offer(Pending& pending, const Pending* before) noexcept TQ_REQUIRES(m_lock);
    void OfferQueue() noexcept TQ_REQUIRES(m_lock);
    void TakeBackOffers() noexcept TQ_REQUIRES(m_lock);
    // True where the record is its owner's alone again, and stays that.
    bool TakeBackOffer(Pending& own) noexcept;
    bool IsWrittenByOthers(const Pending& pending) const noexcept;
    // The first one of the queue, and those behind it up to the one that `belongs` says no to.
    template <class Belongs>
    Pending* TakeBatch(Belongs belongs) noexcept TQ_REQUIRES(m_lock);
    // The writer from now on, null where nobody is left.
    Pending* HandOver() noexcept TQ_REQUIRES(m_lock);

    // These give codes in the place of exceptions, which could not be shared by the threads that they are
    // for.
    void WriteQueue(Pending& own) noexcept;
    void WriteBatch(Pending* batch) noexcept;
    DWORD WriteAtEnd(std::string_view bytes, bool takesOffers, bool& isLeftBehind) noexcept;

    // False where another process has written the record meanwhile: the lock is not taken then.
    bool LockForAppending(Pending& own);
    // Whether m_shared is there, now at the latest.
    bool CanShare() noexcept;
    bool AwaitLockOrWriter(Pending& own);
    void AwaitLock(const TQCountdownTimer& timer);
    void LeaveLock() noexcept;
    void Leave(ULONGLONG first, ULONGLONG last) noexcept;
    ULONGLONG End() const;
    bool EndsInsideLine(ULONGLONG end);
    bool TakeBack(ULONGLONG end) noexcept;

    TQThreadSynch m_lock;
    Queue m_queue TQ_GUARDED_BY(m_lock);

    // Of whoever writes.
    ULONGLONG m_knownEnd = 0;    // where the last write here ended
    ULONGLONG m_lockedFrom = 0;  // the first byte of the lock for it
    std::string m_joined, m_behindOthers;
    TQCountdownTimer m_untilNextTry{0};  // to have m_shared
    // Where others wait, too. Made by whoever writes; with `isShared` others offer there what is theirs.
    std::unique_ptr<Platform::SharedFlush> m_shared;
};

}  // namespace Quellan::Corvel
