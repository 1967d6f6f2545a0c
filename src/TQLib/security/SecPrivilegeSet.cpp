#include "TQLib/security/SecPrivilegeSet.h"

#include "TQLib/platform/Platform.h"
#include "TQLib/text/memory/TQHandle.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <algorithm>

namespace Quellan::Sarvek {

using Corvel::TQString;
using Corvel::Translated;

namespace {

bool IsBefore(const TQString& left, const TQString& right) {
    return left.CompareNoCase(right) < 0;
}

}  // namespace

SecPrivilegeSet::SecPrivilegeSet() noexcept = default;
SecPrivilegeSet::SecPrivilegeSet(const SecPrivilegeSet& other)
    : m_names(Translated(L"SecPrivilegeSet::SecPrivilegeSet", [&] { return other.m_names; })) {}
SecPrivilegeSet::SecPrivilegeSet(SecPrivilegeSet&& other) noexcept = default;
SecPrivilegeSet& SecPrivilegeSet::operator=(const SecPrivilegeSet& other) {
    return *this = SecPrivilegeSet(other);
}
SecPrivilegeSet& SecPrivilegeSet::operator=(SecPrivilegeSet&& other) noexcept = default;
SecPrivilegeSet::~SecPrivilegeSet() = default;

const TQString& SecPrivilegeSet::operator[](std::size_t position) const {
    if (position >= Count()) Corvel::TQStdExceptions::ThrowIndexError(L"SecPrivilegeSet::operator[]");
    return m_names[position];
}

bool SecPrivilegeSet::Contains(const TQString& name) const {
    return std::ranges::binary_search(m_names, name, IsBefore);
}

void SecPrivilegeSet::Add(const TQString& name) {
    const auto place = std::ranges::lower_bound(m_names, name, IsBefore);
    if (place != m_names.end() && !IsBefore(name, *place)) return;
    Translated(L"SecPrivilegeSet::Add", [&] { m_names.insert(place, name); });
}

void SecPrivilegeSet::Add(const SecPrivilegeSet& other) {
    SecPrivilegeSet sum = *this;
    for (const TQString& name : other.m_names)
        sum.Add(name);
    *this = std::move(sum);
}

bool SecPrivilegeSet::IsPrivilege(const TQString& name) noexcept {
    const Corvel::_TQLastErrorKeeper keeper;
    LUID value;
    return LookupPrivilegeValueW(nullptr, name.c_str(), &value) != FALSE;
}

}  // namespace Quellan::Sarvek
