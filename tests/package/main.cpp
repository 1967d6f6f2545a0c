#include <TQLib/TQLib.h>
#include <hello.h>
using namespace Quellan::Corvel;

int main() {
    TQConsole console(TQConsole::Stream::Output);
    TQLib::RegisterResourceStore(100, L"Hello");
    console.Write(TQMsgRes(100).WithID(HELLO_GREETING).Text(TQStrResDestination::User, L"installed library") +
                  L"\n");
    try {
        const TQModule none = TQSysProc::LoadModule(L"no-such-module.dll");
    } catch (const TQCoreException& e) {
        console.Write(TQString::Format(L"%s: %s\n", e.ExcLevelName(), e.FullMsg(TQStrResDestination::User)));
    }
}
