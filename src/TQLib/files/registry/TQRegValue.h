// Values of the registry by their type.
#pragma once

#include "TQLib/files/registry/TQRegKey.h"

namespace Quellan::Corvel {

// A value's place, a key and a name, and the type of its data, which `C` tells. Nothing is kept of the data:
// each call reads or changes the registry. Copies are for the same place. It belongs to one thread at a time.
//
// Failures as those of `TQRegKey`, and from reading `TQException` 1630 (ERROR_UNSUPPORTED_TYPE) where the
// value has another type, 13 (ERROR_INVALID_DATA) where its data is none of its type.
template <class C>
class _TQRegValue : public TQObject {
  public:
    using Data = typename C::Data;

    // A null name is the key's unnamed value.
    _TQRegValue(const TQRegKey& key, const wchar_t* name);
    _TQRegValue(const _TQRegValue& other);
    _TQRegValue& operator=(const _TQRegValue& other);
    ~_TQRegValue() override;

    [[nodiscard]] const TQRegKey& Key() const noexcept;
    [[nodiscard]] const TQString& Name() const noexcept;

    // Whether there is such a value, of whatever type.
    [[nodiscard]] bool Exists() const;
    // Throws 2 (ERROR_FILE_NOT_FOUND) where there is none.
    [[nodiscard]] Data Get() const;
    // The value, or `missing` where there is none.
    [[nodiscard]] Data GetOr(const Data& missing) const;
    void Set(const Data& data) const;
    // False where there is none.
    bool Delete() const;

  private:
    TQRegKey m_key;
    TQString m_name;
};

// The kinds of data. `Decode` throws as reading does, `Encode` 87 (ERROR_INVALID_PARAMETER) for what the type
// cannot hold.

// REG_DWORD: four bytes, the least significant first.
struct TQLIB_API _TQDWORDRegData {
    using Data = DWORD;
    [[nodiscard]] static Data Decode(const TQRegKey::Value& value);
    [[nodiscard]] static TQRegKey::Value Encode(const Data& data);
};

// REG_QWORD: eight bytes, the least significant first.
struct TQLIB_API _TQQWORDRegData {
    using Data = ULONGLONG;
    [[nodiscard]] static Data Decode(const TQRegKey::Value& value);
    [[nodiscard]] static TQRegKey::Value Encode(const Data& data);
};

// REG_SZ: a text without zeros in it. REG_EXPAND_SZ can be read too, as it stands.
struct TQLIB_API _TQStringRegData {
    using Data = TQString;
    [[nodiscard]] static Data Decode(const TQRegKey::Value& value);
    [[nodiscard]] static TQRegKey::Value Encode(const Data& data);
};

// REG_EXPAND_SZ: the same, read with the environment's variables in the place of their names (%NAME%).
struct TQLIB_API _TQExpandStringRegData {
    using Data = TQString;
    [[nodiscard]] static Data Decode(const TQRegKey::Value& value);
    [[nodiscard]] static TQRegKey::Value Encode(const Data& data);
};

// REG_MULTI_SZ: texts that are not empty and have no zeros in them.
struct TQLIB_API _TQMultiStringRegData {
    using Data = TQStringArray;
    [[nodiscard]] static Data Decode(const TQRegKey::Value& value);
    [[nodiscard]] static TQRegKey::Value Encode(const Data& data);
};

// REG_BINARY: bytes.
struct TQLIB_API _TQBinaryRegData {
    using Data = BYTEBuf;
    [[nodiscard]] static Data Decode(const TQRegKey::Value& value);
    [[nodiscard]] static TQRegKey::Value Encode(const Data& data);
};

extern template class TQLIB_API _TQRegValue<_TQDWORDRegData>;
extern template class TQLIB_API _TQRegValue<_TQQWORDRegData>;
extern template class TQLIB_API _TQRegValue<_TQStringRegData>;
extern template class TQLIB_API _TQRegValue<_TQExpandStringRegData>;
extern template class TQLIB_API _TQRegValue<_TQMultiStringRegData>;
extern template class TQLIB_API _TQRegValue<_TQBinaryRegData>;

using TQDWORDRegValue = _TQRegValue<_TQDWORDRegData>;
using TQQWORDRegValue = _TQRegValue<_TQQWORDRegData>;
using TQStringRegValue = _TQRegValue<_TQStringRegData>;
using TQExpandStringRegValue = _TQRegValue<_TQExpandStringRegData>;
using TQMultiStringRegValue = _TQRegValue<_TQMultiStringRegData>;
using TQBinaryRegValue = _TQRegValue<_TQBinaryRegData>;

}  // namespace Quellan::Corvel
