#include "TQLib/services/TQServiceApp.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/services/TQServiceMgr.h"
#include "TQLib/services/internal/AppWords.h"
#include "TQLib/services/internal/ForegroundHost.h"
#include "TQLib/system/TQSysProc.h"
#include "TQLib/threads/internal/GuardedStep.h"

namespace Quellan::Corvel {

DWORD TQServiceApp::Run(bool takesArguments) {
    DWORD result = UnknownExceptionCode;
    Guarded(L"Running ServiceApp main()", [&] {
        const _TQWin32Exception::Trap_SEH trap(L"ServiceApp::Run");
        TQStringArray arguments = TQSysProc::CommandLine();
        const std::optional<DWORD> exitCode =
            RunAppWord(arguments, TQServiceMgr::HostedServices(), takesArguments);
        if (exitCode) {
            result = *exitCode;
            return;
        }
        try {
            result = static_cast<DWORD>(TQServiceMgr::Dispatch());
            return;
        } catch (const TQSysException& failure) {
            if (failure.ErrCode() != ERROR_FAILED_SERVICE_CONTROLLER_CONNECT) throw;
        }
        // Nobody has started the services: they run in the foreground.
        arguments.Remove(0);
        ForegroundHost host(arguments);
        const ServiceHostScope scope(host);
        result = static_cast<DWORD>(TQServiceMgr::Dispatch());
    });
    return result;
}

bool TQServiceApp::IsWord(const TQString& argument) {
    return IsAppWord(argument);
}

}  // namespace Quellan::Corvel
