#include "TQLib/files/registry/TQRegValue.h"

#include "TQLib/core/internal/About.h"
#include "TQLib/platform/Platform.h"

#include <cstring>

namespace Quellan::Corvel {

namespace {

constexpr const wchar_t* ReadWhere = L"TQRegValue::Get";
constexpr const wchar_t* SetWhere = L"TQRegValue::Set";

void CheckType(bool isRight) {
    if (!isRight) throw TQException(ERROR_UNSUPPORTED_TYPE, ReadWhere);
}

// Numbers are stored in the order of the processors that the library is built for.
template <class Number>
Number DecodeNumber(const TQRegKey::Value& value, DWORD type) {
    CheckType(value.type == type);
    Number number;
    if (value.data.Size() != sizeof number) TQStdExceptions::ThrowDataInvalidError(ReadWhere);
    std::memcpy(&number, value.data.Data(), sizeof number);
    return number;
}

TQRegKey::Value EncodeBytes(DWORD type, const void* bytes, std::size_t size) {
    return {type, BYTEBuf(static_cast<const BYTE*>(bytes), size)};
}

// All characters, terminators included.
TQString Characters(const TQRegKey::Value& value) {
    if (value.data.Size() % sizeof(wchar_t) != 0) TQStdExceptions::ThrowDataInvalidError(ReadWhere);
    TCHARBuf text(value.data.Size() / sizeof(wchar_t));
    if (!text.IsEmpty()) std::memcpy(text.Data(), value.data.Data(), static_cast<std::size_t>(text.Bytes()));
    return TQString(text.Data(), static_cast<std::size_t>(text.Size()));
}

// Up to the terminator, which other programs may have left out or set twice.
TQString DecodeText(const TQRegKey::Value& value) {
    const TQString text = Characters(value);
    return TQString(text.View().substr(0, text.View().find(L'\0')));
}

void CheckText(const TQString& text) {
    if (text.View().find(L'\0') != text.View().npos) TQStdExceptions::ThrowParameterInvalidError(SetWhere);
}

TQRegKey::Value EncodeText(DWORD type, const TQString& text) {
    CheckText(text);
    return EncodeBytes(type, text.c_str(), (text.Length() + 1) * sizeof(wchar_t));
}

TQString Expanded(const TQString& text) {
    for (TCHARBuf buffer(text.Length() + 1);;) {
        const DWORD size =
            ExpandEnvironmentStringsW(text.c_str(), buffer.Data(), static_cast<DWORD>(buffer.Size()));
        if (size == 0) TQSysException::ThrowLastError(ReadWhere);
        if (size <= buffer.Size()) return TQString(buffer.Data());
        buffer.Resize(size);
    }
}

}  // namespace

template <class C>
_TQRegValue<C>::_TQRegValue(const TQRegKey& key, const wchar_t* name) : m_key(key), m_name(name) {}
template <class C>
_TQRegValue<C>::_TQRegValue(const _TQRegValue& other) = default;
template <class C>
_TQRegValue<C>& _TQRegValue<C>::operator=(const _TQRegValue& other) = default;
template <class C>
_TQRegValue<C>::~_TQRegValue() = default;

template <class C>
const TQRegKey& _TQRegValue<C>::Key() const noexcept {
    return m_key;
}

template <class C>
const TQString& _TQRegValue<C>::Name() const noexcept {
    return m_name;
}

template <class C>
bool _TQRegValue<C>::Exists() const {
    return m_key.FindValue(m_name.c_str()).has_value();
}

template <class C>
typename C::Data _TQRegValue<C>::Get() const {
    return About([this] { return m_key.PathOfValue(m_name.c_str()); },
                 [this] {
                     const auto value = m_key.FindValue(m_name.c_str());
                     if (!value) throw TQSysException(ERROR_FILE_NOT_FOUND, ReadWhere);
                     return C::Decode(*value);
                 });
}

template <class C>
typename C::Data _TQRegValue<C>::GetOr(const Data& missing) const {
    return About([this] { return m_key.PathOfValue(m_name.c_str()); },
                 [&] {
                     const auto value = m_key.FindValue(m_name.c_str());
                     return value ? C::Decode(*value) : missing;
                 });
}

template <class C>
void _TQRegValue<C>::Set(const Data& data) const {
    const TQRegKey::Value value = C::Encode(data);
    m_key.SetValue(m_name.c_str(), value.type, value.data.Data(),
                   static_cast<std::size_t>(value.data.Size()));
}

template <class C>
bool _TQRegValue<C>::Delete() const {
    return m_key.DeleteValue(m_name.c_str());
}

DWORD _TQDWORDRegData::Decode(const TQRegKey::Value& value) {
    return DecodeNumber<DWORD>(value, REG_DWORD);
}

TQRegKey::Value _TQDWORDRegData::Encode(const DWORD& data) {
    return EncodeBytes(REG_DWORD, &data, sizeof data);
}

ULONGLONG _TQQWORDRegData::Decode(const TQRegKey::Value& value) {
    return DecodeNumber<ULONGLONG>(value, REG_QWORD);
}

TQRegKey::Value _TQQWORDRegData::Encode(const ULONGLONG& data) {
    return EncodeBytes(REG_QWORD, &data, sizeof data);
}

TQString _TQStringRegData::Decode(const TQRegKey::Value& value) {
    CheckType(value.type == REG_SZ || value.type == REG_EXPAND_SZ);
    return DecodeText(value);
}

TQRegKey::Value _TQStringRegData::Encode(const TQString& data) {
    return EncodeText(REG_SZ, data);
}

TQString _TQExpandStringRegData::Decode(const TQRegKey::Value& value) {
    CheckType(value.type == REG_EXPAND_SZ);
    return Expanded(DecodeText(value));
}

TQRegKey::Value _TQExpandStringRegData::Encode(const TQString& data) {
    return EncodeText(REG_EXPAND_SZ, data);
}

TQStringArray _TQMultiStringRegData::Decode(const TQRegKey::Value& value) {
    CheckType(value.type == REG_MULTI_SZ);
    const TQString all = Characters(value);
    TQStringArray texts;
    for (std::wstring_view rest = all; !rest.empty() && rest.front() != L'\0';) {
        const std::wstring_view text = rest.substr(0, rest.find(L'\0'));
        texts.Add(TQString(text));
        rest.remove_prefix(std::min(text.size() + 1, rest.size()));
    }
    return texts;
}

TQRegKey::Value _TQMultiStringRegData::Encode(const TQStringArray& data) {
    TQString all;
    for (const TQString& text : data) {
        CheckText(text);
        // An empty one would end the list.
        if (text.IsEmpty()) TQStdExceptions::ThrowParameterInvalidError(SetWhere);
        (all += text) += L'\0';
    }
    all += L'\0';
    return EncodeBytes(REG_MULTI_SZ, all.c_str(), all.Length() * sizeof(wchar_t));
}

BYTEBuf _TQBinaryRegData::Decode(const TQRegKey::Value& value) {
    CheckType(value.type == REG_BINARY);
    return value.data;
}

TQRegKey::Value _TQBinaryRegData::Encode(const BYTEBuf& data) {
    return {REG_BINARY, data};
}

template class _TQRegValue<_TQDWORDRegData>;
template class _TQRegValue<_TQQWORDRegData>;
template class _TQRegValue<_TQStringRegData>;
template class _TQRegValue<_TQExpandStringRegData>;
template class _TQRegValue<_TQMultiStringRegData>;
template class _TQRegValue<_TQBinaryRegData>;

}  // namespace Quellan::Corvel
