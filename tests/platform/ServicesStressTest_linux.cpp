// Many services, many clients, and services and the manager killed meanwhile, while the disk fills and
// empties, the journal is damaged between two managers and some clients take no answers. Every status that is
// seen must be one that was true, no question may wait longer than the manager's limit, and nothing may be
// left over.
#include "RawServiceHandle_linux.h"
#include "ServicesTest.h"
#include "ServicesTestProgram.h"
#include "support/PrivateManager_linux.h"
#include "support/Worker.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <random>
#include <sstream>
#include <sys/mount.h>

namespace Quellan::Corvel::Test {
namespace {

// A small disk of the test's own, where it may have one: temporary folders that are made while it lives lie
// there.
class SmallDisk {
  public:
    SmallDisk() {
        m_isMounted = geteuid() == 0 && mount("none", m_path.c_str(), "tmpfs", 0, "size=4m,mode=755") == 0;
        if (m_isMounted) m_temporary.emplace(L"TMPDIR", (m_folder.Path() + L"/").c_str());
    }
    ~SmallDisk() {
        if (m_isMounted) umount2(m_path.c_str(), MNT_DETACH);
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    bool IsThere() const { return m_isMounted; }
    void Fill() const {
        std::ofstream file(m_path + "/fill", std::ios::binary);
        const std::string block(4096, 'x');
        while (file.write(block.data(), 4096).flush()) {
        }
    }
    void Empty() const { std::filesystem::remove(m_path + "/fill"); }

  private:
    const TemporaryFolder m_folder;
    const std::string m_path = std::filesystem::path(m_folder.Path()).string();
    bool m_isMounted = false;
    std::optional<EnvironmentVariable> m_temporary;
};

unsigned NumberIn(const char* variable, unsigned otherwise) {
    const char* const text = std::getenv(variable);
    return text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

constexpr int Clients = 8;

// The manager's limit, and how long a question may take with it: up to three limits, and what the processes
// of an earlier manager are waited for; and what a loaded machine takes.
constexpr DWORD RequestLimitMs = 5000;
constexpr ULONGLONG LongestQuestionMs = 4 * RequestLimitMs + ServiceLimitMs;

// Exit codes may be lost with the journal; states may not.
std::atomic<bool> g_areCodesLost{false};
// Without some of them from each manager, a slow machine would come to nothing.
std::atomic<unsigned> g_answers{0};

// Asks, and sees to it that the answer comes in time.
template <class Question>
DWORD InTime(Question question) {
    const ULONGLONG begin = GetTickCount64();
    const DWORD code = question();
    EXPECT_LT(GetTickCount64() - begin, LongestQuestionMs);
    return code;
}

// As a disk that fails or somebody who clears up may.
void Damage(const std::string& journal, std::mt19937& random) {
    g_areCodesLost = true;
    std::error_code error;
    const auto size = std::filesystem::file_size(journal, error);
    if (error || size == 0 || random() % 4 == 0) {
        std::filesystem::remove(journal, error);
        return;
    }
    std::fstream file(journal, std::ios::binary | std::ios::in | std::ios::out);
    for (unsigned i = 0; i <= random() % 8; ++i)
        file.seekp(static_cast<std::streamoff>(random() % size)).put(static_cast<char>(random()));
}

// Of this test's services. A process may end while it is looked at.
std::size_t CountProcesses(const std::string& argument) {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::ostringstream line;
        line << std::ifstream(entry.path() / "cmdline", std::ios::binary).rdbuf();
        count += line.str().find(argument) != std::string::npos;
    }
    return count;
}

// A service as the one client knows it that starts and stops it.
class Watched {
  public:
    explicit Watched(std::wstring name) : m_name(std::move(name)) { Reopen(); }

