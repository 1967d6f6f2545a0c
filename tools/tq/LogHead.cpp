#include "LogHead.h"

#include "TQLib/platform/Win32.h"

#include <algorithm>
#include <charconv>

namespace tq {

namespace {

constexpr std::size_t MsDigits = 3;

// Digits alone, as many as there are and at most `most`.
bool TakeNumber(std::string_view& text, std::size_t most, int& number) noexcept {
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    if (digits == 0 || digits > most) return false;
    std::from_chars(text.data(), text.data() + digits, number);
    text.remove_prefix(digits);
    return true;
}

bool ParseId(std::string_view text, DWORD& id) noexcept {
    const auto end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, id);
    return !text.empty() && result.ec == std::errc() && result.ptr == end;
}

bool Take(std::string_view& text, std::string_view expected) noexcept {
    if (!text.starts_with(expected)) return false;
    text.remove_prefix(expected.size());
    return true;
}

// Hours, minutes and seconds with one character between them, which is the locale's, and milliseconds.
bool TakeTime(std::string_view& text, int& msOfDay) noexcept {
    int hour, minute, second, ms;
    const auto separator = [&] { return text.starts_with(':') || text.starts_with('.'); };
    if (!TakeNumber(text, 2, hour) || !separator()) return false;
    text.remove_prefix(1);
    if (!TakeNumber(text, 2, minute) || !separator()) return false;
    text.remove_prefix(1);
    if (!TakeNumber(text, 2, second) || !Take(text, ".")) return false;
    const std::size_t before = text.size();
    if (!TakeNumber(text, MsDigits, ms) || before - text.size() != MsDigits) return false;
    msOfDay = ((hour * 60 + minute) * 60 + second) * 1000 + ms;
    return hour < 24 && minute < 60 && second < 60;
}

// "APPLICATION : PROCESS (MODULE){THREAD". Names may hold blanks, colons and brackets: the last place counts
// where the rest fits.
bool ParseOrigin(std::string_view text, LogHead& head) noexcept {
    constexpr std::string_view BeforeProcess = " : ", BeforeModule = " (", BeforeThread = "){";
    const std::size_t threadAt = text.rfind(BeforeThread);
    if (threadAt == text.npos || !ParseId(text.substr(threadAt + BeforeThread.size()), head.thread))
        return false;
    text = text.substr(0, threadAt);
    for (std::size_t at = text.rfind(BeforeProcess); at != text.npos;
         at = at == 0 ? text.npos : text.rfind(BeforeProcess, at - 1)) {
        const std::string_view rest = text.substr(at + BeforeProcess.size());
        const std::size_t moduleAt = rest.find(BeforeModule);
        if (moduleAt == rest.npos || !ParseId(rest.substr(0, moduleAt), head.process)) continue;
        head.application = text.substr(0, at);
        head.module = rest.substr(moduleAt + BeforeModule.size());
        return true;
    }
    return false;
}

// Nothing, " -- [SOURCE]" or " -- [SOURCE] -- [USER]", where the source may be empty and then is none.
bool ParseRest(std::string_view text, LogHead& head) noexcept {
    constexpr std::string_view Between = "] -- [";
    if (text.empty()) return true;
    if (!Take(text, " -- [") || !text.ends_with(']')) return false;
    text.remove_suffix(1);
    const std::size_t between = text.rfind(Between);
    const std::string_view source = text.substr(0, between);
    if (between != text.npos) head.user = text.substr(between + Between.size());
    if (!head.user || !source.empty()) head.source = source;
    return true;
}

}  // namespace

std::optional<LogHead> ParseLogHead(std::string_view line) noexcept {
    if (line.size() < 2 || line[1] != ' ') return std::nullopt;
    LogHead head{.mark = line[0],
                 .msOfDay = 0,
                 .application = {},
                 .process = 0,
                 .module = {},
                 .thread = 0,
                 .source = {},
                 .user = {}};
    line.remove_prefix(2);
    if (!TakeTime(line, head.msOfDay) || !Take(line, " [")) return std::nullopt;
    constexpr std::string_view AfterOrigin = "}]";
    for (std::size_t end = line.find(AfterOrigin); end != line.npos; end = line.find(AfterOrigin, end + 1))
        if (ParseOrigin(line.substr(0, end), head) && ParseRest(line.substr(end + AfterOrigin.size()), head))
            return head;
    return std::nullopt;
}

}  // namespace tq
