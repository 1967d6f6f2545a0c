#include "TQLib/platform/linux/objects/NamedObjects.h"

#include "TQLib/platform/linux/accounts/CallerAccess.h"
#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/Lock.h"
#include "TQLib/platform/linux/base/State.h"
#include "TQLib/platform/linux/base/Wide.h"

#include <map>
#include <sys/stat.h>

namespace Quellan::Platform {

namespace {

constexpr DWORD BusyMs = 5'000;

// Threads may use objects while the process ends: nothing here is ever destroyed.
struct KnownObjects {
    PlainLock lock;
    std::map<FileId, SharedFolder> folders TQ_GUARDED_BY(lock);
    std::map<std::pair<const SharedFolder*, std::string>, std::weak_ptr<Waitable>> objects
        TQ_GUARDED_BY(lock);

    std::size_t pruneAt TQ_GUARDED_BY(lock) = 16;

    // Forgets what is closed, each time the number has doubled.
    void Prune() noexcept TQ_REQUIRES(lock) {
        if (objects.size() < pruneAt) return;
        std::erase_if(objects, [](const auto& entry) { return entry.second.expired(); });
        pruneAt = 2 * objects.size() + 16;
    }

    // While the process forks.
    static void Hold() noexcept TQ_ACQUIRES(Instance().lock) { Instance().lock.lock(); }
    static void Resume(bool isChild) noexcept TQ_RELEASES(Instance().lock) {
        if (isChild) Instance().Disown();
        Instance().lock.unlock();
    }

    // In the child of a fork the owners of mutexes are those of its parent.
    void Disown() noexcept TQ_REQUIRES(lock) {
        for (const auto& [name, known] : objects) {
            const std::shared_ptr<Waitable> object = known.lock();
            if (object && object->Rule().takesOwnership) object->BelongsInFork(0);
        }
    }