    // Starts it when it is stopped, stops it when it runs.
    void Toggle() {
        Check();
        const bool isRunning = m_isRunning;
        const DWORD code =
            InTime([&] { return isRunning ? Control(m_service, SERVICE_CONTROL_STOP) : Start(m_service); });
        if (code == 0) {
            m_isRunning = !isRunning;
            return Settle(false);
        }
        const bool isManagerGone = code == RPC_S_SERVER_UNAVAILABLE;
        const bool wasServiceGone =
            m_wasKilled && (code == ERROR_PROCESS_ABORTED || code == ERROR_SERVICE_NOT_ACTIVE);
        EXPECT_TRUE(isManagerGone || wasServiceGone) << code;
        Settle(true);
    }
    // In the end.
    void Stop() {
        Check();
        // Once more where the manager that was asked had been killed.
        for (int i = 0; m_isRunning && i < 10; ++i)
            Toggle();
        Check();
        EXPECT_FALSE(m_isRunning);
    }
    // Whether the system has the processes of it that it should have, once those that end have ended.
    bool RunsOnceOrNot() {
        Check();
        const std::string argument(m_name.begin(), m_name.end());
        const std::size_t right = m_isRunning ? 1 : 0;
        return Eventually([&] { return CountProcesses(argument + '\0') == right; });
    }
    // By another thread. It runs on unless there is a process now.
    void Kill() {
        const std::scoped_lock lock(m_lock);
        if (!m_process) return;
        m_wasKilled = true;
        kill(static_cast<pid_t>(m_process.exchange(0)), SIGKILL);
    }

  private:
    void Reopen() {
        const ULONGLONG end = GetTickCount64() + ServiceLimitMs;
        m_service.reset();
        while (!m_service && GetTickCount64() < end) {
            if (const OwnedService manager = OpenManager(SC_MANAGER_CONNECT))
                m_service.reset(OpenServiceW(manager.get(), m_name.c_str(), SERVICE_ALL_ACCESS));
            EXPECT_TRUE(m_service || GetLastError() == RPC_S_SERVER_UNAVAILABLE) << GetLastError();
        }
        EXPECT_TRUE(m_service);
    }
    SERVICE_STATUS_PROCESS Query() {
        SERVICE_STATUS_PROCESS status{};
        DWORD needed = 0;
        for (int i = 0; i < 100; ++i) {
            const DWORD code = InTime([&] {
                return CodeOf(QueryServiceStatusEx(m_service.get(), SC_STATUS_PROCESS_INFO,
                                                   reinterpret_cast<BYTE*>(&status), sizeof status, &needed));
            });
            if (!code) {
                ++g_answers;
                return status;
            }
            EXPECT_EQ(code, RPC_S_SERVER_UNAVAILABLE);
            Reopen();
        }
        ADD_FAILURE() << "no manager stays";
        return status;
    }
    // The end of what is under way. `isOpen`: whether it was done or not is not known.
    void Settle(bool isOpen) {
        SERVICE_STATUS_PROCESS status{};
        EXPECT_TRUE(Eventually([&] {
            status = Query();
            if (status.dwCurrentState == SERVICE_RUNNING || status.dwCurrentState == SERVICE_STOPPED)
                return true;
            EXPECT_TRUE(m_isRunning || isOpen || status.dwCurrentState == SERVICE_STOP_PENDING);
            return false;
        })) << "it stays at "
            << status.dwCurrentState;
        if (isOpen) m_isRunning = status.dwCurrentState == SERVICE_RUNNING;
        CheckAgainst(status);
        const std::scoped_lock lock(m_lock);
        m_process = m_isRunning ? status.dwProcessId : 0;
    }
    void Check() {
        const SERVICE_STATUS_PROCESS status = Query();
        if (m_isRunning && m_wasKilled) return Settle(true);
        CheckAgainst(status);
        EXPECT_TRUE(!m_isRunning || status.dwProcessId == m_process || m_wasKilled);
    }
    void CheckAgainst(const SERVICE_STATUS_PROCESS& status) {
        const bool isRunning = status.dwCurrentState == SERVICE_RUNNING;
        if (m_isRunning && !isRunning) {
            EXPECT_TRUE(m_wasKilled) << "state " << status.dwCurrentState << ", exit code "
                                     << status.dwWin32ExitCode;
            EXPECT_TRUE(status.dwWin32ExitCode == ERROR_PROCESS_ABORTED || g_areCodesLost);
            m_isRunning = false;
        } else {
            EXPECT_EQ(isRunning, m_isRunning) << "state " << status.dwCurrentState;
        }
        EXPECT_TRUE(!isRunning || m_wasKilled || kill(static_cast<pid_t>(status.dwProcessId), 0) == 0);
        if (!isRunning) {
            const bool wasNeverStarted = status.dwWin32ExitCode == ERROR_SERVICE_NEVER_STARTED;
            EXPECT_TRUE(status.dwWin32ExitCode == 0 || wasNeverStarted || m_wasKilled ||
                        status.dwWin32ExitCode == ERROR_PROCESS_ABORTED)
                << status.dwWin32ExitCode;
            EXPECT_EQ(status.dwProcessId, 0u);
            m_wasKilled = false;
        }
    }

