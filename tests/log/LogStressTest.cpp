// Many processes write to one log and are killed. The reader here knows the form of a record from the
// format's description alone and shares no code with the writer.
#include "LogFiles.h"
#include "platform/PlatformTest.h"
#include "support/Role.h"
#include "support/Worker.h"

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <set>

namespace Quellan::Corvel::Test {
namespace {

constexpr int ThreadsOfOne = 4;
constexpr ULONGLONG NoLimit = 1ULL << 40;  // nobody rolls the log over

// One record's message: who, the how-manieth, and lines that depend on both.
std::vector<std::string> MessageOf(int writer, int thread, int number) {
    std::vector<std::string> lines{"w" + std::to_string(writer) + " t" + std::to_string(thread) + " n" +
                                   std::to_string(number)};
    // Large ones now and then: those are written in several pages, and a kill may come between two.
    const int scale = number % 20 == 7 ? 400 : 1;
    for (int i = 0; i < number % 3; ++i)
        lines.push_back(std::string(static_cast<std::size_t>((writer * 7 + number * 13 + i) % 300 * scale),
                                    static_cast<char>('a' + (thread + i) % 26)) +
                        ".");
    lines.push_back("end");
    return lines;
}

std::string AcknowledgedFile(int writer, int thread) {
    return "acknowledged-" + std::to_string(writer) + "-" + std::to_string(thread);
}

// A file that gets a byte for each record, '?' for one that the log may have lost: what was written to it
// outlives whoever is killed.
class Acknowledgements {
  public:
    explicit Acknowledgements(const fs::path& path)
        : m_file(CreateFileW(path.wstring().c_str(), FILE_APPEND_DATA,
                             FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, CREATE_ALWAYS,
                             0, nullptr)) {}

    void Add(bool mayBeLost) const {
        DWORD written;
        WriteFile(m_file.Get(), mayBeLost ? "?" : "+", 1, &written, nullptr);
    }

  private:
    TQUniqueHandle<_TQFileHandleClose> m_file;
};

// Folder, number of the writer, records of each thread.
const Role g_writer("write-log", [](const RoleArguments& arguments) {
    const fs::path folder = arguments.at(0);
    const int writer = std::stoi(arguments.at(1)), count = std::stoi(arguments.at(2));
    const TQLogPtr log = Open(folder / "App.tlg", NoLimit);
    std::vector<std::unique_ptr<Worker>> threads;
    for (int thread = 0; thread < ThreadsOfOne; ++thread)
        threads.push_back(std::make_unique<Worker>([=] {
            const Acknowledgements acknowledgements(folder / AcknowledgedFile(writer, thread));
            for (int number = 0; number < count; ++number) {
                std::wstring message;
                for (const std::string& line : MessageOf(writer, thread, number))
                    message.append(message.empty() ? L"" : L"\n").append(line.begin(), line.end());
                const ULONGLONG lost = log->Lost();
                log->AddMsg(message.c_str(), TQLogLevel::Trace);
                acknowledgements.Add(log->Lost() != lost);
            }
        }));
    for (const auto& thread : threads)
        thread->Join();
    // One more record that gets through tells what was lost last.
    for (ULONGLONG lost = ~0ULL; lost != log->Lost();) {
        lost = log->Lost();
        log->AddMsg(L"done", TQLogLevel::Trace);
    }
    return 0;
});

// What a log holds, by writer and thread.
struct Found {
    std::map<std::pair<int, int>, std::vector<int>> numbers;
    int told = 0;  // as lost
    int torn = 0;
};

bool IsHead(const std::string& line) {
    int hour, minute, second, ms, end = 0;
    char mark;
    return std::sscanf(line.c_str(), "%c %d:%d:%d.%3d [%n", &mark, &hour, &minute, &second, &ms, &end) == 5 &&
           end > 0 && line.ends_with("}]");
}

Found ReadLog(const std::vector<std::string>& lines) {
    Found found;
    for (std::size_t at = 0; at < lines.size();) {
        int writer, thread, number;
        const bool begins =
            IsHead(lines[at]) && at + 1 < lines.size() &&
            std::sscanf(lines[at + 1].c_str(), "    w%d t%d n%d", &writer, &thread, &number) == 3;
        std::size_t next = at + 1;
        bool isWhole = begins;
        if (begins)
            for (const std::string& expected : MessageOf(writer, thread, number))
                isWhole = isWhole && next < lines.size() && lines[next++] == "    " + expected;
        int told = 0;
        const bool isNotice =
            !begins && IsHead(lines[at]) && next < lines.size() &&
            (lines[next] == "    done" || std::sscanf(lines[next].c_str(), "    %d record%*s", &told) == 1);
        if (isNotice) {
            found.told += told;
            at += 2;
            continue;
        }
        if (isWhole) {
            found.numbers[{writer, thread}].push_back(number);
            at = next;
            continue;
        }
        ++found.torn;  // up to the next record's head
        while (++at < lines.size() && !IsHead(lines[at])) {
        }
    }
    return found;
}

struct Writer {
    int number;
    bool isKilled = false;
    std::unique_ptr<RoleProcess> process;
};

class LogStress : public testing::Test {
  protected:
    Writer NewWriter(int count) {
        const int number = m_writers++;
        return {
            number, false,
            std::make_unique<RoleProcess>(
                "write-log", RoleArguments{m_pass.string(), std::to_string(number), std::to_string(count)})};
    }

