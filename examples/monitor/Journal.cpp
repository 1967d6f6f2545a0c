#include "Journal.h"

using namespace Quellan::Corvel;

namespace {

void Show(const TQString& lines) {
    try {
        TQConsole(TQConsole::Stream::Output).Show(lines);
    } catch (const TQSysException&) {
        // A service has no console, and a pipe may have lost its reader.
    }
}

void Log(TQLogLevel level, const STLString& source, TQString lines) {
    TQLib::GetAppLog(true)->AddMsg(lines.TrimRight().c_str(), level, source);
}

}  // namespace

void Tell(TQLogLevel level, const STLString& source, const TQString& lines) {
    Show(lines);
    Log(level, source, lines);
}

void Tell(const TQCoreException& failure, const STLString& source, const wchar_t* where) {
    Show(failure.ChainMsg(TQStrResDestination::User) + L"\r\n");
    STLString block;
    failure.AssembleLogOutput(where, block);
    const STLString chain = failure.ChainMsg(TQStrResDestination::Log);
    // The first line of the chain is in the block.
    const std::size_t causes = chain.Find(L"\r\n");
    if (causes != STLString::NotFound) block.Append(chain.Mid(causes + 2).View());
    Log(TQLogLevel::Error, source, block);
}
