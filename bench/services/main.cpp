// The service framework with its manager beside a bare socket, a bare process and a bare file: controls, status,
// starts, installing; and what many services cost.
#include "TQLib/platform/Win32.h"
#include "services/Site.h"
#include "support/Bench.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sched.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace Quellan::Corvel::Bench {
namespace {

constexpr unsigned ManyServices = 1'000;
constexpr const char* FirstLine = "first line\n";

void Check(bool isGood) {
    if (isGood) return;
    std::fprintf(stderr, "A call failed with %u.\n", GetLastError());
    std::abort();
}

// One site for all cases: made on the core that is measured.
Site& TheSite() {
    static Site site;
    return site;
}

void AwaitState(const TQSvcHandle& service, DWORD state) {
    SERVICE_STATUS status;
    for (;; sched_yield()) {
        Check(QueryServiceStatus(service.Get(), &status));
        if (status.dwCurrentState == state) return;
    }
}

// A service that runs while it lives.
class RunningService {
  public:
    RunningService() : m_service((TheSite(), Site::Install(L"Bench"))) {
        Check(StartServiceW(m_service.Get(), 0, nullptr));
        AwaitState(m_service, SERVICE_RUNNING);
    }
    RunningService(const RunningService&) = delete;
    RunningService& operator=(const RunningService&) = delete;
    ~RunningService() {
        SERVICE_STATUS status;
        ControlService(m_service.Get(), SERVICE_CONTROL_STOP, &status);
        AwaitState(m_service, SERVICE_STOPPED);
        DeleteService(m_service.Get());
    }
    SC_HANDLE Get() const { return m_service.Get(); }

  private:
    TQSvcHandle m_service;
};

// To the handler and back; the one for `Interrogate` reports the status on the way.
template <DWORD Code>
class Control {
  public:
    void operator()() {
        SERVICE_STATUS status;
        Check(ControlService(m_service.Get(), Code, &status));
    }

  private:
    RunningService m_service;
};

class StatusQuery {
  public:
    void operator()() {
        SERVICE_STATUS status;
        Check(QueryServiceStatus(m_service.Get(), &status));
    }

  private:
    RunningService m_service;
};

// A packet of a status's size to another process and back.
class PingPong {
  public:
    PingPong() {
        Check(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, m_ends.data()) == 0);
        m_child = fork();
        if (m_child == 0) {
            close(m_ends[0]);
            while (recv(m_ends[1], m_packet.data(), m_packet.size(), 0) > 0)
                send(m_ends[1], m_packet.data(), m_packet.size(), 0);
            _exit(0);
        }
        close(m_ends[1]);
    }
    PingPong(const PingPong&) = delete;
    PingPong& operator=(const PingPong&) = delete;
    ~PingPong() {
        close(m_ends[0]);
        waitpid(m_child, nullptr, 0);
    }
    void operator()() {
        send(m_ends[0], m_packet.data(), m_packet.size(), 0);
        recv(m_ends[0], m_packet.data(), m_packet.size(), 0);
    }

  private:
    std::array<int, 2> m_ends{};
    std::array<char, sizeof(SERVICE_STATUS)> m_packet{};
    pid_t m_child = -1;
};

// Sums what `step` takes over and over, without what `undo` does after each.
template <class Step, class Undo>
Measurement SumOf(std::size_t count, Step step, Undo undo) {
    Measurement sum;
    for (; count != 0; --count) {
        const Meter meter(Setting::OneCore);
        step();
        const Measurement one = meter.Read();
        sum.processor += one.processor;
        sum.wall += one.wall;
        sum.allocations += one.allocations;
        undo();
    }
    return sum;
}

class ServiceStart {
  public:
    ServiceStart() : m_service((TheSite(), Site::Install(L"Bench"))) {}
    ServiceStart(const ServiceStart&) = delete;
    ServiceStart& operator=(const ServiceStart&) = delete;
    ~ServiceStart() { DeleteService(m_service.Get()); }

    void operator()() {
        Check(StartServiceW(m_service.Get(), 0, nullptr));
        AwaitState(m_service, SERVICE_RUNNING);
    }
    Measurement Measure(std::size_t count) {
        return SumOf(
            count, [this] { (*this)(); },
            [this] {
                SERVICE_STATUS status;
                Check(ControlService(m_service.Get(), SERVICE_CONTROL_STOP, &status));
                AwaitState(m_service, SERVICE_STOPPED);
            });
    }

  private:
    TQSvcHandle m_service;
};

