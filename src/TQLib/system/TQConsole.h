// The console of this process, or the file or pipe that stands in its place.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/text/TQString.h"
#include "TQLib/text/memory/TQSecret.h"

#include <string_view>

namespace Quellan::Corvel {

// One of the two output streams. Text goes out as wide text to a console and as UTF-8 to anything else. The
// stream itself belongs to the process; calls from several threads do not mix within one text of at most 4
// KiB on a console and of any size otherwise.
//
// What others wrote (messages, names of files and accounts) goes out by `Show` or through `Visible`: as it
// stands it could steer the terminal.
class TQLIB_API TQConsole {
  public:
    enum class Stream : DWORD { Output, Error };

    explicit TQConsole(Stream stream) noexcept;

    // Whether somebody is looking: the stream is a terminal, not a file or a pipe.
    [[nodiscard]] bool IsTerminal() const noexcept;

    // Whether colours are welcome: on a terminal, unless the environment says otherwise (TERM is "dumb", or
    // NO_COLOR holds anything); or as `SetStyled` has it.
    [[nodiscard]] bool IsStyled() const noexcept { return m_isStyled; }
    void SetStyled(bool styled) noexcept { m_isStyled = styled; }

    // Writes what `Shown` makes of the text.
    void Show(std::wstring_view text) { Write(Shown(text)); }
    // What `Visible` makes of the text for a terminal, and where colours are on for whatever shows them in
    // the end; else the text as it stands.
    [[nodiscard]] TQString Shown(std::wstring_view text) const;
    // The text with each control character as \xHH, but tabs and ends of lines (LF, CR LF).
    [[nodiscard]] static TQString Visible(std::wstring_view text);

    // Writes the text as it stands. Throws `TQSysException` with the platform's code when it cannot be
    // written.
    void Write(std::wstring_view text);

    // Asks for a secret: reads one line of standard input, without its end (LF, CR LF). On a terminal, which
    // does not show it while it is typed, `Show`s `prompt` before and goes to the next line after it; a file
    // or a pipe is read as it is, as UTF-8, no further than the line. What is read goes from the system
    // straight into the secret's memory. The terminal shows again what is typed when this returns, throws, or
    // when a signal ends the process or stops it; after a stop the question is asked again.
    //
    // Throws `TQSysException` with 38 (ERROR_HANDLE_EOF) where there is no line left, 1223 (ERROR_CANCELLED)
    // where the user interrupts it or a signal comes that the process outlives, 170 (ERROR_BUSY) while another
    // thread asks, and the platform's code; and as `TQSecretString` does: 1113 for bytes that are no UTF-8, 111
    // for more than 65,536 bytes.
    [[nodiscard]] TQSecretString ReadSecret(std::wstring_view prompt);

  private:
    HANDLE m_handle;
    bool m_isStyled;
};

}  // namespace Quellan::Corvel
