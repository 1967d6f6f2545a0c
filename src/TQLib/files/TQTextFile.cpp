#include "TQLib/files/TQTextFile.h"

#include "TQLib/core/internal/About.h"
#include "TQLib/core/internal/Insist.h"
#include "TQLib/files/internal/AnsiLines.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/platform/SharedFlush.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <memory>
#include <string>

namespace Quellan::Corvel {

namespace {

constexpr const wchar_t* AppendName = L"TQTextFile::Append";
// Bytes far behind the text, where no reader is kept out, on Windows either. Whoever holds the append lock
// writes. The door before it is held by the one who waits for it, so that nobody who comes later, and not
// who has just written either, can be faster more than once.
constexpr ULONGLONG AppendLock = (1ULL << 62) - 1;
constexpr ULONGLONG Door = AppendLock - 1;
// More waits for the next write.
constexpr std::size_t MostJoined = 1 << 20;
// Who waits next to the lock for so long without having it may have been stopped.
constexpr DWORD StoppedAtDoorMs = 50;
// A record that another process is writing can't be taken back: it is waited for as long as a slow disk takes.
constexpr DWORD WritingMs = 10'000;
// What is shared with other processes could not be had because of what may have changed by then.
constexpr DWORD TrySharingAgainMs = 1'000;

// The code that `work` throws, or 0.
template <class Work>
DWORD CodeOf(Work work) noexcept {
    try {
        work();
        return ERROR_SUCCESS;
    } catch (const TQCoreException& failure) {
        return static_cast<DWORD>(failure.COMErrCode());
    } catch (...) {
        return ERROR_OUTOFMEMORY;
    }
}

}  // namespace

// What a thread waits for while another one writes.
struct TQTextFile::Turn {
    TQUniqueHandle<_TQKernelHandleClose> event{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    std::unique_ptr<Turn> next;
};

// A record on its way, on the stack of its thread.
struct TQTextFile::Pending {
    std::string_view bytes;
    TQCountdownTimer timer;
    std::unique_ptr<Turn> turn;  // of one that waits
    Pending* next = nullptr;
    ULONGLONG offered = 0;  // where it ends among what other processes may write, or 0
    DWORD code = 0;         // of its failure
    bool isWriter = false;  // it has to write, itself and the others

