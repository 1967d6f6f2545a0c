#include "TQLib/text/memory/internal/SecretArena.h"

#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/platform/SecretPages.h"
#include "TQLib/text/memory/TQHandle.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <memory>
#include <new>

namespace Quellan::Corvel {

namespace {

constexpr std::size_t SheetBytes = 4096;
constexpr unsigned SmallestBits = 4, LargestBits = 11;  // slots have 16 to 2048 bytes
constexpr std::size_t MostSlots = SheetBytes >> SmallestBits;

std::atomic<bool> g_isLimitRaised = false;

std::size_t PageBytes() noexcept {
    static const std::size_t bytes = [] {
        SYSTEM_INFO info;
        GetSystemInfo(&info);
        return std::size_t{info.dwPageSize};
    }();
    return bytes;
}

std::size_t WholePages(std::size_t bytes) noexcept {
    return (bytes + PageBytes() - 1) / PageBytes() * PageBytes();
}

void FreePages(BYTE* pages) noexcept {
    const _TQLastErrorKeeper keeper;
    VirtualFree(pages - PageBytes(), 0, MEM_RELEASE);  // unlocks them
}

BYTE* NewPages(std::size_t bytes) noexcept {
    const std::size_t whole = WholePages(bytes);
    void* const reserved = VirtualAlloc(nullptr, whole + 2 * PageBytes(), MEM_RESERVE, PAGE_READWRITE);
    if (!reserved) return nullptr;
    BYTE* const pages = static_cast<BYTE*>(reserved) + PageBytes();
    if (!g_isLimitRaised.load(std::memory_order_relaxed)) {
        Platform::RaiseLockLimit();
        g_isLimitRaised.store(true, std::memory_order_relaxed);
    }
    if (!VirtualAlloc(pages, whole, MEM_COMMIT, PAGE_READWRITE) || !VirtualLock(pages, whole)) {
        FreePages(pages);
        return nullptr;
    }
    Platform::KeepPagesPrivate(pages, whole);
    return pages;
}

// A page of slots of one size, described outside of it, where no overrun reaches the description.
struct Sheet {
    BYTE* memory;
    DWORD process;  // a forked child inherits the page but not its lock
    unsigned bits = 0;
    unsigned used = 0;
    std::array<std::uint64_t, MostSlots / 64> taken{};
    Sheet* next = nullptr;

    ~Sheet() { FreePages(memory); }
    bool HasRoom() const noexcept { return used < SheetBytes >> bits; }
    bool Holds(const void* block) const noexcept {
        return reinterpret_cast<std::uintptr_t>(block) - reinterpret_cast<std::uintptr_t>(memory) <
               SheetBytes;
    }

    BYTE* Take() noexcept {
        const auto word = std::ranges::find_if(taken, [](std::uint64_t bitmap) { return ~bitmap != 0; });
        const auto bit = static_cast<std::size_t>(std::countr_one(*word));
        *word |= std::uint64_t{1} << bit;
        ++used;
        return memory + ((static_cast<std::size_t>(word - taken.begin()) * 64 + bit) << bits);
    }

    void Give(const void* block) noexcept {
        const auto slot = static_cast<std::size_t>(static_cast<const BYTE*>(block) - memory) >> bits;
        taken[slot / 64] &= ~(std::uint64_t{1} << slot % 64);
        --used;
    }
};

class Arena {
  public:
    void* Allocate(std::size_t bytes) noexcept {
        const DWORD lastError = GetLastError();
        if (void* block = TryAllocate(bytes)) return block;
        // The page that is kept for the next secret may be the one that is missing.
        if (!FreeSpare()) return nullptr;
        void* const block = TryAllocate(bytes);
        if (block) SetLastError(lastError);
        return block;
    }