    static KnownObjects& Instance() {
        alignas(KnownObjects) static std::byte memory[sizeof(KnownObjects)];
        static KnownObjects& instance = *new (memory) KnownObjects;
        return instance;
    }
};

struct ObjectName {
    bool global = false;
    std::string text;  // UTF-8, without the prefix
};

DWORD Parse(std::wstring_view given, ObjectName& name) {
    constexpr std::wstring_view Global = L"Global\\";
    constexpr std::wstring_view Local = L"Local\\";
    if (given.empty()) return ERROR_INVALID_HANDLE;
    if (given.size() > MAX_PATH) return ERROR_FILENAME_EXCED_RANGE;
    name.global = given.starts_with(Global);
    const bool prefixed = name.global || given.starts_with(Local);
    if (prefixed) given.remove_prefix(name.global ? Global.size() : Local.size());
    if (given.empty()) return ERROR_INVALID_NAME;
    if (given.starts_with(L'\\')) return prefixed ? ERROR_PATH_NOT_FOUND : ERROR_BAD_PATHNAME;
    if (given.find(L'\\') != given.npos) return ERROR_PATH_NOT_FOUND;
    name.text = ToUtf8(given);
    return ERROR_SUCCESS;
}

// Names may be longer than the system's file names and hold any character: the file is named by a hash
// (FNV-1a), and the whole name stands inside.
std::string FileOf(std::string_view name) {
    std::uint64_t hash = 0xCBF29CE484222325;
    for (const char byte : name)
        hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001B3;
    constexpr std::string_view Digits = "0123456789abcdef";
    std::string file;
    for (int shift = 60; shift >= 0; shift -= 4)
        file += Digits[hash >> shift & 0xF];
    return file;
}

DWORD OpenFolder(bool global, Descriptor& folder, struct stat& info) {
    const DWORD code = global ? OpenFolderForAll("objects-global", folder)
                              : OpenStateFolder(StateKind::Runtime, "objects-local", folder);
    if (code) return code;
    return fstat(folder.Get(), &info) == 0 ? ERROR_SUCCESS : CodeFromErrno(errno);
}

DWORD OpenDoor(const Descriptor& folder, bool everybody, Door*& door) noexcept {
    Descriptor file;
    const mode_t mode = everybody ? 0666 : 0600;
    if (DWORD code = OpenSharedFile(folder, everybody, ".door", &mode, file)) return code;
    struct stat info;
    if (fstat(file.Get(), &info) != 0) return CodeFromErrno(errno);
    if (!S_ISREG(info.st_mode)) return ERROR_ACCESS_DENIED;
    if (const int error = AllocateSharedPage(file)) return CodeFromErrno(error);
    door = static_cast<Door*>(MapSharedPage(file, info));
    if (!door) return CodeFromErrno(errno);
    return ERROR_SUCCESS;
}

DWORD FindFolder(KnownObjects& registry, bool global, const SharedFolder*& folder)
    TQ_REQUIRES(registry.lock) {
    Descriptor opened;
    struct stat info;
    if (DWORD code = OpenFolder(global, opened, info)) return code;
    const FileId id{info.st_dev, info.st_ino};
    auto found = registry.folders.find(id);
    if (found == registry.folders.end()) {
        Door* door = nullptr;
        if (DWORD code = OpenDoor(opened, global, door)) return code;
        SharedObject::Sweep(opened);
        found = registry.folders.try_emplace(id, SharedFolder{std::move(opened), door, global}).first;
    }
    folder = &found->second;
    return ERROR_SUCCESS;
}

// What the caller gets of the rights that he wants to an object that was there.
DWORD Admit(const Waitable& object, const GenericRights& rights, DWORD& access) {
    std::vector<BYTE> descriptor;
    if (DWORD code = object.Shared()->Security(descriptor)) return code;
    if (!descriptor.empty()) return CheckCaller(descriptor, rights, access, access);
    access = MapRights(rights, access);
    return ERROR_SUCCESS;
}

DWORD TryToOpen(const ObjectName& name, const std::string& file, SharedKind kind, const SharedSetup* setup,
                MakeWaitable make, std::shared_ptr<Waitable>& object) {
    KnownObjects& registry = KnownObjects::Instance();
    const Guard lock(registry.lock);
    const SharedFolder* folder = nullptr;
    if (DWORD code = FindFolder(registry, name.global, folder)) return code;
    registry.Prune();
    auto& known = registry.objects[{folder, file}];
    object = known.lock();
    if (object) return object->Shared()->Kind() == kind ? ERROR_ALREADY_EXISTS : ERROR_INVALID_HANDLE;
    std::unique_ptr<SharedObject> shared;
    const DWORD code = SharedObject::Open(*folder, file, name.text, kind, setup, shared);
    if (!shared) return code;
    object = make(std::move(shared));
    if (code == ERROR_SUCCESS && setup->owned) object->Own(*CurrentWaiter());
    known = object;
    return code;
}

const ForkPart g_nameForkPart(ForkOrder::NamedObjects, &KnownObjects::Hold, &KnownObjects::Resume);

}  // namespace

DWORD OpenNamed(std::wstring_view given, SharedKind kind, const GenericRights& rights,
                const SharedSetup* setup, MakeWaitable make, DWORD& access,
                std::shared_ptr<Waitable>& object) {
    ObjectName name;
    if (DWORD code = Parse(given, name)) return code;
    if (setup && setup->owned && !CurrentWaiter()) return ERROR_NOT_ENOUGH_MEMORY;
    if (setup && setup->owned && !CurrentWaiter()->MakeRoom(1)) return ERROR_NOT_ENOUGH_MEMORY;
    const std::string file = FileOf(name.text);
    const Deadline deadline = DeadlineAfter(BusyMs);
    for (Backoff backoff;; backoff.Pause()) {
        DWORD code = TryToOpen(name, file, kind, setup, make, object);
        // Without the lock: an account may have to be looked up, and a refused object may end.
        DWORD granted = rights.all;
        if (code == ERROR_ALREADY_EXISTS) {
            granted = access;
            if (DWORD refused = Admit(*object, rights, granted)) code = refused;
        }
        const bool isOpen = code == ERROR_SUCCESS || code == ERROR_ALREADY_EXISTS;
        if (!isOpen) object.reset();
        if (code == ERROR_BUSY && Now() <= deadline) continue;
        if (isOpen) access = granted;
        return code;
    }
}

}  // namespace Quellan::Platform
