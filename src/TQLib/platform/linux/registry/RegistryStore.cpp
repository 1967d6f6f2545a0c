#include "TQLib/platform/linux/registry/RegistryStore.h"

#include "TQLib/platform/linux/base/Durable.h"
#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/StateFile.h"
#include "TQLib/platform/linux/base/Wide.h"

#include <algorithm>
#include <cstdio>
#include <dirent.h>
#include <sys/stat.h>

namespace Quellan::Platform {

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
constexpr char HiveLockName[] = "lock";
constexpr char StagedFile[] = "new";
constexpr char StagedKey[] = "newkey";
constexpr char DeletedName[] = "deleted";
// In a key's folder, but for the root: how the key is spelt, and the values with which it was made.
constexpr char NameFile[] = "name";

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

// A folder without is what is left of a deleted key.
bool HasName(const Descriptor& folder) noexcept {
    return faccessat(folder.Get(), NameFile, F_OK, 0) == 0 || errno != ENOENT;
}

// Where nothing is found because nothing can be in it any more, the key is gone.
DWORD WithoutDeleted(const RegistryKey& key, DWORD code) noexcept {
    if (code != ERROR_FILE_NOT_FOUND) return code;
    const DWORD deleted = CheckRegistryKey(key);
    return deleted ? deleted : code;
}

// What stands in a key's `name`. A value that is set later has a file of its own, which counts before the one
// here.
struct KeyFile {
    std::string name;
    std::vector<RegistryValue> values;
};

std::string FormatKeyFile(const KeyFile& content) {
    std::string text = content.name;
    if (!content.values.empty()) text += '\0';
    for (const RegistryValue& value : content.values)
        text += FormatRegistryValue(value);
    return text;
}

// What is whole of it, also with 1015 (ERROR_REGISTRY_CORRUPT). Nothing where there is none, as in the root.
DWORD ReadKeyFile(const Descriptor& folder, KeyFile& content) {
    std::string text;
    const DWORD code = ReadFile(folder, NameFile, MostValueFileBytes, text);
    if (code) return code == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : code;
    const std::size_t end = std::min(text.find('\0'), text.size());
    content.name = text.substr(0, end);
    std::string_view rest = std::string_view(text).substr(std::min(end + 1, text.size()));
    while (!rest.empty()) {
        RegistryValue value;
        if (DWORD bad = TakeRegistryValue(rest, value)) return bad;
        content.values.push_back(std::move(value));
    }
    return ERROR_SUCCESS;
}

std::string FileNameOf(const RegistryValue& value) {
    return RegistryFileName(RegistryEntry::Value, value.name);
}

// A value with which the key was made.
DWORD ReadMadeValue(const Descriptor& folder, const std::string& file, RegistryValue& value) {
    KeyFile content;
    const DWORD code = ReadKeyFile(folder, content);
    const auto found = std::ranges::find(content.values, file, FileNameOf);
    if (found == content.values.end()) return code ? code : ERROR_FILE_NOT_FOUND;
    value = std::move(*found);
    return ERROR_SUCCESS;
}

DWORD ReadSetValue(const Descriptor& folder, const std::string& file, RegistryValue& value) {
    std::string content;
    RegistryValue parsed;
    DWORD code = ReadFile(folder, file.c_str(), MostValueFileBytes, content);
    if (!code) code = ParseRegistryValue(content, parsed);
    if (code) return code;
    if (FileNameOf(parsed) != file) return ERROR_REGISTRY_CORRUPT;
    value = std::move(parsed);
    return ERROR_SUCCESS;
}

Make Lasting(bool make) noexcept {
    return make ? Make::Lasting : Make::Nothing;
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
    if (DWORD code = OpenTrustedFolder(registry, isMachine ? "machine" : "user", Lasting(make),
                                       hive->folderMode, hive->folder))
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
    Descriptor opened;
    const std::string file = RegistryFileName(RegistryEntry::Key, name);
    if (DWORD code = OpenTrustedFolder(folder, file.c_str(), Make::Nothing, 0, opened)) return code;
    if (!HasName(opened)) return ERROR_FILE_NOT_FOUND;
    found = std::move(opened);
    return ERROR_SUCCESS;
}

// Changes, under the hive's lock.

constexpr int FolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

DWORD RemoveFolder(const Descriptor& in, const char* name) noexcept {
    return Durable::Unlink(in.Get(), name, AT_REMOVEDIR) == 0 ? ERROR_SUCCESS : CodeFromErrno(errno);
}

// Removes the folder of a key that was not put in place.
DWORD RemoveStagedKey(const Hive& hive) {
    const Descriptor staged(openat(hive.folder.Get(), StagedKey, FolderFlags));
    if (!staged) return errno == ENOENT ? ERROR_SUCCESS : CodeFromErrno(errno);
    std::vector<std::string> names;
    if (DWORD code = ListFolder(staged, names)) return code;
    for (const std::string& name : names)
        Durable::Unlink(staged.Get(), name.c_str());
    return RemoveFolder(hive.folder, StagedKey);
}

// Makes a folder empty that was deleted. Its subfolders are put beside it in the folder for what is deleted,
// so that the depth of the tree does not matter; those that cannot be moved are removed where they are.
DWORD EmptyFolder(const Descriptor& deleted, const Descriptor& folder, unsigned& count) {
    std::vector<std::string> names;
    if (DWORD code = ListFolder(folder, names)) return code;
    for (const std::string& name : names) {
        if (Durable::Unlink(folder.Get(), name.c_str()) == 0) continue;
        int result;
        do {
            const std::string place = std::to_string(count++);
            result = Durable::Rename(folder.Get(), name.c_str(), deleted.Get(), place.c_str());
        } while (result != 0 && (errno == ENOTEMPTY || errno == EEXIST));
        if (result == 0) continue;
        if (errno != EXDEV) return CodeFromErrno(errno);
        const Descriptor subfolder(openat(folder.Get(), name.c_str(), FolderFlags));
        DWORD code = subfolder ? EmptyFolder(deleted, subfolder, count) : CodeFromErrno(errno);
        if (!code) code = RemoveFolder(folder, name.c_str());
        if (code) return code;
    }
    return ERROR_SUCCESS;
}

// Removes what was deleted.
DWORD RemoveDeleted(const Hive& hive, const Descriptor& deleted) {
    for (unsigned count = 0;;) {
        std::vector<std::string> names;
        if (DWORD listed = ListFolder(deleted, names)) return listed;
        if (names.empty()) break;
        for (const std::string& name : names) {
            const Descriptor folder(openat(deleted.Get(), name.c_str(), FolderFlags));
            if (!folder && errno != ENOTDIR && errno != ELOOP) return CodeFromErrno(errno);
            if (folder) {
                if (DWORD emptied = EmptyFolder(deleted, folder, count)) return emptied;
            }
            if (Durable::Unlink(deleted.Get(), name.c_str(), folder ? AT_REMOVEDIR : 0) != 0)
                return CodeFromErrno(errno);
        }
    }
    return RemoveFolder(hive.folder, DeletedName);
}

// The same for what a process left that was killed then. Before its folders are emptied it must be certain
// that they do not return to their places.
DWORD RemoveLeftovers(const Hive& hive) {
    Descriptor deleted;
    const DWORD code = OpenTrustedFolder(hive.folder, DeletedName, Make::Nothing, 0, deleted);
    if (code) return code == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : code;
    if (Durable::SyncFileSystem(deleted.Get()) != 0) return CodeFromErrno(errno);
    return RemoveDeleted(hive, deleted);
}

// Takes the folder of a subkey out of a key's, which is all that others can see of a deletion. Some file
// systems do not move the folders they began with (those of a container's image): there the loss of its name
// deletes the key.
DWORD DeleteSubfolder(const Hive& hive, const Descriptor& folder, const std::string& file) {
    Descriptor deleted;
    if (DWORD code = OpenTrustedFolder(hive.folder, DeletedName, Make::Passing, hive.folderMode, deleted))
        return code;
    if (Durable::Rename(folder.Get(), file.c_str(), deleted.Get(), "0") == 0) {
        if (Durable::Sync(folder.Get()) != 0) return CodeFromErrno(errno);
        // It is deleted, whatever is left of it: the next change goes on with that.
        RemoveDeleted(hive, deleted);
        return ERROR_SUCCESS;
    }
    if (errno != EXDEV) return CodeFromErrno(errno);
    const Descriptor key(openat(folder.Get(), file.c_str(), FolderFlags));
    const bool isDeleted = key && (Durable::Unlink(key.Get(), NameFile) == 0 || errno == ENOENT) &&
                           Durable::Sync(key.Get()) == 0;
    if (!isDeleted) return CodeFromErrno(errno);
    unsigned count = 1;
    if (EmptyFolder(deleted, key, count) == ERROR_SUCCESS) RemoveFolder(folder, file.c_str());
    RemoveDeleted(hive, deleted);
    return ERROR_SUCCESS;
}

// Writes the file of a key that is not in place yet.
DWORD FillStagedKey(const Hive& hive, const Descriptor& staged, const KeyFile& content) {
    Descriptor file;
    if (DWORD code = WriteNewStateFile(staged, NameFile, hive.fileMode, FormatKeyFile(content), file))
        return code;
    const bool isDone = Durable::Sync(file.Get()) == 0 && Durable::Sync(staged.Get()) == 0;
    return isDone ? ERROR_SUCCESS : CodeFromErrno(errno);
}

DWORD MakeSubfolder(const Hive& hive, const Descriptor& folder, std::wstring_view name,
                    const std::vector<RegistryValue>& values, Descriptor& made) {
    const std::string file = RegistryFileName(RegistryEntry::Key, name);
    Descriptor staged;
    DWORD code = RemoveStagedKey(hive);
    if (!code) code = OpenTrustedFolder(hive.folder, StagedKey, Make::Passing, hive.folderMode, staged);
    if (!code) code = FillStagedKey(hive, staged, {ToUtf8(name), values});
    if (code) return code;
    const auto put = [&] {
        return Durable::Rename(hive.folder.Get(), StagedKey, folder.Get(), file.c_str()) == 0;
    };
    bool isPut = put();
    if (!isPut && (errno == ENOTEMPTY || errno == EEXIST)) {
        if (DWORD left = DeleteSubfolder(hive, folder, file)) return left;
        isPut = put();
    }
    if (!isPut || Durable::Sync(folder.Get()) != 0) return CodeFromErrno(errno);
    made = std::move(staged);
    return ERROR_SUCCESS;
}

// Calls `change` while nobody else changes the hive and the key is there.
template <class Change>
DWORD ChangeKey(const RegistryKey& key, Change change) {
    StateLock lock;
    DWORD code = lock.Take(key.hive->folder, HiveLockName);
    if (!code) code = RemoveLeftovers(*key.hive);
    if (!code) code = CheckRegistryKey(key);
    return code ? code : change();
}

// Before the files of such values go, or these would come back with what they had at first.
template <class IsDropped>
DWORD DropMadeValues(const RegistryKey& key, IsDropped isDropped) {
    KeyFile content;
    if (DWORD code = ReadKeyFile(key.folder, content)) return code;
    if (std::erase_if(content.values, isDropped) == 0) return ERROR_SUCCESS;
    const Hive& hive = *key.hive;
    return ReplaceStateFile(hive.folder, StagedFile, key.folder, NameFile, hive.fileMode,
                            FormatKeyFile(content));
}

// Whether a file name in a folder is that of another folder.
bool IsEntry(const Descriptor& folder, const std::string& file, const Descriptor& other) noexcept {
    struct stat entry, info;
    return fstatat(folder.Get(), file.c_str(), &entry, AT_SYMLINK_NOFOLLOW) == 0 &&
           fstat(other.Get(), &info) == 0 && entry.st_ino == info.st_ino;
}

// The file name of a key's folder, also where the name in it is damaged: 2 (ERROR_FILE_NOT_FOUND).
DWORD FindFileName(const Descriptor& parent, const Descriptor& key, std::string& file) {
    std::vector<std::string> names;
    if (DWORD code = ListFolder(parent, names)) return code;
    const auto found =
        std::ranges::find_if(names, [&](const std::string& name) { return IsEntry(parent, name, key); });
    if (found == names.end()) return ERROR_FILE_NOT_FOUND;
    file = *found;
    return ERROR_SUCCESS;
}

DWORD ReadSpelling(const Descriptor& folder, std::wstring& name) {
    std::string text;
    if (DWORD code = ReadFile(folder, NameFile, MostValueFileBytes, text)) return code;
    text.resize(std::min(text.find('\0'), text.size()));
    const std::wstring spelling = ToWide(text);
    const bool isName = IsValidText(std::string_view(text)) && !spelling.empty() &&
                        spelling.size() <= MostKeyNameCharacters && spelling.find(Separator) == spelling.npos;
    if (!isName) return ERROR_REGISTRY_CORRUPT;
    name = spelling;
    return ERROR_SUCCESS;
}

}  // namespace

