// An event, mutex or semaphore in memory that processes share: one small file, mapped by each of them.
//
// The layout, the locks on the file's bytes and the rules for changing it are in
// docs/formats/named-objects.md. Whatever stands in the file may have been written by anybody who may open
// it: every value is checked where it is used, and nothing read from it is an address or a size to trust.
#pragma once

#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/Futex.h"
#include "TQLib/platform/linux/objects/ObjectSecurity.h"
#include "TQLib/platform/linux/objects/RobustTie.h"

#include <compare>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>

namespace Quellan::Platform {

// Of a file or folder, while it is open.
struct FileId {
    dev_t device;
    ino_t inode;
    auto operator<=>(const FileId&) const = default;
};

enum class SharedKind : std::uint32_t { Event = 1, Mutex = 2, Semaphore = 3 };

// What a new object starts with.
struct SharedSetup {
    SharedKind kind;
    bool manualReset = false;  // events
    bool owned = false;        // mutexes
    std::uint32_t value = 0;   // events and semaphores
    std::uint32_t maximum = 1;
    ObjectSecurity security{};  // who else may open it
};

// A word that every signaller of a folder's objects counts up while somebody sleeps on it: for waits on
// several words where the kernel can only wait on one. Never unmapped.
struct Door {
    Word sequence;
    Word waiters;

    void Ring() noexcept;
};

// A folder of shared objects. Once used it is kept for the life of the process.
struct SharedFolder {
    Descriptor descriptor;
    Door* door;
    bool everybody;  // its objects are for all users
};

// Opens a file in such a folder and, unless `mode` is null, makes it with these bits where it is missing.
DWORD OpenSharedFile(const Descriptor& folder, bool everybody, const char* name, const mode_t* mode,
                     Descriptor& file) noexcept;

// Gives such a file its page, so that no later access to it fails for want of memory. An errno value.
int AllocateSharedPage(const Descriptor& file) noexcept;

// Maps such a file's first page, which others may cut off at any time where `info` says that they may write
// it: what is mapped reads as zero then. A page of the process's own follows it, of zeros. Null without
// memory, with the error in errno.
void* MapSharedPage(const Descriptor& file, const struct stat& info) noexcept;

// From the handler of a bus error: whether `address` lies in such a page and may be accessed again.
bool MendSharedPage(const void* address) noexcept;

// What a wait gives in place of an outcome, with the index of the object: it could not be looked at.
constexpr DWORD WaitRefused = 0x40;

// The child of a fork has the object open on its own account; what it owned is the parent's.
class SharedObject : ProcessDescriptor {
  public:
    // Slots are numbered bytes of the file; a process locks one for as long as it has the object open.
    static constexpr std::uint32_t Slots = 1024;

    struct Page;
    struct Unmap {
        void operator()(Page* page) const noexcept;
    };
    // Shared with the thread that owns a mutex.
    using Mapping = std::shared_ptr<Page>;

    // Opens the object in the file `file` of the folder or, with `setup`, makes it where it is missing. 0
    // with an object that is new, 183 (ERROR_ALREADY_EXISTS) with one that was there; otherwise no object and
    // 2 (ERROR_FILE_NOT_FOUND), 5 (ERROR_ACCESS_DENIED), 6 (ERROR_INVALID_HANDLE) for another kind, 13
    // (ERROR_INVALID_DATA), 50 (ERROR_NOT_SUPPORTED) for a mutex where the kernel does not tell of the end of
    // owners, 170 (ERROR_BUSY) while somebody else opens or closes it, 1450 (ERROR_NO_SYSTEM_RESOURCES). May
    // throw std::bad_alloc.
    static DWORD Open(const SharedFolder& folder, const std::string& file, std::string_view name,
                      SharedKind kind, const SharedSetup* setup, std::unique_ptr<SharedObject>& object);

    // Removes the files in the folder that nobody has open any more.
    static void Sweep(const Descriptor& folder) noexcept;

