// Text files that many write to at once.
#pragma once

#include "files/TQFile.h"

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace Quellan::Corvel {

// A file of lines in the system's ANSI code page (UTF-8 on Linux), to which records are appended whole: those
// of several threads, objects and processes follow each other and never mix. A writer that is killed in the
// middle leaves at most its own record unfinished, and the next one begins on a new line.
//
// Threads that append to one object at the same time share the work: one of them writes the records of all
// who have come meanwhile, in one write, and returns theirs as well. Each returns when its own record has
// been written and flushed.
class TQLIB_API TQTextFile : public _TQFile {
  public:
    // As `_TQFile`. Appending takes the rights to read and to write data.
    TQTextFile(const TQFileName& name, DWORD access, DWORD disposition, DWORD flags, FileShare share,
               const Sarvek::SecAttr& security);
    ~TQTextFile() override;

    // Appends `record` and a line feed, with each line break in it as CR-LF, and flushes the file. Waits up
    // to `ms` milliseconds for the file's append lock, and throws 33 (ERROR_LOCK_VIOLATION) when the time is
    // up. What can't be written whole is taken back, and the platform's code thrown.
    void Append(std::wstring_view record, DWORD ms);

  private:
    struct Pending;
    struct Turn;

    // Both with the queue's lock held.
    // The first ones of the queue, together not more than `most` bytes unless it is one alone.
    Pending* TakeBatch(std::size_t most) noexcept;
    void HandOver() noexcept;

    // These give codes in the place of exceptions, which could not be shared by the threads that they are
    // for.
    void WriteQueue(Pending& own) noexcept;
    void WriteBatch(Pending* batch) noexcept;
    DWORD WriteAtEnd(std::string_view bytes, bool& isLeftBehind) noexcept;

    bool EndsInsideLine(ULONGLONG end);
    bool TakeBack(ULONGLONG end) noexcept;

    std::mutex m_lock;
    // Guarded by m_lock.
    Pending* m_first = nullptr;
    Pending* m_last = nullptr;
    bool m_hasWriter = false;
    std::vector<std::unique_ptr<Turn>> m_turns;  // not in use

    // Of whoever writes.
    ULONGLONG m_knownEnd = 0;  // where the last write here ended
    std::string m_joined;
};

}  // namespace Quellan::Corvel