    void Wake() const noexcept { SetSurely(turn->event.Get()); }
};

TQTextFile::TQTextFile(const TQFileName& name, DWORD access, DWORD disposition, DWORD flags, FileShare share,
                       const Sarvek::SecAttr& security)
    : _TQFile(name, access, disposition, flags, share, security), m_queue{.process = GetCurrentProcessId()} {}

TQTextFile::~TQTextFile() = default;

void TQTextFile::Append(std::wstring_view record, DWORD ms) {
    Translated(AppendName, [&] {
        AnsiText bytes;
        AppendAnsi(bytes, record);
        bytes.Append("\r\n");
        AppendBytes(bytes.View(), ms);
    });
}

void TQTextFile::AppendBytes(std::string_view record, DWORD ms) {
    Translated(AppendName, [&] {
        Pending own{.bytes = record, .timer = TQCountdownTimer(ms), .turn = nullptr};
        if (!Enter(own)) {
            own.turn = std::make_unique<Turn>();
            if (!own.turn->event.IsValid()) TQSysException::ThrowLastError(AppendName);
            Enter(own);
        }
        if (own.turn) {
            // The record is queued and can't be left behind.
            AwaitSurely({own.turn->event.Get()});
            const TQThreadSynch::TQSynchLock guard(m_lock);
            PutBack(std::move(own.turn));
        }
        if (own.isWriter) WriteQueue(own);
        if (own.code)
            About(FileName().FullName(),
                  [&] { throw TQSysException(static_cast<unsigned int>(own.code), AppendName); });
    });
}

// What they have is left as it is, and not given back.
void TQTextFile::LeaveQueueToParent(DWORD process) noexcept {
    std::construct_at(&m_queue, Queue{.process = process});
    std::construct_at(&m_joined);
    std::construct_at(&m_behindOthers);
    std::construct_at(&m_shared);
}

bool TQTextFile::Enter(Pending& own) noexcept {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    if (const DWORD process = GetCurrentProcessId(); m_queue.process != process) LeaveQueueToParent(process);
    own.isWriter = !m_queue.hasWriter;
    if (own.isWriter) {
        if (own.turn) PutBack(std::move(own.turn));
    } else if (!own.turn) {
        if (!m_queue.turns) return false;
        own.turn = std::exchange(m_queue.turns, std::move(m_queue.turns->next));
    }
    m_queue.hasWriter = true;
    const Pending* const before = m_queue.last;
    (m_queue.last ? m_queue.last->next : m_queue.first) = &own;
    m_queue.last = &own;
    if (!own.isWriter) Offer(own, before);
    return true;
}

void TQTextFile::PutBack(std::unique_ptr<Turn> turn) noexcept {
    turn->next = std::exchange(m_queue.turns, nullptr);
    m_queue.turns = std::move(turn);
}

void TQTextFile::Offer(Pending& pending, const Pending* before) noexcept {
    if (m_queue.isShared && (!before || before->offered)) pending.offered = m_shared->Offer(pending.bytes);
}

void TQTextFile::OfferQueue() noexcept {
    m_queue.isShared = true;
    const Pending* before = nullptr;
    for (Pending* each = m_queue.first; each; before = each, each = each->next)
        if (!each->offered) Offer(*each, before);
}

void TQTextFile::TakeBackOffers() noexcept {
    if (!m_shared) return;
    m_shared->TakeBackAll();
    m_queue.isShared = m_shared->HasOthers();
    for (Pending* each = m_queue.first; each; each = each->next)
        each->offered = 0;
}

bool TQTextFile::TakeBackOffer(Pending& own) noexcept {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    if (own.offered && m_shared->TakeBack(own.offered)) own.offered = 0;
    return own.offered == 0;
}

bool TQTextFile::IsWrittenByOthers(const Pending& pending) const noexcept {
    return pending.offered && m_shared->IsWritten(pending.offered);
}

template <class Belongs>
TQTextFile::Pending* TQTextFile::TakeBatch(Belongs belongs) noexcept {
    Pending* const batch = m_queue.first;
    Pending* last = m_queue.first;
    while (last->next && belongs(*last->next))
        last = last->next;
    m_queue.first = last->next;
    if (!m_queue.first) m_queue.last = nullptr;
    last->next = nullptr;
    return batch;
}

TQTextFile::Pending* TQTextFile::HandOver() noexcept {
    m_queue.hasWriter = m_queue.first != nullptr;
    if (m_queue.first) m_queue.first->isWriter = true;
    return m_queue.first;
}

bool TQTextFile::LockForAppending(Pending& own) {
    if (IsWrittenByOthers(own)) return false;
    // In one call where nobody else is about. It keeps the door shut meanwhile, at which nobody can begin to
    // wait then: so every other time the door is left alone.
    const ULONGLONG first = m_lockedFrom == Door ? AppendLock : Door;
    m_lockedFrom = AppendLock;
    if (Lock(first, AppendLock + 1 - first, 0))
        m_lockedFrom = first;
    else if (!CanShare())
        AwaitLock(own.timer);
    else if (!AwaitLockOrWriter(own))
        return false;
    if (!m_shared) return true;
    const DWORD code = m_shared->Begin();
    if (!code && !IsWrittenByOthers(own)) return true;
    LeaveLock();
    if (code) throw TQSysException(static_cast<unsigned int>(code), AppendName);
    return false;
}

void TQTextFile::AwaitLock(const TQCountdownTimer& timer) {
    const auto enter = [&](ULONGLONG offset) {
        if (!Lock(offset, 1, timer.Remaining())) throw TQSysException(ERROR_LOCK_VIOLATION, AppendName);
    };
    enter(Door);
    const DWORD code = CodeOf([&] { enter(AppendLock); });
    Leave(Door, Door);
    if (code) throw TQSysException(static_cast<unsigned int>(code), AppendName);
}

bool TQTextFile::CanShare() noexcept {
    if (!m_shared && m_untilNextTry.IsExpired()) {
        m_untilNextTry.Restart(TrySharingAgainMs);
        CodeOf([&] { m_shared = Platform::SharedFlush::Open(Handle()); });
    }
    return m_shared != nullptr;
}

bool TQTextFile::AwaitLockOrWriter(Pending& own) {
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        OfferQueue();
    }
    bool hasDoor = false, isLocked = false, isLate = false;
    const TQCountdownTimer atDoor(StoppedAtDoorMs);
    TQCountdownTimer writing(WritingMs);
    const DWORD code = CodeOf([&] {
        for (;;) {
            const DWORD begun = m_shared->BeginWait();
            if (IsWrittenByOthers(own)) return;
            hasDoor = hasDoor || Lock(Door, 1, 0);
            isLocked = (hasDoor || atDoor.IsExpired()) && Lock(AppendLock, 1, 0);
            if (isLocked) return;
            DWORD left = own.timer.Remaining();
            if (left == 0) {
                if (!std::exchange(isLate, true)) writing.Restart();
                left = TakeBackOffer(own) ? 0 : writing.Remaining();
            }
            if (left == 0) throw TQSysException(ERROR_LOCK_VIOLATION, AppendName);
            m_shared->Wait(begun, left);
        }
    });
    if (hasDoor) Leave(Door, Door);
    if (code) throw TQSysException(static_cast<unsigned int>(code), AppendName);
    return isLocked;
}

void TQTextFile::LeaveLock() noexcept {
    if (m_shared) m_shared->End();
    Leave(m_lockedFrom, AppendLock);
    if (m_shared) m_shared->WakeOthers();
}

// A lock that can't be given back ends with the file; what was written stays written.
void TQTextFile::Leave(ULONGLONG first, ULONGLONG last) noexcept {
    Insist([&] { return CodeOf([&] { Unlock(first, last + 1 - first); }) == ERROR_SUCCESS; });
}

// `own` is the first of the queue: nobody takes it out while its thread is the writer.
void TQTextFile::WriteQueue(Pending& own) noexcept {
    bool isLocked = false;
    own.code = CodeOf([&] { isLocked = LockForAppending(own); });
    if (own.code && !TakeBackOffer(own) && IsWrittenByOthers(own)) own.code = ERROR_SUCCESS;
    Pending* batch;
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        if (isLocked) TakeBackOffers();
        std::size_t size = own.bytes.size();
        batch = TakeBatch([&](const Pending& next) {
            if (!isLocked) return !own.code && IsWrittenByOthers(next);
            size += next.bytes.size();
            return size <= MostJoined;
        });
    }
    if (isLocked) {
        WriteBatch(batch);
        LeaveLock();
    }
    Pending* successor;
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        successor = HandOver();
    }
    for (Pending* each = batch->next; each;) {
        Pending* const next = each->next;  // once awake, its thread takes it away
        each->Wake();
        each = next;
    }
    // Last, so that records which the others have ready by then go with its own.
    if (successor) successor->Wake();
}