DWORD OpenRegistryRoot(RegistryRoot root, bool make, RegistryKey& key) {
    RegistryKey opened;
    opened.isRoot = true;
    if (DWORD code = OpenHive(root, make, opened.hive)) return code;
    const Hive& hive = *opened.hive;
    if (DWORD code = OpenTrustedFolder(hive.folder, RootName, Lasting(make), hive.folderMode, opened.folder))
        return code;
    key = std::move(opened);
    return ERROR_SUCCESS;
}

DWORD OpenRegistryKey(const RegistryKey& key, std::wstring_view path, RegistryKey& found) {
    if (DWORD code = CheckPath(path)) return code;
    if (DWORD code = CheckRegistryKey(key)) return code;
    RegistryKey at{key.hive, Descriptor(openat(key.folder.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
                   key.isRoot};
    if (!at.folder) return CodeFromErrno(errno);
    for (std::wstring_view name = TakeName(path); !name.empty(); name = TakeName(path)) {
        Descriptor next;
        if (DWORD code = OpenSubfolder(at.folder, name, next)) return code;
        at.folder = std::move(next);
        at.isRoot = false;
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
                if (created) step = MakeSubfolder(*at.hive, at.folder, name, {}, next);
                at.folder = std::move(next);
                at.isRoot = false;
            }
            return step;
        });
    if (code) return code;
    found = std::move(at);
    return ERROR_SUCCESS;
}

