#include "TQLib/text/TQStringArray.h"

#include <algorithm>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

namespace Quellan::Corvel {
namespace {

// Removes the elements whose key came before. Nothing changes before all keys are looked at.
template <class KeyOf>
void RemoveRepeated(std::vector<TQString>& items, KeyOf keyOf) {
    std::unordered_set<decltype(keyOf(items.front()))> seen;
    std::vector<char> isRepeated;
    isRepeated.reserve(items.size());
    for (const TQString& item : items)
        isRepeated.push_back(!seen.insert(keyOf(item)).second);
    seen.clear();  // keys may be views of what is removed
    std::erase_if(items, [&](const TQString& item) {
        return isRepeated[static_cast<std::size_t>(&item - items.data())] != 0;
    });
}

}  // namespace

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

void TQStringArray::Reserve(std::size_t count) {
    Translated(L"TQStringArray::Reserve", [&] { Items().reserve(count); });
}

void TQStringArray::SortNoCase() {
    Sort([](const TQString& a, const TQString& b) { return a.CompareNoCase(b) < 0; });
}

void TQStringArray::Unique() {
    Translated(L"TQStringArray::Unique",
               [&] { RemoveRepeated(Items(), [](const TQString& item) { return item.View(); }); });
}

void TQStringArray::UniqueNoCase() {
    Translated(L"TQStringArray::UniqueNoCase",
               [&] { RemoveRepeated(Items(), [](const TQString& item) { return item.ToUpper(); }); });
}

TQString TQStringArray::Join(const TQString& separator) const {
    return TQJoin(*this, separator);
}

TQStringArray TQStringArray::Split(const TQString& text, const TQString& separators) {
    return TQStringArray(TQSplitAtAny(text, separators));
}

}  // namespace Quellan::Corvel