    const std::wstring m_name;
    OwnedService m_service;
    bool m_isRunning = false;
    std::mutex m_lock;
    std::atomic<DWORD> m_process{0};  // for who kills it
    std::atomic<bool> m_wasKilled{false};
};

std::size_t DescriptorsOf(DWORD process) {
    const std::filesystem::directory_iterator files("/proc/" + std::to_string(process) + "/fd");
    return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

TEST(ServicesStress, SeesOnlyWhatIsTrueAndLeavesNothing) {
    const unsigned count = NumberIn("TQ_STRESS_SERVICES", 24), rounds = NumberIn("TQ_STRESS_ROUNDS", 4);
    const SmallDisk disk;
    PrivateManager manager({"--request-limit", std::to_string(RequestLimitMs)});
    const std::wstring mark = L"stress-" + std::to_wstring(GetCurrentProcessId());
    std::vector<std::unique_ptr<Watched>> services;
    for (unsigned i = 0; i < count; ++i) {
        ServiceRecord record{.name = mark + L'-' + std::to_wstring(i)};
        record.commandLine += L' ' + record.name;
        ASSERT_TRUE(Create(record)) << GetLastError();
        services.push_back(std::make_unique<Watched>(record.name));
    }
    std::atomic<int> working{Clients};
    {
        std::vector<std::unique_ptr<Worker>> workers;
        for (unsigned client = 0; client < Clients; ++client)
            workers.push_back(std::make_unique<Worker>([&, client] {
                std::mt19937 random(client);
                const unsigned own = count / Clients;
                for (unsigned i = 0; i < 2 * rounds * own; ++i)
                    services[client * own + random() % own]->Toggle();
                --working;
            }));
        std::mt19937 random(Clients);
        std::optional<RawServiceHandle> deaf;
        unsigned steps = 0, answers = 0;
        for (unsigned lives = 0; working > 0;) {
            Sleep(20);
            services[random() % count]->Kill();
            if (deaf)
                for (int asked = 0; asked < 50; ++asked)
                    deaf->Say(Platform::EnumServicesMessage{SERVICE_WIN32, SERVICE_STATE_ALL, {}, {}});
            if (++steps < 8 || g_answers - answers < Clients) continue;
            ++lives;
            if (disk.IsThere() && lives % 3 == 0) {
                g_areCodesLost = true;  // where the manager is killed before there is room again
                disk.Fill();
            } else if (disk.IsThere() && lives % 3 == 2) {
                disk.Empty();
            }
            manager.Kill();
            if (lives % 4 == 0) Damage(manager.Socket() + ".journal", random);
            manager.Start();
            deaf.emplace(manager.Socket());
            steps = 0;
            answers = g_answers;
        }
        if (disk.IsThere()) disk.Empty();
        for (const auto& worker : workers)
            worker->Join();
    }
    // None runs twice, and none that is not known.
    for (const auto& service : services)
        EXPECT_TRUE(service->RunsOnceOrNot());
    for (const auto& service : services)
        service->Stop();
    services.clear();
    // epoll, lock, journal, listener, signals, standard files; what was closed is seen some time.
    EXPECT_TRUE(Eventually([&] { return DescriptorsOf(manager.Id()) < 20; }));
    for (unsigned i = 0; i < count; ++i)
        EXPECT_TRUE(DeleteService(OpenNamed(mark + L'-' + std::to_wstring(i)).get()));
    DWORD needed = 0, left = 1, resume = 0;
    EXPECT_TRUE(EnumServicesStatusW(OpenManager().get(), SERVICE_WIN32, SERVICE_STATE_ALL, nullptr, 0,
                                    &needed, &left, &resume));
    const std::string argument(mark.begin(), mark.end());
    EXPECT_TRUE(Eventually([&] { return CountProcesses(argument) == 0; }));
}

}  // namespace
}  // namespace Quellan::Corvel::Test
