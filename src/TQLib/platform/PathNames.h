// How paths are written.
#pragma once

#include <string_view>

namespace Quellan::Platform {

// What stands between the folders of a path, the usual one first.
#if defined(_WIN32)
inline constexpr std::wstring_view PathSeparators = L"\\/";
#else
inline constexpr std::wstring_view PathSeparators = L"/";
#endif

}  // namespace Quellan::Platform