    void KillWritersAndExpectAllRecords();

    // All records that were not lost, in their order, and of a killed writer at most one more. Returns how
    // many were lost.
    int ExpectAllOf(const Writer& writer, const Found& found, int count) {
        int lost = 0;
        for (int thread = 0; thread < ThreadsOfOne; ++thread) {
            SCOPED_TRACE("writer " + std::to_string(writer.number) + ", thread " + std::to_string(thread));
            const std::string outcomes = ReadBytes(m_pass / AcknowledgedFile(writer.number, thread));
            const auto at = found.numbers.find({writer.number, thread});
            const std::vector<int> numbers = at == found.numbers.end() ? std::vector<int>() : at->second;
            if (!writer.isKilled) {
                EXPECT_EQ(outcomes.size(), static_cast<std::size_t>(count));
            }
            std::size_t next = 0;
            for (int number = 0; number < static_cast<int>(outcomes.size()); ++number) {
                const bool isThere = next < numbers.size() && numbers[next] == number;
                next += isThere;
                lost += !isThere;
                m_acknowledged += outcomes[static_cast<std::size_t>(number)] == '+';
                m_missing += !isThere && outcomes[static_cast<std::size_t>(number)] == '+';
                EXPECT_TRUE(isThere || outcomes[static_cast<std::size_t>(number)] == '?') << number;
            }
            EXPECT_LE(numbers.size(), next + writer.isKilled) << "twice, or out of order";
            m_found += static_cast<int>(numbers.size());
        }
        return lost;
    }

