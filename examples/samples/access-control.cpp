#include "Samples.h"

#include <TQLib/TQLib.h>
#include <TQLib/platform/Win32.h>

using namespace Quellan::Corvel;
using namespace Quellan::Sarvek;

namespace {

void MakeFile(const wchar_t* name) {
    SecACL list;
    list.Allow(SecID(WinBuiltinAdministratorsSid), FILE_ALL_ACCESS)
        .Allow(SecID(WinBuiltinUsersSid), FILE_GENERIC_READ);
    const SecAttr security(SecDesc().SetDACL(list.InCanonicalOrder()));
    const TQUniqueHandle<_TQFileHandleClose> file(
        CreateFileW(name, GENERIC_WRITE, 0, security.Get(), CREATE_NEW, 0, nullptr));
    if (!file.IsValid()) TQSysException::ThrowLastError(L"CreateFileW");
}

void ReadText() {
    const SecDesc descriptor = SecDesc::FromText(L"O:BAD:P(A;OICI;FA;;;BA)(A;;FR;;;BU)");
    const TQString text = descriptor.Text();
    const TQString words = descriptor.Describe();  // Administrators: full control, ...
    Expect(text == L"O:BAD:P(A;OICI;FA;;;BA)(A;;FR;;;BU)", L"The text is the same again.");
    Expect(!words.IsEmpty(), L"There are words.");
}

void Check() {
    SecIDAttrArray groups;
    groups.Add(SecIDAttr(SecID(WinBuiltinUsersSid), SE_GROUP_ENABLED));
    const SecSubject somebody(SecIDAttr(SecID::FromText(L"S-1-5-21-1-2-3-1001")), groups);
    const SecDesc descriptor = SecDesc::FromText(L"O:BAG:BAD:P(A;OICI;FA;;;BA)(A;;FR;;;BU)");
    const SecAccess access(descriptor, SecGenericMap::OfFiles());
    const bool mayRead = access.Check(somebody, FILE_GENERIC_READ).isGranted;
    const DWORD all = access.RightsOf(somebody);
    Expect(mayRead && all == FILE_GENERIC_READ, L"A user may read, and no more.");
}

void ShareFile(const wchar_t* name) {
    const SecObject file = SecObject::File(name);
    SecACL list = *file.Read().DACL();
    list.Allow(SecID(WinWorldSid), FILE_GENERIC_READ);
    file.Write(SecDesc().SetDACL(list.InCanonicalOrder()));
    Expect(file.Read().DACL() != nullptr, L"The file has a list.");
}

}  // namespace

void AccessControlSample() {
    Check();
    ReadText();
    const wchar_t* const name = L"access-control.sample";
    DeleteFileW(name);
    MakeFile(name);
    ShareFile(name);
    Expect(DeleteFileW(name) != 0, L"The file is there.");
}
