#include "TQLib/platform/linux/base/HandleTable.h"

#include "TQLib/platform/RaceTools.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/Lock.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <optional>

namespace Quellan::Platform {

// Bits of a slot's state: generation in the upper half, below it one for "not closed" and the number of
// users. An open handle counts as one user.
struct alignas(64) HandleSlot {
    std::atomic<std::uint64_t> state{0};
    std::atomic<SignalLine*> line{nullptr};  // with the next: its way
    std::atomic<std::uint32_t> tagAndUses{0};
    std::shared_ptr<Object> object;
    DWORD access = 0;
    std::uint32_t nextFree = 0;
};

namespace {

constexpr std::uint64_t OpenBit = 1u << 31;
constexpr std::uint64_t Users = OpenBit - 1;

// Bits of a handle: 0 and 1 are zero, then the index, then the generation. Pseudo handles, null and addresses
// of the upper half never look like one.
constexpr unsigned IndexShift = 2;
constexpr unsigned IndexBits = 24;
constexpr unsigned HandleGenerationShift = IndexShift + IndexBits;
constexpr unsigned HandleBits = HandleGenerationShift + 32;

constexpr std::uint32_t SlotsInChunk = 1024;
constexpr std::uint32_t MostChunks = (1u << IndexBits) / SlotsInChunk;
constexpr std::uint32_t Shards = 16;
// A slot waits behind at least so many others before it is used again.
constexpr std::uint32_t LeastFree = 64;

// A first-in, first-out list of free slots; each thread uses one of the shards. Slot 0 is never used: it ends
// lists. A slot goes to the list of the thread that closed it, and a list that runs short takes over slots of
// another.
struct alignas(64) FreeList {
    PlainLock lock;
    std::uint32_t first TQ_GUARDED_BY(lock) = 0;
    std::uint32_t last TQ_GUARDED_BY(lock) = 0;
    std::uint32_t size TQ_GUARDED_BY(lock) = 0;
};

constinit std::atomic<HandleSlot*> g_chunks[MostChunks];
constinit FreeList g_freeSlots[Shards];
constinit PlainLock g_growth;
constinit std::uint32_t g_chunkCount TQ_GUARDED_BY(g_growth) = 0;

const ForkPart g_handleForkPart(
    ForkOrder::Handles,
    []() TQ_NOT_ANALYSED noexcept {
        for (FreeList& list : g_freeSlots)
            list.lock.lock();
        g_growth.lock();
    },
    [](bool) TQ_NOT_ANALYSED noexcept {
        g_growth.unlock();
        for (FreeList& list : g_freeSlots)
            list.lock.unlock();
    });

FreeList& ThreadFreeList() noexcept {
    static constinit std::atomic<std::uint32_t> threads{0};
    thread_local const std::uint32_t shard = threads.fetch_add(1, std::memory_order_relaxed) % Shards;
    return g_freeSlots[shard];
}

HandleSlot* SlotAt(std::uint32_t index) noexcept {
    HandleSlot* chunk = g_chunks[index / SlotsInChunk].load(std::memory_order_acquire);
    return chunk ? chunk + index % SlotsInChunk : nullptr;
}

void PushFree(FreeList& list, std::uint32_t index) noexcept TQ_REQUIRES(list.lock) {
    SlotAt(index)->nextFree = 0;
    if (list.last)
        SlotAt(list.last)->nextFree = index;
    else
        list.first = index;
    list.last = index;
    ++list.size;
}

// Takes up to half of another list, but no more than a chunk, from its front. No two lists are locked at
// once.
bool TakeOver(FreeList& list) noexcept {
    for (FreeList& other : g_freeSlots) {
        if (&other == &list) continue;
        std::uint32_t first, last, size;
        {
            const Guard lock(other.lock);
            if (other.size < 2 * LeastFree) continue;
            size = std::min(other.size / 2, SlotsInChunk);
            first = last = other.first;
            for (std::uint32_t i = 1; i < size; ++i)
                last = SlotAt(last)->nextFree;
            other.first = SlotAt(last)->nextFree;
            other.size -= size;
        }
        SlotAt(last)->nextFree = 0;
        const Guard lock(list.lock);
        (list.last ? SlotAt(list.last)->nextFree : list.first) = first;
        list.last = last;
        list.size += size;
        return true;
    }
    return false;
}

bool AddChunk(FreeList& list) noexcept {
    std::uint32_t number;
    {
        const Guard growth(g_growth);
        if (g_chunkCount == MostChunks) return false;
        auto* chunk = new (std::nothrow) HandleSlot[SlotsInChunk];
        if (!chunk) return false;
        TellOwnMemory(chunk, SlotsInChunk * sizeof(HandleSlot));
        number = g_chunkCount++;
        g_chunks[number].store(chunk, std::memory_order_release);
    }
    const Guard lock(list.lock);
    for (std::uint32_t i = number == 0 ? 1 : 0; i < SlotsInChunk; ++i)
        PushFree(list, number * SlotsInChunk + i);
    return true;
}

// 0 when there is no free slot.
std::uint32_t PopFree() noexcept {
    FreeList& list = ThreadFreeList();
    for (bool mayGrow = true;;) {
        {
            const Guard lock(list.lock);
            if (list.size >= LeastFree || !mayGrow) {
                const std::uint32_t index = list.first;
                if (index == 0) return 0;
                list.first = SlotAt(index)->nextFree;
                if (list.first == 0) list.last = 0;
                --list.size;
                return index;
            }
        }
        mayGrow = TakeOver(list) || AddChunk(list);
    }
}

struct Name {
    std::uint32_t index;
    std::uint32_t generation;
};

HANDLE Encode(Name name) noexcept {
    return reinterpret_cast<HANDLE>(std::uint64_t{name.index} << IndexShift | std::uint64_t{name.generation}
                                                                                  << HandleGenerationShift);
}

std::optional<Name> Decode(HANDLE handle) noexcept {
    const auto bits = reinterpret_cast<std::uint64_t>(handle);
    const Name name{static_cast<std::uint32_t>(bits >> IndexShift) & ((1u << IndexBits) - 1),
                    static_cast<std::uint32_t>(bits >> HandleGenerationShift)};
    if (bits >> HandleBits != 0 || bits % (1u << IndexShift) != 0 || name.generation == 0)
        return std::nullopt;
    return name;
}

bool Names(Name name, std::uint64_t state) noexcept {
    return state >> 32 == name.generation && state & OpenBit;
}

// The slot that a handle may have, and what its state begins with while the handle is open: in the fewest steps,
// as what is done with handles takes few others. Bits beside those of a handle are found in no generation.
struct SlotPlace {
    HandleSlot* slot;  // null where there is none
    std::uint64_t open;
};
constexpr unsigned OpenShift = 31;
static_assert(OpenBit == std::uint64_t{1} << OpenShift);

inline SlotPlace PlaceOf(HANDLE handle) noexcept {
    const auto bits = reinterpret_cast<std::uint64_t>(handle);
    HandleSlot* const slot = SlotAt(static_cast<std::uint32_t>(bits >> IndexShift) & ((1u << IndexBits) - 1));
    return {bits % (1u << IndexShift) == 0 ? slot : nullptr, bits >> HandleGenerationShift << 1 | 1};
}

void Leave(HandleSlot& slot, HANDLE handle) noexcept {
    const std::uint64_t before = slot.state.fetch_sub(1, std::memory_order_acq_rel);
    if ((before & (OpenBit | Users)) != 1) return;
    slot.object.reset();
    FreeList& list = ThreadFreeList();
    const Guard lock(list.lock);
    PushFree(list, Decode(handle)->index);
}

}  // namespace

Object::~Object() = default;

DWORD InsertHandle(std::shared_ptr<Object> object, DWORD access, HANDLE& handle) noexcept {
    const std::uint32_t index = PopFree();
    if (index == 0) return ERROR_NO_SYSTEM_RESOURCES;
    HandleSlot& slot = *SlotAt(index);
    auto generation = static_cast<std::uint32_t>(slot.state.load(std::memory_order_relaxed) >> 32) + 1;
    if (generation == 0) generation = 1;
    slot.object = std::move(object);
    slot.access = access;
    // Who sees one of these sees that the last handle of the slot was closed.
    const SignalWay way = slot.object->WayFor(access);
    slot.line.store(way.line, std::memory_order_release);
    slot.tagAndUses.store(way.tagAndUses, std::memory_order_release);
    slot.state.store(std::uint64_t{generation} << 32 | OpenBit | 1, std::memory_order_release);
    handle = Encode({index, generation});
    return ERROR_SUCCESS;
}

HandleUse::HandleUse(HANDLE handle) noexcept {
    const auto [slot, open] = PlaceOf(handle);
    if (!slot) return;
    std::uint64_t state = slot->state.load(std::memory_order_relaxed);
    do {
        if (state >> OpenShift != open) return;
    } while (!slot->state.compare_exchange_weak(state, state + 1, std::memory_order_acquire,
                                                std::memory_order_relaxed));
    m_slot = slot;
    m_handle = handle;
    m_object = slot->object.get();
}

void HandleUse::End() noexcept {
    Leave(*m_slot, m_handle);
}

std::shared_ptr<Object> HandleUse::Share() const noexcept {
    return m_slot ? m_slot->object : nullptr;
}

DWORD HandleUse::Access() const noexcept {
    return m_slot->access;
}

KnownHandle::KnownHandle(HANDLE handle) noexcept {
    static_assert(StateShift == OpenShift);
    const std::optional<Name> name = Decode(handle);
    const HandleSlot* slot = name ? SlotAt(name->index) : nullptr;
    if (!slot) return;
    m_handle = handle;
    m_state = &slot->state;
    m_open = std::uint64_t{name->generation} << 1 | 1;
}

namespace {

inline SignalWay WayOf(HANDLE handle) noexcept {
    const auto [slot, open] = PlaceOf(handle);
    if (!slot || slot->state.load(std::memory_order_acquire) >> OpenShift != open) return {};
    const SignalWay way{slot->line.load(std::memory_order_acquire),
                        slot->tagAndUses.load(std::memory_order_acquire)};
    return slot->state.load(std::memory_order_relaxed) >> OpenShift == open ? way : SignalWay();
}

}  // namespace

SignalWay FindWay(HANDLE handle) noexcept {
    return WayOf(handle);
}

Step SetOnWay(HANDLE handle) noexcept {
    const SignalWay way = WayOf(handle);
    if (!way.May(SignalWay::Set)) return Step::Unclear;
    SignalWord& word = way.line->word;
    TellReleased(&word);
    static_cast<void>(FaultDue("SetOnWay"));
    const std::uint64_t tag = way.tagAndUses & SignalTag;
    std::uint64_t state = word.load(std::memory_order_relaxed);
    do
        if ((state & (SignalTag | SignalFlags)) != tag) return Step::Unclear;
    while (!word.compare_exchange_weak(state, tag | std::uint64_t{1} << 32, std::memory_order_acq_rel,
                                       std::memory_order_relaxed));
    return Step::Done;
}

Step TakeOnWay(HANDLE handle) noexcept {
    const SignalWay way = WayOf(handle);
    if (!way.May(SignalWay::Wait)) return Step::Unclear;
    SignalWord& word = way.line->word;
    std::uint64_t state = word.load(std::memory_order_acquire);
    do {
        if (!way.IsCurrent(state)) return Step::Unclear;
        if (SignalValue(state) == 0) return Step::Nothing;
        if (state & SignalFlags) return Step::Unclear;
    } while (way.May(SignalWay::TakeOne) &&
             !word.compare_exchange_weak(state, state - (std::uint64_t{1} << 32), std::memory_order_acquire));
    TellAcquired(&word);
    return Step::Done;
}

// Words belong to no particular handle, and a slot may be closed and opened anew between its look and its
// state: what is seen is a hint then, as whatever is seen of an object that others use.
Sight LookAt(std::span<const HANDLE> handles, std::size_t& index) noexcept {
    std::array<const SignalWord*, MostLooks> words;
    const std::size_t count = handles.size();
    std::size_t found = count;
    for (std::size_t i = 0; i < count; ++i) {
        const std::optional<Name> name = Decode(handles[i]);
        const HandleSlot* slot = name ? SlotAt(name->index) : nullptr;
        if (!slot || !Names(*name, slot->state.load(std::memory_order_acquire))) return Sight::Unclear;
        const SignalWay way{slot->line.load(std::memory_order_relaxed),
                            slot->tagAndUses.load(std::memory_order_relaxed)};
        if (!way.May(SignalWay::Wait)) return Sight::Unclear;
        words[i] = &way.line->word;
        if (found == count && SignalValue(words[i]->load(std::memory_order_acquire)) != 0) found = i;
    }
    if (found == count) return Sight::Nothing;
    // Whoever signalled this one may have signalled an earlier one before, after that was looked at.
    index = 0;
    while (index != found && SignalValue(words[index]->load(std::memory_order_relaxed)) == 0)
        ++index;
    return Sight::Signalled;
}

DWORD CloseHandleOf(HANDLE handle, const ObjectKind* kind) noexcept {
    const HandleUse use(handle);
    const Object* object = use.Get();
    if (!object) return ERROR_INVALID_HANDLE;
    const ObjectKind& found = object->KindOf();
    if (kind ? &found != kind : !found.closedByCloseHandle) return ERROR_INVALID_HANDLE;
    // While used the slot keeps its generation, so only another closer can be first.
    HandleSlot& slot = *SlotAt(Decode(handle)->index);
    if (!(slot.state.fetch_and(~OpenBit, std::memory_order_acq_rel) & OpenBit)) return ERROR_INVALID_HANDLE;
    Leave(slot, handle);
    return ERROR_SUCCESS;
}

}  // namespace Quellan::Platform
