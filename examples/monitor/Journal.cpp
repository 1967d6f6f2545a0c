#include "Journal.h"

using namespace Quellan::Corvel;

void Tell(TQLogLevel level, const STLString& source, const TQString& lines) {
    TQConsole(TQConsole::Stream::Output).Write(lines);
    TQString message = lines;
    TQLib::GetAppLog(true)->AddMsg(message.TrimRight().c_str(), level, source);
}
