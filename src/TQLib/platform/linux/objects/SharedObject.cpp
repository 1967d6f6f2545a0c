#include "TQLib/platform/linux/objects/SharedObject.h"

#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/Errors.h"
#include "TQLib/platform/linux/base/FaultHandlers.h"
#include "TQLib/platform/linux/base/Identity.h"
#include "TQLib/platform/linux/base/Lock.h"
#include "TQLib/platform/linux/base/Process.h"
#include "TQLib/platform/linux/objects/Waits.h"

#include <algorithm>
#include <array>
#include <bit>
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
    Word lock;  // 0, or slot + 1, with LockWanted while others sleep on it
    Word nameBytes;
    char name[1100];
    std::byte unused[2948];
    Word value;  // with Awaited while others sleep on it; of a mutex: 0, its owner's thread id, or Abandoned
    std::byte reserved[20];
};

namespace {

using Page = SharedObject::Page;

constexpr std::size_t PageBytes = 4096;
static_assert(sizeof(Page) == PageBytes && offsetof(Page, value) == PageBytes - RobustTie::BytesFromWord);

constexpr std::uint32_t PageMagic = 0x324F5154;  // "TQO2"
constexpr std::uint32_t ManualReset = 1;         // flags
constexpr std::uint32_t HasSecurity = 2;
constexpr std::uint32_t LockWanted = 0x80000000;
// Of a value. The kernel knows them as these.
constexpr std::uint32_t Awaited = FUTEX_WAITERS;
constexpr std::uint32_t Abandoned = FUTEX_OWNER_DIED;
constexpr std::uint32_t OwnerBits = FUTEX_TID_MASK;

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

// A mutex that its maker owns is taken by him afterwards.
void WriteNew(Page& page, std::string_view name, const SharedSetup& setup) noexcept {
    std::memset(static_cast<void*>(&page), 0, PageBytes);
    page.kind = static_cast<std::uint32_t>(setup.kind);
    page.flags = (setup.manualReset ? ManualReset : 0) | (setup.security.block.empty() ? 0 : HasSecurity);
    page.maximum = setup.maximum;
    page.value = setup.value;
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

// The descriptor stands behind the page. An errno value.
int WriteSecurity(const Descriptor& file, off_t fileSize, const std::vector<BYTE>& block) noexcept {
    // One may be left of an object whose users were killed.
    if (fileSize > static_cast<off_t>(PageBytes) && ftruncate(file.Get(), PageBytes) != 0) return errno;
    for (std::size_t done = 0; done < block.size();) {
        const ssize_t written = Retry([&] {
            return pwrite(file.Get(), block.data() + done, block.size() - done,
                          static_cast<off_t>(PageBytes + done));
        });
        if (written < 0) return errno;
        done += static_cast<std::size_t>(written);
    }
    return 0;
}

DWORD ReadSecurity(const Descriptor& file, off_t fileSize, std::vector<BYTE>& block) {
    constexpr std::size_t Most = 68 * 1024;  // a list, two identifiers and a head are less
    const auto size = static_cast<std::size_t>(fileSize) - PageBytes;
    if (fileSize <= static_cast<off_t>(PageBytes) || size > Most) return ERROR_INVALID_DATA;
    block.resize(size);
    for (std::size_t done = 0; done < size;) {
        const ssize_t count = Retry([&] {
            return pread(file.Get(), block.data() + done, size - done, static_cast<off_t>(PageBytes + done));
        });
        if (count < 0) return CodeFromErrno(errno);
        if (count == 0) return ERROR_INVALID_DATA;
        done += static_cast<std::size_t>(count);
    }
    return ERROR_SUCCESS;
}

// A process that had this slot before may have been killed with the lock.
void InheritSlot(Page& page, std::uint32_t self) noexcept {
    std::uint32_t lock = page.lock;
    if ((lock & ~LockWanted) == self && page.lock.compare_exchange_strong(lock, 0))
        FutexWake(&page.lock, INT_MAX, Reach::Shared);
}

// Changes a word and wakes all who sleep on it, in one step: nobody can be killed between the two. `value` has
// a single bit, or none.
void SetAndWake(Word& word, std::uint32_t value) noexcept {
    const auto change =
        static_cast<std::uint32_t>(value == 0 ? FUTEX_OP(FUTEX_OP_SET, 0, FUTEX_OP_CMP_EQ, 0)
                                              : FUTEX_OP(FUTEX_OP_SET | FUTEX_OP_OPARG_SHIFT,
                                                         std::countr_zero(value), FUTEX_OP_CMP_EQ, 0));
    if (syscall(SYS_futex, &word, FUTEX_WAKE_OP, INT_MAX, std::uintptr_t{0}, &word, change) >= 0) return;
    word = value;
    FutexWake(&word, INT_MAX, Reach::Shared);
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
    constexpr int Access = PROT_READ | PROT_WRITE;
    void* const page = mmap(nullptr, 2 * PageBytes, Access, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) return nullptr;
    int error = ENOMEM;
    if (mmap(page, PageBytes, Access, MAP_SHARED | MAP_FIXED, file.Get(), 0) != page) {
        error = errno;
    } else {
        if (!IsOfOthers(info)) return page;
        CatchFaults();
        if (ExchangePage(nullptr, page)) return page;
    }
    munmap(page, 2 * PageBytes);
    errno = error;
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
    if (kind == SharedKind::Mutex && !RobustTie::IsSupported(PageBytes)) return ERROR_NOT_SUPPORTED;
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
                                        setup ? &setup->security.mode : nullptr, opened))
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
        int error = AllocateSharedPage(opened);
        if (!error) error = WriteSecurity(opened, info.st_size, setup->security.block);
        if (error) {
            unlinkat(folder.descriptor.Get(), file.c_str(), 0);
            return CodeFromErrno(error);
        }
        UnlockByte(opened, FirstSlot + 1, Slots - 1);
    } else {
        if (info.st_size < static_cast<off_t>(PageBytes)) return ERROR_INVALID_DATA;
        if (!LockFreeSlot(opened, slot)) return ERROR_NO_SYSTEM_RESOURCES;
    }
    Mapping page(static_cast<Page*>(MapSharedPage(opened, info)), Unmap());
    if (!page) return CodeFromErrno(errno);
    if (alone) {
        WriteNew(*page, name, *setup);
    } else {
        if (DWORD code = CheckFound(*page, name, kind)) return code;
        InheritSlot(*page, slot + 1);
    }
    object = std::make_unique<SharedObject>(folder, file, std::move(opened), std::move(page), slot,
                                            FileId{info.st_dev, info.st_ino});
    if (alone && setup->owned) object->TakeMutex(0);
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
    if (!page) return;
    ExchangePage(page, nullptr);
    munmap(page, 2 * PageBytes);
}

