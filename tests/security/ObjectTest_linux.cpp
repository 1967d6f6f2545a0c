#include "TQLib/files/registry/TQRegKey.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/security/SecAttr.h"
#include "TQLib/security/SecObject.h"
#include "TQLib/text/memory/TQHandle.h"
#include "platform/PlatformTest.h"
#include "security/Identifiers.h"

namespace Quellan::Corvel::Test {
namespace {

using Sarvek::SecAttr;
using Sarvek::SecDesc;
using Sarvek::SecObject;

TEST(SecurityOfObjectsOnLinux, IsWhatTheyWereMadeWithOrTheirUsers) {
    const SecDesc given = SecDesc::FromText(L"D:(A;;0x100002;;;WD)");
    const std::wstring name = L"tqtest.object." + std::to_wstring(GetCurrentProcessId());
    const TQUniqueHandle<_TQKernelHandleClose> named(
        CreateEventW(SecAttr(given).Get(), TRUE, FALSE, name.c_str()));
    EXPECT_EQ(*SecObject::Event(name.c_str()).Read().DACL(), *given.DACL());
    const TQUniqueHandle<_TQKernelHandleClose> unnamed(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const SecDesc own = SecObject::Handle(unnamed.Get()).Read();
    ASSERT_EQ(own.DACL()->Count(), 1u);
    EXPECT_EQ((*own.DACL())[0].SID(), own.Owner());
    EXPECT_EQ((*own.DACL())[0].Rights(), DWORD{EVENT_ALL_ACCESS});
}

TEST(SecurityOfObjectsOnLinux, IsRefusedWhereTheKindHasNone) {
    const TQUniqueHandle<_TQKernelHandleClose> event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const SecObject object = SecObject::Handle(event.Get());
    static_cast<void>(TQRegistry::UserKey().Create(L"Software\\TQLib"));
    const SecObject key = SecObject::Key(L"HKCU\\Software\\TQLib");
    for (const SecObject& each : {object, key})
        EXPECT_EQ(ThrownCode([&] { each.Write(SecDesc::FromText(L"D:(A;;GA;;;WD)")); }),
                  DWORD{ERROR_NOT_SUPPORTED});
    EXPECT_EQ(ThrownCode([&] { static_cast<void>(object.Read(SACL_SECURITY_INFORMATION)); }),
              DWORD{ERROR_NOT_SUPPORTED});
}

}  // namespace
}  // namespace Quellan::Corvel::Test
