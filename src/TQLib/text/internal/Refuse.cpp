#include "TQLib/text/internal/Refuse.h"

#include "TQLib/platform/Platform.h"
#include "TQLib/text/TQFormat.h"
#include "TQLib/text/memory/TQStdExceptions.h"

#include <array>

namespace Quellan::Corvel {
namespace {

// So much of a text is shown that a record of a log still fits a line.
constexpr std::size_t MostShown = 80;

// Without memory of its own: what is refused may come where there is little.
template <class... Args>
[[noreturn]] void Refuse(DWORD code, const wchar_t* format, const Args&... args) {
    std::array<wchar_t, 256> message;
    const std::array<TQFormatArg, sizeof...(Args)> list{TQFormatArg::From(args)...};
    FormatArgsTo(message, format, list);
    SetLastError(code);
    TQStdExceptions::ThrowLastError(message.data());
}

}  // namespace

void RefuseText(DWORD code, const wchar_t* format, std::wstring_view text) {
    Refuse(code, format, text.substr(0, MostShown));
}

void RefuseText(DWORD code, const wchar_t* format, std::string_view text) {
    std::array<wchar_t, MostShown + 1> wide;
    const std::size_t length = FormatTo(wide, L"%S", text.substr(0, MostShown));
    Refuse(code, format, std::wstring_view(wide.data(), length));
}

void RefuseAt(const wchar_t* where, const wchar_t* what, std::size_t offset) {
    Refuse(ERROR_INVALID_DATA, L"%s: %s at offset %Iu.", where, what, offset);
}

}  // namespace Quellan::Corvel
