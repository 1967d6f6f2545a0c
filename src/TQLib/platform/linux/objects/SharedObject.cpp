#include "TQLib/platform/linux/objects/SharedObject.h"

#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/Errors.h"
#include "TQLib/platform/linux/base/FaultHandlers.h"
#include "TQLib/platform/linux/base/Identity.h"
#include "TQLib/platform/linux/base/Lock.h"
#include "TQLib/platform/linux/objects/Waits.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <sys/mman.h>
#include <sys/stat.h>

namespace Quellan::Platform {

struct SharedObject::Page {
    Word magic;  // written last
    Word kind;
    Word flags;
    Word maximum;
    Word value;  // of a mutex: 0, its owner (slot + 1), or AbandonedValue
    Word sequence;
    Word waiters;
    Word lock;  // 0, or slot + 1, with LockWanted while others sleep on it
    Word nameBytes;
    char name[1100];
};

namespace {

using Page = SharedObject::Page;

constexpr std::size_t PageBytes = 4096;
static_assert(sizeof(Page) <= PageBytes);

constexpr std::uint32_t PageMagic = 0x314F5154;  // "TQO1"
constexpr std::uint32_t ManualReset = 1;         // a flag
constexpr std::uint32_t AbandonedValue = 0x40000000;
constexpr std::uint32_t LockWanted = 0x80000000;

// Bytes of the file that are locked: one for changing who has it open, one for each slot.
constexpr off_t InitByte = 1;
constexpr off_t FirstSlot = 1000;

// For what takes microseconds, unless whoever does it is stopped or means harm.
constexpr Deadline LockPatience = 2'000 * NanosecondsInMs;
constexpr Deadline InitPatience = 200 * NanosecondsInMs;
constexpr Deadline LockSuspicion = 20 * NanosecondsInMs;

// Locks on bytes belong to the open file: they tell processes apart, not the threads of one.
constinit PlainLock g_initLock;
const ForkLock<g_initLock> g_initForkLock(ForkOrder::NamedObjectInit);

// Mapped pages that others may cut off; null is a free place. Looked at by a signal handler.
constinit std::array<std::atomic<void*>, 4096> g_pagesOfOthers;

// Gives a page's place a new value. False when there is no such page.
bool ExchangePage(void* page, void* replacement) noexcept {
    return std::ranges::any_of(g_pagesOfOthers, [&](std::atomic<void*>& place) {
        void* expected = page;
        return place.load(std::memory_order_relaxed) == page &&
               place.compare_exchange_strong(expected, replacement);
    });
}

// Whether others than the process's user may write the file, or own it.
bool IsOfOthers(const struct stat& info) noexcept {
    return info.st_uid != ProcessUser() || info.st_mode & (S_IWGRP | S_IWOTH);
}

bool SetByteLock(const Descriptor& file, short type, off_t from, off_t length = 1) noexcept {
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = from;
    range.l_len = length;
    return Retry([&] { return fcntl(file.Get(), F_OFD_SETLK, &range); }) == 0;
}

bool LockByte(const Descriptor& file, off_t from, off_t length = 1) noexcept {
    return SetByteLock(file, F_WRLCK, from, length);
}

void UnlockByte(const Descriptor& file, off_t from, off_t length = 1) noexcept {
    SetByteLock(file, F_UNLCK, from, length);
}

void UnlockAll(const Descriptor& file) noexcept {
    UnlockByte(file, 0, 0);
}

bool LockInit(const Descriptor& file) noexcept {
    const Deadline deadline = Now() + InitPatience;
    for (Backoff backoff; !LockByte(file, InitByte); backoff.Pause())
        if (Now() > deadline) return false;
    return true;
}

// Nobody else has the object open: all slots are ours now.
bool LockAllSlots(const Descriptor& file) noexcept {
    return LockByte(file, FirstSlot, SharedObject::Slots);
}

bool LockFreeSlot(const Descriptor& file, std::uint32_t& slot) noexcept {
    const std::uint32_t first = static_cast<std::uint32_t>(getpid()) * 7;
    for (std::uint32_t i = 0; i < SharedObject::Slots; ++i) {
        slot = (first + i) % SharedObject::Slots;
        if (LockByte(file, FirstSlot + static_cast<off_t>(slot))) return true;
    }
    return false;
}

// The opened file, if it is still the one of that name in the folder.
bool IsCurrent(const Descriptor& folder, const char* name, const Descriptor& file,
               struct stat& info) noexcept {
    struct stat named;
    return fstat(file.Get(), &info) == 0 && info.st_nlink != 0 &&
           fstatat(folder.Get(), name, &named, AT_SYMLINK_NOFOLLOW) == 0 && named.st_ino == info.st_ino &&
           named.st_dev == info.st_dev;
}

Descriptor OpenObjectFile(const Descriptor& folder, const char* name, int more = 0) noexcept {
    const int flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | more;
    return Descriptor(Retry([&] { return openat(folder.Get(), name, flags, 0600); }));
}

void WriteNew(Page& page, std::string_view name, const SharedSetup& setup) noexcept {
    std::memset(static_cast<void*>(&page), 0, PageBytes);
    page.kind = static_cast<std::uint32_t>(setup.kind);
    page.flags = setup.manualReset ? ManualReset : 0;
    page.maximum = setup.maximum;
    page.value = setup.owned ? 1 : setup.value;  // a new object's maker has slot 0
    page.nameBytes = static_cast<std::uint32_t>(name.size());
    name.copy(page.name, sizeof page.name);
    page.magic = PageMagic;
}

DWORD CheckFound(const Page& page, std::string_view name, SharedKind kind) noexcept {
    const std::size_t bytes = page.nameBytes;
    const std::uint32_t found = page.kind;
    if (page.magic != PageMagic || bytes > sizeof page.name || page.maximum == 0) return ERROR_INVALID_DATA;
    if (std::string_view(page.name, bytes) != name) return ERROR_INVALID_DATA;
    return found == static_cast<std::uint32_t>(kind) ? ERROR_SUCCESS : ERROR_INVALID_HANDLE;
}

// A process that had this slot before may have been killed as an owner.
void InheritSlot(Page& page, SharedKind kind, std::uint32_t self) noexcept {
    std::uint32_t lock = page.lock;
    if ((lock & ~LockWanted) == self && page.lock.compare_exchange_strong(lock, 0))
        FutexWake(&page.lock, INT_MAX, Reach::Shared);
    std::uint32_t owner = self;
    if (kind == SharedKind::Mutex && page.value.compare_exchange_strong(owner, AbandonedValue)) {
        page.sequence.fetch_add(1);
        FutexWake(&page.sequence, INT_MAX, Reach::Shared);
    }
}

}  // namespace

int AllocateSharedPage(const Descriptor& file) noexcept {
    int error;
    do
        error = posix_fallocate(file.Get(), 0, PageBytes);
    while (error == EINTR);
    return error;
}

void* MapSharedPage(const Descriptor& file, const struct stat& info) noexcept {
    void* const page = mmap(nullptr, PageBytes, PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0);
    if (page == MAP_FAILED) return nullptr;
    if (!IsOfOthers(info)) return page;
    CatchFaults();
    if (ExchangePage(nullptr, page)) return page;
    munmap(page, PageBytes);
    errno = ENOMEM;
    return nullptr;
}

bool MendSharedPage(const void* address) noexcept {
    const auto* const at = static_cast<const std::byte*>(address);
    for (const std::atomic<void*>& place : g_pagesOfOthers) {
        void* const page = place.load();
        if (!page || at < page || at >= static_cast<std::byte*>(page) + PageBytes) continue;
        constexpr int Flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED;
        return mmap(page, PageBytes, PROT_READ | PROT_WRITE, Flags, -1, 0) == page;
    }
    return false;
}

DWORD OpenSharedFile(const Descriptor& folder, bool everybody, const char* name, const mode_t* mode,
                     Descriptor& file) noexcept {
    // Between its creation and the change of its mode a file for others is its maker's alone.
    const Deadline patience = Now() + 20 * NanosecondsInMs;
    for (;;) {
        // First without creating: where the kernel protects sticky folders that fails for files of others.
        file = OpenObjectFile(folder, name);
        if (file) return ERROR_SUCCESS;
        if (errno == EACCES && everybody && Now() < patience) {
            sched_yield();
            continue;
        }
        if (errno == ELOOP) return ERROR_ACCESS_DENIED;
        if (errno != ENOENT) return CodeFromErrno(errno);
        if (!mode) return ERROR_FILE_NOT_FOUND;
        file = OpenObjectFile(folder, name, O_CREAT | O_EXCL);
        if (file) {
            if (*mode != 0600) fchmod(file.Get(), *mode);
            return ERROR_SUCCESS;
        }
        if (errno != EEXIST) return CodeFromErrno(errno);
    }
}

void Door::Ring() noexcept {
    if (waiters.load() == 0) return;
    sequence.fetch_add(1);
    FutexWake(&sequence, INT_MAX, Reach::Shared);
}

DWORD SharedObject::Open(const SharedFolder& folder, const std::string& file, std::string_view name,
                         SharedKind kind, const SharedSetup* setup, std::unique_ptr<SharedObject>& object) {
    Descriptor opened;
    // Said aloud: a child that was forked meanwhile has the same open file.
    struct EndOfLocks {
        const Descriptor& file;
        ~EndOfLocks() {
            if (file) UnlockAll(file);
        }
    } const endOfLocks{opened};
    struct stat info;
    for (;;) {
        if (DWORD code = OpenSharedFile(folder.descriptor, folder.everybody, file.c_str(),
                                        setup ? &setup->mode : nullptr, opened))
            return code;
        if (!LockByte(opened, InitByte))
            return errno == EAGAIN || errno == EACCES ? ERROR_BUSY : CodeFromErrno(errno);
        if (IsCurrent(folder.descriptor, file.c_str(), opened, info)) break;
    }
    if (!S_ISREG(info.st_mode)) return ERROR_ACCESS_DENIED;
    const bool alone = LockAllSlots(opened);
    if (alone && !setup) {
        unlinkat(folder.descriptor.Get(), file.c_str(), 0);
        return ERROR_FILE_NOT_FOUND;
    }
    std::uint32_t slot = 0;
    if (alone) {
        // The memory is taken now, not by a later access that could not fail in an orderly way.
        if (const int error = AllocateSharedPage(opened)) {
            unlinkat(folder.descriptor.Get(), file.c_str(), 0);
            return CodeFromErrno(error);
        }
        UnlockByte(opened, FirstSlot + 1, Slots - 1);
    } else {
        if (info.st_size < static_cast<off_t>(PageBytes)) return ERROR_INVALID_DATA;
        if (!LockFreeSlot(opened, slot)) return ERROR_NO_SYSTEM_RESOURCES;
    }
    Mapping page(static_cast<Page*>(MapSharedPage(opened, info)));
    if (!page) return CodeFromErrno(errno);
    if (alone) {
        WriteNew(*page, name, *setup);
    } else {
        if (DWORD code = CheckFound(*page, name, kind)) return code;
        InheritSlot(*page, kind, slot + 1);
    }
    object = std::make_unique<SharedObject>(folder, file, std::move(opened), std::move(page), slot,
                                            FileId{info.st_dev, info.st_ino});
    UnlockByte(object->ProcessDescriptor::File(), InitByte);
    return alone ? ERROR_SUCCESS : ERROR_ALREADY_EXISTS;
}

void SharedObject::Sweep(const Descriptor& folder) noexcept {
    Descriptor copy(Retry([&] { return openat(folder.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(copy ? fdopendir(copy.Get()) : nullptr, closedir);
    if (!entries) return;
    copy.Release();
    while (const dirent* entry = readdir(entries.get())) {
        if (entry->d_name[0] == '.') continue;
        const ProcessDescriptor opened(OpenObjectFile(folder, entry->d_name));
        const Descriptor& file = opened.File();
        struct stat info;
        if (file && LockByte(file, InitByte) && LockAllSlots(file) &&
            IsCurrent(folder, entry->d_name, file, info))
            unlinkat(folder.Get(), entry->d_name, 0);
    }
}

SharedObject::SharedObject(const SharedFolder& folder, std::string file, Descriptor descriptor, Mapping page,
                           std::uint32_t slot, FileId id) noexcept
    : ProcessDescriptor(std::move(descriptor), Parent::AwaitsChild),
      m_folder(folder),
      m_file(std::move(file)),
      m_page(std::move(page)),
      m_slot(slot),
      m_id(id),
      m_kind(static_cast<SharedKind>(m_page->kind.load())),
      m_manualReset(m_page->flags & ManualReset),
      m_maximum(std::max<std::uint32_t>(m_page->maximum, 1)) {}

void SharedObject::Unmap::operator()(Page* page) const noexcept {
    ExchangePage(page, nullptr);
    munmap(page, PageBytes);
}

SharedObject::~SharedObject() {
    if (m_kind == SharedKind::Mutex && m_page->value == Self()) Free(true);
    const Descriptor& file = ProcessDescriptor::File();
    struct stat info;
    if (OwnsLocks() && LockInit(file) && LockAllSlots(file) &&
        IsCurrent(m_folder.descriptor, m_file.c_str(), file, info))
        unlinkat(m_folder.descriptor.Get(), m_file.c_str(), 0);
}

void SharedObject::OpenAnew(const Descriptor& fresh) noexcept {
    m_slot = NoSlot;
    std::uint32_t slot;
    // What is mapped keeps the parent's open file, and with it the parent's slot, for as long as the child
    // lives.
    constexpr int Flags = MAP_SHARED | MAP_FIXED;
    void* const page = m_page.get();
    if (!fresh || mmap(page, PageBytes, PROT_READ | PROT_WRITE, Flags, fresh.Get(), 0) != page) return;
    if (!LockInit(fresh)) return;
    if (LockFreeSlot(fresh, slot)) {
        InheritSlot(*m_page, m_kind, slot + 1);
        m_slot = slot;
    }
    UnlockByte(fresh, InitByte);
}

DWORD SharedObject::Check() const noexcept {
    if (m_slot == NoSlot) return ERROR_INVALID_HANDLE;
    return m_page->magic == PageMagic ? ERROR_SUCCESS : ERROR_SWAPERROR;
}

DWORD SharedObject::Refusal() const noexcept {
    const DWORD code = Check();
    return code ? code : ERROR_BUSY;
}

// `owner` is a slot + 1, or nonsense that somebody wrote: nobody's.
bool SharedObject::IsAlive(std::uint32_t owner) const noexcept {
    if (owner == Self()) return true;
    if (owner == 0 || owner > Slots) return false;
    struct flock range {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_start = FirstSlot + static_cast<off_t>(owner - 1);
    range.l_len = 1;
    return fcntl(Get(), F_OFD_GETLK, &range) != 0 || range.l_type != F_UNLCK;
}

// Only with the init byte locked can nobody take over the dead owner's slot meanwhile.
void SharedObject::Bury(Word& word, std::uint32_t value, std::uint32_t replacement) noexcept {
    const Guard lock(g_initLock);
    const Descriptor& file = ProcessDescriptor::File();
    if (!LockByte(file, InitByte)) return;
    if (!IsAlive(value & ~LockWanted) && word.compare_exchange_strong(value, replacement))
        FutexWake(&word, INT_MAX, Reach::Shared);
    UnlockByte(file, InitByte);
}

DWORD SharedObject::Lock() noexcept {
    constexpr unsigned Pauses = 40;
    if (DWORD code = Check()) return code;
    Word& word = m_page->lock;
    Deadline deadline = Never;
    for (unsigned i = 0;; ++i) {
        std::uint32_t held = 0;
        // Who slept cannot know whether others still do.
        const std::uint32_t wanted = i < Pauses ? 0 : LockWanted;
        if (word.compare_exchange_strong(held, Self() | wanted, std::memory_order_acquire)) return Check();
        if (i < Pauses) {
            Compiler::Pause();
            continue;
        }
        if (i == Pauses)
            deadline = Now() + LockPatience;
        else if (Now() > deadline)
            return Refusal();
        if (!(held & LockWanted) && !word.compare_exchange_strong(held, held | LockWanted)) continue;
        held |= LockWanted;
        if (FutexWait(word, held, Now() + LockSuspicion, Reach::Shared) == ETIMEDOUT && word == held &&
            !IsAlive(held & ~LockWanted))
            Bury(word, held, 0);
    }
}

void SharedObject::Unlock() noexcept {
    if (m_page->lock.exchange(0, std::memory_order_release) & LockWanted)
        FutexWake(&m_page->lock, 1, Reach::Shared);
}

std::uint32_t SharedObject::Value() const noexcept {
    const std::uint32_t value = m_page->value.load();
    return m_kind == SharedKind::Mutex ? value : std::min(value, m_maximum);
}

// Unlocks after a change that may end waits. All waiters are woken: one that gets killed takes no wake-up
// with it.
void SharedObject::Changed() noexcept {
    m_page->sequence.fetch_add(1);
    const bool waited = m_page->waiters.load() != 0;
    Unlock();
    if (waited) FutexWake(&m_page->sequence, INT_MAX, Reach::Shared);
    m_folder.door->Ring();
}

DWORD SharedObject::Signal() noexcept {
    if (DWORD code = Lock()) return code;
    m_page->value = 1;
    Changed();
    return ERROR_SUCCESS;
}

DWORD SharedObject::Reset() noexcept {
    if (DWORD code = Lock()) return code;
    m_page->value = 0;
    Unlock();
    return ERROR_SUCCESS;
}

DWORD SharedObject::Add(std::uint32_t count, std::uint32_t& previous) noexcept {
    if (DWORD code = Lock()) return code;
    previous = Value();
    if (count > m_maximum - previous) {
        Unlock();
        return ERROR_TOO_MANY_POSTS;
    }
    m_page->value = previous + count;
    Changed();
    return ERROR_SUCCESS;
}

DWORD SharedObject::Free(bool abandoned) noexcept {
    if (DWORD code = Lock()) return code;
    m_page->value = abandoned ? AbandonedValue : 0;
    Changed();
    return ERROR_SUCCESS;
}

bool SharedObject::LooksSignalled() const noexcept {
    const std::uint32_t value = Value();
    return m_kind == SharedKind::Mutex ? value == 0 || value == AbandonedValue : value != 0;
}

std::optional<DWORD> SharedObject::TryTake() noexcept {
    if (Check()) return WaitRefused;
    if (!LooksSignalled()) return std::nullopt;
    if (m_manualReset) return 0;
    if (Lock()) return WaitRefused;
    const std::optional<DWORD> taken = TryTakeLocked();
    Unlock();
    return taken;
}

std::optional<DWORD> SharedObject::TryTakeLocked() noexcept {
    if (!LooksSignalled()) return std::nullopt;
    if (m_manualReset) return 0;
    const std::uint32_t value = Value();
    const bool mutex = m_kind == SharedKind::Mutex;
    m_page->value = mutex ? Self() : value - 1;
    return mutex && value == AbandonedValue ? WAIT_ABANDONED_0 : 0;
}

const Word& SharedObject::Sequence() const noexcept {
    return m_page->sequence;
}

void SharedObject::AddWaiter() noexcept {
    m_page->waiters.fetch_add(1);
}

void SharedObject::RemoveWaiter() noexcept {
    m_page->waiters.fetch_sub(1);
}

void SharedObject::CheckOwner() noexcept {
    const std::uint32_t owner = Value();
    if (!HasOwner() || owner == 0 || owner == AbandonedValue || IsAlive(owner)) return;
    if (Lock()) return;
    Bury(m_page->value, owner, AbandonedValue);
    Changed();
}

}  // namespace Quellan::Platform
