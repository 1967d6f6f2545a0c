#include "Samples.h"

#include <TQLib/TQLib.h>

using namespace Quellan::Sarvek;

void SecurityIdentifiersSample() {
    const SecID user = Quellan::Corvel::TQSysProc::CurrentUser();
    const SecID group(L"BUILTIN\\Administrators");
    const Quellan::Corvel::TQString text = user.String();    // S-1-5-21-...
    const Quellan::Corvel::TQString name = user.FullName();  // MACHINE\name
    const bool isAdministrators = group.IsAdminID();         // true
    const bool isIn = user.MemberOfList(true, false).Contains(group);

    Expect(text.Length() > 4 && !name.IsEmpty() && isAdministrators, text.c_str());
    Expect(isIn == user.MemberOfList(true, false).Contains(group), L"The groups are the same again.");
}
