#include "Options.h"

#include <algorithm>
#include <cwchar>

using namespace Quellan::Corvel;

namespace {

constexpr std::size_t MaxGroups = 16;
constexpr double MaxSeconds = 24 * 60 * 60;

}  // namespace

std::optional<Options> ReadOptions(const TQStringArray& arguments) {
    Options options;
    for (std::size_t i = 0; i < arguments.Count(); ++i) {
        if (arguments[i] == L"--once") {
            options.intervalMs.reset();
        } else if (arguments[i] == L"--interval" && i + 1 < arguments.Count()) {
            wchar_t* end = nullptr;
            const double seconds = wcstod(arguments[++i].c_str(), &end);
            if (*end != 0 || !(seconds >= 0.001 && seconds <= MaxSeconds)) return std::nullopt;
            options.intervalMs = static_cast<DWORD>(seconds * 1000);
        } else if (arguments[i] == L"--fix") {
            options.isToFix = true;
        } else if (arguments[i] == L"--group") {
            options.groups.emplace_back();
        } else if (arguments[i].StartsWith(L"--")) {
            return std::nullopt;
        } else {
            options.groups.back().Add(arguments[i]);
        }
    }
    if (options.groups.size() > MaxGroups || std::ranges::any_of(options.groups, &TQStringArray::IsEmpty))
        return std::nullopt;
    return options;
}
