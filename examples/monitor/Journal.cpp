#include "Journal.h"

using namespace Quellan::Corvel;

void Tell(TQLogLevel level, const STLString& source, const TQString& lines) {
    try {
        TQConsole(TQConsole::Stream::Output).Show(lines);
    } catch (const TQSysException&) {
        // A service has no console, and a pipe may have lost its reader.
    }
    TQString message = lines;
    TQLib::GetAppLog(true)->AddMsg(message.TrimRight().c_str(), level, source);
}
