// Failures name what they are about.
#include "TQLib/TQLib.h"
#include "platform/PlatformTest.h"

#include <functional>
#include <gmock/gmock.h>
#include <sstream>

namespace Quellan::Corvel::Test {
namespace {

using Share = _TQFile::FileShare;

TEST(NamedFailures, SayTheNameInTheirMessage) {
    const TemporaryFolder folder;
    const TQFileName missing(TQString((folder / L"none").c_str()), L"file");
    const TQFileName text(TQString(folder.Path().c_str()), L"text");
    const auto open = [](const TQFileName& name, DWORD access, DWORD disposition) {
        return _TQFile(name, access, disposition, 0, Share::Read | Share::Write, Sarvek::SecAttr());
    };
    const TQRegKey root = TQRegistry::UserKey().Create(L"Software\\TQLib test of names");
    const auto value = [&](const wchar_t* name) { return root.Path() + L": " + name; };
    const _TQRegValue<_TQDWORDRegData> number(root, L"Number"), none(root, L"None");
    _TQRegValue<_TQStringRegData>(root, L"Number").Set(L"text");
    _TQFile writeOnly = open(text, GENERIC_WRITE, CREATE_ALWAYS);
    char byte;
    const struct {
        const char* what;
        std::function<void()> work;
        unsigned code;
        TQString name;
    } failures[] = {
        {"open a file", [&] { open(missing, GENERIC_READ, OPEN_EXISTING); }, ERROR_PATH_NOT_FOUND,
         missing.FullName()},
        {"read a file", [&] { writeOnly.Read(&byte, 1); }, ERROR_ACCESS_DENIED, text.FullName()},
        {"append to a text file",
         [&] {
             TQTextFile(text, GENERIC_READ, OPEN_EXISTING, 0, Share::Read | Share::Write, Sarvek::SecAttr())
                 .Append(L"line", 0);
         },
         ERROR_ACCESS_DENIED, text.FullName()},
        {"open a key", [&] { TQRegKey(root, L"Missing\\Key"); }, ERROR_FILE_NOT_FOUND,
         root.Path() + L"\\Missing\\Key"},
        {"read a value", [&] { static_cast<void>(none.Get()); }, ERROR_FILE_NOT_FOUND, value(L"None")},
        {"read a value of another type", [&] { static_cast<void>(number.Get()); }, ERROR_UNSUPPORTED_TYPE,
         value(L"Number")},
        {"load a module", [] { static_cast<void>(TQSysProc::LoadModule(L"no-such-module")); },
         ERROR_MOD_NOT_FOUND, L"no-such-module"},
        {"find an account", [] { Sarvek::SecID(L"no such account"); }, ERROR_NONE_MAPPED, L"no such account"},
        {"open an event", [] { TQEvent(L"wrong\\name\\of an event", false, true, false); },
         ERROR_PATH_NOT_FOUND, L"wrong\\name\\of an event"},
    };
    for (const auto& each : failures) {
        SCOPED_TRACE(each.what);
        try {
            each.work();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const TQCoreException& e) {
            EXPECT_EQ(e.ErrCode(), each.code);
            EXPECT_THAT(std::wstring(e.Action()), testing::EndsWith(std::wstring(each.name.View())));
            EXPECT_THAT(std::wstring(e.FullMsg(TQStrResDestination::User)),
                        testing::HasSubstr(L" Action=" + std::wstring(e.Action())));
        }
    }
    EXPECT_EQ(root.Path(), L"HKEY_CURRENT_USER\\Software\\TQLib test of names");
    TQRegistry::UserKey().DeleteKey(L"Software\\TQLib test of names");
}

TEST(Streams, TakeValuesAsTheirTexts) {
    const TQSysException failure(ERROR_ACCESS_DENIED, L"\u00C4rger");
    const TQFileName file(L"/tmp/\u00C4");
    const Sarvek::SecID id(Sarvek::SecIDAuth(5), 18u);
    std::ostringstream narrow;
    std::wostringstream wide;
    narrow << failure << '|' << file << '|' << id << Sarvek::SecID();
    wide << failure << L'|' << file << L'|' << id << Sarvek::SecID();
    EXPECT_EQ(wide.str(), failure.FullMsg(TQStrResDestination::User) +
                              (L'|' + std::wstring(file.FullName().View())) + L"|S-1-5-18");
    EXPECT_EQ(narrow.str(), TQString(wide.str()).ToUtf8().View());
}

}  // namespace
}  // namespace Quellan::Corvel::Test
