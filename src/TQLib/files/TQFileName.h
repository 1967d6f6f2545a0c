// Names of files.
#pragma once

#include "TQLib/core/base/TQObject.h"
#include "TQLib/platform/Types.h"
#include "TQLib/text/TQString.h"

#include <compare>
#include <functional>
#include <iosfwd>
#include <string_view>

namespace Quellan::Corvel {

// A file's full name and its parts. A value; nothing has to exist, and nothing is asked of the file system
// but by `DriveType` and for the current folder. Equality and order take no notice of case, on Linux too,
// where files may differ in it alone.
//
// Failures of the platform are thrown as `TQSysException` with its code, those of texts as the string classes
// do; the name is unchanged then.
class TQLIB_API TQFileName : public TQObject {
  public:
    // The platform's drive types that the library itself asks for.
    static constexpr UINT FixedDrive = 3;

    // The full name of `name`, from the current folder where it doesn't begin with a root. Throws 123
    // (ERROR_INVALID_NAME) for null and nothing.
    explicit TQFileName(const wchar_t* name);
    explicit TQFileName(const TQString& name) : TQFileName(name.c_str()) {}
    // A name in a folder.
    TQFileName(const TQString& folder, std::wstring_view name);
    TQFileName(const TQFileName&);
    TQFileName(TQFileName&&) noexcept;
    TQFileName& operator=(const TQFileName&);
    TQFileName& operator=(TQFileName&&) noexcept;
    ~TQFileName() override;

    [[nodiscard]] STLString Description() const override;

    [[nodiscard]] const TQString& FullName() const noexcept { return m_full; }
    // Up to the last separator, with it.
    [[nodiscard]] TQString Path() const { return TQString(m_full.View().substr(0, NameAt())); }
    // Without the extension and the dot before it; a dot at the beginning of a name begins no extension.
    [[nodiscard]] TQString Name() const;
    [[nodiscard]] TQString Extension() const;
    [[nodiscard]] bool HasExtension() const noexcept;

    // The same with another part. A null or empty extension means none, without a dot.
    [[nodiscard]] TQFileName WithName(std::wstring_view name) const;
    [[nodiscard]] TQFileName WithExtension(const wchar_t* extension) const;

    [[nodiscard]] TQFileName ToUpper() const;

    // The platform's type of the drive on which the file is or would be (DRIVE_FIXED and its like); 0
    // (DRIVE_UNKNOWN) where it can't be found out.
    [[nodiscard]] UINT DriveType() const;

    friend bool operator==(const TQFileName& left, const TQFileName& right) {
        return left.m_full.CompareNoCase(right.m_full) == 0;
    }
    friend std::weak_ordering operator<=>(const TQFileName& left, const TQFileName& right) {
        return left.m_full.CompareNoCase(right.m_full) <=> 0;
    }

  private:
    struct Whole {};
    TQFileName(Whole, TQString full) noexcept : m_full(std::move(full)) {}

    [[nodiscard]] std::size_t NameAt() const noexcept;
    // Where the dot is, or the end.
    [[nodiscard]] std::size_t ExtensionAt() const noexcept;

    TQString m_full;
};

// The full name.
template <class C, class Traits>
std::basic_ostream<C, Traits>& operator<<(std::basic_ostream<C, Traits>& out, const TQFileName& name) {
    return out << name.FullName();
}

}  // namespace Quellan::Corvel

template <>
struct std::hash<Quellan::Corvel::TQFileName> {
    // Throws as the strings do.
    std::size_t operator()(const Quellan::Corvel::TQFileName& name) const {
        return std::hash<Quellan::Corvel::_TQwString>{}(name.FullName().ToUpper());
    }
};
