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

// Wine keeps no more than mode bits.
TEST(SecurityOfObjectsOnLinux, IsSetInPartsByNameAndByHandle) {
    const TemporaryFolder folder;
    const TQUniqueHandle<_TQFileHandleClose> file(CreateFileW(
        (folder / L"file").c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
    ASSERT_TRUE(file.IsValid());
    const SecObject byName = SecObject::File((folder / L"file").c_str());
    const SecObject byHandle = SecObject::Handle(file.Get());
    for (const SecObject& object : {byName, byHandle}) {
        for (const wchar_t* const list : {L"D:P(A;;0x12019f;;;WD)", L"D:P(A;;FR;;;WD)"}) {
            object.Write(SecDesc::FromText(list));
            const SecDesc read = byName.Read();
            ASSERT_NE(read.DACL(), nullptr);
            EXPECT_EQ((*read.DACL())[0].Rights(), (*SecDesc::FromText(list).DACL())[0].Rights());
            EXPECT_EQ(read.DACL()->Count(), 1u);
            EXPECT_EQ(read, byHandle.Read());
            EXPECT_FALSE(read.Owner().IsNull());
        }
        EXPECT_TRUE(object.Read(OWNER_SECURITY_INFORMATION).Group().IsNull()) << "not asked for";
        byName.Write(SecDesc::FromText(L"D:(A;;0x12019f;;;WD)"));
    }
}

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
