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

void TellFailure(const TQString& path, const TQCoreException& failure) {
    TQConsole(TQConsole::Stream::Error)
        .Show(path + L": " + failure.ExcMsg(TQStrResDestination::User) + L"\n");
}

void Inherit(const wchar_t* folder) {
    const SecDesc above = SecDesc::FromText(L"O:BAG:BAD:(A;OICI;FA;;;CO)(A;OI;GR;;;BU)");
    const SecCreator maker{.owner = SecID(WinBuiltinAdministratorsSid),
                           .group = SecID(WinBuiltinUsersSid),
                           .defaultList = std::nullopt,
                           .owners = {},
                           .maySetSACL = false};
    const SecInheritance files(SecGenericMap::OfFiles(), false);
    const SecDesc made = files.NewDescriptor(&above, nullptr, &maker);  // D:AI(A;ID;FA;;;BA)(A;ID;FR;;;BU)
    Expect(made.Text() == L"O:BAG:BUD:AI(A;ID;FA;;;BA)(A;ID;FR;;;BU)",
           L"The owner has what the creator's entry gives.");

    SecTree::Options options;
    options.onFailure = &TellFailure;  // a function of the path and the exception
    const SecTree::Outcome outcome = SecFileTree().Renew(folder, options);
    Expect(outcome.failed == 0, L"Nothing has failed.");
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
    const wchar_t* const folder = L"access-control.folder";
    CreateDirectoryW(folder, nullptr);
    Inherit(folder);
    RemoveDirectoryW(folder);
    const wchar_t* const name = L"access-control.sample";
    DeleteFileW(name);
    MakeFile(name);
    ShareFile(name);
    Expect(DeleteFileW(name) != 0, L"The file is there.");
}
