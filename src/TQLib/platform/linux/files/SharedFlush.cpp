#include "TQLib/platform/SharedFlush.h"

#include "TQLib/platform/linux/base/Durable.h"
#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/Futex.h"
#include "TQLib/platform/linux/base/State.h"
#include "TQLib/platform/linux/files/FileObject.h"

#include <algorithm>
#include <array>
#include <bit>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <sys/mman.h>
#include <sys/stat.h>

namespace Quellan::Platform {

namespace {

// docs/formats/log-file.md describes the layout and the rules.

using Place = std::atomic<std::uint64_t>;

constexpr unsigned Lanes = 64;
constexpr std::uint64_t LaneBytes = 32'768;
// Of a lane's beginning: somebody is writing what stands there.
constexpr std::uint64_t Taken = std::uint64_t{1} << 63;

struct alignas(64) Lane {
    Place begin;  // of what is not in the file, and Taken
    Place end;
    Place takenEnd;  // of what is being written, and where in the file it begins
    Place takenTo;
};

struct Page {
    Word magic;           // written last
    Word turns;           // a number that changes with each, and whether anybody sleeps
    Word isHeld;          // by a writer who will wake the others
    Place offers, taken;  // the lanes, a bit for each
    Lane lanes[Lanes];
};

constexpr std::uint32_t PageMagic = 0x314C5154;  // "TQL1"
constexpr std::uint32_t Sleeping = 1;            // in turns

constexpr std::size_t HeadBytes = 8192;
constexpr std::size_t AllBytes = HeadBytes + Lanes * LaneBytes;
static_assert(sizeof(Page) <= HeadBytes);

// Bytes of the file that are locked by whoever has the lane.
constexpr off_t FirstLaneByte = 1000;

constexpr const char* FolderName = "appends";
constexpr Deadline OpenPatience = 20 * NanosecondsInMs;  // for what takes microseconds
// How long to sleep at most: until a writer that was killed is noticed; until one is, who wakes nobody.
constexpr Deadline DeathPatience = 20 * NanosecondsInMs;
constexpr Deadline StrangerPatience = NanosecondsInMs / 2;

using RecordSize = std::uint32_t;  // stands before each record

bool SetLaneLock(const Descriptor& file, short type, unsigned lane, unsigned count = 1) noexcept {
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = FirstLaneByte + static_cast<off_t>(lane);
    range.l_len = static_cast<off_t>(count);
    return Retry([&] { return fcntl(file.Get(), F_OFD_SETLK, &range); }) == 0;
}

bool LockAllLanes(const Descriptor& file) noexcept {
    return SetLaneLock(file, F_WRLCK, 0, Lanes);
}

bool LockFreeLane(const Descriptor& file, unsigned& lane) noexcept {
    const auto first = static_cast<unsigned>(getpid()) * 7;
    for (unsigned i = 0; i < Lanes; ++i) {
        lane = (first + i) % Lanes;
        if (SetLaneLock(file, F_WRLCK, lane)) return true;
    }
    return false;
}

// With its memory taken now, not by a later access that could not fail in an orderly way.
bool Reserve(const Descriptor& file, std::size_t begin, std::size_t size) noexcept {
    int error;
    do
        error = posix_fallocate(file.Get(), static_cast<off_t>(begin), static_cast<off_t>(size));
    while (error == EINTR);
    return error == 0;
}

bool IsCurrent(const Descriptor& folder, const char* name, const Descriptor& file) noexcept {
    struct stat info, named;
    return fstat(file.Get(), &info) == 0 && fstatat(folder.Get(), name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           named.st_ino == info.st_ino && named.st_dev == info.st_dev;
}

// Removes a file of the folder that nobody has open.
void RemoveUnused(const Descriptor& folder, const char* name) noexcept {
    constexpr int Flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const WithoutFork noCopy;
    const Descriptor file(Retry([&] { return openat(folder.Get(), name, Flags); }));
    if (file && LockAllLanes(file) && IsCurrent(folder, name, file)) Durable::Unlink(folder.Get(), name);
}

// What killed processes have left.
void Sweep(const Descriptor& folder) noexcept {
    Descriptor copy(Retry([&] { return openat(folder.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(copy ? fdopendir(copy.Get()) : nullptr, closedir);
    if (!entries) return;
    copy.Release();
    while (const dirent* entry = readdir(entries.get()))
        if (entry->d_name[0] != '.') RemoveUnused(folder, entry->d_name);
}

std::string NameFor(Durable::FileIdentity file) {
    return std::to_string(file.device) + '-' + std::to_string(file.number);
}

class Mapping {
  public:
    Mapping() = default;
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    ~Mapping() { Unmap(); }

    // The mapping keeps the open file and with it the lane's lock; so no child of a fork may have it.
    bool Map(const Descriptor& file) noexcept {
        void* const page = mmap(nullptr, AllBytes, PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0);
        if (page == MAP_FAILED) return false;
        m_page = static_cast<Page*>(page);
        return madvise(page, AllBytes, MADV_DONTFORK) == 0;
    }
    // What the child of a fork did not get it can't give back.
    void Unmap() noexcept {
        if (Page* const page = std::exchange(m_page, nullptr); page && !IsInherited()) munmap(page, AllBytes);
    }
    bool IsInherited() const noexcept { return m_fork != ForkGeneration(); }

    Page* operator->() const noexcept { return m_page; }
    void* Head() const noexcept { return m_page; }

    // A lane's bytes, which are a ring: `size` of them from `place` on, in two parts at most.
    template <class Use>
    void ForEachPart(unsigned lane, std::uint64_t place, std::size_t size, Use use) const {
        std::byte* const bytes = reinterpret_cast<std::byte*>(m_page) + HeadBytes + lane * LaneBytes;
        const auto at = static_cast<std::size_t>(place % LaneBytes);
        const std::size_t first = std::min<std::size_t>(size, LaneBytes - at);
        use(bytes + at, first);
        if (first < size) use(bytes, size - first);
    }

    void Put(unsigned lane, std::uint64_t place, const void* from, std::size_t size) const noexcept {
        const char* at = static_cast<const char*>(from);
        ForEachPart(lane, place, size, [&](std::byte* part, std::size_t bytes) {
            std::memcpy(part, at, bytes);
            at += bytes;
        });
    }

    // The size of the record at `place`, 0 behind the last one and where nonsense stands.
    RecordSize SizeAt(unsigned lane, std::uint64_t place, std::uint64_t end) const noexcept {
        RecordSize size = 0;
        if (place >= end || end - place < sizeof size || end - place > LaneBytes) return 0;
        char* to = reinterpret_cast<char*>(&size);
        ForEachPart(lane, place, sizeof size, [&](const std::byte* part, std::size_t bytes) {
            std::memcpy(to, part, bytes);
            to += bytes;
        });
        return size <= end - place - sizeof size ? size : 0;
    }

    // How many bytes of the file, up to its end, are those of a record. An errno value where it can't be read.
    int CountEqual(unsigned lane, std::uint64_t place, std::size_t size, int file, std::uint64_t offset,
                   std::size_t& equal) const noexcept {
        equal = 0;
        int error = 0;
        bool goesOn = true;
        ForEachPart(lane, place, size, [&](const std::byte* part, std::size_t bytes) {
            std::byte found[1024];
            for (std::size_t done = 0; goesOn && done < bytes;) {
                const std::size_t wanted = std::min(sizeof found, bytes - done);
                const ssize_t got =
                    Retry([&] { return pread(file, found, wanted, static_cast<off_t>(offset + equal)); });
                if (got < 0) error = errno;
                const std::byte* const end = found + std::max<ssize_t>(got, 0);
                const auto same = static_cast<std::size_t>(
                    std::mismatch<const std::byte*>(found, end, part + done).first - found);
                equal += same;
                done += same;
                goesOn = same == wanted;
            }
        });
        return error;
    }

  private:
    Page* m_page = nullptr;
    const std::uint32_t m_fork = ForkGeneration();
};

template <class Use>
void ForEachLane(std::uint64_t lanes, Use use) {
    for (; lanes != 0; lanes &= lanes - 1)
        use(static_cast<unsigned>(std::countr_zero(lanes)));
}

class SharedPage final : public SharedFlush {
  public:
    SharedPage(HANDLE file, std::string name) : m_file(file), m_name(std::move(name)) {}
    ~SharedPage() override;

    // False where the file can't be used.
    bool Enter(const Descriptor& folder) noexcept;

    ULONGLONG Offer(std::string_view record) noexcept override;
    bool IsWritten(ULONGLONG end) const noexcept override { return (Own().begin & ~Taken) >= end; }
    bool TakeBack(ULONGLONG end) noexcept override;
    DWORD BeginWait() noexcept override { return m_page->turns.fetch_or(Sleeping) | Sleeping; }
    void Wait(DWORD begun, DWORD ms) noexcept override;
    DWORD Begin() noexcept override;
    bool HasOthers() const noexcept override { return HasOffers() || m_page->turns & Sleeping; }
    bool HasOffers() const noexcept override { return (m_page->offers & ~OwnBit()) != 0; }
    void TakeBackAll() noexcept override { Own().begin = Own().end.load(); }
    void Take(std::string& bytes, ULONGLONG place) override;
    void Settle(bool areWritten) noexcept override;
    void End() noexcept override { m_page->isHeld = 0; }
    void WakeOthers() noexcept override;

  private:
    Lane& Own() const noexcept { return m_page->lanes[m_lane]; }
    std::uint64_t OwnBit() const noexcept { return std::uint64_t{1} << m_lane; }
    bool EnterLane(const Descriptor& folder, const Descriptor& file, bool& isUnusable) noexcept;
    DWORD Recover(int file) noexcept;

    const HANDLE m_file;
    const std::string m_name;
    Mapping m_page;
    unsigned m_lane = 0;
};

bool SharedPage::EnterLane(const Descriptor& folder, const Descriptor& file, bool& isUnusable) noexcept {
    const bool isAlone = LockAllLanes(file);
    m_lane = 0;
    if (!isAlone && !LockFreeLane(file, m_lane)) return false;
    if (!IsCurrent(folder, m_name.c_str(), file)) return false;
    isUnusable = (isAlone && !Reserve(file, 0, HeadBytes)) ||
                 !Reserve(file, HeadBytes + m_lane * LaneBytes, LaneBytes) || !m_page.Map(file);
    if (isUnusable) return false;
    if (isAlone) {
        std::memset(m_page.Head(), 0, HeadBytes);
        m_page->magic = PageMagic;
        SetLaneLock(file, F_UNLCK, 1, Lanes - 1);
        return true;
    }
    isUnusable = m_page->magic != PageMagic;
    // What a killed process has left here nobody waits for.
    std::uint64_t begin = Own().begin;
    while (!isUnusable && !(begin & Taken) && !Own().begin.compare_exchange_weak(begin, Own().end)) {
    }
    return !isUnusable;
}

bool SharedPage::Enter(const Descriptor& folder) noexcept {
    const Deadline deadline = Now() + OpenPatience;
    bool isUnusable = false;
    for (Backoff backoff; !isUnusable && Now() < deadline; backoff.Pause()) {
        const WithoutFork noCopy;  // of a descriptor that has the lane's lock
        Descriptor file;
        if (OpenStateFile(folder, m_name.c_str(), 0600, file)) return false;
        if (EnterLane(folder, file, isUnusable)) return true;
    }
    return false;
}

SharedPage::~SharedPage() {
    if (m_page.IsInherited()) return;
    m_page.Unmap();
    try {
        Descriptor folder;
        if (!OpenExistingStateFolder(StateKind::Runtime, FolderName, folder))
            RemoveUnused(folder, m_name.c_str());
    } catch (const std::bad_alloc&) {
        // Whoever needs such a file next removes it.
    }
}

ULONGLONG SharedPage::Offer(std::string_view record) noexcept {
    Lane& lane = Own();
    const std::uint64_t end = lane.end, used = end - (lane.begin & ~Taken);
    const std::size_t needed = sizeof(RecordSize) + record.size();
    if (used > LaneBytes || needed > LaneBytes - used) return 0;
    const auto size = static_cast<RecordSize>(record.size());
    m_page.Put(m_lane, end, &size, sizeof size);
    m_page.Put(m_lane, end + sizeof size, record.data(), record.size());
    lane.end = end + needed;
    m_page->offers |= OwnBit();
    return end + needed;
}

bool SharedPage::TakeBack(ULONGLONG end) noexcept {
    std::uint64_t begin = Own().begin;
    while (!(begin & Taken) && begin < end)
        if (Own().begin.compare_exchange_weak(begin, end)) return true;
    return false;
}

void SharedPage::Wait(DWORD begun, DWORD ms) noexcept {
    const Deadline now = Now(), most = m_page->isHeld ? DeathPatience : StrangerPatience;
    FutexWait(m_page->turns, begun, now + std::min<Deadline>(most, ms * NanosecondsInMs), Reach::Shared);
}

void SharedPage::WakeOthers() noexcept {
    std::uint32_t turns = m_page->turns;
    while (turns & Sleeping)
        if (m_page->turns.compare_exchange_weak(turns, (turns & ~Sleeping) + 2 * Sleeping))
            return FutexWake(&m_page->turns, INT_MAX, Reach::Shared);
}

void SharedPage::Take(std::string& bytes, ULONGLONG place) {
    const std::size_t before = bytes.size();
    const std::uint64_t offers = m_page->offers & ~OwnBit();
    m_page->taken = offers;
    m_page->offers &= ~offers;
    ForEachLane(offers, [&](unsigned number) {
        Lane& lane = m_page->lanes[number];
        lane.takenTo = place + bytes.size() - before;
        // Its owner may be taking the first one back.
        std::uint64_t begin = lane.begin;
        while (!lane.begin.compare_exchange_weak(begin, begin | Taken)) {
        }
        const std::uint64_t end = lane.takenEnd = lane.end.load();
        std::uint64_t at = begin & ~Taken;
        while (const RecordSize size = m_page.SizeAt(number, at, end)) {
            m_page.ForEachPart(number, at + sizeof size, size, [&](const std::byte* part, std::size_t count) {
                bytes.append(reinterpret_cast<const char*>(part), count);
            });
            at += sizeof size + size;
        }
    });
}

void SharedPage::Settle(bool areWritten) noexcept {
    const std::uint64_t taken = m_page->taken;
    ForEachLane(taken, [&](unsigned number) {
        Lane& lane = m_page->lanes[number];
        const std::uint64_t begin = lane.begin;
        if (begin & Taken) lane.begin = areWritten ? lane.takenEnd.load() : begin & ~Taken;
    });
    if (!areWritten) m_page->offers |= taken;
    m_page->taken = 0;
}

DWORD SharedPage::Begin() noexcept {
    m_page->isHeld = 1;
    if (m_page->taken == 0) return ERROR_SUCCESS;
    const HandleRef<FileObject> file(m_file);
    return file ? Recover(file->Fd()) : ERROR_INVALID_HANDLE;
}

// The writer was killed anywhere between taking the records and telling that they are on the disk. Behind what
// he wrote others may have written who know nothing of this page.
DWORD SharedPage::Recover(int file) noexcept {
    struct stat info;
    if (fstat(file, &info) != 0) return CodeFromErrno(errno);
    const auto fileEnd = static_cast<std::uint64_t>(info.st_size);
    std::uint64_t tornFrom = fileEnd, found = 0;
    std::array<std::uint64_t, Lanes> wholeEnd;
    const std::uint64_t taken = m_page->taken;
    int error = 0;
    ForEachLane(taken, [&](unsigned number) {
        const Lane& lane = m_page->lanes[number];
        const std::uint64_t begin = lane.begin, end = lane.takenEnd;
        std::uint64_t at = begin & ~Taken, to = lane.takenTo;
        while (const RecordSize size = begin & Taken && !error ? m_page.SizeAt(number, at, end) : 0) {
            std::size_t equal;
            error = m_page.CountEqual(number, at + sizeof size, size, file, to, equal);
            if (equal < size) {
                if (equal != 0 && to + equal == fileEnd) tornFrom = to;
                break;
            }
            at += sizeof size + size;
            to += size;
            found |= std::uint64_t{1} << number;
        }
        wholeEnd[number] = at;
    });
    if (error) return CodeFromErrno(error);
    if (found && Durable::Sync(file) != 0) return CodeFromErrno(errno);
    if (tornFrom < fileEnd && Durable::Truncate(file, static_cast<off_t>(tornFrom)) != 0)
        return CodeFromErrno(errno);
    ForEachLane(taken, [&](unsigned number) {
        Lane& lane = m_page->lanes[number];
        if (lane.begin & Taken) lane.begin = wholeEnd[number];
    });
    m_page->offers |= taken;
    m_page->taken = 0;
    return ERROR_SUCCESS;
}

}  // namespace

std::unique_ptr<SharedFlush> SharedFlush::Open(HANDLE handle) {
    const HandleRef<FileObject> file(handle);
    Descriptor folder;
    if (!file || !file->IsPlain() || !file->OwnsLocks()) return nullptr;
    if (OpenStateFolder(StateKind::Runtime, FolderName, folder)) return nullptr;
    auto shared = std::make_unique<SharedPage>(handle, NameFor(file->Id()));
    if (!shared->Enter(folder)) return nullptr;
    Sweep(folder);
    return shared;
}

}  // namespace Quellan::Platform
