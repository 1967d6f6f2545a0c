// Records of several processes that go to the disk together.
#pragma once

#include "TQLib/platform/Types.h"

#include <memory>
#include <string>
#include <string_view>

namespace Quellan::Platform {

// Memory that the processes which append to one file share, of one user's processes alone. Who has to wait
// for the right to append offers his records there, and who has that right, which some lock on the file
// gives and not this memory, writes what the others have offered before his own. Whoever dies while he
// writes leaves it to the next one to find out what of it is in the file.
//
// Records are known by the end of their place among all that were offered here, which is never 0. What is
// offered goes into the file in that order.
//
// One object for each open file and process. Several threads may use it, but those of a group take turns:
// `Offer` and `TakeBackAll`; and what waits or writes, which are all the others. In the child of a fork it is
// not to be used, only to be forgotten or ended.
class SharedFlush {
  public:
    // `file` must outlive it. Null where there is no such memory to be had, on Windows always. May throw
    // std::bad_alloc.
    static TQLIB_API std::unique_ptr<SharedFlush> Open(HANDLE file);

    virtual ~SharedFlush() = default;
    SharedFlush(const SharedFlush&) = delete;
    SharedFlush& operator=(const SharedFlush&) = delete;

    // The record's end, or 0 where there is no room for it.
    virtual ULONGLONG Offer(std::string_view record) noexcept = 0;

    // Of whoever waits.

    // Whether the record is in the file and on the disk.
    virtual bool IsWritten(ULONGLONG end) const noexcept = 0;
    // Takes back the first record that is not written yet. False where somebody has begun to write it, or has
    // written it.
    virtual bool TakeBack(ULONGLONG end) noexcept = 0;
    // What to look at after the first, and before the second, which sleeps unless somebody has written
    // meanwhile: at most `ms` milliseconds, and less where nobody may tell of the end of what he writes.
    virtual DWORD BeginWait() noexcept = 0;
    virtual void Wait(DWORD begun, DWORD ms) noexcept = 0;

    // Of whoever has the right to append.

    // To be called first: finds out what became of the records of a writer who ended before he was done. The
    // platform's code where it can't, and then nothing may be written.
    virtual DWORD Begin() noexcept = 0;
    // Whether others wait or have offered records.
    virtual bool HasOthers() const noexcept = 0;
    virtual bool HasOffers() const noexcept = 0;
    // Takes back all that was offered here.
    virtual void TakeBackAll() noexcept = 0;
    // Takes the others' records, which are to be written behind `bytes`, and these at the file's offset
    // `place`. May throw std::bad_alloc, with some of them taken.
    virtual void Take(std::string& bytes, ULONGLONG place) = 0;
    // They are on the disk, or nothing of them is in the file; to be left out where neither is sure.
    virtual void Settle(bool areWritten) noexcept = 0;
    // Before the right is given back, and after it.
    virtual void End() noexcept = 0;
    virtual void WakeOthers() noexcept = 0;

  protected:
    SharedFlush() = default;
};

}  // namespace Quellan::Platform
