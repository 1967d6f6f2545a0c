// What the strings have for parts of the standard library whose headers are large: paths and formatters. Not in
// TQLib/TQLib.h.
#pragma once

#include "TQLib/text/TQString.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <filesystem>
#include <type_traits>
#include <version>

#if __has_include(<format>) && defined(__cpp_lib_format)
#include <format>
#endif

namespace Quellan::Corvel {

// A path in the platform's own form: wide on Windows, UTF-8 on Linux. Fails as the strings do.
template <class Path = std::filesystem::path>
[[nodiscard]] Path TQToPath(_TQTextT<wchar_t> text) {
    return Translated(L"TQToPath", [&] {
        if constexpr (std::is_same_v<typename Path::value_type, wchar_t>)
            return Path(text.View());
        else
            return Path(_TQwString(text.View()).ToUtf8().View());
    });
}
template <class Path>
requires std::is_same_v<Path, std::filesystem::path>
[[nodiscard]] TQString TQFromPath(const Path& path) {
    if constexpr (std::is_same_v<typename Path::value_type, wchar_t>)
        return TQString(path.native());
    else
        return TQString::FromUtf8(path.native());
}

}  // namespace Quellan::Corvel

#if defined(__cpp_lib_format)
template <class C>
struct std::formatter<Quellan::Corvel::_TQStringT<C>, C> : std::formatter<std::basic_string_view<C>, C> {
    template <class Context>
    auto format(const Quellan::Corvel::_TQStringT<C>& text, Context& context) const {
        return std::formatter<std::basic_string_view<C>, C>::format(text.View(), context);
    }
};

template <>
struct std::formatter<Quellan::Corvel::TQString, wchar_t>
    : std::formatter<Quellan::Corvel::_TQwString, wchar_t> {};
#endif