SharedObject::~SharedObject() {
    if (Tie() && Tie()->Owner() != 0) Free(true);
    const Descriptor& file = ProcessDescriptor::File();
    struct stat info;
    if (OwnsLocks() && LockInit(file) && LockAllSlots(file) &&
        IsCurrent(m_folder.descriptor, m_file.c_str(), file, info))
        unlinkat(m_folder.descriptor.Get(), m_file.c_str(), 0);
    // A fork finds it there or gone: the descriptor goes later.
    const WithoutFork whole;
    m_page.reset();
}

void SharedObject::OpenAnew(const Descriptor& fresh) noexcept {
    m_slot = NoSlot;
    if (!m_page) return;
    std::uint32_t slot;
    if (Tie()) Tie()->Forget();
    // What is mapped keeps the parent's open file, and with it the parent's slot, for as long as the child
    // lives.
    constexpr int Flags = MAP_SHARED | MAP_FIXED;
    void* const page = m_page.get();
    if (!fresh || mmap(page, PageBytes, PROT_READ | PROT_WRITE, Flags, fresh.Get(), 0) != page) return;
    if (!LockInit(fresh)) return;
    if (LockFreeSlot(fresh, slot)) {
        InheritSlot(*m_page, slot + 1);
        m_slot = slot;
    }
    UnlockByte(fresh, InitByte);
}

