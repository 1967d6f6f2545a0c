#include "TQLib/text/TQStringArray.h"

#include <algorithm>

namespace Quellan::Corvel {

const TQString& TQStringArray::At(std::size_t position) const {
    return (*this)[position];
}

void TQStringArray::SetAt(std::size_t position, TQString element) {
    if (position >= Count()) TQStdExceptions::ThrowIndexError(L"TQStringArray::SetAt");
    Items()[position] = std::move(element);
}

void TQStringArray::Insert(std::size_t position, TQString element) {
    if (position > Count()) TQStdExceptions::ThrowIndexError(L"TQStringArray::Insert");
    Translated(L"TQStringArray::Insert",
               [&] { Items().insert(begin() + static_cast<std::ptrdiff_t>(position), std::move(element)); });
}

void TQStringArray::Remove(std::size_t position) {
    if (position >= Count()) TQStdExceptions::ThrowIndexError(L"TQStringArray::Remove");
    Items().erase(begin() + static_cast<std::ptrdiff_t>(position));
}

std::size_t TQStringArray::Find(const TQString& element, std::size_t from) const noexcept {
    for (std::size_t i = from; i < Count(); ++i) {
        if ((*this)[i] == element) return i;
    }
    return TQString::NotFound;
}

std::size_t TQStringArray::FindNoCase(const TQString& element, std::size_t from) const {
    for (std::size_t i = from; i < Count(); ++i) {
        if ((*this)[i].CompareNoCase(element) == 0) return i;
    }
    return TQString::NotFound;
}

void TQStringArray::Sort() noexcept {
    std::ranges::sort(Items());
}

TQString TQStringArray::Join(const TQString& separator) const {
    TQString result;
    for (const TQString& item : *this) {
        if (&item != &*begin()) result += separator;
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

}  // namespace Quellan::Corvel
