#include "TQLib/files/TQTextFile.h"
#include "TQLib/platform/SharedFlush.h"
#include "TQLib/platform/linux/base/Durable.h"
#include "TQLib/security/SecAttr.h"
#include "platform/SleepingThreads_linux.h"
#include "platform/WaitObjects.h"
#include "support/FailCall.h"
#include "support/ReadBytes.h"

#include <atomic>
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

// Has the lock, as a writer of another process that shares its flush with others.
class SharedTextFile : public TextFile {
  protected:
    SharedTextFile() { EXPECT_TRUE(m_other.Lock(AppendLock, 1, 0)); }
    ~SharedTextFile() override { CloseHandle(m_handle); }

    // Returns when so many bytes wait to be written.
    void AwaitOffers(std::size_t size) {
        for (std::string offers; offers.size() != size; SwitchToThread()) {
            offers.clear();
            m_writer->Take(offers, 0);
            m_writer->Settle(false);
        }
    }
    void Write(std::string_view bytes) { m_other.WriteAt(m_other.Size(), bytes.data(), bytes.size()); }
    void GiveUpLock() { m_other.Unlock(AppendLock, 1); }

    const EnvironmentVariable m_root{L"TQLIB_ROOT", (m_folder / L"root").c_str()};
    const HANDLE m_handle =
        CreateFileW(m_name.FullName().c_str(), GENERIC_READ | GENERIC_WRITE,
                    FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    std::unique_ptr<Platform::SharedFlush> m_writer = Platform::SharedFlush::Open(m_handle);
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

TEST_F(SharedTextFile, HasTheRecordsThatAnotherProcessWrote) {
    auto file = Open<TQTextFile>();
    const auto append = [&](const wchar_t* record) {
        return ThrownCode([&] { file.Append(record, Patience); });
    };
    const Worker first([&] { return append(L"1"); });
    AwaitOffers(3);
    const Worker second([&] { return append(L"2"); });
    AwaitOffers(6);
    std::string bytes;
    m_writer->Take(bytes, 0);
    Write(bytes);
    m_writer->Settle(true);
    m_writer->WakeOthers();
    EXPECT_EQ(first.Result(), 0u);
    EXPECT_EQ(second.Result(), 0u);
    EXPECT_EQ(Contents(), "1\r\n2\r\n");
}

TEST_F(SharedTextFile, HasNoRecordThatWaitedTooLong) {
    auto file = Open<TQTextFile>();
    EXPECT_EQ(ThrownCode([&] { file.Append(L"lost", 20); }), DWORD{ERROR_LOCK_VIOLATION});
    GiveUpLock();
    file.Append(L"written", 0);
    EXPECT_EQ(Contents(), "written\r\n");
}

// Another writer has begun to write the record when its time is up; then he goes on, or finds the disk full,
// or is killed before he has written a part, or all of it.
TEST_F(SharedTextFile, HasARecordOnceWhoeverWritesIt) {
    enum class Then { GoesOn, Fails, Dies };
    for (const auto& [then, left] : {std::pair(Then::GoesOn, "a record\r\n"),
                                     {Then::Fails, ""},
                                     {Then::Dies, ""},
                                     {Then::Dies, "a rec"},
                                     {Then::Dies, "a record\r\n"}}) {
        SCOPED_TRACE(left);
        auto file = Open<TQTextFile>();
        std::string bytes;
        std::atomic<bool> hasEnded;
        std::unique_ptr<Worker> owner;
        // Once more where his time was up before anybody could begin.
        for (DWORD ms = then == Then::Dies ? Patience : 50; bytes.empty(); ms *= 2) {
            hasEnded = false;
            owner = std::make_unique<Worker>([&, ms] {
                const DWORD code = ThrownCode([&] { file.Append(L"a record", ms); });
                hasEnded = true;
                return code;
            });
            for (; bytes.empty() && !hasEnded; SwitchToThread()) {
                m_writer->Take(bytes, 0);
                if (bytes.empty()) m_writer->Settle(false);
            }
            if (then != Then::Dies) Sleep(ms + 10);
            if (bytes.empty()) owner->Result();
        }
        Write(left);
        if (then == Then::Dies)
            m_writer = nullptr;
        else
            m_writer->Settle(then == Then::GoesOn);
        if (then == Then::Fails) {
            EXPECT_EQ(owner->Result(), DWORD{ERROR_LOCK_VIOLATION});
        }
        GiveUpLock();
        EXPECT_EQ(owner->Result(), then == Then::Fails ? DWORD{ERROR_LOCK_VIOLATION} : 0);
        EXPECT_EQ(Contents(), then == Then::Fails ? "" : "a record\r\n");
        ASSERT_TRUE(m_other.Lock(AppendLock, 1, Patience));
        m_other.SetEnd(0);
        if (!m_writer) m_writer = Platform::SharedFlush::Open(m_handle);
    }
}

TEST_F(SharedTextFile, HasNoPartOfARecordWhoseWriterWasKilled) {
    const auto owner = Platform::SharedFlush::Open(m_handle);
    owner->Offer("a record\r\n");
    std::string bytes;
    m_writer->Take(bytes, 0);
    Write("a rec");
    m_writer = nullptr;
    GiveUpLock();
    auto file = Open<TQTextFile>();  // of a process that had nobody to share with until now
    file.Append(L"1", 0);
    file.Append(L"2", 0);
    EXPECT_EQ(Contents(), "1\r\na record\r\n2\r\n");
}

#if defined(TQ_FAULT_POINTS)

std::atomic<int> s_syncs;

// A program that knows nothing of shared flushes has the lock, and several objects wait.
TEST_F(SharedTextFile, HasAllThatWaitInOneFlush) {
    constexpr std::size_t Files = 8;
    s_syncs = 0;
    Platform::Durable::TheObserver() = [](const Platform::Durable::Step& step) {
        s_syncs += step.kind == Platform::Durable::Step::Kind::Sync;
    };
    std::vector<std::unique_ptr<Worker>> waiting;
    for (std::size_t i = 0; i < Files; ++i)
        waiting.push_back(std::make_unique<Worker>([this] {
            auto file = Open<TQTextFile>();
            return ThrownCode([&] { file.Append(L"1", Patience); });
        }));
    AwaitOffers(3 * Files);
    GiveUpLock();
    for (const auto& each : waiting)
        EXPECT_EQ(each->Result(), 0u);
    Platform::Durable::TheObserver() = nullptr;
    EXPECT_EQ(Contents().size(), 3 * Files);
    EXPECT_EQ(s_syncs, 1);
}

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
