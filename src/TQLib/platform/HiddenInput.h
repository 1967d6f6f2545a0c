// Standard input that is not shown while it is typed.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Platform {

// While one exists, a terminal that is the standard input does not show what is typed; a file or a pipe is
// read as ever. It is shown again when this ends, when the process ends by `exit`, and before a signal (on
// Windows a console event) that interrupts, stops or ends the process takes its course; only a process that
// is killed leaves the terminal as it is. What was typed before is dropped.
//
// There is one at a time in the process: a second one does nothing but tell so.
class HiddenInput {
  public:
    HiddenInput() noexcept;
    HiddenInput(const HiddenInput&) = delete;
    HiddenInput& operator=(const HiddenInput&) = delete;
    ~HiddenInput();

    bool IsTerminal() const noexcept { return m_isTerminal; }

    // The next byte, as UTF-8, nothing being read ahead. 38 (ERROR_HANDLE_EOF) at the end, 1223
    // (ERROR_CANCELLED) where a signal came that the process outlived, 1237 (ERROR_RETRY) where it was stopped
    // and goes on, after both of which this is over, 170 (ERROR_BUSY) where there is another one, the platform's
    // code where the input cannot be read.
    DWORD Next(char& byte) noexcept;

  private:
    DWORD m_code = 0;
    bool m_isTerminal = false;
};

}  // namespace Quellan::Platform
