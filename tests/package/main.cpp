#include <TQLib.h>
using namespace Quellan::Corvel;

int main() {
    TQConsole console(TQConsole::Stream::Output);
    try {
        const TQModule none = TQSysProc::LoadModule(L"no-such-module.dll");
    } catch (const TQCoreException& e) {
        console.Write(TQString::Format(L"%s: %s\n", e.ExcLevelName(), e.FullMsg(TQStrResDestination::User)));
    }
}
