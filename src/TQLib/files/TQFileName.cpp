#include "TQLib/files/TQFileName.h"

#include "TQLib/core/TQException.h"
#include "TQLib/core/internal/CallFailure.h"
#include "TQLib/platform/PathNames.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/text/STLString.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <string>
#include <vector>

namespace Quellan::Corvel {

namespace {

using Platform::PathSeparators;

TQString FullNameOf(const wchar_t* name) {
    constexpr const wchar_t* Where = L"TQFileName::TQFileName";
    if (!name || !*name) throw TQSysException(ERROR_INVALID_NAME, Where);
    return Translated(Where, [&] {
        for (std::vector<wchar_t> full(MAX_PATH);;) {
            const DWORD size = GetFullPathNameW(name, static_cast<DWORD>(full.size()), full.data(), nullptr);
            if (size == 0) ThrowCallFailure(Where);
            if (size < full.size()) return TQString(full.data(), size);
            full.resize(size + 1);
        }
    });
}

TQString Joined(const TQString& folder, std::wstring_view name) {
    const bool ends =
        !folder.IsEmpty() && PathSeparators.find(folder[folder.Length() - 1]) != std::wstring_view::npos;
    return ends ? folder + name : folder + PathSeparators.substr(0, 1) + name;
}

}  // namespace

TQFileName::TQFileName(const wchar_t* name) : m_full(FullNameOf(name)) {}

TQFileName::TQFileName(const TQString& folder, std::wstring_view name) : TQFileName(Joined(folder, name)) {}

TQFileName::TQFileName(const TQFileName&) = default;
TQFileName::TQFileName(TQFileName&&) noexcept = default;
TQFileName& TQFileName::operator=(const TQFileName&) = default;
TQFileName& TQFileName::operator=(TQFileName&&) noexcept = default;
TQFileName::~TQFileName() = default;

STLString TQFileName::Description() const {
    return m_full.View();
}

TQString TQFileName::Name() const {
    return TQString(m_full.View().substr(NameAt(), ExtensionAt() - NameAt()));
}

TQString TQFileName::Extension() const {
    return HasExtension() ? TQString(m_full.View().substr(ExtensionAt() + 1)) : TQString();
}

bool TQFileName::HasExtension() const noexcept {
    return ExtensionAt() + 1 < m_full.Length();
}

TQFileName TQFileName::WithName(std::wstring_view name) const {
    return TQFileName(Whole(), Path() + name + m_full.View().substr(ExtensionAt()));
}

TQFileName TQFileName::WithExtension(const wchar_t* extension) const {
    TQString full(m_full.View().substr(0, ExtensionAt()));
    if (extension && *extension) full.Append(L".").Append(extension);
    return TQFileName(Whole(), std::move(full));
}

TQFileName TQFileName::ToUpper() const {
    return TQFileName(Whole(), m_full.ToUpper());
}

UINT TQFileName::DriveType() const {
    constexpr const wchar_t* where = L"TQFileName::DriveType";
    return Translated(where, [&] {
        std::vector<wchar_t> volume(m_full.Length() + MAX_PATH);
        const auto size = static_cast<DWORD>(volume.size());
        if (GetVolumePathNameW(m_full.c_str(), volume.data(), size)) return GetDriveTypeW(volume.data());
        if (IsMemoryExhausted(GetLastError())) TQStdExceptions::ThrowMemAllocError(where);
        return UINT{DRIVE_UNKNOWN};
    });
}

std::size_t TQFileName::NameAt() const noexcept {
    return m_full.View().find_last_of(PathSeparators) + 1;
}

std::size_t TQFileName::ExtensionAt() const noexcept {
    const std::size_t dot = m_full.View().rfind(L'.');
    return dot == std::wstring_view::npos || dot <= NameAt() ? m_full.Length() : dot;
}

}  // namespace Quellan::Corvel