DWORD PutRegistryKey(const RegistryKey& key, std::wstring_view name,
                     const std::vector<RegistryValue>& values) {
    if (name.size() > MostKeyNameCharacters) return ERROR_INVALID_PARAMETER;
    return ChangeKey(key, [&] {
        Descriptor made;
        return MakeSubfolder(*key.hive, key.folder, name, values, made);
    });
}

DWORD DeleteRegistryKey(const RegistryKey& key, bool withSubkeys) {
    return ChangeKey(key, [&]() -> DWORD {
        if (key.isRoot) return ERROR_ACCESS_DENIED;
        std::vector<std::string> subkeys;
        if (!withSubkeys) {
            if (DWORD code = ListRegistryEntries(key, RegistryEntry::Key, subkeys)) return code;
            std::erase_if(subkeys, [&](const std::string& file) {
                return faccessat(key.folder.Get(), (file + '/' + NameFile).c_str(), F_OK, 0) != 0;
            });
        }
        if (!subkeys.empty()) return ERROR_ACCESS_DENIED;
        const Descriptor parent(openat(key.folder.Get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!parent) return CodeFromErrno(errno);
        std::wstring name;
        std::string file;
        if (ReadSpelling(key.folder, name) == ERROR_SUCCESS)
            file = RegistryFileName(RegistryEntry::Key, name);
        // Whatever a damaged name says, no other key goes.
        if (!IsEntry(parent, file, key.folder))
            if (DWORD code = FindFileName(parent, key.folder, file)) return code;
        return DeleteSubfolder(*key.hive, parent, file);
    });
}

DWORD ClearRegistryKey(const RegistryKey& key) {
    return ChangeKey(key, [&]() -> DWORD {
        std::vector<std::string> subkeys, values;
        DWORD code = ListRegistryEntries(key, RegistryEntry::Key, subkeys);
        if (!code) code = DropMadeValues(key, [](const RegistryValue&) { return true; });
        if (!code) code = ListRegistryEntries(key, RegistryEntry::Value, values);
        for (auto subkey = subkeys.begin(); !code && subkey != subkeys.end(); ++subkey)
            code = DeleteSubfolder(*key.hive, key.folder, *subkey);
        for (auto value = values.begin(); !code && value != values.end(); ++value)
            if (Durable::Unlink(key.folder.Get(), value->c_str()) != 0) code = CodeFromErrno(errno);
        if (!code && Durable::Sync(key.folder.Get()) != 0) code = CodeFromErrno(errno);
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
    return ChangeKey(key, [&]() -> DWORD {
        bool wasMade = false;
        if (DWORD code = DropMadeValues(key, [&](const RegistryValue& value) {
                return FileNameOf(value) == file && (wasMade = true);
            }))
            return code;
        if (Durable::Unlink(key.folder.Get(), file.c_str()) != 0)
            return wasMade && errno == ENOENT ? ERROR_SUCCESS : CodeFromErrno(errno);
        return Durable::Sync(key.folder.Get()) == 0 ? ERROR_SUCCESS : CodeFromErrno(errno);
    });
}

DWORD CheckRegistryKey(const RegistryKey& key) noexcept {
    struct stat info;
    if (fstat(key.folder.Get(), &info) != 0) return CodeFromErrno(errno);
    return info.st_nlink == 0 || (!key.isRoot && !HasName(key.folder)) ? ERROR_KEY_DELETED : ERROR_SUCCESS;
}

DWORD ListRegistryEntries(const RegistryKey& key, RegistryEntry kind, std::vector<std::string>& files) {
    std::vector<std::string> names;
    DWORD code = CheckRegistryKey(key);
    if (!code) code = ListFolder(key.folder, names);
    if (code) return code;
    std::erase_if(names, [kind](const std::string& name) { return !IsRegistryEntry(kind, name); });
    KeyFile content;
    // Of a damaged one those that are whole; what cannot be read now is no shorter list.
    if (kind == RegistryEntry::Value) code = ReadKeyFile(key.folder, content);
    if (code && code != ERROR_REGISTRY_CORRUPT) return code;
    std::ranges::transform(content.values, std::back_inserter(names), FileNameOf);
    std::ranges::sort(names);
    names.erase(std::unique(names.begin(), names.end()), names.end());
    files = std::move(names);
    return ERROR_SUCCESS;
}

DWORD ReadRegistryKeyName(const RegistryKey& key, const std::string& file, std::wstring& name) {
    for (;;) {
        Descriptor folder;
        if (DWORD code = OpenTrustedFolder(key.folder, file.c_str(), Make::Nothing, 0, folder)) return code;
        std::wstring spelling;
        const DWORD code = ReadSpelling(folder, spelling);
        if (!code && RegistryFileName(RegistryEntry::Key, spelling) != file) return ERROR_REGISTRY_CORRUPT;
        if (!code) name = std::move(spelling);
        if (code != ERROR_FILE_NOT_FOUND) return code;
        // A folder that is being removed has lost its name already; there may be a new one in its place.
        if (IsEntry(key.folder, file, folder)) return code;
    }
}

DWORD ReadRegistryValueFile(const RegistryKey& key, const std::string& file, RegistryValue& value) {
    DWORD code = ReadSetValue(key.folder, file, value);
    if (code == ERROR_FILE_NOT_FOUND) code = ReadMadeValue(key.folder, file, value);
    // It may have been set between the two looks, and be about to be deleted.
    return code == ERROR_FILE_NOT_FOUND ? ReadSetValue(key.folder, file, value) : code;
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

}  // namespace Quellan::Platform
