#include "TQLib/text/memory/TQSecret.h"

#include "TQLib/platform/Platform.h"
#include "TQLib/platform/Utf.h"

#include <cstring>
#include <utility>

namespace Quellan::Corvel {

namespace {

[[noreturn]] void ThrowNoText(const wchar_t* where) {
    SetLastError(ERROR_NO_UNICODE_TRANSLATION);
    TQStdExceptions::ThrowLastError(where);
}

}  // namespace

template <class C>
_TQSecretT<C>::_TQSecretT() noexcept : m_contents(_TQDataBufRoot::_SecureLevel::WipeAndLock) {}

template <class C>
_TQSecretT<C>::_TQSecretT(ViewType source) : _TQSecretT() {
    Append(source);
}

template <class C>
_TQSecretT<C>& _TQSecretT<C>::operator=(_TQSecretT&& other) noexcept {
    m_contents.Swap(other.m_contents);
    if (this != &other) other.Clear();
    return *this;
}

template <class C>
_TQSecretT<C> _TQSecretT<C>::Take(std::span<C> source) {
    _TQSecretT secret(ViewType(source.data(), source.size()));
    if (!source.empty()) std::memset(source.data(), 0, source.size_bytes());
    Compiler::ShowMemory(source.data());  // or it would leave the zeros unwritten where the memory ends
    return secret;
}

template <class C>
_TQSecretT<C> _TQSecretT<C>::Copy() const {
    return _TQSecretT(View());
}

template <class C>
std::size_t _TQSecretT<C>::Size() const noexcept {
    const auto size = static_cast<std::size_t>(m_contents.Size());
    return IsText && size != 0 ? size - 1 : size;
}

template <class C>
bool _TQSecretT<C>::IsEmpty() const noexcept {
    return Size() == 0;
}

template <class C>
auto _TQSecretT<C>::View() const noexcept -> ViewType {
    return {m_contents.Data(), Size()};
}

template <class C>
std::span<C> _TQSecretT<C>::Span() noexcept {
    return {m_contents.Data(), Size()};
}

template <class C>
const C* _TQSecretT<C>::c_str() const noexcept requires(!std::is_same_v<C, BYTE>) {
    static constexpr C Empty{};
    return m_contents.IsEmpty() ? &Empty : m_contents.Data();
}

template <class C>
void _TQSecretT<C>::Resize(std::size_t size) {
    if constexpr (IsText) {
        if (size == ~std::size_t{0}) TQStdExceptions::ThrowOverflowError(L"_TQSecretT::Resize");
        m_contents.Resize(size + 1);
        m_contents[size] = C();
    } else {
        m_contents.Resize(size);
    }
}

template <class C>
void _TQSecretT<C>::Assign(ViewType source) {
    *this = _TQSecretT(source);
}

template <class C>
void _TQSecretT<C>::Append(ViewType source) {
    if (IsText && m_contents.IsEmpty()) m_contents.Resize(1);
    m_contents.Insert(Size(), source.data(), source.size());
}

template <class C>
void _TQSecretT<C>::Append(C element) {
    Append(ViewType(&element, 1));
}

template <class C>
void _TQSecretT<C>::Clear() noexcept {
    m_contents.Clear();
}

template <class C>
bool _TQSecretT<C>::EqualsSecret(const _TQSecretT& other) const noexcept {
    return EqualsSecret(other.View());
}

template <class C>
bool _TQSecretT<C>::EqualsSecret(ViewType other) const noexcept {
    return _TQDataBufRoot::EqualsSecret(std::as_bytes(std::span(View())), std::as_bytes(std::span(other)));
}

namespace {

TQaSecretString SecretUtf8Of(std::wstring_view text) {
    if (!Platform::IsValidText(text)) ThrowNoText(L"_TQSecretT::ToUtf8");
    TQaSecretString bytes;
    bytes.Resize(Platform::Utf8Length(text));
    Platform::WideToUtf8(text, bytes.Span());
    Compiler::ClearCopyRegisters();
    return bytes;
}

TQSecretString SecretWideOf(std::string_view text) {
    if (!Platform::IsValidText(text)) ThrowNoText(L"_TQSecretT::FromUtf8");
    TQSecretString wide;
    wide.Resize(Platform::WideLength(text));
    Platform::Utf8ToWide(text, wide.Span());
    Compiler::ClearCopyRegisters();
    return wide;
}

}  // namespace

// Some compilers make these for other secrets too, where nobody can call them: there they are empty.

template <class C>
_TQSecretT<char> _TQSecretT<C>::ToUtf8() const requires std::is_same_v<C, wchar_t> {
    if constexpr (std::is_same_v<C, wchar_t>) return SecretUtf8Of(View());
    return {};
}

template <class C>
_TQSecretT<C> _TQSecretT<C>::FromUtf8(std::string_view text) requires std::is_same_v<C, wchar_t> {
    if constexpr (std::is_same_v<C, wchar_t>) return SecretWideOf(text);
    return {};
}

template class _TQSecretT<wchar_t>;
template class _TQSecretT<char>;
template class _TQSecretT<BYTE>;

}  // namespace Quellan::Corvel