    // In memory where there is such a place: what a killed process leaves behind does not depend on the disk.
    const EnvironmentVariable m_place{L"TMPDIR", fs::exists("/dev/shm") ? L"/dev/shm" : nullptr};
    const LogFolder m_folder;
    fs::path m_pass;
    int m_passes = 0, m_writers = 0;
    int m_acknowledged = 0, m_found = 0, m_missing = 0, m_torn = 0, m_lost = 0, m_killed = 0;
};

void LogStress::KillWritersAndExpectAllRecords() {
    m_pass = m_folder / ("pass" + std::to_string(m_passes++));
    fs::create_directory(m_pass);
    const bool isSlow = OnWine();  // at starting processes
    const int processes = isSlow ? 4 : 16, count = isSlow ? 50 : 1000, rounds = isSlow ? 5 : 20;
    std::vector<Writer> running, ended;
    for (int i = 0; i < processes; ++i)
        running.push_back(NewWriter(count));
    for (int round = 0; round < rounds; ++round) {
        Sleep(100);
        for (int i = 0; i < 2; ++i) {
            Writer& victim = running[static_cast<std::size_t>((round * 2 + i) % processes)];
            victim.process->Kill();
            victim.isKilled = true;
            ended.push_back(std::move(victim));
            victim = NewWriter(count);
        }
    }
    for (Writer& writer : running) {
        EXPECT_EQ(writer.process->ExitCode(), 0);
        ended.push_back(std::move(writer));
    }

    const Found found = ReadLog(LinesOf(ReadBytes(m_pass / "App.tlg")));
    int lost = 0, lostByKilled = 0;
    for (const Writer& writer : ended)
        (writer.isKilled ? lostByKilled : lost) += ExpectAllOf(writer, found, count);
    EXPECT_GE(found.told, lost) << "each of them was told";
    const int killedUnheard =
        rounds * 2 * ThreadsOfOne;  // told by another thread before they were noted down
    EXPECT_LE(found.told, lost + lostByKilled + killedUnheard) << "and told once";
    EXPECT_LE(found.torn, rounds * 2) << "at most one of each killed process";
    m_torn += found.torn;
    m_lost += lost + lostByKilled;
    m_killed += rounds * 2;
    fs::remove_all(m_pass);
}

// Once, or again and again for as many seconds as the environment variable TQ_STRESS_SECONDS says.
TEST_F(LogStress, EveryAcknowledgedRecordIsThereOnceAndWhole) {
    const char* const seconds = std::getenv("TQ_STRESS_SECONDS");
    const ULONGLONG end = GetTickCount64() + (seconds ? 1000 * std::strtoull(seconds, nullptr, 10) : 0);
    do
        KillWritersAndExpectAllRecords();
    while (GetTickCount64() < end && !HasFailure());
    std::printf("%d acknowledged, %d found, %d missing, %d torn of %d killed writers, %d lost\n",
                m_acknowledged, m_found, m_missing, m_torn, m_killed, m_lost);
}

// Opens the log when its input ends, writes one record and says whether it could.
const Role g_opener("open-log", [](const RoleArguments& arguments) {
    std::getchar();
    // The turn is the file's: it is no matter where the processes keep their state.
    SetEnvironmentVariableW(L"TQLIB_ROOT", TQString::FromUtf8(arguments.at(0) + arguments.at(1)).c_str());
    const TQLogPtr log = Open(arguments.at(0), 1000);
    log->AddMsg(TQString::FromUtf8("from " + arguments.at(1)).c_str(), TQLogLevel::Trace);
    return log->Size() > 0 ? 0 : 1;
});

TEST_F(LogStress, OneOfManyThatOpenALogRollsItOver) {
    constexpr int Openers = 8, Rounds = 10;
    for (int round = 0; round < Rounds; ++round) {
        const fs::path path = m_folder / ("Round" + std::to_string(round) + ".tlg");
        const fs::path backup = m_folder / ("Round" + std::to_string(round) + "_bak.tlg");
        WriteBytes(path, std::string(998, 'x') + "\r\n");
        std::vector<std::unique_ptr<RoleProcess>> openers;
        for (int i = 0; i < Openers; ++i)
            openers.push_back(std::make_unique<RoleProcess>(
                "open-log", RoleArguments{path.string(), std::to_string(i)}, ChildProcess::Files::Piped));
        for (const auto& opener : openers)
            opener->CloseInput();
        for (const auto& opener : openers)
            EXPECT_EQ(opener->ExitCode(), 0);
        EXPECT_EQ(fs::file_size(backup), 1000u);
        std::set<std::string> messages;
        const std::vector<std::string> lines = LinesOf(ReadBytes(path));
        for (std::size_t i = 1; i < lines.size(); i += 2)
            messages.insert(lines[i]);
        EXPECT_EQ(messages.size(), std::size_t{Openers});
        EXPECT_EQ(lines.size(), 2u * Openers);
    }
}

}  // namespace
}  // namespace Quellan::Corvel::Test
