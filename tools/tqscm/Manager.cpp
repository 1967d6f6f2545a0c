#include "Manager.h"

#include "Launch.h"
#include "Print.h"
#include "TQLib/platform/linux/services/ServiceSocket.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <system_error>

namespace tqscm {

namespace {

// After which connections are taken again when there were no descriptors for them.
constexpr std::chrono::milliseconds FullPause{100};
// After which the journal is tried again when it could not be written.
constexpr std::chrono::seconds JournalPause{1};

[[noreturn]] void Refuse(int error, const std::string& what) {
    throw std::system_error(error, std::generic_category(), what);
}

// The socket's folder, made where it is missing. Nobody else may be able to write in it.
void CheckFolder(const std::string& socket) {
    if (!socket.starts_with('/')) Refuse(EINVAL, socket);
    for (std::size_t slash = socket.find('/', 1); slash != socket.npos; slash = socket.find('/', slash + 1))
        mkdir(socket.substr(0, slash).c_str(), 0755);
    const std::string folder = socket.substr(0, std::max<std::size_t>(socket.rfind('/'), 1));
    struct stat info;
    if (stat(folder.c_str(), &info) != 0) Refuse(errno, folder);
    const bool isOwn = info.st_uid == geteuid() || info.st_uid == 0;
    if (!isOwn || (info.st_mode & (S_IWGRP | S_IWOTH))) Refuse(EPERM, folder);
}

// One manager a socket. The lock goes with the process.
Descriptor TakeLock(const std::string& socket) {
    CheckFolder(socket);
    const std::string path = socket + ".lock";
    Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    struct flock lock {};
    lock.l_type = F_WRLCK;
    if (!file || fcntl(file.Get(), F_SETLK, &lock) != 0) Refuse(errno, path);
    return file;
}

}  // namespace

// Those who connect. Where there are no descriptors or memory for them they wait.
class Manager::Listener : public Source {
  public:
    explicit Listener(Manager& manager) : m_manager(manager), m_pause(manager.m_loop) {
        if (ListenAsServiceManager(manager.m_settings.socket, m_socket))
            Refuse(errno, manager.m_settings.socket);
    }
    int Fd() const { return m_socket.Get(); }
    void OnReady(unsigned) override {
        Descriptor connection(accept4(m_socket.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!connection && (errno == EAGAIN || errno == ECONNABORTED || errno == EINTR)) return;
        if (!connection) return Pause(errno);
        try {
            m_manager.m_requests.OnConnection(std::move(connection));
            m_wasTold = false;
        } catch (const std::system_error& failure) {
            Pause(failure.code().value());
        }
    }

  private:
    void Pause(int error) {
        if (!std::exchange(m_wasTold, true)) Print("who connects has to wait: %s", std::strerror(error));
        m_manager.m_loop.Change(m_socket.Get(), 0, *this);
        m_pause.Set(FullPause, [this] { m_manager.m_loop.Change(m_socket.Get(), EPOLLIN, *this); });
    }

    Manager& m_manager;
    Descriptor m_socket;
    Timer m_pause;
    bool m_wasTold = false;
};

class Manager::Signals : public Source {
  public:
    explicit Signals(Manager& manager) : m_manager(manager) {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        sigaddset(&signals, SIGINT);
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        m_signals = Descriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
        if (!m_signals) Refuse(errno, "signalfd");
    }
    int Fd() const { return m_signals.Get(); }
    void OnReady(unsigned) override {
        signalfd_siginfo info;
        if (read(m_signals.Get(), &info, sizeof info) == sizeof info) m_manager.m_supervisor.BeginEnd();
    }

  private:
    Manager& m_manager;
    Descriptor m_signals;
};

Manager::Manager(Settings settings)
    : m_settings(std::move(settings)),
      m_lock(TakeLock(m_settings.socket)),
      m_journal(m_settings.socket + ".journal", m_lock.Get()) {
    AllowManyDescriptors();
    m_records.Load();
    m_supervisor.WhenBegun([this] { m_requests.OnBegun(); });
    m_supervisor.WhenSeen([this](const Service& service) { m_requests.OnSeen(service); });
    m_supervisor.WhenUnused([this](Service& service) { m_records.Delete(service); });
    auto signals = std::make_unique<Signals>(*this);
    auto listener = std::make_unique<Listener>(*this);
    const int signalsFd = signals->Fd(), listenerFd = listener->Fd();
    m_loop.Watch(signalsFd, EPOLLIN, std::move(signals));
    m_loop.Watch(listenerFd, EPOLLIN, std::move(listener));
}

void Manager::Run() {
    m_supervisor.Begin();
    for (GoOn(); !m_supervisor.HaveEnded(); GoOn())
        m_loop.RunOnce();
    unlink(m_settings.socket.c_str());
    // What could not be ended is left to the next one.
    if (m_supervisor.AreAllStopped()) m_journal.Delete();
}

// Between two turns of the loop.
void Manager::GoOn() {
    try {
        m_supervisor.GoOn();
    } catch (const std::exception& failure) {
        Print("something was not done: %s", failure.what());
    }
    if (m_journal.IsBehind() && !m_journalAgain.IsSet())
        m_journalAgain.Set(JournalPause, [this] { m_journal.TryAgain(); });
}

}  // namespace tqscm
