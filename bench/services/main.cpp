// The service framework with its manager beside a bare socket and a bare process: controls, status, starts;
// and how long the list of many services takes.
#include "platform/Win32.h"
#include "services/Site.h"
#include "support/Bench.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <sched.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/wait.h>
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

class Listing {
  public:
    Listing() {
        TheSite();
        for (unsigned i = 0; i < ManyServices; ++i)
            m_services.push_back(Site::Install(TQString::Format(L"Bench%u", i).c_str()));
        std::printf("tqscm has %ld KiB of memory with %u services\n", TheSite().ManagerKiB(), ManyServices);
    }
    Listing(const Listing&) = delete;
    Listing& operator=(const Listing&) = delete;
    ~Listing() {
        for (const TQSvcHandle& service : m_services)
            DeleteService(service.Get());
    }
    void operator()() {
        Check(TQServiceCtrl::ServiceList(ServiceListType::Services).Count() >= ManyServices);
    }

  private:
    std::vector<TQSvcHandle> m_services;
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
    contest.AddMade<Listing>(Setting::OneCore, "list 1,000 services", "library");
    return contest.Run(argc, argv);
}
