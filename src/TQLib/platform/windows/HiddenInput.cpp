#include "TQLib/platform/HiddenInput.h"

#include "TQLib/platform/Platform.h"
#include "TQLib/platform/ProcessEnd.h"
#include "TQLib/platform/Utf.h"

#include <array>
#include <atomic>
#include <string_view>

namespace Quellan::Platform {

namespace {

// Of the one input that there is.
std::atomic<bool> g_isInputTaken = false;
std::atomic<bool> g_isInputHidden = false;
HANDLE g_input = nullptr;
DWORD g_shownMode = 0;
// The bytes of a character that is read in part.
std::array<char, 4> g_bytes;
std::size_t g_byteCount = 0, g_nextByte = 0;

void ShowInput() {
    if (g_isInputHidden.exchange(false)) SetConsoleMode(g_input, g_shownMode);
}

// The event goes on to what would have had it.
BOOL WINAPI OnConsoleEvent(DWORD) {
    ShowInput();
    return FALSE;
}

DWORD ReadUnit(wchar_t& unit) {
    DWORD got = 0;
    SetLastError(0);
    const BOOL isRead = ReadConsoleW(g_input, &unit, 1, &got, nullptr);
    const DWORD code = GetLastError();
    // The call succeeds with nothing where the user interrupts it.
    if (code == ERROR_OPERATION_ABORTED) return ERROR_CANCELLED;
    if (!isRead) return code;
    return got ? 0 : ERROR_HANDLE_EOF;
}

DWORD ReadCharacter() {
    wchar_t units[2];
    std::size_t count = 1;
    if (DWORD code = ReadUnit(units[0])) return code;
    if (IS_HIGH_SURROGATE(units[0])) {
        if (DWORD code = ReadUnit(units[1])) return code;
        count = 2;
    }
    const std::wstring_view text(units, count);
    // No pair: one character in its place.
    if (Utf8Length(text) > g_bytes.size()) return ERROR_NO_UNICODE_TRANSLATION;
    g_byteCount = WideToUtf8(text, g_bytes);
    g_nextByte = 0;
    SecureZeroMemory(units, sizeof units);
    return 0;
}

DWORD ReadByte(char& byte) {
    DWORD got = 0;
    if (ReadFile(g_input, &byte, 1, &got, nullptr)) return got ? 0 : ERROR_HANDLE_EOF;
    const DWORD code = GetLastError();
    return code == ERROR_BROKEN_PIPE ? DWORD{ERROR_HANDLE_EOF} : code;
}

}  // namespace

HiddenInput::HiddenInput() noexcept {
    if (g_isInputTaken.exchange(true)) {
        m_code = ERROR_BUSY;
        return;
    }
    g_input = GetStdHandle(STD_INPUT_HANDLE);
    m_isTerminal = GetConsoleMode(g_input, &g_shownMode) != 0;
    if (!m_isTerminal) return;
    [[maybe_unused]] static const bool isShownAtExit = CallAtExit([] { ShowInput(); });
    SetConsoleCtrlHandler(&OnConsoleEvent, TRUE);
    g_isInputHidden = true;
    FlushConsoleInputBuffer(g_input);
    const DWORD hidden =
        (g_shownMode & ~DWORD{ENABLE_ECHO_INPUT}) | ENABLE_LINE_INPUT | ENABLE_PROCESSED_INPUT;
    if (!SetConsoleMode(g_input, hidden)) m_code = GetLastError();
}

HiddenInput::~HiddenInput() {
    if (m_code == ERROR_BUSY) return;
    const DWORD lastError = GetLastError();
    if (m_isTerminal) {
        ShowInput();
        SetConsoleCtrlHandler(&OnConsoleEvent, FALSE);
        SecureZeroMemory(g_bytes.data(), g_bytes.size());
        g_byteCount = g_nextByte = 0;
    }
    SetLastError(lastError);
    g_isInputTaken = false;
}

DWORD HiddenInput::Next(char& byte) noexcept {
    if (!m_code && !m_isTerminal) return ReadByte(byte);
    if (!m_code && g_nextByte == g_byteCount) m_code = ReadCharacter();
    if (!m_code) byte = g_bytes[g_nextByte++];
    return m_code;
}

}  // namespace Quellan::Platform