DWORD SharedObject::User() const noexcept {
    struct stat info;
    return fstat(Get(), &info) == 0 ? info.st_uid : ProcessUser();
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

// Only with the init byte locked can nobody take over the dead holder's slot meanwhile.
void SharedObject::BuryLock(std::uint32_t held) noexcept {
    const Guard lock(g_initLock);
    const Descriptor& file = ProcessDescriptor::File();
    if (!LockByte(file, InitByte)) return;
    if (!IsAlive(held & ~LockWanted) && m_page->lock.compare_exchange_strong(held, 0))
        FutexWake(&m_page->lock, INT_MAX, Reach::Shared);
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
            BuryLock(held);
    }
}

void SharedObject::Unlock() noexcept {
    if (m_page->lock.exchange(0, std::memory_order_release) & LockWanted)
        FutexWake(&m_page->lock, 1, Reach::Shared);
}

RobustTie& SharedObject::TieOf(Page& page) noexcept {
    return *reinterpret_cast<RobustTie*>(reinterpret_cast<std::byte*>(&page) + PageBytes);
}

const Word& SharedObject::ValueWord() const noexcept {
    return m_page->value;
}

// Does `work` while nobody opens or closes the object. Other threads of the process have the same open file.
DWORD SharedObject::WithInitLock(auto work) const {
    const Descriptor& file = ProcessDescriptor::File();
    const Deadline deadline = Now() + InitPatience;
    for (Backoff backoff; Now() <= deadline; backoff.Pause()) {
        const Guard lock(g_initLock);
        if (!LockByte(file, InitByte)) continue;
        const struct Unlock {
            const Descriptor& file;
            ~Unlock() { UnlockByte(file, InitByte); }
        } unlock{file};
        struct stat info;
        return fstat(file.Get(), &info) == 0 ? work(file, info) : CodeFromErrno(errno);
    }
    return ERROR_BUSY;
}

DWORD SharedObject::Security(std::vector<BYTE>& block) const {
    block.clear();
    if (DWORD code = Check()) return code;
    if (!(m_page->flags & HasSecurity)) return ERROR_SUCCESS;
    return WithInitLock([&](const Descriptor& file, const struct stat& info) {
        return ReadSecurity(file, info.st_size, block);
    });
}

DWORD SharedObject::SetList(const void* descriptor) {
    if (DWORD code = Check()) return code;
    return WithInitLock([&](const Descriptor& file, const struct stat& info) -> DWORD {
        std::vector<BYTE> before;
        if (m_page->flags & HasSecurity)
            if (DWORD code = ReadSecurity(file, info.st_size, before)) return code;
        ObjectSecurity security;
        if (DWORD code = SecurityWithList(descriptor, before, info, security)) return code;
        if (fchmod(file.Get(), security.mode) != 0) return CodeFromErrno(errno);
        if (const int error = WriteSecurity(file, info.st_size, security.block)) {
            // There was room for what stood there.
            WriteSecurity(file, info.st_size, before);
            fchmod(file.Get(), info.st_mode & 0777);
            return CodeFromErrno(error);
        }
        m_page->flags.fetch_or(HasSecurity);
        return ERROR_SUCCESS;
    });
}

// Of an event or semaphore.
std::uint32_t SharedObject::Count(std::uint32_t value) const noexcept {
    return std::min(value & ~Awaited, m_maximum);
}

bool SharedObject::IsSignalled(std::uint32_t value) const noexcept {
    return m_kind == SharedKind::Mutex ? (value & OwnerBits) == 0 : Count(value) != 0;
}

bool SharedObject::LooksSignalled() const noexcept {
    return IsSignalled(m_page->value);
}