// The same program, up to the first line that it prints.
class BareStart {
  public:
    void operator()() {
        std::array<int, 2> ends{};
        Check(pipe(ends.data()) == 0);
        m_child = Spawn({ProgramPath(""), "--line"}, ends[1]);
        close(ends[1]);
        std::array<char, 32> line;
        Check(read(ends[0], line.data(), line.size()) > 0);
        close(ends[0]);
    }
    Measurement Measure(std::size_t count) {
        return SumOf(
            count, [this] { (*this)(); }, [this] { waitpid(m_child, nullptr, 0); });
    }

  private:
    pid_t m_child = -1;
};

class Installing {
  public:
    Installing() { TheSite(); }
    Installing(const Installing&) = delete;
    Installing& operator=(const Installing&) = delete;
    ~Installing() {
        for (const TQSvcHandle& service : m_services)
            DeleteService(service.Get());
    }
    void operator()() {
        m_services.push_back(Site::Install(TQString::Format(L"Bench%zu", m_services.size()).c_str()));
    }

  private:
    std::vector<TQSvcHandle> m_services;
};

// What one change needs that is to last.
class LastingFile {
  public:
    LastingFile() : m_folder(open(TheSite().Folder().c_str(), O_RDONLY | O_DIRECTORY)) {}
    LastingFile(const LastingFile&) = delete;
    LastingFile& operator=(const LastingFile&) = delete;
    ~LastingFile() { close(m_folder); }
    void operator()() {
        const int file = openat(m_folder, "new", O_WRONLY | O_CREAT, 0600);
        Check(write(file, FirstLine, 10) == 10 && fsync(file) == 0 && close(file) == 0);
        const std::string name = "file" + std::to_string(m_count++);
        Check(renameat(m_folder, "new", m_folder, name.c_str()) == 0 && fsync(m_folder) == 0);
    }

  private:
    const int m_folder;
    unsigned m_count = 0;
};

class Listing {
  public:
    Listing() {
        const RunningService other;
        std::atomic<bool> isOver = false;
        const auto begin = std::chrono::steady_clock::now();
        std::jthread installs([&] {
            for (unsigned i = 0; i < ManyServices; ++i)
                m_installing();
            isOver = true;
        });
        double longest = 0;
        while (!isOver) {
            SERVICE_STATUS status;
            const auto asked = std::chrono::steady_clock::now();
            Check(ControlService(other.Get(), SERVICE_CONTROL_PARAMCHANGE, &status));
            longest = std::max(longest, SecondsSince(asked));
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        std::printf("%u services installed in %.2f s; a control meanwhile took %.1f ms at most\n",
                    ManyServices, SecondsSince(begin), longest * 1000);
        const long before = TheSite().ManagerWakeUps();
        std::this_thread::sleep_for(std::chrono::seconds(2));
        std::printf("tqscm has %ld KiB of memory with them, and woke up %ld times in 2 s\n",
                    TheSite().ManagerKiB(), TheSite().ManagerWakeUps() - before);
    }
    void operator()() {
        Check(TQServiceCtrl::ServiceList(ServiceListType::Services).Count() >= ManyServices);
    }

  private:
    static double SecondsSince(std::chrono::steady_clock::time_point begin) {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    }

    Installing m_installing;
};

}  // namespace
}  // namespace Quellan::Corvel::Bench

int main(int argc, char** argv) {
    using namespace Quellan::Corvel::Bench;
    const std::string_view option = argc > 1 ? argv[1] : "";
    if (option == "--service") return RunAsService();
    if (option == "--line") return std::fputs(FirstLine, stdout), 0;
    Contest contest;
    contest.AddMade<Control<SERVICE_CONTROL_PARAMCHANGE>>(Setting::OneCore, "control to a handler and back",
                                                          "library");
    contest.AddMade<PingPong>(Setting::OneCore, "control to a handler and back", "socket ping-pong");
    contest.AddMade<Control<SERVICE_CONTROL_INTERROGATE>>(Setting::OneCore, "control that reports the status",
                                                          "library");
    contest.AddMade<PingPong>(Setting::OneCore, "control that reports the status", "socket ping-pong");
    contest.AddMade<StatusQuery>(Setting::OneCore, "ask for a status", "library");
    contest.AddMade<PingPong>(Setting::OneCore, "ask for a status", "socket ping-pong");
    contest.AddMade<ServiceStart>(Setting::OneCore, "start until it runs", "library");
    contest.AddMade<BareStart>(Setting::OneCore, "start until it runs", "posix_spawn, first line");
    contest.AddMade<Installing>(Setting::OneCore, "install a service", "library");
    contest.AddMade<LastingFile>(Setting::OneCore, "install a service", "one synced file");
    contest.AddMade<Listing>(Setting::OneCore, "list 1,000 services", "library");
    return contest.Run(argc, argv);
}
