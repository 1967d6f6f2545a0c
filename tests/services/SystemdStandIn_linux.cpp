// systemd_standin UNIT [SPEED]
//
// Runs one unit of the kind "notify" as systemd does: its states, its words, its time-outs and when it starts a
// unit again (sd_notify(3), systemd.service(5)), and prints what happens, a line each. Its clock runs SPEED
// times as fast as the real one, so that a time-out of a minute and a half need not be waited for.
//
// Commands on the standard input, one a line: "stop" and "reload" as systemctl's. It ends when the unit does
// and is not started again, or with its input, at which it stops the unit: 0 where that ended well, else 1; 2
// for a unit that it does not understand.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iomanip>
#include <map>
#include <optional>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;

__attribute__((format(printf, 1, 2))) void Say(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
    std::putchar('\n');
    std::fflush(stdout);
}

double NumberIn(const std::string& text) {
    std::size_t size = 0;
    const double number = std::stod(text, &size);
    if (size != text.size()) throw std::invalid_argument("no number: " + text);
    return number;
}

// What the file says, by its keys.
class Unit {
  public:
    explicit Unit(const char* path) {
        static constexpr const char* Known[] = {
            "Description", "Requires",        "After",          "StartLimitIntervalSec",
            "Type",        "NotifyAccess",    "ExecStart",      "ExecReload",
            "KillMode",    "TimeoutStartSec", "TimeoutStopSec", "User",
            "WatchdogSec", "Restart",         "RestartSec",     "WantedBy"};
        std::ifstream file(path);
        if (!file) throw std::invalid_argument(std::string("no such file: ") + path);
        for (std::string line; std::getline(file, line);) {
            if (line.empty() || line[0] == '[') continue;
            const std::size_t equals = line.find('=');
            const std::string key = line.substr(0, equals);
            if (equals == line.npos || std::ranges::count(Known, key) == 0)
                throw std::invalid_argument("not understood: " + line);
            m_values[key] = line.substr(equals + 1);
        }
        if (Value("Type") != "notify" || Value("NotifyAccess") != "main" || Value("KillMode") != "mixed")
            throw std::invalid_argument("no unit of the kind that is run here");
    }

    std::string Value(const std::string& key, const std::string& otherwise = {}) const {
        const auto found = m_values.find(key);
        return found == m_values.end() ? otherwise : found->second;
    }
    microseconds Time(const std::string& key, const char* otherwise) const {
        std::string text = Value(key, otherwise);
        double unit = 1e6;
        if (text.ends_with("ms")) {
            text.resize(text.size() - 2);
            unit = 1e3;
        }
        return microseconds(static_cast<std::int64_t>(NumberIn(text) * unit));
    }
    // The words of the command line, without quotation marks; of escapes and the like the units have none.
    std::vector<std::string> Command() const {
        std::istringstream line(Value("ExecStart"));
        std::vector<std::string> words;
        for (std::string word; line >> std::quoted(word, '"', '\0');)
            words.push_back(word);
        if (words.empty() || Value("ExecStart").find_first_of("\\%$") != std::string::npos)
            throw std::invalid_argument("no command that is understood: " + Value("ExecStart"));
        return words;
    }

  private:
    std::map<std::string, std::string> m_values;
};

