#include "TQLib/files/registry/TQRegKey.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/security/SecObject.h"
#include "TQLib/text/memory/TQHandle.h"
#include "platform/PlatformTest.h"
#include "security/Identifiers.h"

namespace Quellan::Corvel::Test {
namespace {

using Sarvek::SecDesc;
using Sarvek::SecObject;

class SecurityOfObjects : public testing::Test {
  protected:
    const TemporaryFolder m_folder;
};

TEST_F(SecurityOfObjects, OfAKeyAndAnEventIsRead) {
    const TQRegKey key = TQRegistry::UserKey().Create(L"Software\\TQLib\\ObjectTest");
    const SecDesc ofKey = SecObject::Key(L"HKCU\\Software\\TQLib\\ObjectTest").Read();
    EXPECT_EQ(ofKey, SecObject::Key(L"HKEY_CURRENT_USER\\Software\\TQLib\\ObjectTest").Read());
    EXPECT_FALSE(ofKey.Owner().IsNull());
    ASSERT_NE(ofKey.DACL(), nullptr);
    TQRegistry::UserKey().DeleteKey(L"Software\\TQLib\\ObjectTest");

    const std::wstring name = L"tqtest.object." + std::to_wstring(GetCurrentProcessId());
    const TQUniqueHandle<_TQKernelHandleClose> event(CreateEventW(nullptr, TRUE, FALSE, name.c_str()));
    const SecDesc ofEvent = SecObject::Event(name.c_str()).Read();
    EXPECT_EQ(ofEvent, SecObject::Handle(event.Get()).Read());
    EXPECT_TRUE(!ofEvent.Owner().IsNull() || OnWine());  // Wine knows none
}

TEST_F(SecurityOfObjects, FailuresNameTheObject) {
    const std::wstring missing = m_folder / L"missing";
    const struct {
        SecObject object;
        DWORD code;
        std::wstring name;
    } cases[] = {{SecObject::File(missing.c_str()), ERROR_FILE_NOT_FOUND, missing},
                 {SecObject::Key(L"HKLM\\no\\such"), ERROR_FILE_NOT_FOUND, L"HKLM\\no\\such"},
                 {SecObject::Key(L"HKXY\\no"), ERROR_INVALID_PARAMETER, L"HKXY\\no"},
                 {SecObject::Mutex(L"no such mutex"), ERROR_FILE_NOT_FOUND, L"no such mutex"},
                 {SecObject::Handle(nullptr, L"nothing"), ERROR_INVALID_HANDLE, L"nothing"}};
    for (const auto& each : cases) {
        EXPECT_EQ(ThrownCode([&] { static_cast<void>(each.object.Read()); }), each.code) << each.code;
        EXPECT_EQ(ThrownAction([&] { static_cast<void>(each.object.Read()); }), each.name);
        EXPECT_EQ(ThrownCode([&] { each.object.Write(SecDesc::FromText(L"D:")); }), each.code);
    }
}

}  // namespace
}  // namespace Quellan::Corvel::Test
