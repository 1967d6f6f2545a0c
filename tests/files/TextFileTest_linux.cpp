#include "TQLib/files/TQTextFile.h"
#include "TQLib/platform/linux/base/Durable.h"
#include "TQLib/security/SecAttr.h"
#include "platform/SleepingThreads_linux.h"
#include "platform/WaitObjects.h"
#include "support/FailCall.h"
#include "support/ReadBytes.h"

#include <memory>

namespace Quellan::Corvel::Test {
namespace {

// The locks of whoever writes and of the one who comes next.
constexpr ULONGLONG AppendLock = (1ULL << 62) - 1, Door = AppendLock - 1;

class TextFile : public testing::Test {
  protected:
    template <class File>
    File Open() const {
        return File(m_name, GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS, 0,
                    _TQFile::FileShare::Read | _TQFile::FileShare::Write, Sarvek::SecAttr());
    }
    std::string Contents() const { return ReadBytes(m_name.FullName().c_str()); }

    const TemporaryFolder m_folder;
    const TQFileName m_name{TQString(m_folder.Path().c_str()), L"file"};
    _TQFile m_other = Open<_TQFile>();
};

// One thread waits to write its record, and those of three others who have come one after the other, when its
// write of all of them fails.
TEST_F(TextFile, HasRecordsThatFailTogetherWrittenOneByOne) {
    for (const bool canBeTakenBack : {true, false}) {
        auto file = Open<TQTextFile>();
        ASSERT_TRUE(m_other.Lock(AppendLock, 1, 0));
        const auto append = [&](const wchar_t* record) {
            return ThrownCode([&] { file.Append(record, Patience); });
        };
        const Worker writer([&] {
            const FailCall write("WriteFile", ERROR_DISK_FULL);
            FailCall takeBack("SetEndOfFile", ERROR_IO_DEVICE, canBeTakenBack ? 0 : 1);
            return append(L"1");
        });
        while (m_other.Lock(Door, 1, 0))
            m_other.Unlock(Door, 1);
        std::vector<std::unique_ptr<Worker>> others;
        for (const wchar_t* const record : {L"2", L"3", L"4"}) {
            others.push_back(std::make_unique<Worker>([&append, record] { return append(record); }));
            AwaitSleep(others.back()->Id());
        }
        m_other.Unlock(AppendLock, 1);
        const DWORD code = canBeTakenBack ? 0 : ERROR_DISK_FULL;
        EXPECT_EQ(writer.Result(), code);
        for (const auto& other : others)
            EXPECT_EQ(other->Result(), code);
        EXPECT_EQ(Contents(), "1\r\n2\r\n3\r\n4\r\n") << "in the order in which they came, and once";
    }
}

TEST_F(TextFile, IsNotWrittenBeforeTheOneWhoWaitsAtTheDoor) {
    auto file = Open<TQTextFile>();
    ASSERT_TRUE(m_other.Lock(Door, 1, 0));
    EXPECT_EQ(ThrownCode([&] { file.Append(L"lost", 0); }), DWORD{ERROR_LOCK_VIOLATION});
    m_other.Unlock(Door, 1);
    file.Append(L"written", 0);
    EXPECT_EQ(Contents(), "written\r\n");
}

#if defined(TQ_FAULT_POINTS)

_TQFile* s_comer;
int s_open;  // how often he found the door open while somebody wrote

TEST_F(TextFile, LeavesTheDoorOpenEveryOtherTime) {
    auto file = Open<TQTextFile>();
    s_comer = &m_other;
    s_open = 0;
    Platform::Durable::TheObserver() = [](const Platform::Durable::Step& step) {
        if (step.kind != Platform::Durable::Step::Kind::Write) return;
        EXPECT_FALSE(s_comer->Lock(AppendLock, 1, 0));
        if (!s_comer->Lock(Door, 1, 0)) return;
        s_comer->Unlock(Door, 1);
        ++s_open;
    };
    for (int i = 0; i < 4; ++i)
        file.Append(L"record", 0);
    Platform::Durable::TheObserver() = nullptr;
    EXPECT_EQ(s_open, 2);
}

#endif

}  // namespace
}  // namespace Quellan::Corvel::Test
