#include "TQLib/services/internal/ServiceFailure.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/text/TQString.h"

namespace Quellan::Corvel {

namespace {

struct FailureText {
    DWORD code;
    const wchar_t* text;  // behind the name of the service
};

constexpr FailureText Texts[] = {
    {ERROR_ACCESS_DENIED, L"may not be used so by this user."},
    {ERROR_INVALID_NAME, L"has a name that no service can have."},
    {ERROR_DEPENDENT_SERVICES_RUNNING, L"is needed by services that run."},
    {ERROR_INVALID_SERVICE_CONTROL, L"does not know this control or does not accept it now."},
    {ERROR_SERVICE_REQUEST_TIMEOUT, L"did not answer in time."},
    {ERROR_SERVICE_ALREADY_RUNNING, L"is running already."},
    {ERROR_INVALID_SERVICE_ACCOUNT, L"can't be installed: there is no such account, or it may not be used."},
    {ERROR_SERVICE_DISABLED, L"is disabled, or has nothing that could run it."},
    {ERROR_CIRCULAR_DEPENDENCY, L"would depend on itself."},
    {ERROR_SERVICE_DOES_NOT_EXIST, L"is not installed."},
    {ERROR_SERVICE_CANNOT_ACCEPT_CTRL, L"can't take controls in its present state."},
    {ERROR_SERVICE_NOT_ACTIVE, L"is not running."},
    {ERROR_PROCESS_ABORTED, L"ended unexpectedly."},
    {ERROR_SERVICE_DEPENDENCY_FAIL, L"needs a service that could not be started."},
    {ERROR_SERVICE_LOGON_FAILED, L"could not be started: its account could not log on."},
    {ERROR_SERVICE_MARKED_FOR_DELETE, L"is being deleted and goes once nobody uses it any more."},
    {ERROR_SERVICE_EXISTS, L"is installed already."},
    {ERROR_SERVICE_DEPENDENCY_DELETED, L"needs a service that is not installed."},
    {ERROR_DUPLICATE_SERVICE_NAME, L"has a name that is another service's."},
    {ERROR_SERVICE_NOT_IN_EXE, L"is not in the program that it was installed with."},
};

const wchar_t* TextOf(DWORD code) noexcept {
    for (const FailureText& each : Texts)
        if (each.code == code) return each.text;
    return L"could not be used so.";
}

}  // namespace

void ThrowServiceFailure(DWORD code, const wchar_t* name) {
    if (!name)
        throw TQSysException(code, code == ERROR_ACCESS_DENIED
                                       ? L"The service manager may not be used so by this user."
                                       : L"The service manager could not be reached.");
    throw TQSysException(code, TQString::Format(L"The service %s %s", name, TextOf(code)).c_str());
}

void ThrowServiceFailure(const wchar_t* name) {
    ThrowServiceFailure(GetLastError(), name);
}

}  // namespace Quellan::Corvel
