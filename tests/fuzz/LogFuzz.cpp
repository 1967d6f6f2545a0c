// The first line of a log's record: whatever stands there, its parts lie in it.
#include "../../tools/tq/LogHead.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view line(reinterpret_cast<const char*>(data), size);
    const auto head = tq::ParseLogHead(line);
    if (!head) return 0;
    const auto liesInLine = [&](std::string_view part) {
        return part.empty() ||
               (part.data() >= line.data() && part.data() + part.size() <= line.data() + size);
    };
    constexpr int MsInDay = 24 * 60 * 60 * 1000;
    if (!liesInLine(head->application) || !liesInLine(head->module) ||
        !liesInLine(head->source.value_or("")) || !liesInLine(head->user.value_or("")) || head->msOfDay < 0 ||
        head->msOfDay >= MsInDay)
        std::abort();
    return 0;
}
