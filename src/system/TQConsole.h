// The console of this process, or the file or pipe that stands in its place.
#pragma once

#include "platform/Types.h"

#include <string_view>

namespace Quellan::Corvel {

// One of the two output streams. Text goes out as wide text to a console and as UTF-8 to anything else. The
// stream itself belongs to the process; calls from several threads do not mix within one text of at most 4
// KiB on a console and of any size otherwise.
class TQLIB_API TQConsole {
  public:
    enum class Stream : DWORD { Output, Error };

    explicit TQConsole(Stream stream) noexcept;

    // Whether somebody is looking: the stream is a terminal, not a file or a pipe.
    [[nodiscard]] bool IsTerminal() const noexcept;

    // Writes the text as it stands. Throws `TQSysException` with the platform's code when it cannot be
    // written.
    void Write(std::wstring_view text);

  private:
    HANDLE m_handle;
};

}  // namespace Quellan::Corvel
