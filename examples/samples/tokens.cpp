#include "Samples.h"

#include <TQLib/TQLib.h>

using namespace Quellan::Corvel;
using namespace Quellan::Sarvek;

namespace {

void WorkWithPrivilege() {
    Expect(SecToken::OfThread().EnabledPrivileges().Contains(L"SeChangeNotifyPrivilege"), L"It is enabled.");
}

void WorkWithoutAny() {
    Expect(SecToken::OfThread().EnabledPrivileges().IsEmpty(), L"Nothing is enabled.");
}

}  // namespace

void TokensSample() {
    const SecToken token = SecToken::OfProcess();
    const TQString user = token.User().SID().FullName();
    const bool mayDebug = token.EnabledPrivileges().Contains(L"SeDebugPrivilege");
    {
        // The thread has the privilege here, and no other thread.
        const SecPrivilege guard(L"SeChangeNotifyPrivilege");
        WorkWithPrivilege();
    }
    SecToken copy = token.Duplicate();
    copy.DisableAllPrivileges();
    {
        // The thread may what the copy may.
        const SecImpersonation acting(copy);
        WorkWithoutAny();
    }

    Expect(!user.IsEmpty() && (!mayDebug || token.Privileges().Contains(L"SeDebugPrivilege")), user.c_str());
    Expect(!TQThread::ThreadHasToken(), L"The thread acts as the process again.");
}
