#include "TQLib/security/SecIDArray.h"

#include "TQLib/security/SecACL.h"
#include "TQLib/security/SecIDAttrArray.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace Quellan::Sarvek {

using Corvel::Translated;

template <class T>
_SecArray<T>::_SecArray() noexcept = default;

template <class T>
_SecArray<T>::_SecArray(std::initializer_list<T> elements)
    : m_items(Translated(L"SecIDArray::SecIDArray", [&] { return InternalArray(elements); })) {}

template <class T>
_SecArray<T>::_SecArray(const _SecArray& other)
    : m_items(Translated(L"SecIDArray::SecIDArray", [&] { return other.m_items; })) {}

template <class T>
_SecArray<T>::_SecArray(_SecArray&& other) noexcept = default;

template <class T>
_SecArray<T>& _SecArray<T>::operator=(const _SecArray& other) {
    // By a copy: the vector's own assignment may fail half-way.
    return *this = _SecArray(other);
}

template <class T>
_SecArray<T>& _SecArray<T>::operator=(_SecArray&& other) noexcept = default;

template <class T>
_SecArray<T>::~_SecArray() = default;

template <class T>
std::size_t _SecArray<T>::Count() const noexcept {
    return m_items.size();
}

template <class T>
bool _SecArray<T>::IsEmpty() const noexcept {
    return m_items.empty();
}

template <class T>
const T& _SecArray<T>::operator[](std::size_t position) const {
    if (position >= Count()) Corvel::TQStdExceptions::ThrowIndexError(L"SecIDArray::operator[]");
    return m_items[position];
}

template <class T>
bool _SecArray<T>::Contains(const T& element) const noexcept {
    return std::ranges::find(m_items, element) != m_items.end();
}

template <class T>
void _SecArray<T>::Add(T element) {
    Translated(L"SecIDArray::Add", [&] { m_items.push_back(std::move(element)); });
}

template <class T>
void _SecArray<T>::Clear() noexcept {
    m_items.clear();
}

template <class T>
typename _SecArray<T>::const_iterator _SecArray<T>::begin() const noexcept {
    return m_items.begin();
}

template <class T>
typename _SecArray<T>::const_iterator _SecArray<T>::end() const noexcept {
    return m_items.end();
}

template class _SecArray<SecACE>;
template class _SecArray<SecID>;
template class _SecArray<SecIDAttr>;

SecIDArray::SecIDArray() noexcept = default;
SecIDArray::SecIDArray(const SecIDArray& other) = default;
SecIDArray::SecIDArray(SecIDArray&& other) noexcept = default;
SecIDArray& SecIDArray::operator=(const SecIDArray& other) = default;
SecIDArray& SecIDArray::operator=(SecIDArray&& other) noexcept = default;
SecIDArray::~SecIDArray() = default;

DWORD SecIDArray::LowestIDLabelRID(bool ignoreAdmins) const noexcept {
    DWORD lowest = std::numeric_limits<DWORD>::max();
    for (const SecID& id : *this)
        lowest = std::min(lowest, id.SystemLabelRID(ignoreAdmins));
    return lowest;
}

DWORD SecIDArray::HighestIDLabelRID(bool ignoreAdmins) const noexcept {
    DWORD highest = 0;
    for (const SecID& id : *this)
        highest = std::max(highest, id.SystemLabelRID(ignoreAdmins));
    return highest;
}

}  // namespace Quellan::Sarvek
