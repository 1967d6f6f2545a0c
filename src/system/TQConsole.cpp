#include "system/TQConsole.h"

#include "core/internal/CallFailure.h"
#include "platform/Win32.h"
#include "text/TQString.h"

#include <algorithm>

namespace Quellan::Corvel {

namespace {

// A console takes a limited number of characters at once.
constexpr std::size_t ConsoleChunk = 4096;

}  // namespace

TQConsole::TQConsole(Stream stream) noexcept
    : m_handle(GetStdHandle(stream == Stream::Output ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE)) {}

bool TQConsole::IsTerminal() const noexcept {
    DWORD mode = 0;
    return GetConsoleMode(m_handle, &mode);
}

void TQConsole::Write(std::wstring_view text) {
    if (IsTerminal()) {
        while (!text.empty()) {
            const auto chunk = static_cast<DWORD>(std::min(text.size(), ConsoleChunk));
            DWORD written = 0;
            if (!WriteConsoleW(m_handle, text.data(), chunk, &written, nullptr))
                ThrowCallFailure(L"TQConsole::Write");
            text.remove_prefix(written);
        }
        return;
    }
    const _TQaString bytes = TQString(text).ToUtf8();
    for (std::string_view rest = bytes.View(); !rest.empty();) {
        DWORD written = 0;
        if (!WriteFile(m_handle, rest.data(), static_cast<DWORD>(rest.size()), &written, nullptr))
            ThrowCallFailure(L"TQConsole::Write");
        rest.remove_prefix(written);
    }
}

}  // namespace Quellan::Corvel
