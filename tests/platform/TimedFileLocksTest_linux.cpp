// Locks that are waited for.
#include "PlatformTest.h"
#include "TQLib/platform/linux/base/Descriptor.h"
#include "TQLib/platform/linux/files/Files.h"
#include "TQLib/platform/linux/files/RangeLocks.h"
#include "support/Role.h"
#include "support/Worker.h"

#include <filesystem>

namespace Quellan::Corvel::Test {
namespace {

using Platform::DeadlineAfter;
using Platform::Descriptor;
using Platform::Never;
using Platform::RangeLocks;

constexpr DWORD Taken = ERROR_LOCK_VIOLATION;

struct LockedFile {
    explicit LockedFile(const std::filesystem::path& path)
        : file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {}
    DWORD Lock(Platform::Deadline deadline) { return locks.Lock(file.Get(), 10, 5, deadline); }
    DWORD Unlock() { return locks.Unlock(file.Get(), 10, 5); }

    Descriptor file;
    RangeLocks locks;
};

class TimedFileLocks : public testing::Test {
  protected:
    const TemporaryFolder m_folder;
    const std::filesystem::path m_path = m_folder / L"file";
    LockedFile m_first{m_path};
    LockedFile m_second{m_path};
};

TEST_F(TimedFileLocks, AreGivenUpWhenTheTimeIsUp) {
    ASSERT_EQ(m_first.Lock(0), 0u);
    for (LockedFile* file : {&m_first, &m_second}) {
        const auto begin = Platform::Now();
        EXPECT_EQ(file->Lock(DeadlineAfter(50)), Taken);
        EXPECT_GE(Platform::Now() - begin, 50 * Platform::NanosecondsInMs);
    }
    EXPECT_EQ(m_first.Unlock(), 0u);
    EXPECT_EQ(m_second.Lock(0), 0u) << "a wait that failed leaves nothing locked";
}

TEST_F(TimedFileLocks, AreGrantedWhenTheHolderLeaves) {
    for (LockedFile* file : {&m_first, &m_second}) {
        ASSERT_EQ(m_first.Lock(0), 0u);
        DWORD code = 1;
        {
            Worker waiter([&] {
                code = file->Lock(Never);
                if (!code) file->Unlock();
            });
            m_first.Unlock();
        }
        EXPECT_EQ(code, 0u);
    }
}

const Role g_lockHolder("hold-lock", [](const RoleArguments& arguments) {
    LockedFile file(arguments.at(0));
    if (file.Lock(0)) return 1;
    std::puts("held");
    std::fflush(stdout);
    Sleep(INFINITE);
    return 2;
});

TEST_F(TimedFileLocks, AreGrantedWhenTheHoldersProcessIsKilled) {
    RoleProcess holder("hold-lock", {m_path.string()}, ChildProcess::Files::Piped);
    holder.ReadTo("held");
    EXPECT_EQ(m_first.Lock(0), Taken);
    DWORD code = 1;
    {
        Worker waiter([&] { code = m_first.Lock(DeadlineAfter(60'000)); });
        holder.Kill();
    }
    EXPECT_EQ(code, 0u);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
