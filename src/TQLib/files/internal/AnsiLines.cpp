#include "TQLib/files/internal/AnsiLines.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/platform/Utf.h"

#include <algorithm>

namespace Quellan::Corvel {

namespace {

// By the platform, which knows the code page.
void AppendConverted(AnsiText& out, std::wstring_view text) {
    constexpr std::size_t MostAtOnce = 1024, MostOfOne = 4;
    while (!text.empty()) {
        std::wstring_view part = text.substr(0, MostAtOnce);
        // What may be the first half of a character stays with the other one.
        if (part.size() < text.size() && (part.back() & 0xFC00) == 0xD800) part.remove_suffix(1);
        const auto room = static_cast<int>(part.size() * MostOfOne);
        const int size =
            WideCharToMultiByte(CP_ACP, 0, part.data(), static_cast<int>(part.size()),
                                out.Room(static_cast<std::size_t>(room)), room, nullptr, nullptr);
        if (size == 0) TQSysException::ThrowLastError(L"TQTextFile::Append");
        out.Commit(static_cast<std::size_t>(size));
        text.remove_prefix(part.size());
    }
}

}  // namespace

void AppendAnsi(AnsiText& out, std::wstring_view text, const LineBreaks& breaks) {
    std::size_t returns = 0;  // at the end of what has been appended
    for (;;) {
        const std::size_t printable = Platform::CopyPrintable(text, out.Room(text.size()));
        out.Commit(printable);
        text.remove_prefix(printable);
        if (text.empty()) return;
        if (printable != 0) returns = 0;
        const auto c = static_cast<std::uint32_t>(text.front());
        if (c >= 0x80) {
            // With the rest of its line: characters of other scripts seldom come alone.
            std::wstring_view rest = text.substr(0, text.find(L'\n'));
            while (rest.ends_with(L'\r'))
                rest.remove_suffix(1);
            AppendConverted(out, rest);
            text.remove_prefix(rest.size());
            returns = 0;
            continue;
        }
        if (c == '\n') {
            out.TakeBack(std::min(returns, breaks.mostReturns));
            out.Append(returns != 0 ? breaks.ofCrLf : breaks.ofLf);
        } else {
            const char character = static_cast<char>(c);
            out.Append({&character, 1});
        }
        returns = c == '\r' ? returns + 1 : 0;
        text.remove_prefix(1);
    }
}

}  // namespace Quellan::Corvel
