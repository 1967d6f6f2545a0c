#include "log/Cases.h"
#include "log/Writers.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace Quellan::Corvel::Bench {

namespace {

namespace fs = std::filesystem;

constexpr const char* ProcessOption = "--write-records";

// A file for one contestant: on the disk that holds the current folder, or in memory.
class TemporaryFile {
  public:
    explicit TemporaryFile(bool inMemory)
        : m_path((inMemory ? fs::path("/dev/shm") : fs::current_path()) /
                 ("tqbench-" + std::to_string(getpid()) + "-" + std::to_string(s_count++) + ".tlg")) {}
    ~TemporaryFile() { fs::remove(m_path); }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    std::string Path() const { return m_path.string(); }

  private:
    static inline unsigned s_count = 0;
    const fs::path m_path;
};

class OneThread {
  public:
    OneThread(WriterKind kind, bool inMemory) : m_file(inMemory), m_writer(MakeWriter(kind, m_file.Path())) {}
    void operator()() { m_writer->Write(); }

  private:
    TemporaryFile m_file;
    std::unique_ptr<Writer> m_writer;
};

void WriteByThreads(Writer& writer, unsigned threads, std::size_t count, Setting setting) {
    std::atomic<std::size_t> left = count;
    std::vector<std::thread> running;
    for (unsigned i = 0; i < threads; ++i)
        running.emplace_back([&, i] {
            PlaceWorker(setting, i);
            for (std::size_t now = left; now != 0;)
                if (left.compare_exchange_weak(now, now - 1)) {
                    writer.Write();
                    now = left;
                }
        });
    for (std::thread& thread : running)
        thread.join();
}

// So many that starting threads and telling processes counts for nothing.
constexpr std::size_t RecordsOfOne = 1024;

Measurement ForOneRecord(Measurement all) {
    return {all.processor / RecordsOfOne, all.wall / RecordsOfOne, all.allocations / RecordsOfOne};
}

class ManyThreads {
  public:
    ManyThreads(WriterKind kind, bool inMemory, unsigned threads)
        : m_file(inMemory), m_writer(MakeWriter(kind, m_file.Path())), m_threads(threads) {
        m_writer->Write();
    }

    Measurement Measure(std::size_t count) {
        const Meter meter(Setting::AllCores);
        WriteByThreads(*m_writer, m_threads, count * RecordsOfOne, Setting::AllCores);
        return ForOneRecord(meter.Read());
    }

  private:
    TemporaryFile m_file;
    std::unique_ptr<Writer> m_writer;
    const unsigned m_threads;
};

// A process that opens the file, says so, and writes so many records as often as it is told to.
class WritingProcess {
  public:
    WritingProcess(WriterKind kind, const std::string& path, unsigned threads) {
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) std::abort();
        posix_spawn_file_actions_t files;
        posix_spawn_file_actions_init(&files);
        posix_spawn_file_actions_adddup2(&files, in[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&files, out[1], STDOUT_FILENO);
        std::string arguments[] = {"bench_log", ProcessOption, std::to_string(static_cast<int>(kind)), path,
                                   std::to_string(threads)};
        char* pointers[6] = {};
        for (int i = 0; i < 5; ++i)
            pointers[i] = arguments[i].data();
        if (posix_spawn(&m_process, "/proc/self/exe", &files, nullptr, pointers, environ) != 0) std::abort();
        posix_spawn_file_actions_destroy(&files);
        close(in[0]);
        close(out[1]);
        m_to = in[1];
        m_from = out[0];
        WaitUntilDone();
    }
    ~WritingProcess() {
        close(m_to);
        close(m_from);
        waitpid(m_process, nullptr, 0);
    }
    WritingProcess(const WritingProcess&) = delete;
    WritingProcess& operator=(const WritingProcess&) = delete;

    void Begin(std::size_t count) {
        if (write(m_to, &count, sizeof count) != sizeof count) std::abort();
    }
    void WaitUntilDone() {
        char done;
        if (read(m_from, &done, 1) != 1) std::abort();
    }

  private:
    pid_t m_process;
    int m_to;
    int m_from;
};

class ManyProcesses {
  public:
    ManyProcesses(WriterKind kind, bool inMemory, unsigned threads) : m_file(inMemory) {
        constexpr unsigned Processes = 4;
        for (unsigned i = 0; i < Processes; ++i)
            m_processes.push_back(std::make_unique<WritingProcess>(kind, m_file.Path(), threads));
    }

    Measurement Measure(std::size_t count) {
        const Meter meter(Setting::AllCores);
        for (const auto& process : m_processes)
            process->Begin(count * RecordsOfOne / m_processes.size());
        for (const auto& process : m_processes)
            process->WaitUntilDone();
        return ForOneRecord(meter.Read());
    }

  private:
    TemporaryFile m_file;
    std::vector<std::unique_ptr<WritingProcess>> m_processes;
};

void AddPlace(Contest& contest, const std::string& place, bool inMemory) {
    using enum WriterKind;
    for (const WriterKind kind : {Log, Bare, Spdlog})
        contest.AddMade<OneThread>(Setting::OneThread, "record, " + place, std::string(NameOf(kind)), kind,
                                   inMemory);
    for (const WriterKind kind : {Log, Spdlog})
        contest.AddMade<ManyThreads>(Setting::AllCores, "record, " + place + ", 16 threads",
                                     std::string(NameOf(kind)), kind, inMemory, 16u);
    // The first one is what the others are compared to: by one thread of each process, as the bare loop has.
    contest.AddMade<ManyProcesses>(Setting::AllCores, "record, " + place + ", 4 processes",
                                   "TQLog, 4 threads each", Log, inMemory, 4u);
    contest.AddMade<ManyProcesses>(Setting::AllCores, "record, " + place + ", 4 processes",
                                   std::string(NameOf(Bare)), Bare, inMemory, 1u);
}

}  // namespace

bool RunWritingProcess(int argc, char** argv) {
    if (argc != 5 || std::string_view(argv[1]) != ProcessOption) return false;
    const auto writer = MakeWriter(static_cast<WriterKind>(std::atoi(argv[2])), argv[3]);
    const auto threads = static_cast<unsigned>(std::atoi(argv[4]));
    std::size_t count = 1;
    do
        WriteByThreads(*writer, threads, count, Setting::OneCore);
    while (write(STDOUT_FILENO, "+", 1) == 1 && read(STDIN_FILENO, &count, sizeof count) == sizeof count);
    return true;
}

void AddRecords(Contest& contest) {
    AddPlace(contest, "on disk", false);
    AddPlace(contest, "in memory", true);
}

}  // namespace Quellan::Corvel::Bench
