// Keys of the registry.
#pragma once

#include "TQLib/core/base/TQObject.h"
#include "TQLib/core/internal/CommonValue.h"
#include "TQLib/platform/Types.h"
#include "TQLib/text/TQString.h"
#include "TQLib/text/TQStringArray.h"
#include "TQLib/text/memory/TQDataBuf.h"
#include "TQLib/text/memory/TQHandle.h"

#include <optional>

namespace Quellan::Corvel {

// An open key, or none. Copies share the key, which is closed with the last of them; a key may be used by
// several threads at once as long as none assigns to it. Everything that is changed is changed for all
// processes at once, and one value or one tree of keys at a time.
//
// Names have no case. A path is names with backslashes between them, below the key; it does not begin with
// one. A null name or the empty one is the key's unnamed value.
//
// Failures are thrown as `TQSysException` with the platform's code: 2 (ERROR_FILE_NOT_FOUND) for what there
// is not, 5 (ERROR_ACCESS_DENIED) for what the user may not do or the key was not opened for, 1018
// (ERROR_KEY_DELETED) for a key that was deleted meanwhile, 6 (ERROR_INVALID_HANDLE) for none; and as the
// classes do that take texts and data. Nothing is changed then.
class TQLIB_API TQRegKey : public TQObject {
  public:
    // What a key is opened for: the platform's KEY_READ, KEY_WRITE and KEY_ALL_ACCESS.
    static constexpr DWORD ReadAccess = 0x00020019;
    static constexpr DWORD WriteAccess = 0x00020006;
    static constexpr DWORD FullAccess = 0x000F003F;

    // None.
    TQRegKey() noexcept;
    // Takes the handle over, which stays the caller's where this throws.
    explicit TQRegKey(HKEY key);
    // Opens the key at `path` below `parent`.
    TQRegKey(const TQRegKey& parent, const wchar_t* path, DWORD access = ReadAccess);
    TQRegKey(const TQRegKey&) noexcept;
    TQRegKey& operator=(const TQRegKey&) noexcept;
    ~TQRegKey() override;

    [[nodiscard]] bool IsNull() const noexcept { return !m_key.IsValid(); }
    // As it was opened, from "HKEY_LOCAL_MACHINE" or "HKEY_CURRENT_USER" on; failures name it as their action, with
    // ": " and the name of the value that they are about. Of a key that was made of a handle it begins below that.
    [[nodiscard]] TQString Path() const { return m_path.Get() ? *m_path.Get() : TQString(); }
    // Borrowed: closed with the last copy of this object.
    [[nodiscard]] HKEY Handle() const noexcept { return m_key.Get(); }
    // Makes this none; the copies stay open.
    void Close() noexcept { m_key.Close(); }

    // The key at `path`, or none where there is no such key.
    [[nodiscard]] TQRegKey Find(const wchar_t* path, DWORD access = ReadAccess) const;
    // The same, made where it is missing with all keys on the way to it.
    TQRegKey Create(const wchar_t* path, DWORD access = FullAccess) const;
    // Deletes the key with all that is in it. False where there is none.
    bool DeleteKey(const wchar_t* path) const;
    // In no order.
    [[nodiscard]] TQStringArray KeyNames() const;

    // None where there is no such value.
    struct Value {
        DWORD type = 0;  // the platform's, such as REG_SZ
        BYTEBuf data;
    };
    [[nodiscard]] std::optional<Value> FindValue(const wchar_t* name) const;
    // `data` may be null where there are no bytes.
    void SetValue(const wchar_t* name, DWORD type, const void* data, std::size_t bytes) const;
    // False where there is none.
    bool DeleteValue(const wchar_t* name) const;
    // In no order; the unnamed value is the empty name.
    [[nodiscard]] TQStringArray ValueNames() const;

    // Returns when all changes of this key's own values and keys are on the disk.
    void Flush() const;

  private:
    friend class TQRegistry;
    template <class C>
    friend class _TQRegValue;
    // `path` is made before the key is opened, as that may fail.
    TQRegKey(TQUniqueHandle<_TQRegKeyClose>&& key, const CommonValue<TQString>& path);
    [[nodiscard]] CommonValue<TQString> PathTo(const wchar_t* key) const;
    [[nodiscard]] TQString PathOfValue(const wchar_t* name) const;

    TQHandle<_TQRegKeyClose> m_key;
    CommonValue<TQString> m_path;
};

// Where paths begin. Static functions only; all may be called from any thread.
class TQLIB_API TQRegistry {
  public:
    TQRegistry() = delete;

    // The machine's keys (HKEY_LOCAL_MACHINE): settings for everybody.
    [[nodiscard]] static TQRegKey MachineKey();
    // The keys of the user as whom the process runs (HKEY_CURRENT_USER).
    [[nodiscard]] static TQRegKey UserKey();
    // The machine's keys of another machine, or of this one with null or its own name. Throws 53
    // (ERROR_BAD_NETPATH) for a machine that cannot be reached, on Linux for any other.
    [[nodiscard]] static TQRegKey Connect(const wchar_t* machine);
};

}  // namespace Quellan::Corvel