class Manager {
  public:
    Manager(const Unit& unit, double speed) : m_unit(unit), m_speed(speed), m_command(unit.Command()) {}
    ~Manager() {
        close(m_socket);
        unlink(m_path.c_str());
    }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    bool Run() {
        Listen();
        Start();
        std::string input;
        bool hasInput = true;
        while (m_state != State::Ended) {
            auto next = m_deadline;
            if (m_watchdog && (!next || *m_watchdog < *next)) next = m_watchdog;
            int ms = -1;
            if (next)
                ms = static_cast<int>(std::max<std::int64_t>(
                    0, std::chrono::ceil<std::chrono::milliseconds>(*next - Clock::now()).count()));
            pollfd sources[] = {{.fd = m_socket, .events = POLLIN, .revents = 0},
                                {.fd = m_processFd, .events = POLLIN, .revents = 0},
                                {.fd = hasInput ? STDIN_FILENO : -1, .events = POLLIN, .revents = 0}};
            poll(sources, std::size(sources), ms);
            if (sources[0].revents) {
                OnMessage();
            } else if (sources[1].revents) {
                int status = 0;
                waitpid(m_process, &status, 0);
                OnEnd(status);
            } else if (sources[2].revents) {
                char bytes[256];
                const ssize_t size = read(STDIN_FILENO, bytes, sizeof bytes);
                hasInput = size > 0;
                if (!hasInput) Stop();
                input.append(bytes, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
                for (std::size_t end; (end = input.find('\n')) != input.npos; input.erase(0, end + 1))
                    OnCommand(input.substr(0, end));
            } else if (m_watchdog && *m_watchdog <= Clock::now()) {
                OnWatchdog();
            } else if (m_deadline && *m_deadline <= Clock::now()) {
                OnDeadline();
            }
        }
        return m_result == Success;
    }

  private:
    enum class State { Start, Running, Reload, StopSigterm, StopSigkill, AutoRestart, Ended };
    static constexpr const char* Success = "success";

    Clock::duration Scaled(microseconds time) const {
        return std::chrono::duration_cast<Clock::duration>(time / m_speed);
    }
    void Listen() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        m_path.copy(address.sun_path, sizeof address.sun_path - 1);
        m_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const int on = 1;
        unlink(m_path.c_str());
        if (bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            setsockopt(m_socket, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0)
            throw std::runtime_error("no socket");
    }

    void Go(State state, const char* name, const char* timeout = nullptr) {
        m_state = state;
        m_deadline.reset();
        if (timeout) m_deadline = Clock::now() + Scaled(m_unit.Time(timeout, "90"));
        Say("unit: %s", name);
    }

    // The first failure is the one that counts.
    void Fail(const char* result) {
        if (m_result == Success) m_result = result;
    }

    void Start() {
        m_result = Success;
        m_reloadAsked.reset();
        Go(State::Start, "start", "TimeoutStartSec");
        Spawn();
    }

    void Spawn() {
        const pid_t parent = getpid();
        std::vector<char*> words;
        for (const std::string& word : m_command)
            words.push_back(const_cast<char*>(word.c_str()));
        words.push_back(nullptr);
        setenv("NOTIFY_SOCKET", m_path.c_str(), 1);
        const auto watchdog =
            std::chrono::duration_cast<microseconds>(Scaled(m_unit.Time("WatchdogSec", "0")));
        if (watchdog.count()) setenv("WATCHDOG_USEC", std::to_string(watchdog.count()).c_str(), 1);
        m_process = fork();
        if (m_process == 0) {
            setsid();
            dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) _exit(203);
            if (watchdog.count()) setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
            execv(words[0], words.data());
            _exit(203);
        }
        m_processFd = static_cast<int>(syscall(SYS_pidfd_open, m_process, 0));
        if (m_process < 0 || m_processFd < 0) throw std::runtime_error("no process");
        Say("process: %d", m_process);
    }

    void Signal(int signal, State state, const char* name) {
        kill(m_process, signal);
        m_watchdog.reset();
        Go(state, name, "TimeoutStopSec");
    }

    void Stop() {
        m_isStopAsked = true;
        if (m_state == State::AutoRestart) Go(State::Ended, "dead");
        if (m_state == State::Start || m_state == State::Running || m_state == State::Reload)
            Signal(SIGTERM, State::StopSigterm, "stop-sigterm");
    }

