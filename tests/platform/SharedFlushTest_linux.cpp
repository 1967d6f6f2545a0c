// What processes share to write to one file, as each of them sees it: here several objects stand for them.
#include "PlatformTest.h"
#include "TQLib/platform/SharedFlush.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/platform/linux/base/Durable.h"
#include "support/ReadBytes.h"
#include "support/Role.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Quellan::Corvel::Test {
namespace {

namespace fs = std::filesystem;
using Platform::SharedFlush;
using Sharer = std::unique_ptr<SharedFlush>;

class SharedFlushes : public testing::Test {
  protected:
    SharedFlushes() { Put("before\r\n"); }
    ~SharedFlushes() override { CloseHandle(m_file); }

    void Put(const std::string& bytes) { std::ofstream(fs::path(m_name), std::ios::binary) << bytes; }
    Sharer Open() { return SharedFlush::Open(m_file); }
    fs::path Pages() const { return fs::path(m_folder / L"root") / "run" / "appends"; }
    std::ptrdiff_t PageCount() const { return std::distance(fs::directory_iterator(Pages()), {}); }

    static std::string TakenBy(SharedFlush& writer, ULONGLONG place = 0) {
        std::string bytes;
        writer.Take(bytes, place);
        return bytes;
    }

    const TemporaryFolder m_folder;
    const EnvironmentVariable m_root{L"TQLIB_ROOT", (m_folder / L"root").c_str()};
    const std::wstring m_name = m_folder / L"file";
    const HANDLE m_file = CreateFileW(m_name.c_str(), GENERIC_READ | GENERIC_WRITE,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS, 0, nullptr);
};

TEST_F(SharedFlushes, AreWrittenByOthersOrTakenBack) {
    const Sharer owner = Open(), writer = Open();
    const ULONGLONG first = owner->Offer("first "), second = owner->Offer("second ");
    EXPECT_TRUE(owner->TakeBack(first));
    EXPECT_EQ(TakenBy(*writer), "second ");
    EXPECT_FALSE(owner->TakeBack(second)) << "somebody is writing it";
    EXPECT_FALSE(owner->IsWritten(second));
    writer->Settle(false);
    EXPECT_TRUE(writer->HasOffers());
    EXPECT_EQ(TakenBy(*writer), "second ");
    const ULONGLONG third = owner->Offer("third ");
    writer->Settle(true);
    EXPECT_TRUE(owner->IsWritten(second));
    EXPECT_FALSE(owner->TakeBack(second));
    EXPECT_FALSE(owner->IsWritten(third));
    EXPECT_EQ(TakenBy(*writer), "third ") << "what was offered meanwhile";
    writer->Settle(true);
    EXPECT_FALSE(writer->HasOffers());
}

TEST_F(SharedFlushes, TakeRecordsOfAllSizesThatHaveRoom) {
    constexpr std::size_t Room = 32'768 - 4;
    const Sharer owner = Open(), writer = Open();
    EXPECT_EQ(owner->Offer(std::string(Room + 1, 'x')), 0u);
    for (const std::size_t size : {Room, Room - 1, std::size_t{1}, Room, std::size_t{20'000}}) {
        const std::string record(size - 1, static_cast<char>('a' + size % 26));
        const ULONGLONG end = owner->Offer(record + '\n');
        ASSERT_NE(end, 0u) << size;
        EXPECT_EQ(owner->Offer(std::string(Room - size + 1, 'y')), 0u) << size;
        EXPECT_EQ(TakenBy(*writer), record + '\n') << size;
        EXPECT_EQ(owner->Offer(std::string(Room - size + 1, 'y')), 0u) << "it is not in the file yet";
        writer->Settle(true);
    }
}

#if defined(TQ_FAULT_POINTS)

// A writer dies after he has taken the records: "one", "two two" of one process and "three" of another.
struct Death {
    const char* name;
    const char* left;   // by him and others, behind what was there before
    const char* after;  // once the next one has found out
    int written;        // of the three
};

constexpr Death Deaths[] = {
    {"BeforeWriting", "", "", 0},
    {"InsideTheFirst", "on", "", 0},
    {"BehindTheFirst", "one\r\n", "one\r\n", 1},
    {"InsideTheSecond", "one\r\ntwo t", "one\r\n", 1},
    {"InsideALineBreak", "one\r\ntwo two\r", "one\r\n", 1},
    {"BetweenTheProcesses", "one\r\ntwo two\r\n", "one\r\ntwo two\r\n", 2},
    {"InsideTheThird", "one\r\ntwo two\r\nth", "one\r\ntwo two\r\n", 2},
    {"BehindAll", "one\r\ntwo two\r\nthree\r\n", "one\r\ntwo two\r\nthree\r\n", 3},
    {"InsideHisOwn", "one\r\ntwo two\r\nthree\r\now", "one\r\ntwo two\r\nthree\r\now", 3},
    {"BeforeAStranger", "one\r\ntwo\r\nstranger\r\n", "one\r\ntwo\r\nstranger\r\n", 1},
    {"InsideAndBeforeAStranger", "one\r\ntwo two\r\nth\r\nstranger\r\n",
     "one\r\ntwo two\r\nth\r\nstranger\r\n", 2},
    {"BeforeWritingAndAStranger", "stranger\r\n", "stranger\r\n", 0},
};

class DeathsOfWriters : public SharedFlushes, public testing::WithParamInterface<Death> {};

TEST_P(DeathsOfWriters, LeaveEachRecordInTheFileOrToTheNext) {
    const std::string before = "before\r\n", records[] = {"one\r\n", "two two\r\n", "three\r\n"};
    const Sharer owner = Open(), other = Open();
    const ULONGLONG ends[] = {owner->Offer(records[0]), owner->Offer(records[1]), other->Offer(records[2])};
    Sharer writer = Open();
    ASSERT_EQ(writer->Begin(), 0u);
    EXPECT_EQ(TakenBy(*writer, before.size()), records[0] + records[1] + records[2]);
    Put(before + GetParam().left);
    writer = nullptr;

    const Sharer next = Open();
    static int s_syncs;
    s_syncs = 0;
    Platform::Durable::TheObserver() = [](const Platform::Durable::Step& step) {
        s_syncs += step.kind == Platform::Durable::Step::Kind::Sync;
    };
    ASSERT_EQ(next->Begin(), 0u);
    Platform::Durable::TheObserver() = nullptr;
    EXPECT_EQ(s_syncs, GetParam().written ? 1 : 0) << "what was written may not be on the disk yet";
    EXPECT_EQ(ReadBytes(m_name), before + GetParam().after);
    std::string rest;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ((i < 2 ? owner : other)->IsWritten(ends[i]), i < GetParam().written) << i;
        if (i >= GetParam().written) rest += records[i];
    }
    EXPECT_EQ(TakenBy(*next), rest);
    next->Settle(true);
    EXPECT_TRUE(owner->IsWritten(ends[1]) && other->IsWritten(ends[2]));
}

INSTANTIATE_TEST_SUITE_P(, DeathsOfWriters, testing::ValuesIn(Deaths),
                         [](const auto& death) { return std::string(death.param.name); });

#endif

// Offers a record and waits to be killed.
const Role g_offerer("offer-record", [](const RoleArguments& arguments) {
    const std::wstring name = fs::path(arguments.at(0)).wstring();
    const HANDLE file = CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS, 0, nullptr);
    const Sharer sharer = SharedFlush::Open(file);
    sharer->Offer("of the killed");
    std::puts("offered");
    std::fflush(stdout);
    return std::getchar() == EOF ? 0 : 1;
});

TEST_F(SharedFlushes, HaveAPlaceAsLongAsTheirProcessLives) {
    constexpr int Places = 64;
    RoleProcess killed("offer-record", {fs::path(m_name).string()}, ChildProcess::Files::Piped);
    killed.ReadTo("offered");
    std::vector<Sharer> sharers;
    for (int i = 1; i < Places; ++i)
        sharers.push_back(Open());
    ASSERT_TRUE(sharers.back());
    EXPECT_FALSE(Open());
    killed.Kill();
    const Sharer heir = Open();
    ASSERT_TRUE(heir);
    EXPECT_EQ(TakenBy(*sharers[0]), "") << "nobody waits for it";
    sharers[0]->Settle(true);
    heir->Offer("of the heir");
    EXPECT_EQ(TakenBy(*sharers[0]), "of the heir");
    const pid_t child = fork();
    if (child == 0) {
        sharers.clear();
        pause();
    }
    sharers.resize(1);
    for (int i = 2; i < Places; ++i)
        EXPECT_TRUE(sharers.emplace_back(Open())) << "a child does not keep the places of its parent";
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

TEST_F(SharedFlushes, LeaveNothingBehind) {
    RoleProcess killed("offer-record", {fs::path(m_folder / L"other").string()}, ChildProcess::Files::Piped);
    killed.ReadTo("offered");
    killed.Kill();
    EXPECT_EQ(PageCount(), 1);
    {
        const Sharer one = Open(), other = Open();
        EXPECT_EQ(PageCount(), 1) << "the one of the killed process is gone";
    }
    EXPECT_EQ(PageCount(), 0);
}

TEST_F(SharedFlushes, AreNotWhereOthersCouldReachThem) {
    Open();
    struct stat info;
    ASSERT_EQ(stat(fs::path(m_name).c_str(), &info), 0);
    const fs::path page = Pages() / (std::to_string(info.st_dev) + '-' + std::to_string(info.st_ino));
    fs::create_symlink(m_name, page);
    EXPECT_FALSE(Open());
    EXPECT_EQ(ReadBytes(m_name), "before\r\n");
    fs::remove(page);
    std::ofstream(page) << "";
    ASSERT_EQ(chmod(page.c_str(), 0666), 0);
    EXPECT_FALSE(Open());
    EXPECT_TRUE(Open()) << "it was nobody's, and is gone";
    ASSERT_EQ(chmod(Pages().c_str(), 0777), 0);
    EXPECT_FALSE(Open());
}

}  // namespace
}  // namespace Quellan::Corvel::Test
