#include "TQLib/text/STLString.h"

#include <utility>

namespace Quellan::Corvel {

STLString::STLString() noexcept = default;
STLString::STLString(const _TQwString& text) : _TQwString(text) {}
STLString::STLString(_TQwString&& text) noexcept : _TQwString(std::move(text)) {}
STLString::STLString(const STLString& other) = default;
STLString::STLString(STLString&& other) noexcept = default;
STLString& STLString::operator=(const STLString& other) = default;
STLString& STLString::operator=(STLString&& other) noexcept = default;
STLString::~STLString() = default;

const std::wstring& STLString::Std() const noexcept {
    return Storage();
}

}  // namespace Quellan::Corvel