void TQTextFile::WriteBatch(Pending* batch) noexcept {
    bool isLeftBehind = false;
    std::string_view bytes = batch->bytes;
    DWORD code = CodeOf([&] {
        if (!batch->next) return;
        m_joined.clear();
        for (const Pending* each = batch; each; each = each->next)
            m_joined.append(each->bytes);
        bytes = m_joined;
    });
    const bool takesOffers = m_shared && m_shared->HasOffers();
    if (!code) code = WriteAtEnd(bytes, takesOffers, isLeftBehind);
    // What fails together may go alone: a shorter record where the disk is nearly full.
    const bool triesEach = code && (batch->next || takesOffers) && !isLeftBehind;
    for (Pending* each = batch; each; each = each->next)
        each->code = triesEach && !isLeftBehind ? WriteAtEnd(each->bytes, false, isLeftBehind) : code;
}

ULONGLONG TQTextFile::End() const {
    const std::optional<ULONGLONG> size = SizeAtItsName();
    if (!size) throw TQSysException(ERROR_FILE_INVALID, AppendName);
    return *size;
}

bool TQTextFile::EndsInsideLine(ULONGLONG end) {
    if (end == 0 || end == m_knownEnd) return false;
    char last = '\n';
    return ReadAt(end - 1, &last, 1) == 1 && last != '\n';
}

bool TQTextFile::TakeBack(ULONGLONG end) noexcept {
    return CodeOf([&] { SetEnd(end); }) == ERROR_SUCCESS;
}

// `isLeftBehind` tells that some of the bytes are in the file although writing failed.
DWORD TQTextFile::WriteAtEnd(std::string_view bytes, bool takesOffers, bool& isLeftBehind) noexcept {
    ULONGLONG end = 0;
    m_behindOthers.clear();
    DWORD code = CodeOf([&] {
        end = End();
        // Whoever left that was killed, and may have been writing for others.
        bool isTorn = EndsInsideLine(end);
        if (isTorn && !m_shared && CanShare()) {
            if (const DWORD failed = m_shared->Begin())
                throw TQSysException(static_cast<unsigned int>(failed), AppendName);
            end = End();
            isTorn = EndsInsideLine(end);
        }
        if (isTorn) m_behindOthers.append("\r\n");
        if (takesOffers) m_shared->Take(m_behindOthers, end + m_behindOthers.size());
        if (!m_behindOthers.empty()) bytes = m_behindOthers.append(bytes);
    });
    if (!code) {
        code = CodeOf([&] {
            WriteAt(end, bytes.data(), bytes.size());
            Flush();
        });
        if (code)
            isLeftBehind = !TakeBack(end);
        else
            m_knownEnd = end + bytes.size();
    }
    if (takesOffers && !isLeftBehind) m_shared->Settle(!code);
    return code;
}

}  // namespace Quellan::Corvel
