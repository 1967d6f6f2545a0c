// The registry as it lies on disk (docs/formats/registry.md): a key is a folder, a value a file in it.
//
// Readers take no lock and see each value and each key as it was before a change or as it is after it.
// Whoever changes something holds the lock of the hive, so that one process changes a hive at a time; a
// process that is killed leaves at most what the next one clears away.
//
// What changes something returns when the change is on the disk.
//
// All of these may throw std::bad_alloc, with nothing changed. Beside what each says: 1018
// (ERROR_KEY_DELETED) for a key that was deleted, 1015 (ERROR_REGISTRY_CORRUPT) for a file that
// cannot be understood, 5 (ERROR_ACCESS_DENIED) for what the caller may not do and for what somebody else
// could have written.
#pragma once

#include "TQLib/platform/linux/base/Descriptor.h"
#include "TQLib/platform/linux/registry/RegistryNames.h"
#include "TQLib/platform/linux/registry/RegistryValue.h"

#include <ctime>
#include <memory>
#include <vector>

namespace Quellan::Platform {

// Machine is the same for everybody, and root's to change.
enum class RegistryRoot { Machine, User };

struct Hive;

// A key whose folder is open.
struct RegistryKey {
    std::shared_ptr<const Hive> hive;
    Descriptor folder;
    bool isRoot = false;  // the one at the top of the hive, which has no name
};

// The key at the top of a hive, made with it where it is missing and `make` says so; 2 (ERROR_FILE_NOT_FOUND)
// where nothing was ever written.
DWORD OpenRegistryRoot(RegistryRoot root, bool make, RegistryKey& key);

// `path` is names with backslashes between them, without any the key itself: 2 (ERROR_FILE_NOT_FOUND), 161
// (ERROR_BAD_PATHNAME) where it begins with a backslash, 87 (ERROR_INVALID_PARAMETER) where a name is longer
// than a key's can be.
DWORD OpenRegistryKey(const RegistryKey& key, std::wstring_view path, RegistryKey& found);
// Makes what is missing of the path, key by key.
DWORD CreateRegistryKey(const RegistryKey& key, std::wstring_view path, RegistryKey& found, bool& created);
// A subkey with these values alone, made in one step; what is there under the name is deleted before.
DWORD PutRegistryKey(const RegistryKey& key, std::wstring_view name,
                     const std::vector<RegistryValue>& values);
// 5 (ERROR_ACCESS_DENIED) for the top of a hive, and for a key with subkeys unless they go `withSubkeys`, all
// in one step.
DWORD DeleteRegistryKey(const RegistryKey& key, bool withSubkeys);
// The subkeys, each with its own, and the values.
DWORD ClearRegistryKey(const RegistryKey& key);

// 2 (ERROR_FILE_NOT_FOUND) where there is no such value.
DWORD ReadRegistryValue(const RegistryKey& key, std::wstring_view name, RegistryValue& value);
// A value that is there already keeps the spelling of its name.
DWORD WriteRegistryValue(const RegistryKey& key, RegistryValue value);
DWORD DeleteRegistryValue(const RegistryKey& key, std::wstring_view name);

// 1018 alone.
DWORD CheckRegistryKey(const RegistryKey& key) noexcept;
// The file names of the subkeys or values, in their order.
DWORD ListRegistryEntries(const RegistryKey& key, RegistryEntry kind, std::vector<std::string>& files);
// What such a file is about: 2 (ERROR_FILE_NOT_FOUND) where it has gone meanwhile.
DWORD ReadRegistryKeyName(const RegistryKey& key, const std::string& file, std::wstring& name);
DWORD ReadRegistryValueFile(const RegistryKey& key, const std::string& file, RegistryValue& value);

// When an entry of the key was last made, replaced or deleted.
DWORD ReadRegistryKeyTime(const RegistryKey& key, timespec& time);
// Whether the calling thread may change the key.
bool MayChangeRegistryKey(const RegistryKey& key) noexcept;

}  // namespace Quellan::Platform