// Others than the holder of the lock only mark a value as awaited; a mutex may become abandoned, too. False
// where somebody sleeps.
bool SharedObject::ChangeUnwaited(std::uint32_t value) noexcept {
    for (std::uint32_t before = m_page->value; !(before & Awaited);)
        if (m_page->value.compare_exchange_weak(before, value)) return true;
    return false;
}

// A change that may end waits. All waiters are woken: one that gets killed takes no wake-up with it.
void SharedObject::ChangeAndUnlock(std::uint32_t value) noexcept {
    if (!ChangeUnwaited(value)) {
        // Those who wake up look under the lock: what is changed before it is free belongs to the change.
        const std::uint32_t lowest = value & (~value + 1);
        SetAndWake(m_page->value, lowest);
        if (value != lowest) m_page->value.fetch_or(value);
    }
    Unlock();
    m_folder.door->Ring();
}

DWORD SharedObject::Signal() noexcept {
    if (DWORD code = Lock()) return code;
    ChangeAndUnlock(1);
    return ERROR_SUCCESS;
}

DWORD SharedObject::Reset() noexcept {
    if (DWORD code = Lock()) return code;
    m_page->value.fetch_and(Awaited);
    Unlock();
    return ERROR_SUCCESS;
}

DWORD SharedObject::Add(std::uint32_t count, std::uint32_t& previous) noexcept {
    if (DWORD code = Lock()) return code;
    previous = Count(m_page->value);
    if (count > m_maximum - previous) {
        Unlock();
        return ERROR_TOO_MANY_POSTS;
    }
    ChangeAndUnlock(previous + count);
    return ERROR_SUCCESS;
}

// The last thing that is done is the change: until then the kernel would free it.
DWORD SharedObject::Free(bool abandoned) noexcept {
    if (DWORD code = Lock()) return code;
    RobustTie& tie = *Tie();
    const bool isOwn = tie.Owner() == GetCurrentThreadId();
    const RobustTie::Pending pending(isOwn ? &tie : nullptr);
    if (isOwn) tie.Untie();
    tie.GiveUp();
    ChangeAndUnlock(abandoned ? Abandoned : 0);
    return ERROR_SUCCESS;
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
    const std::uint32_t value = m_page->value;
    if (!IsSignalled(value)) return std::nullopt;
    if (m_manualReset) return 0;
    if (m_kind != SharedKind::Mutex) {
        m_page->value = Count(value) - 1;
        return 0;
    }
    if (!TakeMutex(value)) return std::nullopt;
    return value & Abandoned ? WAIT_ABANDONED_0 : 0;
}

// With the lock, or before anybody else can have the object. Those who sleep while nobody is the owner were not
// woken by the end of the last one, and go on to be owed a wake-up.
bool SharedObject::TakeMutex(std::uint32_t value) noexcept {
    const DWORD thread = GetCurrentThreadId();
    RobustTie& tie = *Tie();
    if (!tie.Claim(thread)) return false;
    const RobustTie::Pending pending(&tie);
    while (IsSignalled(value)) {
        if (!m_page->value.compare_exchange_weak(value, thread | (value & Awaited))) continue;
        tie.Tie();
        return true;
    }
    tie.GiveUp();
    return false;
}

// What a thread of this process owns counts as not signalled, whatever somebody has written.
std::optional<std::uint32_t> SharedObject::Arm() noexcept {
    for (std::uint32_t value = m_page->value;;) {
        if (IsSignalled(value) && !(Tie() && Tie()->Owner() != 0)) return std::nullopt;
        if (value & Awaited || m_page->value.compare_exchange_weak(value, value | Awaited))
            return value | Awaited;
    }
}

void SharedObject::Disarm() noexcept {
    std::uint32_t left = Abandoned | Awaited;
    if (m_kind == SharedKind::Mutex && m_page->value.compare_exchange_strong(left, Abandoned))
        FutexWake(&m_page->value, INT_MAX, Reach::Shared);
}

}  // namespace Quellan::Platform
