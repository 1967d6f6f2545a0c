#include "text/TQStringArray.h"

#include <algorithm>
#include <new>
#include <stdexcept>

#include "core/TQStdExceptions.h"

namespace Quellan::Corvel {

namespace {

// Runs an operation on the vector and turns the standard library's failures into the library's own.
template <class Operation>
decltype(auto) Translated(const wchar_t* where, Operation operation) {
    try {
        return operation();
    } catch (const std::bad_alloc&) {
        TQStdExceptions::ThrowMemAllocError(where);
    } catch (const std::length_error&) {
        TQStdExceptions::ThrowOverflowError(where);
    }
}

void CheckPosition(bool isInside, const wchar_t* where) {
    if (!isInside) TQStdExceptions::ThrowIndexError(where);
}

}  // namespace

TQStringArray::TQStringArray() noexcept = default;

TQStringArray::TQStringArray(std::initializer_list<TQString> texts)
    : m_texts(Translated(L"TQStringArray::TQStringArray", [&] { return InternalArray(texts); })) {}

TQStringArray::TQStringArray(const TQStringArray& other)
    : m_texts(Translated(L"TQStringArray::TQStringArray", [&] { return other.m_texts; })) {}

TQStringArray::TQStringArray(TQStringArray&& other) noexcept = default;

TQStringArray& TQStringArray::operator=(const TQStringArray& other) {
    m_texts = TQStringArray(other).m_texts;
    return *this;
}

TQStringArray& TQStringArray::operator=(TQStringArray&& other) noexcept = default;
TQStringArray::~TQStringArray() = default;

std::size_t TQStringArray::Count() const noexcept { return m_texts.size(); }
bool TQStringArray::IsEmpty() const noexcept { return m_texts.empty(); }

TQString& TQStringArray::At(std::size_t position) {
    CheckPosition(position < m_texts.size(), L"TQStringArray::At");
    return m_texts[position];
}

const TQString& TQStringArray::At(std::size_t position) const {
    CheckPosition(position < m_texts.size(), L"TQStringArray::At");
    return m_texts[position];
}

TQString& TQStringArray::operator[](std::size_t position) { return At(position); }
const TQString& TQStringArray::operator[](std::size_t position) const { return At(position); }

void TQStringArray::Add(const TQString& text) { Insert(m_texts.size(), text); }

void TQStringArray::Add(const TQStringArray& other) {
    Translated(L"TQStringArray::Add", [&] {
        InternalArray copy(other.m_texts);
        m_texts.reserve(m_texts.size() + copy.size());
        m_texts.insert(m_texts.end(), std::make_move_iterator(copy.begin()), std::make_move_iterator(copy.end()));
    });
}

void TQStringArray::Insert(std::size_t position, const TQString& text) {
    CheckPosition(position <= m_texts.size(), L"TQStringArray::Insert");
    // The copy comes first: the text may be one of this array, and what follows fails before it changes anything.
    Translated(L"TQStringArray::Insert", [&] {
        TQString copy(text);
        m_texts.insert(m_texts.begin() + static_cast<std::ptrdiff_t>(position), std::move(copy));
    });
}

void TQStringArray::Remove(std::size_t position, std::size_t count) {
    CheckPosition(position <= m_texts.size() && count <= m_texts.size() - position, L"TQStringArray::Remove");
    const auto first = m_texts.begin() + static_cast<std::ptrdiff_t>(position);
    m_texts.erase(first, first + static_cast<std::ptrdiff_t>(count));
}

void TQStringArray::Clear() noexcept { m_texts.clear(); }

std::size_t TQStringArray::Find(const TQString& text, std::size_t from) const noexcept {
    for (std::size_t i = from; i < m_texts.size(); ++i)
        if (m_texts[i] == text) return i;
    return NotFound;
}

std::size_t TQStringArray::FindNoCase(const TQString& text, std::size_t from) const {
    for (std::size_t i = from; i < m_texts.size(); ++i)
        if (m_texts[i].CompareNoCase(text) == 0) return i;
    return NotFound;
}

void TQStringArray::Sort() { std::stable_sort(m_texts.begin(), m_texts.end()); }

void TQStringArray::SortNoCase() {
    std::stable_sort(m_texts.begin(), m_texts.end(),
                     [](const TQString& a, const TQString& b) { return a.CompareNoCase(b) < 0; });
}

TQString TQStringArray::Join(const TQString& separator) const {
    TQString result;
    for (const TQString& text : m_texts) {
        if (&text != &m_texts.front()) result.Append(separator);
        result.Append(text);
    }
    return result;
}

TQStringArray TQStringArray::Split(const TQString& text, const TQString& separators) {
    TQStringArray parts;
    std::wstring_view rest = text.View();
    for (;;) {
        const std::size_t end = rest.find_first_of(separators.View());
        parts.Add(TQString(rest.substr(0, end)));
        if (end == rest.npos) return parts;
        rest.remove_prefix(end + 1);
    }
}

const TQString* TQStringArray::begin() const noexcept { return m_texts.data(); }
const TQString* TQStringArray::end() const noexcept { return m_texts.data() + m_texts.size(); }

bool TQStringArray::operator==(const TQStringArray& other) const noexcept { return m_texts == other.m_texts; }

std::strong_ordering TQStringArray::operator<=>(const TQStringArray& other) const noexcept { return m_texts <=> other.m_texts; }

}  // namespace Quellan::Corvel
