#include "TQLib/text/TQStringArray.h"

#include "TQLib/text/memory/TQStdExceptions.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <algorithm>
#include <utility>

namespace Quellan::Corvel {
namespace {

using Difference = TQStringArray::const_iterator::difference_type;

}  // namespace

TQStringArray::TQStringArray() noexcept = default;

TQStringArray::TQStringArray(std::initializer_list<TQString> elements)
    : m_items(Translated(L"TQStringArray::TQStringArray", [&] { return InternalArray(elements); })) {}

TQStringArray::TQStringArray(const TQStringArray& other)
    : m_items(Translated(L"TQStringArray::TQStringArray", [&] { return other.m_items; })) {}

TQStringArray::TQStringArray(TQStringArray&& other) noexcept = default;

TQStringArray& TQStringArray::operator=(const TQStringArray& other) {
    // By a copy: the vector's own assignment may fail half-way.
    return *this = TQStringArray(other);
}

TQStringArray& TQStringArray::operator=(TQStringArray&& other) noexcept = default;

TQStringArray::~TQStringArray() = default;

std::size_t TQStringArray::Count() const noexcept {
    return m_items.size();
}

bool TQStringArray::IsEmpty() const noexcept {
    return m_items.empty();
}

const TQString& TQStringArray::At(std::size_t position) const {
    if (position >= Count()) TQStdExceptions::ThrowIndexError(L"TQStringArray::At");
    return m_items[position];
}

const TQString& TQStringArray::operator[](std::size_t position) const {
    return At(position);
}

void TQStringArray::SetAt(std::size_t position, TQString element) {
    if (position >= Count()) TQStdExceptions::ThrowIndexError(L"TQStringArray::SetAt");
    m_items[position] = std::move(element);
}

void TQStringArray::Add(TQString element) {
    Translated(L"TQStringArray::Add", [&] { m_items.push_back(std::move(element)); });
}

void TQStringArray::Insert(std::size_t position, TQString element) {
    if (position > Count()) TQStdExceptions::ThrowIndexError(L"TQStringArray::Insert");
    Translated(L"TQStringArray::Insert", [&] {
        m_items.insert(m_items.begin() + static_cast<Difference>(position), std::move(element));
    });
}

void TQStringArray::Remove(std::size_t position) {
    if (position >= Count()) TQStdExceptions::ThrowIndexError(L"TQStringArray::Remove");
    m_items.erase(m_items.begin() + static_cast<Difference>(position));
}

void TQStringArray::Clear() noexcept {
    m_items.clear();
}

std::size_t TQStringArray::Find(const TQString& element, std::size_t from) const noexcept {
    for (std::size_t i = from; i < Count(); ++i) {
        if (m_items[i] == element) return i;
    }
    return TQString::NotFound;
}

std::size_t TQStringArray::FindNoCase(const TQString& element, std::size_t from) const {
    for (std::size_t i = from; i < Count(); ++i) {
        if (m_items[i].CompareNoCase(element) == 0) return i;
    }
    return TQString::NotFound;
}

void TQStringArray::Sort() noexcept {
    std::sort(m_items.begin(), m_items.end());
}

TQString TQStringArray::Join(const TQString& separator) const {
    TQString result;
    for (const TQString& item : m_items) {
        if (&item != &m_items.front()) result += separator;
        result += item;
    }
    return result;
}

TQStringArray TQStringArray::Split(const TQString& text, const TQString& separators) {
    TQStringArray result;
    if (text.IsEmpty()) return result;
    std::wstring_view rest = text;
    for (;;) {
        const std::size_t end = rest.find_first_of(separators);
        result.Add(rest.substr(0, end));
        if (end == std::wstring_view::npos) return result;
        rest.remove_prefix(end + 1);
    }
}

TQStringArray::const_iterator TQStringArray::begin() const noexcept {
    return m_items.begin();
}

TQStringArray::const_iterator TQStringArray::end() const noexcept {
    return m_items.end();
}

}  // namespace Quellan::Corvel
