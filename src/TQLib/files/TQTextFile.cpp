#include "TQLib/files/TQTextFile.h"

#include "TQLib/core/internal/About.h"
#include "TQLib/core/internal/Insist.h"
#include "TQLib/files/internal/AnsiLines.h"
#include "TQLib/log/time/TQTimer.h"
#include "TQLib/platform/Platform.h"
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
    UniqueHandle<_TQKernelHandleClose> event{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    std::unique_ptr<Turn> next;
};

// A record on its way, on the stack of its thread.
struct TQTextFile::Pending {
    std::string_view bytes;
    TQCountdownTimer timer;
    std::unique_ptr<Turn> turn;  // of one that waits
    Pending* next = nullptr;
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
    (m_queue.last ? m_queue.last->next : m_queue.first) = &own;
    m_queue.last = &own;
    return true;
}

void TQTextFile::PutBack(std::unique_ptr<Turn> turn) noexcept {
    turn->next = std::exchange(m_queue.turns, nullptr);
    m_queue.turns = std::move(turn);
}

TQTextFile::Pending* TQTextFile::TakeBatch(std::size_t most) noexcept {
    Pending* const batch = m_queue.first;
    Pending* last = m_queue.first;
    for (std::size_t size = last->bytes.size(); last->next; last = last->next) {
        size += last->next->bytes.size();
        if (size > most) break;
    }
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

void TQTextFile::LockForAppending(const TQCountdownTimer& timer) {
    // In one call where nobody else is about. It keeps the door shut meanwhile, at which nobody can begin to
    // wait then: so every other time the door is left alone.
    const ULONGLONG first = m_lockedFrom == Door ? AppendLock : Door;
    m_lockedFrom = AppendLock;
    if (Lock(first, AppendLock + 1 - first, 0)) {
        m_lockedFrom = first;
        return;
    }
    const auto enter = [&](ULONGLONG offset) {
        if (!Lock(offset, 1, timer.Remaining())) throw TQSysException(ERROR_LOCK_VIOLATION, AppendName);
    };
    enter(Door);
    const DWORD code = CodeOf([&] { enter(AppendLock); });
    Leave(Door, Door);
    if (code) throw TQSysException(static_cast<unsigned int>(code), AppendName);
}

// A lock that can't be given back ends with the file; what was written stays written.
void TQTextFile::Leave(ULONGLONG first, ULONGLONG last) noexcept {
    Insist([&] { return CodeOf([&] { Unlock(first, last + 1 - first); }) == ERROR_SUCCESS; });
}

// `own` is the first of the queue: nobody takes it out while its thread is the writer.
void TQTextFile::WriteQueue(Pending& own) noexcept {
    own.code = CodeOf([&] { LockForAppending(own.timer); });
    Pending* batch;
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        batch = TakeBatch(own.code ? 0 : MostJoined);
    }
    if (!own.code) {
        WriteBatch(batch);
        Leave(m_lockedFrom, AppendLock);
    }
    Pending* successor;
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        successor = HandOver();
    }
    if (successor) successor->Wake();
    for (Pending* each = batch->next; each;) {
        Pending* const next = each->next;  // once awake, its thread takes it away
        each->Wake();
        each = next;
    }
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
    if (!code) code = WriteAtEnd(bytes, isLeftBehind);
    // What fails together may go alone: a shorter record where the disk is nearly full.
    const bool triesEach = code && batch->next && !isLeftBehind;
    for (Pending* each = batch; each; each = each->next)
        each->code = triesEach && !isLeftBehind ? WriteAtEnd(each->bytes, isLeftBehind) : code;
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
DWORD TQTextFile::WriteAtEnd(std::string_view bytes, bool& isLeftBehind) noexcept {
    ULONGLONG end = 0;
    std::string mended;
    if (DWORD code = CodeOf([&] {
            const std::optional<ULONGLONG> size = SizeAtItsName();
            if (!size) throw TQSysException(ERROR_FILE_INVALID, AppendName);
            end = *size;
            if (EndsInsideLine(end)) bytes = mended.append("\r\n").append(bytes);
        }))
        return code;
    const DWORD code = CodeOf([&] {
        WriteAt(end, bytes.data(), bytes.size());
        Flush();
    });
    if (code)
        isLeftBehind = !TakeBack(end);
    else
        m_knownEnd = end + bytes.size();
    return code;
}

}  // namespace Quellan::Corvel
