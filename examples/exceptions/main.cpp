// Shows what an exception tells: one around another, and one that stands for a fault of the processor.
#include "TQLib/TQLib.h"

using namespace Quellan::Corvel;

namespace {

void Show(TQConsole& console, const wchar_t* title, const _TQWin32Exception& exception) {
    STLString block;
    exception.AssembleLogOutput(L"examples/exceptions", block);
    console.Write(TQString::Format(L"%s\n  level %s, source %s, subsystem %s\n  %s", title,
                                   exception.ExcLevelName(), exception.ExcSourceName(),
                                   exception.ExcSubSysName(), block.c_str()));
    console.Write(exception.ChainMsg(TQStrResDestination::User) + L"\n");
}

void OpenSettings() {
    try {
        const TQModule none = TQSysProc::LoadModule(L"no-such-module.dll");
    } catch (const TQCoreException& e) {
        TQAppException failure(e, 0xE0045001, L"The settings could not be opened.");
        failure.SetAction(L"Open");
        throw failure;
    }
}

// The address is hidden from the compiler, which would see through the fault.
int ReadThrough(std::uintptr_t address) {
    const volatile std::uintptr_t hidden = address;
    return *reinterpret_cast<const volatile int*>(hidden);
}

}  // namespace

int main() {
    TQConsole console(TQConsole::Stream::Output);
    try {
        OpenSettings();
    } catch (const TQCoreException& e) {
        Show(console, L"An exception around another:", e);
    }
    try {
        const _TQWin32Exception::Trap_SEH trap(L"exceptions");
        ReadThrough(8);
    } catch (const _TQWin32Exception& e) {
        Show(console, L"A fault of the processor:", e);
    }
    return 0;
}
