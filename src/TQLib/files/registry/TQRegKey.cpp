#include "TQLib/files/registry/TQRegKey.h"

#include "TQLib/core/internal/About.h"
#include "TQLib/platform/Platform.h"

#include <limits>
#include <utility>

namespace Quellan::Corvel {

static_assert(TQRegKey::ReadAccess == KEY_READ && TQRegKey::WriteAccess == KEY_WRITE &&
              TQRegKey::FullAccess == KEY_ALL_ACCESS);

namespace {

constexpr DWORD MostKeyNameCharacters = 255;
constexpr DWORD MostValueNameCharacters = 16'383;
constexpr DWORD FirstDataBytes = 256;

void CheckStatus(LSTATUS status, const wchar_t* where) {
    if (status != ERROR_SUCCESS) throw TQSysException(static_cast<unsigned int>(status), where);
}

// The same for what need not be there: whether it is.
bool IsFound(LSTATUS status, const wchar_t* where) {
    const bool isMissing = static_cast<DWORD>(status) == DWORD{ERROR_FILE_NOT_FOUND};
    if (!isMissing) CheckStatus(status, where);
    return !isMissing;
}

// The names that `next` gives for indices from 0 on; it takes an index, a buffer and its size.
template <class Next>
TQStringArray Names(DWORD mostCharacters, const wchar_t* where, Next next) {
    TQStringArray names;
    TCHARBuf buffer(mostCharacters + 1);
    for (DWORD index = 0;; ++index) {
        auto size = static_cast<DWORD>(buffer.Size());
        const LSTATUS status = next(index, buffer.Data(), size);
        if (static_cast<DWORD>(status) == DWORD{ERROR_NO_MORE_ITEMS}) return names;
        CheckStatus(status, where);
        names.Add(TQString(buffer.Data(), size));
    }
}

}  // namespace

TQRegKey::TQRegKey() noexcept = default;
TQRegKey::TQRegKey(HKEY key) : m_key(key) {}
TQRegKey::TQRegKey(const TQRegKey&) noexcept = default;
TQRegKey& TQRegKey::operator=(const TQRegKey&) noexcept = default;
TQRegKey::~TQRegKey() = default;

TQRegKey::TQRegKey(TQUniqueHandle<_TQRegKeyClose>&& key, const CommonValue<TQString>& path)
    : m_key(std::move(key)), m_path(path) {}

CommonValue<TQString> TQRegKey::PathTo(const wchar_t* key) const {
    TQString path = Path();
    if (!path.IsEmpty() && key && *key) path += L'\\';
    path += key;
    return CommonValue<TQString>(std::move(path));
}

TQString TQRegKey::PathOfValue(const wchar_t* name) const {
    return Path() + L": " + TQString(name);
}

TQRegKey::TQRegKey(const TQRegKey& parent, const wchar_t* path, DWORD access) {
    const CommonValue<TQString> whole = parent.PathTo(path);
    About(*whole.Get(), [&] {
        TQUniqueHandle<_TQRegKeyClose> opened;
        CheckStatus(RegOpenKeyExW(parent.Handle(), path, 0, access, opened.Put()), L"TQRegKey::TQRegKey");
        *this = TQRegKey(std::move(opened), whole);
    });
}

TQRegKey TQRegKey::Find(const wchar_t* path, DWORD access) const {
    const CommonValue<TQString> whole = PathTo(path);
    return About(*whole.Get(), [&]() -> TQRegKey {
        TQUniqueHandle<_TQRegKeyClose> opened;
        if (!IsFound(RegOpenKeyExW(Handle(), path, 0, access, opened.Put()), L"TQRegKey::Find")) return {};
        return {std::move(opened), whole};
    });
}

TQRegKey TQRegKey::Create(const wchar_t* path, DWORD access) const {
    const CommonValue<TQString> whole = PathTo(path);
    return About(*whole.Get(), [&]() -> TQRegKey {
        TQUniqueHandle<_TQRegKeyClose> opened;
        CheckStatus(RegCreateKeyExW(Handle(), path ? path : L"", 0, nullptr, REG_OPTION_NON_VOLATILE, access,
                                    nullptr, opened.Put(), nullptr),
                    L"TQRegKey::Create");
        return {std::move(opened), whole};
    });
}

bool TQRegKey::DeleteKey(const wchar_t* path) const {
    constexpr const wchar_t* where = L"TQRegKey::DeleteKey";
    // The platform would empty the key itself.
    if (!path || !*path) TQStdExceptions::ThrowParameterInvalidError(where);
    return About([&] { return *PathTo(path).Get(); },
                 [&] { return IsFound(RegDeleteTreeW(Handle(), path), where); });
}

TQStringArray TQRegKey::KeyNames() const {
    return About([this] { return Path(); },
                 [this] {
                     return Names(MostKeyNameCharacters, L"TQRegKey::KeyNames",
                                  [this](DWORD index, wchar_t* name, DWORD& size) {
                                      return RegEnumKeyExW(Handle(), index, name, &size, nullptr, nullptr,
                                                           nullptr, nullptr);
                                  });
                 });
}

std::optional<TQRegKey::Value> TQRegKey::FindValue(const wchar_t* name) const {
    return About([&] { return PathOfValue(name); },
                 [&]() -> std::optional<Value> {
                     Value value;
                     for (DWORD size = FirstDataBytes;;) {
                         value.data.Resize(size);
                         const LSTATUS status =
                             RegQueryValueExW(Handle(), name, nullptr, &value.type, value.data.Data(), &size);
                         // Larger than the first look at it, or than another process has made it meanwhile.
                         if (static_cast<DWORD>(status) == DWORD{ERROR_MORE_DATA}) continue;
                         if (!IsFound(status, L"TQRegKey::FindValue")) return std::nullopt;
                         value.data.Resize(size);
                         return value;
                     }
                 });
}

void TQRegKey::SetValue(const wchar_t* name, DWORD type, const void* data, std::size_t bytes) const {
    constexpr const wchar_t* where = L"TQRegKey::SetValue";
    About([&] { return PathOfValue(name); },
          [&] {
              if (bytes > std::numeric_limits<DWORD>::max()) TQStdExceptions::ThrowOverflowError(where);
              CheckStatus(RegSetValueExW(Handle(), name, 0, type, static_cast<const BYTE*>(data),
                                         static_cast<DWORD>(bytes)),
                          where);
          });
}

bool TQRegKey::DeleteValue(const wchar_t* name) const {
    return About([&] { return PathOfValue(name); },
                 [&] { return IsFound(RegDeleteValueW(Handle(), name), L"TQRegKey::DeleteValue"); });
}

TQStringArray TQRegKey::ValueNames() const {
    return About([this] { return Path(); },
                 [this] {
                     return Names(MostValueNameCharacters, L"TQRegKey::ValueNames",
                                  [this](DWORD index, wchar_t* name, DWORD& size) {
                                      return RegEnumValueW(Handle(), index, name, &size, nullptr, nullptr,
                                                           nullptr, nullptr);
                                  });
                 });
}

void TQRegKey::Flush() const {
    About([this] { return Path(); }, [this] { CheckStatus(RegFlushKey(Handle()), L"TQRegKey::Flush"); });
}

TQRegKey TQRegistry::MachineKey() {
    return {TQUniqueHandle<_TQRegKeyClose>(HKEY_LOCAL_MACHINE), CommonValue<TQString>(L"HKEY_LOCAL_MACHINE")};
}

TQRegKey TQRegistry::UserKey() {
    return {TQUniqueHandle<_TQRegKeyClose>(HKEY_CURRENT_USER), CommonValue<TQString>(L"HKEY_CURRENT_USER")};
}

TQRegKey TQRegistry::Connect(const wchar_t* machine) {
    const CommonValue<TQString> path(L"HKEY_LOCAL_MACHINE");
    return About(machine, [&]() -> TQRegKey {
        TQUniqueHandle<_TQRegKeyClose> connected;
        CheckStatus(RegConnectRegistryW(machine, HKEY_LOCAL_MACHINE, connected.Put()),
                    L"TQRegistry::Connect");
        return {std::move(connected), path};
    });
}

}  // namespace Quellan::Corvel
