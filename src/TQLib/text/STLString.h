#pragma once

#include "TQLib/text/TQString.h"

namespace Quellan::Corvel {

// A wide string that shows the standard library's string it is built on: the result of rendering operations,
// for callers that go on with the standard library.
class TQLIB_API STLString : public _TQwString {
  public:
    using _TQwString::_TQwString;
    STLString() noexcept;
    STLString(const _TQwString& text);
    STLString(_TQwString&& text) noexcept;
    STLString(const STLString& other);
    STLString(STLString&& other) noexcept;
    STLString& operator=(const STLString& other);
    STLString& operator=(STLString&& other) noexcept;
    ~STLString() override;

    // Valid as long as this string.
    [[nodiscard]] const std::wstring& Std() const noexcept;
};

}  // namespace Quellan::Corvel

template <>
struct std::hash<Quellan::Corvel::STLString> : std::hash<Quellan::Corvel::_TQwString> {};
