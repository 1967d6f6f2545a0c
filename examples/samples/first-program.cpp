#include "Samples.h"

#include <TQLib/TQLib.h>

namespace FirstProgram {

using namespace Quellan::Corvel;

int main() {
    TQConsole console(TQConsole::Stream::Output);
    try {
        const TQModule module = TQSysProc::LoadModule(L"no-such-module.dll");
    } catch (const TQCoreException& e) {
        console.Write(TQString::Format(L"%s: %s\n", e.ExcLevelName(), e.FullMsg(TQStrResDestination::User)));
    }
    return 0;
}

}  // namespace FirstProgram

void FirstProgramSample() {
    Expect(FirstProgram::main() == 0, L"The first program ends with 0.");
}
