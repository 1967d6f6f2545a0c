// Many processes write to one log on a disk that others keep busy.
#include "LogFiles.h"
#include "TQLib/platform/linux/base/Durable.h"
#include "support/Role.h"
#include "support/Worker.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>

namespace Quellan::Corvel::Test {
namespace {

#if defined(TQ_FAULT_POINTS)

constexpr int Processes = 16, Threads = 4, Records = 5;

// Each of its flushes takes 200 ms. Answers with the number of records that were lost.
const Role g_patient("write-to-busy-disk", [](const RoleArguments& arguments) {
    Platform::Durable::TheObserver() = [](const Platform::Durable::Step& step) {
        if (step.kind == Platform::Durable::Step::Kind::Write) Sleep(200);
    };
    const TQLogPtr log = Open(arguments.at(0));
    std::vector<std::unique_ptr<Worker>> threads;
    for (int thread = 0; thread < Threads; ++thread)
        threads.push_back(std::make_unique<Worker>([&] {
            for (int i = 0; i < Records; ++i)
                log->AddMsg(L"patient", TQLogLevel::Trace);
        }));
    for (const auto& thread : threads)
        thread->Join();
    return static_cast<int>(std::min<ULONGLONG>(log->Lost(), 127));
});

// By turns they would wait for 3.2 seconds.
TEST(LogStressOnLinux, LosesNoRecordBesideABusyDisk) {
    const LogFolder folder;
    const fs::path path = folder / "App.tlg";
    std::vector<std::unique_ptr<RoleProcess>> writers;
    for (int i = 0; i < Processes; ++i)
        writers.push_back(std::make_unique<RoleProcess>("write-to-busy-disk", RoleArguments{path.string()}));
    for (const auto& writer : writers)
        EXPECT_EQ(writer->ExitCode(), 0) << "so many were lost";
    EXPECT_EQ(LinesOf(ReadBytes(path)).size(), 2u * Processes * Threads * Records);
}

#endif

}  // namespace
}  // namespace Quellan::Corvel::Test
