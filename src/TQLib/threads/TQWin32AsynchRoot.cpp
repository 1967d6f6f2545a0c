#include "TQLib/threads/TQWin32AsynchRoot.h"

#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/platform/FreeMemory.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/text/memory/TQStdExceptions.h"

#include <atomic>
#include <cstring>
#include <new>
#include <utility>

namespace Quellan::Corvel {

namespace {

using Record = _TQWin32AsynchRoot::OVERLAPPED_DATA;

static_assert(sizeof(OVERLAPPED) <= sizeof Record::overlapped && alignof(OVERLAPPED) <= alignof(Record));

// Records that are free. Each thread takes them from and puts them into a shard, and a shard exchanges them
// with the depot by the chain: a thread that only posts and one that only takes meet there once in a chain.
// Shards outlive the threads: at its end a thread has nothing to hand on.

constexpr std::size_t ClassBytes = 64;  // the classes differ by the bytes that follow the record
constexpr unsigned ClassCount = 1 + _TQWin32AsynchRoot::RecycledBytes / ClassBytes;
constexpr BYTE NotRecycled = ClassCount;
constexpr unsigned ChainLength = 32;
constexpr DWORD ShardCount = 16;
constexpr std::size_t DepotBytes = 16 * 1024 * 1024;  // of a class in the depot; the rest goes to the heap

constexpr std::size_t BytesOf(std::size_t sizeClass) noexcept {
    return sizeof(Record) + sizeClass * ClassBytes;
}

// A free record, and as the first of a chain the next chain.
struct FreeRecord {
    FreeRecord* next;
    FreeRecord* nextChain;
};

struct Chain {
    FreeRecord* first = nullptr;
    unsigned length = 0;

    void Push(void* memory) noexcept {
        auto* const record = new (memory) FreeRecord;
        record->next = std::exchange(first, record);
        ++length;
    }
    FreeRecord* Pop() noexcept {
        --length;
        FreeRecord* const record = std::exchange(first, first->next);
        // The next one will be asked for soon, and lies where another core has left it.
        Compiler::PrefetchToWrite(first);
        return record;
    }
};

// Whole chains of one class.
class Depot {
  public:
    // An empty chain where there is none.
    Chain Take() noexcept {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        if (!m_chains) return {};
        FreeRecord* const first = std::exchange(m_chains, m_chains->nextChain);
        m_records -= ChainLength;
        return {first, ChainLength};
    }
    void Put(Chain chain, std::size_t mostRecords) noexcept {
        {
            const TQThreadSynch::TQSynchLock guard(m_lock);
            if (m_records < mostRecords) {
                m_records += ChainLength;
                chain.first->nextChain = std::exchange(m_chains, chain.first);
                return;
            }
        }
        Delete(chain);
    }
    void Clear() noexcept {
        for (Chain chain; (chain = Take()).length != 0;)
            Delete(chain);
    }

  private:
    static void Delete(Chain chain) noexcept {
        while (chain.length != 0)
            ::operator delete(chain.Pop());
    }

    TQThreadSynch m_lock;
    FreeRecord* m_chains TQ_GUARDED_BY(m_lock) = nullptr;
    std::size_t m_records TQ_GUARDED_BY(m_lock) = 0;
};

struct alignas(64) Shard {
    std::atomic<bool> isTaken = false;
    // Two chains a class: a thread that frees and allocates by turns, where one chain begins or ends, does
    // not go to the depot each time.
    struct {
        Chain used;
        Chain spare;
    } classes[ClassCount];
};

struct Recycler {
    Depot depots[ClassCount];
    Shard shards[ShardCount];
    std::atomic<DWORD> threads = 0;
};

// Never destroyed: the last packets are freed at the very end of the process.
Recycler& TheRecycler() noexcept {
    alignas(Recycler) static std::byte place[sizeof(Recycler)];
    static Recycler* const recycler = new (place) Recycler;
    return *recycler;
}

// The number of the thread's shard, from 1; 0 until it has one.
TQ_THERE_WITH_THREAD constinit thread_local DWORD t_shard = 0;

// A shard for the time of one operation: the thread's, or where another thread just has it the next free one.
class ShardUse {
  public:
    explicit ShardUse(Recycler& recycler) noexcept {
        if (t_shard == 0) t_shard = 1 + recycler.threads.fetch_add(1) % ShardCount;
        for (DWORD i = 0; i < ShardCount; ++i) {
            Shard& shard = recycler.shards[(t_shard - 1) ^ i];
            if (shard.isTaken.exchange(true, std::memory_order_acquire)) continue;
            m_shard = &shard;
            return;
        }
    }
    ShardUse(const ShardUse&) = delete;
    ShardUse& operator=(const ShardUse&) = delete;
    ~ShardUse() {
        if (m_shard) m_shard->isTaken.store(false, std::memory_order_release);
    }

