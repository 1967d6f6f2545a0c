#include "TQLib/platform/linux/registry/Registry.h"

#include "TQLib/platform/linux/accounts/AccountNames.h"
#include "TQLib/platform/linux/base/Clock.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/HandleTable.h"
#include "TQLib/platform/linux/base/Lock.h"
#include "TQLib/platform/linux/base/Wide.h"
#include "TQLib/platform/linux/files/FileSecurity.h"
#include "TQLib/platform/linux/files/Files.h"
#include "TQLib/platform/linux/process/Tokens.h"
#include "TQLib/platform/linux/registry/RegistryRecord.h"
#include "TQLib/platform/linux/registry/RegistryStore.h"

#include <cstring>
#include <optional>

namespace Quellan::Platform {

namespace {

constexpr DWORD ChangingAccess = KEY_SET_VALUE | KEY_CREATE_SUB_KEY | KEY_CREATE_LINK | DELETE;

// The entries of one kind, for somebody who asks for one after the other.
struct Walk {
    std::vector<std::string> files;
    std::size_t next = 0;

    // Each entry once, whatever is made and deleted meanwhile, as long as the indices go up one by one.
    bool GoesOnWith(std::size_t index) const noexcept {
        return index != 0 && (index == next || index + 1 == next);
    }
};

class Key : public Object {
  public:
    static constexpr ObjectKind Kind{.name = "registry key", .closedByCloseHandle = false};

    explicit Key(RegistryKey key) noexcept : Object(Kind), m_key(std::move(key)) {}

    const RegistryKey& Get() const noexcept { return m_key; }

    // Reads what the entry number `index` is about, of those that are not damaged. 259 (ERROR_NO_MORE_ITEMS).
    template <class Item>
    DWORD ReadEntry(RegistryEntry kind, std::size_t index, Item& item,
                    DWORD (*read)(const RegistryKey& key, const std::string& file, Item& item));