    void Release(void* block, std::size_t bytes) noexcept {
        if (BitsFor(bytes) > LargestBits) {
            FreePages(static_cast<BYTE*>(block));
            return;
        }
        std::unique_ptr<Sheet> spare;
        const TQThreadSynch::TQSynchLock guard(m_lock);
        Sheet* sheet = m_sheets;
        while (!sheet->Holds(block))
            sheet = sheet->next;
        // What a child inherited is gone from it already, and another thread of its parent may have been about
        // to change the page's description when it was forked.
        if (sheet->process != GetCurrentProcessId()) return;
        sheet->Give(block);
        if (sheet->used == 0) spare = UnlinkEmpty(sheet);
    }

    static unsigned BitsFor(std::size_t bytes) noexcept {
        return std::max(SmallestBits, static_cast<unsigned>(std::bit_width(bytes - 1)));
    }

  private:
    void* TryAllocate(std::size_t bytes) noexcept {
        const unsigned bits = BitsFor(bytes);
        if (bits > LargestBits) return NewPages(bytes);
        {
            const TQThreadSynch::TQSynchLock guard(m_lock);
            if (Sheet* sheet = FindRoom(bits, GetCurrentProcessId())) return sheet->Take();
        }
        BYTE* const memory = NewPages(SheetBytes);
        if (!memory) return nullptr;
        std::unique_ptr<Sheet> made(new (std::nothrow) Sheet{memory, GetCurrentProcessId()});
        if (!made) {
            FreePages(memory);
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return nullptr;
        }
        made->bits = bits;
        BYTE* const block = made->Take();
        const TQThreadSynch::TQSynchLock guard(m_lock);
        Link(std::move(made));
        return block;
    }

    Sheet* FindRoom(unsigned bits, DWORD process) noexcept TQ_REQUIRES(m_lock) {
        Sheet* empty = nullptr;
        for (Sheet* sheet = m_sheets; sheet; sheet = sheet->next) {
            if (sheet->process != process) continue;
            if (sheet->used == 0)
                empty = sheet;
            else if (sheet->bits == bits && sheet->HasRoom())
                return sheet;
        }
        if (empty) empty->bits = bits;
        return empty;
    }

    bool FreeSpare() noexcept {
        std::unique_ptr<Sheet> spare;
        const TQThreadSynch::TQSynchLock guard(m_lock);
        spare = UnlinkEmpty(nullptr);
        return spare != nullptr;
    }

    void Link(std::unique_ptr<Sheet> sheet) noexcept TQ_REQUIRES(m_lock) {
        sheet->next = m_sheets;
        m_sheets = sheet.release();
    }

    // One of this process's that nobody uses, but `kept`; null where there is none.
    std::unique_ptr<Sheet> UnlinkEmpty(const Sheet* kept) noexcept TQ_REQUIRES(m_lock) {
        const DWORD process = GetCurrentProcessId();
        Sheet** link = &m_sheets;
        while (*link && ((*link)->used != 0 || (*link)->process != process || *link == kept))
            link = &(*link)->next;
        std::unique_ptr<Sheet> sheet(*link);
        if (sheet) *link = sheet->next;
        return sheet;
    }

    TQThreadSynch m_lock;
    // In no order; one of them at most is empty, kept for the next secret.
    Sheet* m_sheets TQ_GUARDED_BY(m_lock) = nullptr;
};

Arena& TheArena() noexcept {
    static Arena& arena = *new Arena;
    return arena;
}

// Made while the library is loaded, so that no thread is about to make it while another one forks; never
// destroyed: static objects may hold secrets.
[[maybe_unused]] const std::size_t g_pageBytesEarly = PageBytes();
[[maybe_unused]] const Arena& g_arenaMadeEarly = TheArena();

constexpr TQAllocator g_secretMemory{
    .Allocate = [](std::size_t bytes) noexcept { return TheArena().Allocate(bytes); },
    .Release = [](void* block, std::size_t bytes) noexcept { TheArena().Release(block, bytes); },
    .wholePages = false,
};

}  // namespace

const TQAllocator& SecretMemory() noexcept {
    return g_secretMemory;
}

std::size_t SecretBlockSize(std::size_t bytes) noexcept {
    const unsigned bits = Arena::BitsFor(bytes);
    return bits > LargestBits ? WholePages(bytes) : std::size_t{1} << bits;
}

}  // namespace Quellan::Corvel