    SharedObject(const SharedFolder& folder, std::string file, Descriptor descriptor, Mapping page,
                 std::uint32_t slot, FileId id) noexcept;
    // The object ends with the last process that has it open. A mutex this process owns counts as abandoned.
    ~SharedObject() override;

    SharedKind Kind() const noexcept { return m_kind; }
    // Whose it is.
    DWORD User() const noexcept;
    // The block of its descriptor; empty where it has none. Whoever may write the file may have changed it. 170
    // (ERROR_BUSY) where somebody else opens or closes the object, 13 (ERROR_INVALID_DATA). May throw
    // std::bad_alloc.
    DWORD Security(std::vector<BYTE>& block) const;
    // Gives it the list of another descriptor, as SecurityWithList says: all of that or nothing. 5
    // (ERROR_ACCESS_DENIED) unless the file is the caller's. May throw std::bad_alloc.
    DWORD SetList(const void* descriptor);
    bool StaysSignalled() const noexcept { return m_manualReset; }

    // What cannot be changed stays as it was: 170 (ERROR_BUSY) where a process that lives has kept the object
    // locked for too long, 999 (ERROR_SWAPERROR) where its memory was cut off, 6 (ERROR_INVALID_HANDLE) in
    // the child of a fork that could not open it.
    DWORD Signal() noexcept;
    DWORD Reset() noexcept;
    // 298 (ERROR_TOO_MANY_POSTS) where the value would go over the maximum.
    DWORD Add(std::uint32_t count, std::uint32_t& previous) noexcept;
    // For mutexes, by their owner or on his behalf.
    DWORD Free(bool abandoned) noexcept;
    // What the owner of a mutex keeps, and by which he ends his part of it when the object is gone.
    const Mapping& Memory() const noexcept { return m_page; }
    static RobustTie& TieOf(Page& page) noexcept;
    // Why a wait was refused.
    DWORD Refusal() const noexcept;

    // As for Waitable, for this process as a whole: a mutex that belongs to another thread of it is not
    // signalled. WaitRefused where the object cannot be changed.
    std::optional<DWORD> TryTake() noexcept;
    bool LooksSignalled() const noexcept;

    // For waits for all of several objects: everything between Lock and Unlock is one change for every
    // observer. Several objects are locked in the order of their files.
    DWORD Lock() noexcept;
    void Unlock() noexcept;
    std::optional<DWORD> TryTakeLocked() noexcept;
    const FileId& File() const noexcept { return m_id; }

    // While a thread waits. It may sleep while the word keeps the value that Arm has given; nothing, where the
    // object is signalled.
    const Word& ValueWord() const noexcept;
    std::optional<std::uint32_t> Arm() noexcept;
    // When the wait is over: the end of an owner wakes one waiter only, who may have come to take another
    // object.
    void Disarm() noexcept;
    // Of a mutex; null for the others.
    RobustTie* Tie() const noexcept { return m_kind == SharedKind::Mutex ? &TieOf(*m_page) : nullptr; }
    const SharedFolder& Folder() const noexcept { return m_folder; }

  private:
    static constexpr std::uint32_t NoSlot = Slots;

    DWORD WithInitLock(auto work) const;
    void OpenAnew(const Descriptor& fresh) noexcept override;
    // What makes every change impossible, or 0.
    DWORD Check() const noexcept;
    std::uint32_t Self() const noexcept { return m_slot + 1; }
    bool IsAlive(std::uint32_t owner) const noexcept;
    void BuryLock(std::uint32_t held) noexcept;
    void ChangeAndUnlock(std::uint32_t value) noexcept;
    bool ChangeUnwaited(std::uint32_t value) noexcept;
    bool IsSignalled(std::uint32_t value) const noexcept;
    std::uint32_t Count(std::uint32_t value) const noexcept;
    bool TakeMutex(std::uint32_t value) noexcept;

    const SharedFolder& m_folder;
    const std::string m_file;
    Mapping m_page;
    std::uint32_t m_slot;
    const FileId m_id;
    // Read once, checked, and not believed again.
    const SharedKind m_kind;
    const bool m_manualReset;
    const std::uint32_t m_maximum;
};

}  // namespace Quellan::Platform