  private:
    const RegistryKey m_key;
    LongLock m_lock;
    Walk m_keys TQ_GUARDED_BY(m_lock);
    Walk m_values TQ_GUARDED_BY(m_lock);
};

template <class Item>
DWORD Key::ReadEntry(RegistryEntry kind, std::size_t index, Item& item,
                     DWORD (*read)(const RegistryKey& key, const std::string& file, Item& item)) {
    const Guard lock(m_lock);
    Walk& walk = kind == RegistryEntry::Key ? m_keys : m_values;
    if (DWORD code = CheckRegistryKey(m_key)) return code;
    if (!walk.GoesOnWith(index)) {
        std::vector<std::string> files;
        if (DWORD code = ListRegistryEntries(m_key, kind, files)) return code;
        const WithoutFork withoutFork;
        walk.files.swap(files);
    }
    while (index < walk.files.size()) {
        const DWORD code = read(m_key, walk.files[index], item);
        walk.next = index + 1;
        if (code != ERROR_FILE_NOT_FOUND && code != ERROR_REGISTRY_CORRUPT) return code;
        const WithoutFork withoutFork;
        walk.files.erase(walk.files.begin() + static_cast<std::ptrdiff_t>(index));
    }
    return ERROR_NO_MORE_ITEMS;
}

std::optional<RegistryRoot> RootOf(HKEY key) noexcept {
    if (key == HKEY_LOCAL_MACHINE) return RegistryRoot::Machine;
    if (key == HKEY_CURRENT_USER) return RegistryRoot::User;
    return std::nullopt;
}

// Calls `use` with the Key of a handle that grants `access`. A root where nothing was ever written is made
// for `use` where it is going to write; otherwise it has nothing (2, ERROR_FILE_NOT_FOUND).
template <class Use>
DWORD WithKey(HKEY handle, DWORD access, bool make, Use use) noexcept {
    return WithMemory([&]() -> DWORD {
        if (const auto root = RootOf(handle)) {
            RegistryKey opened;
            if (DWORD code = OpenRegistryRoot(*root, make, opened)) return code;
            Key key(std::move(opened));
            return use(key);
        }
        const HandleRef<Key> key(handle);
        if (!key) return ERROR_INVALID_HANDLE;
        if (access & ~key.Access()) return ERROR_ACCESS_DENIED;
        return use(*key);
    });
}

LSTATUS Status(DWORD code) noexcept {
    return static_cast<LSTATUS>(code);
}

DWORD GrantAccess(const RegistryKey& key, REGSAM wanted, DWORD& granted) noexcept {
    constexpr REGSAM Known = KEY_ALL_ACCESS | MAXIMUM_ALLOWED | KEY_WOW64_64KEY;
    constexpr GenericRights Rights{
        .read = KEY_READ, .write = KEY_WRITE, .execute = KEY_EXECUTE, .all = KEY_ALL_ACCESS};
    wanted = MapRights(Rights, wanted & ~MAXIMUM_ALLOWED) | (wanted & MAXIMUM_ALLOWED);
    if (wanted & ~Known) return ERROR_ACCESS_DENIED;
    const bool asks = wanted & (ChangingAccess | MAXIMUM_ALLOWED);
    const bool mayChange = asks && MayChangeRegistryKey(key);
    if (wanted & MAXIMUM_ALLOWED) {
        granted = mayChange ? KEY_ALL_ACCESS : KEY_READ;
        return ERROR_SUCCESS;
    }
    granted = wanted & KEY_ALL_ACCESS;
    return (wanted & ChangingAccess) && !mayChange ? ERROR_ACCESS_DENIED : ERROR_SUCCESS;
}

DWORD NewKeyHandle(RegistryKey key, REGSAM access, HKEY& handle) {
    DWORD granted = 0;
    if (DWORD code = GrantAccess(key, access, granted)) return code;
    HANDLE made = nullptr;
    if (DWORD code = NewHandle<Key>(made, granted, std::move(key))) return code;
    handle = static_cast<HKEY>(made);
    return ERROR_SUCCESS;
}

// What the rights to a key's folder are worth.
DWORD KeyRightsOf(const AccessEntry& entry) noexcept {
    const bool allows = entry.type == ACCESS_ALLOWED_ACE_TYPE;
    const DWORD read = allows ? KEY_READ : KEY_QUERY_VALUE | KEY_ENUMERATE_SUB_KEYS | KEY_NOTIFY;
    const DWORD write = allows ? KEY_ALL_ACCESS : KEY_SET_VALUE | KEY_CREATE_SUB_KEY | KEY_CREATE_LINK;
    return (entry.mask & FILE_READ_DATA ? read : 0) | (entry.mask & FILE_WRITE_DATA ? write : 0);
}

bool IsEmptyPath(const wchar_t* text) noexcept {
    return !text || !*text;
}

std::wstring_view ViewOf(const wchar_t* text) noexcept {
    return text ? text : std::wstring_view();
}

// A name in a caller's buffer of `size` characters, then of that length.
bool PutName(std::wstring_view name, wchar_t* buffer, DWORD& size) noexcept {
    if (!CopyOut(name, buffer, size)) return false;
    size = static_cast<DWORD>(name.size());
    return true;
}

// Type and data for a caller who may not want them.
DWORD PutData(const RegistryValue& value, DWORD* type, BYTE* data, DWORD* size) noexcept {
    if (type) *type = value.type;
    if (!size) return ERROR_SUCCESS;
    const bool fits = value.data.size() <= *size;
    *size = static_cast<DWORD>(value.data.size());
    if (!data) return ERROR_SUCCESS;
    if (!fits) return ERROR_MORE_DATA;
    std::memcpy(data, value.data.data(), value.data.size());
    return ERROR_SUCCESS;
}

// The class, which is always empty.
bool PutClass(wchar_t* className, DWORD* size) noexcept {
    if (className && *size == 0) return false;
    if (className) *className = L'\0';
    if (size) *size = 0;
    return true;
}

void PutNumber(DWORD* place, std::size_t number) noexcept {
    if (place) *place = static_cast<DWORD>(number);
}

DWORD PutTime(const RegistryKey& key, FILETIME* place) {
    timespec time{};
    if (!place) return ERROR_SUCCESS;
    if (DWORD code = ReadRegistryKeyTime(key, time)) return code;
    *place = FileTimeOf(time);
    return ERROR_SUCCESS;
}

struct KeyInfo {
    std::size_t subkeys = 0;
    std::size_t longestSubkey = 0;
    std::size_t values = 0;
    std::size_t longestValueName = 0;
    std::size_t largestData = 0;
    FILETIME lastWrite{};
};

DWORD ReadInfo(Key& key, KeyInfo& info) {
    std::wstring name;
    DWORD code;
    while (!(code = key.ReadEntry(RegistryEntry::Key, info.subkeys, name, ReadRegistryKeyName))) {
        ++info.subkeys;
        info.longestSubkey = std::max(info.longestSubkey, name.size());
    }
    if (code != ERROR_NO_MORE_ITEMS) return code;
    RegistryValue value;
    while (!(code = key.ReadEntry(RegistryEntry::Value, info.values, value, ReadRegistryValueFile))) {
        ++info.values;
        info.longestValueName = std::max(info.longestValueName, value.name.size());
        info.largestData = std::max(info.largestData, value.data.size());
    }
    return code == ERROR_NO_MORE_ITEMS ? PutTime(key.Get(), &info.lastWrite) : code;
}

}  // namespace

DWORD PutRegistryKey(HKEY root, std::wstring_view path, const std::vector<RegistryValue>& values) noexcept {
    if (DWORD code = FaultDue("RegCreateKeyExW")) return code;
    return WithKey(root, KEY_CREATE_SUB_KEY, true, [&](Key& key) {
        const std::size_t end = std::min(path.rfind(L'\\'), path.size());
        RegistryKey parent;
        bool created = false;
        const DWORD code = CreateRegistryKey(key.Get(), path.substr(0, end), parent, created);
        return code ? code : PutRegistryKey(parent, path.substr(end + 1), values);
    });
}

LSTATUS RegOpenKeyExW(HKEY key, const wchar_t* path, DWORD options, REGSAM access, HKEY* opened) noexcept {
    if (DWORD code = FaultDue("RegOpenKeyExW")) return Status(code);
    if (!opened) return Status(ERROR_INVALID_PARAMETER);
    *opened = nullptr;
    if (options) return Status(ERROR_NOT_SUPPORTED);
    if (RootOf(key) && IsEmptyPath(path)) {
        *opened = key;
        return ERROR_SUCCESS;
    }
    return Status(WithKey(key, 0, false, [&](Key& from) {
        RegistryKey found;
        const DWORD code = OpenRegistryKey(from.Get(), ViewOf(path), found);
        return code ? code : NewKeyHandle(std::move(found), access, *opened);
    }));
}

LSTATUS RegCreateKeyExW(HKEY key, const wchar_t* path, DWORD reserved, wchar_t*, DWORD options, REGSAM access,
                        const SECURITY_ATTRIBUTES* security, HKEY* opened, DWORD* disposition) noexcept {
    if (DWORD code = FaultDue("RegCreateKeyExW")) return Status(code);
    if (!path || !opened || reserved) return Status(ERROR_INVALID_PARAMETER);
    if (options != REG_OPTION_NON_VOLATILE ||
        (security && (security->bInheritHandle || security->lpSecurityDescriptor)))
        return Status(ERROR_NOT_SUPPORTED);
    if (RootOf(key) && IsEmptyPath(path)) {
        *opened = key;
        if (disposition) *disposition = REG_OPENED_EXISTING_KEY;
        return ERROR_SUCCESS;
    }
    return Status(WithKey(key, 0, true, [&](Key& from) {
        RegistryKey found;
        bool created = false;
        DWORD code = CreateRegistryKey(from.Get(), path, found, created);
        if (!code) code = NewKeyHandle(std::move(found), access, *opened);
        if (!code && disposition) *disposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
        return code;
    }));
}

LSTATUS RegCloseKey(HKEY key) noexcept {
    return RootOf(key) ? Status(ERROR_SUCCESS) : Status(CloseHandleOf(key, &Key::Kind));
}

LSTATUS RegDeleteKeyExW(HKEY key, const wchar_t* path, REGSAM view, DWORD reserved) noexcept {
    if (DWORD code = FaultDue("RegDeleteKeyExW")) return Status(code);
    if (!path || reserved || (view & ~KEY_WOW64_64KEY)) return Status(ERROR_INVALID_PARAMETER);
    return Status(WithKey(key, 0, false, [&](Key& from) {
        RegistryKey found;
        const DWORD code = OpenRegistryKey(from.Get(), path, found);
        return code ? code : DeleteRegistryKey(found, false);
    }));
}

LSTATUS RegDeleteTreeW(HKEY key, const wchar_t* path) noexcept {
    if (DWORD code = FaultDue("RegDeleteTreeW")) return Status(code);
    constexpr DWORD Access = DELETE | KEY_ENUMERATE_SUB_KEYS | KEY_QUERY_VALUE;
    if (IsEmptyPath(path)) {
        const DWORD code = WithKey(key, Access | KEY_SET_VALUE, false,
                                   [](Key& cleared) { return ClearRegistryKey(cleared.Get()); });
        // Where nothing was ever written there is nothing to delete.
        return Status(code == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : code);
    }
    return Status(WithKey(key, Access, false, [&](Key& from) {
        RegistryKey found;
        const DWORD code = OpenRegistryKey(from.Get(), path, found);
        return code ? code : DeleteRegistryKey(found, true);
    }));
}

LSTATUS RegFlushKey(HKEY key) noexcept {
    if (DWORD code = FaultDue("RegFlushKey")) return Status(code);
    const DWORD code = WithKey(key, 0, false, [](Key& flushed) { return CheckRegistryKey(flushed.Get()); });
    return Status(code == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : code);
}

LSTATUS RegConnectRegistryW(const wchar_t* machine, HKEY key, HKEY* connected) noexcept {
    if (DWORD code = FaultDue("RegConnectRegistryW")) return Status(code);
    if (!connected) return Status(ERROR_INVALID_PARAMETER);
    if (!IsThisMachine(machine)) return Status(ERROR_BAD_NETPATH);
    if (key != HKEY_LOCAL_MACHINE) return Status(ERROR_INVALID_HANDLE);
    *connected = key;
    return ERROR_SUCCESS;
}

LSTATUS RegQueryValueExW(HKEY key, const wchar_t* name, DWORD* reserved, DWORD* type, BYTE* data,
                         DWORD* size) noexcept {
    if (DWORD code = FaultDue("RegQueryValueExW")) return Status(code);
    if (reserved || (data && !size)) return Status(ERROR_INVALID_PARAMETER);
    return Status(WithKey(key, KEY_QUERY_VALUE, false, [&](Key& asked) {
        RegistryValue value;
        const DWORD code = ReadRegistryValue(asked.Get(), ViewOf(name), value);
        return code ? code : PutData(value, type, data, size);
    }));
}

LSTATUS RegSetValueExW(HKEY key, const wchar_t* name, DWORD reserved, DWORD type, const BYTE* data,
                       DWORD size) noexcept {
    if (DWORD code = FaultDue("RegSetValueExW")) return Status(code);
    const std::wstring_view given = ViewOf(name);
    if (reserved || given.size() > MostValueNameCharacters) return Status(ERROR_INVALID_PARAMETER);
    if (!data && size != 0) return Status(ERROR_NOACCESS);
    if (size > MostValueBytes) return Status(ERROR_NO_SYSTEM_RESOURCES);
    return Status(WithKey(key, KEY_SET_VALUE, true, [&](Key& changed) {
        const std::string bytes(reinterpret_cast<const char*>(data), size);
        return WriteRegistryValue(changed.Get(), {std::wstring(given), type, bytes});
    }));
}

LSTATUS RegDeleteValueW(HKEY key, const wchar_t* name) noexcept {
    if (DWORD code = FaultDue("RegDeleteValueW")) return Status(code);
    return Status(WithKey(key, KEY_SET_VALUE, false,
                          [&](Key& changed) { return DeleteRegistryValue(changed.Get(), ViewOf(name)); }));
}

LSTATUS RegEnumKeyExW(HKEY key, DWORD index, wchar_t* name, DWORD* nameSize, DWORD* reserved,
                      wchar_t* className, DWORD* classSize, FILETIME* lastWrite) noexcept {
    if (DWORD code = FaultDue("RegEnumKeyExW")) return Status(code);
    if (!name || !nameSize || reserved || (className && !classSize)) return Status(ERROR_INVALID_PARAMETER);
    const DWORD code = WithKey(key, KEY_ENUMERATE_SUB_KEYS, false, [&](Key& listed) {
        std::wstring found;
        RegistryKey subkey;
        DWORD step = listed.ReadEntry(RegistryEntry::Key, index, found, ReadRegistryKeyName);
        if (!step && lastWrite) step = OpenRegistryKey(listed.Get(), found, subkey);
        if (!step) step = PutTime(subkey, lastWrite);
        if (step) return step;
        return PutName(found, name, *nameSize) && PutClass(className, classSize) ? ERROR_SUCCESS
                                                                                 : ERROR_MORE_DATA;
    });
    return Status(code == ERROR_FILE_NOT_FOUND ? ERROR_NO_MORE_ITEMS : code);
}

LSTATUS RegEnumValueW(HKEY key, DWORD index, wchar_t* name, DWORD* nameSize, DWORD* reserved, DWORD* type,
                      BYTE* data, DWORD* size) noexcept {
    if (DWORD code = FaultDue("RegEnumValueW")) return Status(code);
    if (!name || !nameSize || reserved || (data && !size)) return Status(ERROR_INVALID_PARAMETER);
    const DWORD code = WithKey(key, KEY_QUERY_VALUE, false, [&](Key& listed) -> DWORD {
        RegistryValue value;
        if (DWORD step = listed.ReadEntry(RegistryEntry::Value, index, value, ReadRegistryValueFile))
            return step;
        const bool fits = PutName(value.name, name, *nameSize);
        const DWORD put = PutData(value, type, data, size);
        return fits ? put : ERROR_MORE_DATA;
    });
    return Status(code == ERROR_FILE_NOT_FOUND ? ERROR_NO_MORE_ITEMS : code);
}

LSTATUS RegQueryInfoKeyW(HKEY key, wchar_t* className, DWORD* classSize, DWORD* reserved, DWORD* subkeys,
                         DWORD* longestSubkey, DWORD* longestClass, DWORD* values, DWORD* longestValueName,
                         DWORD* largestData, DWORD* securityDescriptor, FILETIME* lastWrite) noexcept {
    if (DWORD code = FaultDue("RegQueryInfoKeyW")) return Status(code);
    if (reserved || (className && !classSize)) return Status(ERROR_INVALID_PARAMETER);
    KeyInfo info;
    const DWORD code =
        WithKey(key, KEY_QUERY_VALUE, false, [&](Key& asked) { return ReadInfo(asked, info); });
    if (code && code != ERROR_FILE_NOT_FOUND) return Status(code);
    if (!PutClass(className, classSize)) return Status(ERROR_MORE_DATA);
    PutNumber(subkeys, info.subkeys);
    PutNumber(longestSubkey, info.longestSubkey);
    PutNumber(longestClass, 0);
    PutNumber(values, info.values);
    PutNumber(longestValueName, info.longestValueName);
    PutNumber(largestData, info.largestData);
    PutNumber(securityDescriptor, 0);
    if (lastWrite) *lastWrite = info.lastWrite;
    return ERROR_SUCCESS;
}

LSTATUS RegGetKeySecurity(HKEY key, SECURITY_INFORMATION wanted, PSECURITY_DESCRIPTOR descriptor,
                          DWORD* size) noexcept {
    if (DWORD code = FaultDue("RegGetKeySecurity")) return Status(code);
    if (!size) return Status(ERROR_INVALID_PARAMETER);
    return Status(WithKey(key, READ_CONTROL, false, [&](Key& of) {
        FileSecurity security;
        if (DWORD code = SecurityOf(of.Get().folder.Get(), security)) return code;
        if (security.list)
            for (AccessEntry& entry : *security.list)
                entry.mask = KeyRightsOf(entry);
        return PutDescriptor(security, wanted, descriptor, *size, *size);
    }));
}

LSTATUS RegSetKeySecurity(HKEY key, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR) noexcept {
    if (DWORD code = FaultDue("RegSetKeySecurity")) return Status(code);
    return Status(WithKey(key, 0, false, [](Key&) { return DWORD{ERROR_NOT_SUPPORTED}; }));
}

}  // namespace Quellan::Platform
