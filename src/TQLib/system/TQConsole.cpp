#include "TQLib/system/TQConsole.h"

#include "TQLib/core/TQException.h"
#include "TQLib/core/internal/CallFailure.h"
#include "TQLib/platform/HiddenInput.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/text/memory/TQHandle.h"

#include <algorithm>

namespace Quellan::Corvel {

namespace {

// A console takes a limited number of characters at once.
constexpr std::size_t ConsoleChunk = 4096;
constexpr std::size_t MostSecretBytes = 65536;

// Whether a variable of the environment holds something.
bool HasVariable(const wchar_t* name) noexcept {
    wchar_t value[1];
    const _TQLastErrorKeeper keeper;
    return GetEnvironmentVariableW(name, value, 1) > 1;
}

bool IsDumb() noexcept {
    wchar_t value[8];
    const _TQLastErrorKeeper keeper;
    const DWORD length = GetEnvironmentVariableW(L"TERM", value, 8);
    return std::wstring_view(value, length < 8 ? length : 0) == L"dumb";
}

bool IsControl(wchar_t c) noexcept {
    const auto value = static_cast<std::uint32_t>(c);
    return (value < 0x20 && c != L'\t' && c != L'\n') || (value >= 0x7F && value <= 0x9F);
}

}  // namespace

TQConsole::TQConsole(Stream stream) noexcept
    : m_handle(GetStdHandle(stream == Stream::Output ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE)),
      m_isStyled(IsTerminal() && !HasVariable(L"NO_COLOR") && !IsDumb()) {}

bool TQConsole::IsTerminal() const noexcept {
    const _TQLastErrorKeeper keeper;
    DWORD mode = 0;
    return GetConsoleMode(m_handle, &mode);
}

TQString TQConsole::Shown(std::wstring_view text) const {
    return m_isStyled || IsTerminal() ? Visible(text) : TQString(text);
}

TQString TQConsole::Visible(std::wstring_view text) {
    TQString visible;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool endsLine = text.substr(i).starts_with(L"\r\n");
        if (IsControl(text[i]) && !endsLine)
            visible.AppendFormat(L"\\x%02x", static_cast<unsigned>(text[i]));
        else
            visible += text[i];
    }
    return visible;
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

TQSecretString TQConsole::ReadSecret(std::wstring_view prompt) {
    constexpr const wchar_t* where = L"TQConsole::ReadSecret";
    TQaSecretString line;
    DWORD code = ERROR_RETRY;
    while (code == ERROR_RETRY) {
        line.Clear();
        Platform::HiddenInput input;
        if (input.IsTerminal()) Show(prompt);
        char byte = 0;
        while (!(code = input.Next(byte)) && byte != '\n') {
            if (line.Size() == MostSecretBytes) TQStdExceptions::ThrowOverflowError(where);
            line.Append(byte);
        }
        if (!code && input.IsTerminal()) Write(L"\n");
    }
    // The last line of a file may have no end.
    if (code && (code != ERROR_HANDLE_EOF || line.IsEmpty())) throw TQSysException(code, where);
    if (line.View().ends_with('\r')) line.Resize(line.Size() - 1);
    return TQSecretString::FromUtf8(line.View());
}

}  // namespace Quellan::Corvel