    void OnMessage() {
        char bytes[4096];
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
        iovec part{bytes, sizeof bytes};
        msghdr header{};
        header.msg_iov = &part;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof control;
        const ssize_t size = recvmsg(m_socket, &header, 0);
        const cmsghdr* const first = CMSG_FIRSTHDR(&header);
        if (size <= 0 || !first) return;
        ucred sender{};
        std::copy_n(CMSG_DATA(first), sizeof sender, reinterpret_cast<unsigned char*>(&sender));
        const std::string text(bytes, static_cast<std::size_t>(size));
        // Anybody's: it waits for the end of the descriptor that came with it, for which there is no room here.
        if (text == "BARRIER=1") return;
        if (sender.pid != m_process) return Say("ignored: of process %d", sender.pid);
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            const std::size_t equals = std::min(line.find('='), line.size());
            if (!line.empty()) OnWord(line.substr(0, equals), line.substr(std::min(equals + 1, line.size())));
        }
    }

    void OnWord(const std::string& key, const std::string& value) {
        const auto now = Clock::now();
        if (key == "STATUS") {
            Say("status: %s", value.c_str());
        } else if (key == "ERRNO") {
            Say("errno: %d", static_cast<int>(NumberIn(value)));
        } else if (key == "MAINPID") {
            if (NumberIn(value) != m_process) Say("wrong: MAINPID=%s", value.c_str());
        } else if (key == "READY") {
            if (m_state != State::Start && m_state != State::Reload) return;
            Go(State::Running, "running");
            const auto watchdog = Scaled(m_unit.Time("WatchdogSec", "0"));
            if (watchdog > Clock::duration::zero()) m_watchdog = now + watchdog;
        } else if (key == "RELOADING") {
            if (m_state == State::Running) Go(State::Reload, "reload", "TimeoutStartSec");
        } else if (key == "MONOTONIC_USEC") {
            const microseconds stamp(static_cast<std::int64_t>(NumberIn(value)));
            const bool isGood = m_state == State::Reload && m_reloadAsked &&
                                stamp <= now.time_since_epoch() &&
                                stamp >= std::chrono::floor<microseconds>(m_reloadAsked->time_since_epoch());
            if (!isGood) Say("wrong: MONOTONIC_USEC=%s", value.c_str());
        } else if (key == "STOPPING") {
            if (m_state == State::Running || m_state == State::Reload)
                Go(State::StopSigterm, "stop-sigterm (by itself)", "TimeoutStopSec");
        } else if (key == "EXTEND_TIMEOUT_USEC") {
            const auto extended = now + Scaled(microseconds(static_cast<std::int64_t>(NumberIn(value))));
            if (m_deadline) m_deadline = std::max(*m_deadline, extended);
        } else if (key == "WATCHDOG") {
            if (m_watchdog) m_watchdog = now + Scaled(m_unit.Time("WatchdogSec", "0"));
        } else {
            Say("unknown: %s=%s", key.c_str(), value.c_str());
        }
    }

    void OnCommand(const std::string& command) {
        if (command == "stop") return Stop();
        if (command != "reload" || m_state != State::Running) return Say("refused: %s", command.c_str());
        m_reloadAsked = Clock::now();
        kill(m_process, SIGHUP);
    }

    void OnDeadline() {
        if (m_state == State::AutoRestart) return Start();
        Fail("timeout");
        Say("time-out");
        if (m_state == State::Start || m_state == State::Reload)
            Signal(SIGTERM, State::StopSigterm, "stop-sigterm");
        else
            Signal(SIGKILL, State::StopSigkill, "stop-sigkill");
    }

    void OnWatchdog() {
        Fail("watchdog");
        Signal(SIGABRT, State::StopSigterm, "stop-watchdog");
    }

    void OnEnd(int status) {
        close(std::exchange(m_processFd, -1));
        m_watchdog.reset();
        const int signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
        const bool isClean =
            signal ? signal == SIGHUP || signal == SIGINT || signal == SIGTERM || signal == SIGPIPE
                   : WEXITSTATUS(status) == 0;
        Say(signal ? "process: ended by signal %d" : "process: ended with status %d",
            signal ? signal : WEXITSTATUS(status));
        if (!isClean) Fail(signal ? "signal" : "exit-code");
        if (m_state == State::Start) Fail("protocol");
        const std::string restart = m_unit.Value("Restart", "no");
        const bool restarts = restart == "always" || (restart == "on-failure" && m_result != Success);
        Say(m_result == Success ? "unit: dead" : "unit: failed (%s)", m_result.c_str());
        m_state = State::Ended;
        if (!restarts || m_isStopAsked) return;
        Go(State::AutoRestart, "auto-restart");
        m_deadline = Clock::now() + Scaled(m_unit.Time("RestartSec", "100ms"));
    }

    const Unit& m_unit;
    const double m_speed;
    const std::vector<std::string> m_command;
    const std::string m_path = "/tmp/systemd_standin." + std::to_string(getpid());
    int m_socket = -1;
    pid_t m_process = 0;
    int m_processFd = -1;
    State m_state = State::Ended;
    std::string m_result = Success;
    bool m_isStopAsked = false;
    std::optional<Clock::time_point> m_deadline, m_watchdog;
    std::optional<Clock::time_point> m_reloadAsked;
};

}  // namespace

int main(int argc, char** argv) {
    try {
        if (argc < 2) throw std::invalid_argument("systemd_standin UNIT [SPEED]");
        const Unit unit(argv[1]);
        return Manager(unit, argc > 2 ? NumberIn(argv[2]) : 1.0).Run() ? 0 : 1;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "systemd_standin: %s\n", failure.what());
        return 2;
    }
}
