#include "platform/linux/internal/RegistryStore.h"

#include "platform/linux/internal/Errno.h"
#include "platform/linux/internal/StateFile.h"
#include "platform/linux/internal/Wide.h"

#include <algorithm>
#include <cstdio>
#include <dirent.h>
#include <sys/stat.h>

namespace Quellan::Corvel::Platform {

// A tree of keys and what its changes need.
struct Hive {
    Descriptor folder;
    unsigned folderMode = 0;
    unsigned fileMode = 0;
};

namespace {

constexpr char RegistryFolder[] = "registry";
// In a hive's folder.
constexpr char RootName[] = "root";
constexpr char LockName[] = "lock";
constexpr char StagedFile[] = "new";
constexpr char StagedKey[] = "newkey";
constexpr char DeletedName[] = "deleted";
// In a key's folder, but for the root: how the key is spelt.
constexpr char NameFile[] = "name";

constexpr std::size_t MostNameFileBytes = MostKeyNameCharacters * 4;
constexpr wchar_t Separator = L'\\';

struct FolderCloser {
    void operator()(DIR* folder) const noexcept { closedir(folder); }
};
using Listing = std::unique_ptr<DIR, FolderCloser>;

// The names of everything in a folder.
DWORD ListFolder(const Descriptor& folder, std::vector<std::string>& names) {
    // A descriptor of its own: this one's position may be in use by another thread.
    Descriptor own(openat(folder.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const Listing listing(own ? fdopendir(own.Get()) : nullptr);
    if (!listing) return CodeFromErrno(errno);
    own.Release();
    for (;;) {
        errno = 0;
        const dirent* const entry = readdir(listing.get());
        if (!entry) return CodeFromErrno(errno);
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") names.emplace_back(name);
    }
}

// Damage is reported in the registry's own words.
DWORD ReadFile(const Descriptor& folder, const char* name, std::size_t most, std::string& text) {
    const DWORD code = ReadStateFile(folder, name, most, text);
    return code == ERROR_FILE_CORRUPT ? ERROR_REGISTRY_CORRUPT : code;
}

// Where nothing is found because nothing can be in it any more, the key is gone.
DWORD WithoutDeleted(const RegistryKey& key, DWORD code) noexcept {
    if (code != ERROR_FILE_NOT_FOUND) return code;
    const DWORD deleted = CheckRegistryKey(key);
    return deleted ? deleted : code;
}

DWORD OpenHive(RegistryRoot root, bool make, std::shared_ptr<const Hive>& result) {
    const bool isMachine = root == RegistryRoot::Machine;
    const StateKind kind = isMachine ? StateKind::Machine : StateKind::Lasting;
    Descriptor registry;
    if (DWORD code = make ? OpenStateFolder(kind, RegistryFolder, registry)
                          : OpenExistingStateFolder(kind, RegistryFolder, registry))
        return code == ERROR_PATH_NOT_FOUND ? ERROR_FILE_NOT_FOUND : code;
    struct stat info;
    if (fstat(registry.Get(), &info) != 0) return CodeFromErrno(errno);
    const bool isForEverybody = isMachine && (info.st_mode & S_IROTH);
    auto hive = std::make_shared<Hive>();
    hive->folderMode = isForEverybody ? 0755 : 0700;
    hive->fileMode = isForEverybody ? 0644 : 0600;
    if (DWORD code =
            OpenTrustedFolder(registry, isMachine ? "machine" : "user", make, hive->folderMode, hive->folder))
        return code;
    result = std::move(hive);
    return ERROR_SUCCESS;
}

// Paths.

DWORD CheckPath(std::wstring_view path) noexcept {
    return path.starts_with(Separator) ? ERROR_BAD_PATHNAME : ERROR_SUCCESS;
}

// Takes the first name off a path; empty at its end.
std::wstring_view TakeName(std::wstring_view& path) noexcept {
    path.remove_prefix(std::min(path.find_first_not_of(Separator), path.size()));
    const std::wstring_view name = path.substr(0, path.find(Separator));
    path.remove_prefix(name.size());
    return name;
}

DWORD OpenSubfolder(const Descriptor& folder, std::wstring_view name, Descriptor& found) {
    if (name.size() > MostKeyNameCharacters) return ERROR_INVALID_PARAMETER;
    return OpenTrustedFolder(folder, RegistryFileName(RegistryEntry::Key, name).c_str(), false, 0, found);
}

// Changes, under the hive's lock.

// Removes the folder of a key that was not put in place.
DWORD RemoveStagedKey(const Hive& hive) noexcept {
    Descriptor staged(openat(hive.folder.Get(), StagedKey, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!staged) return errno == ENOENT ? ERROR_SUCCESS : CodeFromErrno(errno);
    unlinkat(staged.Get(), NameFile, 0);
    return unlinkat(hive.folder.Get(), StagedKey, AT_REMOVEDIR) == 0 ? ERROR_SUCCESS : CodeFromErrno(errno);
}

DWORD MakeSubfolder(const Hive& hive, const Descriptor& folder, std::wstring_view name, Descriptor& made) {
    const std::string file = RegistryFileName(RegistryEntry::Key, name);
    Descriptor staged;
    DWORD code = RemoveStagedKey(hive);
    if (!code) code = OpenTrustedFolder(hive.folder, StagedKey, true, hive.folderMode, staged);
    if (!code)
        code = ReplaceStateFile(hive.folder, StagedFile, staged, NameFile, hive.fileMode, ToUtf8(name));
    if (code) return code;
    if (renameat(hive.folder.Get(), StagedKey, folder.Get(), file.c_str()) != 0 || fsync(folder.Get()) != 0)
        return CodeFromErrno(errno);
    made = std::move(staged);
    return ERROR_SUCCESS;
}

// Makes a folder empty that stands in the folder for what is deleted: subfolders are put beside it, so that
// the depth of the tree does not matter.
DWORD EmptyFolder(const Descriptor& deleted, const Descriptor& folder, unsigned& count) {
    std::vector<std::string> names;
    if (DWORD code = ListFolder(folder, names)) return code;
    for (const std::string& name : names) {
        if (unlinkat(folder.Get(), name.c_str(), 0) == 0) continue;
        int result;
        do {
            const std::string place = std::to_string(count++);
            result = renameat(folder.Get(), name.c_str(), deleted.Get(), place.c_str());
        } while (result != 0 && (errno == ENOTEMPTY || errno == EEXIST));
        if (result != 0) return CodeFromErrno(errno);
    }
    return ERROR_SUCCESS;
}

// Removes what was deleted, now or by a process that was killed then.
DWORD RemoveDeleted(const Hive& hive) {
    Descriptor deleted;
    const DWORD code = OpenTrustedFolder(hive.folder, DeletedName, false, 0, deleted);
    if (code) return code == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : code;
    for (unsigned count = 0;;) {
        std::vector<std::string> names;
        if (DWORD listed = ListFolder(deleted, names)) return listed;
        if (names.empty()) break;
        for (const std::string& name : names) {
            constexpr int Flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
            const Descriptor folder(openat(deleted.Get(), name.c_str(), Flags));
            if (!folder && errno != ENOTDIR && errno != ELOOP) return CodeFromErrno(errno);
            if (folder) {
                if (DWORD emptied = EmptyFolder(deleted, folder, count)) return emptied;
            }
            if (unlinkat(deleted.Get(), name.c_str(), folder ? AT_REMOVEDIR : 0) != 0)
                return CodeFromErrno(errno);
        }
    }
    return unlinkat(hive.folder.Get(), DeletedName, AT_REMOVEDIR) == 0 ? ERROR_SUCCESS : CodeFromErrno(errno);
}

// Takes the folder of a subkey out of a key's, which is all that others can see of a deletion.
DWORD DeleteSubfolder(const Hive& hive, const Descriptor& folder, const std::string& file) {
    Descriptor deleted;
    if (DWORD code = OpenTrustedFolder(hive.folder, DeletedName, true, hive.folderMode, deleted)) return code;
    if (renameat(folder.Get(), file.c_str(), deleted.Get(), "0") != 0) return CodeFromErrno(errno);
    // It is deleted, whatever is left of it: the next change goes on with that.
    RemoveDeleted(hive);
    return ERROR_SUCCESS;
}

// Calls `change` while nobody else changes the hive and the key is there.
template <class Change>
DWORD ChangeKey(const RegistryKey& key, Change change) {
    StateLock lock;
    DWORD code = lock.Take(key.hive->folder, LockName);
    if (!code) code = RemoveDeleted(*key.hive);
    if (!code) code = CheckRegistryKey(key);
    return code ? code : change();
}

// Whether a file name in a folder is that of another folder.
bool IsEntry(const Descriptor& folder, const std::string& file, const Descriptor& other) noexcept {
    struct stat entry, info;
    return fstatat(folder.Get(), file.c_str(), &entry, AT_SYMLINK_NOFOLLOW) == 0 &&
           fstat(other.Get(), &info) == 0 && entry.st_ino == info.st_ino;
}

DWORD ReadSpelling(const Descriptor& folder, std::wstring& name) {
    std::string text;
    if (DWORD code = ReadFile(folder, NameFile, MostNameFileBytes, text)) return code;
    const std::wstring spelling = ToWide(text);
    const bool isName = IsValidText(std::string_view(text)) && !spelling.empty() &&
                        spelling.size() <= MostKeyNameCharacters &&
                        spelling.find_first_of({L"\\\0", 2}) == spelling.npos;
    if (!isName) return ERROR_REGISTRY_CORRUPT;
    name = spelling;
    return ERROR_SUCCESS;
}

}  // namespace

DWORD OpenRegistryRoot(RegistryRoot root, bool make, RegistryKey& key) {
    RegistryKey opened;
    if (DWORD code = OpenHive(root, make, opened.hive)) return code;
    const Hive& hive = *opened.hive;
    if (DWORD code = OpenTrustedFolder(hive.folder, RootName, make, hive.folderMode, opened.folder))
        return code;
    key = std::move(opened);
    return ERROR_SUCCESS;
}

DWORD OpenRegistryKey(const RegistryKey& key, std::wstring_view path, RegistryKey& found) {
    if (DWORD code = CheckPath(path)) return code;
    if (DWORD code = CheckRegistryKey(key)) return code;
    RegistryKey at{key.hive, Descriptor(openat(key.folder.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC))};
    if (!at.folder) return CodeFromErrno(errno);
    for (std::wstring_view name = TakeName(path); !name.empty(); name = TakeName(path)) {
        Descriptor next;
        if (DWORD code = OpenSubfolder(at.folder, name, next)) return code;
        at.folder = std::move(next);
    }
    found = std::move(at);
    return ERROR_SUCCESS;
}

DWORD CreateRegistryKey(const RegistryKey& key, std::wstring_view path, RegistryKey& found, bool& created) {
    RegistryKey at;
    DWORD code = OpenRegistryKey(key, path, at);
    created = false;
    if (code == ERROR_FILE_NOT_FOUND)
        code = ChangeKey(key, [&] {
            DWORD step = OpenRegistryKey(key, L"", at);
            std::wstring_view rest = path;
            for (std::wstring_view name = TakeName(rest); !step && !name.empty(); name = TakeName(rest)) {
                Descriptor next;
                step = OpenSubfolder(at.folder, name, next);
                created = step == ERROR_FILE_NOT_FOUND;
                if (created) step = MakeSubfolder(*at.hive, at.folder, name, next);
                at.folder = std::move(next);
            }
            return step;
        });
    if (code) return code;
    found = std::move(at);
    return ERROR_SUCCESS;
}

DWORD DeleteRegistryKey(const RegistryKey& key, bool withSubkeys) {
    return ChangeKey(key, [&]() -> DWORD {
        std::vector<std::string> subkeys;
        std::wstring name;
        DWORD code = ReadSpelling(key.folder, name);
        if (code == ERROR_FILE_NOT_FOUND) return ERROR_ACCESS_DENIED;  // the root of the hive
        if (!code && !withSubkeys) code = ListRegistryEntries(key, RegistryEntry::Key, subkeys);
        if (code) return code;
        if (!subkeys.empty()) return ERROR_ACCESS_DENIED;
        const Descriptor parent(openat(key.folder.Get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!parent) return CodeFromErrno(errno);
        const std::string file = RegistryFileName(RegistryEntry::Key, name);
        // Whatever a damaged name says, no other key goes.
        if (!IsEntry(parent, file, key.folder)) return ERROR_REGISTRY_CORRUPT;
        return DeleteSubfolder(*key.hive, parent, file);
    });
}

DWORD ClearRegistryKey(const RegistryKey& key) {
    return ChangeKey(key, [&]() -> DWORD {
        std::vector<std::string> subkeys, values;
        DWORD code = ListRegistryEntries(key, RegistryEntry::Key, subkeys);
        if (!code) code = ListRegistryEntries(key, RegistryEntry::Value, values);
        for (auto subkey = subkeys.begin(); !code && subkey != subkeys.end(); ++subkey)
            code = DeleteSubfolder(*key.hive, key.folder, *subkey);
        for (auto value = values.begin(); !code && value != values.end(); ++value)
            if (unlinkat(key.folder.Get(), value->c_str(), 0) != 0) code = CodeFromErrno(errno);
        return code;
    });
}

DWORD ReadRegistryValue(const RegistryKey& key, std::wstring_view name, RegistryValue& value) {
    return WithoutDeleted(key,
                          ReadRegistryValueFile(key, RegistryFileName(RegistryEntry::Value, name), value));
}

DWORD WriteRegistryValue(const RegistryKey& key, RegistryValue value) {
    const std::string file = RegistryFileName(RegistryEntry::Value, value.name);
    return ChangeKey(key, [&] {
        const Hive& hive = *key.hive;
        RegistryValue before;
        if (ReadRegistryValueFile(key, file, before) == ERROR_SUCCESS) value.name = before.name;
        return ReplaceStateFile(hive.folder, StagedFile, key.folder, file.c_str(), hive.fileMode,
                                FormatRegistryValue(value));
    });
}

DWORD DeleteRegistryValue(const RegistryKey& key, std::wstring_view name) {
    const std::string file = RegistryFileName(RegistryEntry::Value, name);
    return ChangeKey(key, [&] {
        return unlinkat(key.folder.Get(), file.c_str(), 0) == 0 ? ERROR_SUCCESS : CodeFromErrno(errno);
    });
}

DWORD CheckRegistryKey(const RegistryKey& key) noexcept {
    struct stat info;
    if (fstat(key.folder.Get(), &info) != 0) return CodeFromErrno(errno);
    return info.st_nlink == 0 ? ERROR_KEY_DELETED : ERROR_SUCCESS;
}

DWORD ListRegistryEntries(const RegistryKey& key, RegistryEntry kind, std::vector<std::string>& files) {
    std::vector<std::string> names;
    DWORD code = CheckRegistryKey(key);
    if (!code) code = ListFolder(key.folder, names);
    if (code) return code;
    std::erase_if(names, [kind](const std::string& name) { return !IsRegistryEntry(kind, name); });
    std::ranges::sort(names);
    files = std::move(names);
    return ERROR_SUCCESS;
}

DWORD ReadRegistryKeyName(const RegistryKey& key, const std::string& file, std::wstring& name) {
    for (;;) {
        Descriptor folder;
        if (DWORD code = OpenTrustedFolder(key.folder, file.c_str(), false, 0, folder)) return code;
        std::wstring spelling;
        const DWORD code = ReadSpelling(folder, spelling);
        if (!code && RegistryFileName(RegistryEntry::Key, spelling) != file) return ERROR_REGISTRY_CORRUPT;
        if (!code) name = std::move(spelling);
        if (code != ERROR_FILE_NOT_FOUND) return code;
        // A folder that is being removed has lost its name already; there may be a new one in its place.
        if (IsEntry(key.folder, file, folder)) return ERROR_REGISTRY_CORRUPT;
    }
}

DWORD ReadRegistryValueFile(const RegistryKey& key, const std::string& file, RegistryValue& value) {
    std::string content;
    RegistryValue parsed;
    DWORD code = ReadFile(key.folder, file.c_str(), MostValueFileBytes, content);
    if (!code) code = ParseRegistryValue(content, parsed);
    if (code) return code;
    if (RegistryFileName(RegistryEntry::Value, parsed.name) != file) return ERROR_REGISTRY_CORRUPT;
    value = std::move(parsed);
    return ERROR_SUCCESS;
}

DWORD ReadRegistryKeyTime(const RegistryKey& key, timespec& time) {
    struct stat info;
    if (fstat(key.folder.Get(), &info) != 0) return CodeFromErrno(errno);
    time = info.st_mtim;
    return ERROR_SUCCESS;
}

bool MayChangeRegistryKey(const RegistryKey& key) noexcept {
    return faccessat(key.folder.Get(), ".", W_OK, AT_EACCESS) == 0;
}

DWORD FlushRegistryKey(const RegistryKey& key) {
    if (DWORD code = CheckRegistryKey(key)) return code;
    return fsync(key.folder.Get()) == 0 ? ERROR_SUCCESS : CodeFromErrno(errno);
}

}  // namespace Quellan::Corvel::Platform