    // Null where all are taken.
    Shard* Get() const noexcept { return m_shard; }

  private:
    Shard* m_shard = nullptr;
};

FreeRecord* TakeRecycled(unsigned sizeClass) noexcept {
    Recycler& recycler = TheRecycler();
    const ShardUse use(recycler);
    if (!use.Get()) return nullptr;
    auto& [used, spare] = use.Get()->classes[sizeClass];
    if (used.length == 0) std::swap(used, spare);
    if (used.length == 0) used = recycler.depots[sizeClass].Take();
    return used.length != 0 ? used.Pop() : nullptr;
}

bool Recycle(void* memory, unsigned sizeClass) noexcept {
    Recycler& recycler = TheRecycler();
    const ShardUse use(recycler);
    if (!use.Get()) return false;
    auto& [used, spare] = use.Get()->classes[sizeClass];
    if (used.length == ChainLength) {
        std::swap(used, spare);
        if (used.length == ChainLength)
            recycler.depots[sizeClass].Put(std::exchange(used, {}), DepotBytes / BytesOf(sizeClass));
    }
    used.Push(memory);
    return true;
}

}  // namespace

_TQWin32AsynchRoot::OVERLAPPED_DATA* _TQWin32AsynchRoot::AllocOverlapped(DWORD size, bool ownCopy,
                                                                         ULONGLONG offset) {
    const std::size_t own = ownCopy ? size : 0;
    const std::size_t sizeClass = (own + ClassBytes - 1) / ClassBytes;
    const bool isRecycled = sizeClass < ClassCount;
    void* memory = isRecycled ? TakeRecycled(static_cast<unsigned>(sizeClass)) : nullptr;
    if (!memory) {
        const std::size_t dataBytes = isRecycled ? sizeClass * ClassBytes : own;
        memory = ::operator new(sizeof(OVERLAPPED_DATA) + dataBytes, std::nothrow);
        if (!memory) TQStdExceptions::ThrowMemAllocError(L"_TQWin32AsynchRoot::AllocOverlapped");
    }
    auto* const record = new (memory) OVERLAPPED_DATA();
    auto* const platform = new (record->overlapped) OVERLAPPED();
    platform->Offset = static_cast<DWORD>(offset);
    platform->OffsetHigh = static_cast<DWORD>(offset >> 32);
    record->data = ownCopy ? static_cast<BYTE*>(memory) + sizeof(OVERLAPPED_DATA) : nullptr;
    record->length = own;
    record->bytes = size;
    record->isOwnCopy = ownCopy;
    record->sizeClass = isRecycled ? static_cast<BYTE>(sizeClass) : NotRecycled;
    return record;
}

void _TQWin32AsynchRoot::FreeOverlapped(OVERLAPPED_DATA* record) noexcept {
    if (!record) return;
    const BYTE sizeClass = record->sizeClass;
    if (sizeClass == NotRecycled || !Recycle(record, sizeClass)) ::operator delete(record);
}

void _TQWin32AsynchRoot::ReleaseFree() noexcept {
    for (Depot& depot : TheRecycler().depots)
        depot.Clear();
    Platform::ReturnFreeMemory();
}

}  // namespace Quellan::Corvel
