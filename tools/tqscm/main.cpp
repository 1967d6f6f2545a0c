// tqscm: the service manager.
#include "Manager.h"
#include "TQLib/platform/linux/services/ServiceSocket.h"

#include <charconv>
#include <csignal>
#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

namespace {

constexpr const char* Help =
    "usage: tqscm [--socket PATH] [--request-limit MS] [--delay MS]\n"
    "\n"
    "Manages the services whose records are in the registry, until it gets SIGTERM or SIGINT.\n"
    "\n"
    "  --socket PATH       where it listens; else what TQLIB_SERVICE_MANAGER says, else services.socket in\n"
    "                      /run/tqlib or in run below TQLIB_ROOT\n"
    "  --request-limit MS  how long a program may take to connect and a handler to answer; 30000\n"
    "  --delay MS          until services with delayed automatic start are started; 120000\n"
    "  --help              this text\n"
    "  --version           the version of TQLib\n";

bool ReadMs(std::string_view text, std::chrono::milliseconds& ms) {
    unsigned number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    ms = std::chrono::milliseconds(number);
    return error == std::errc() && end == text.data() + text.size();
}

// What was closed must not become something that others print to.
void OpenStandardDescriptors() {
    int fd = 0;
    while ((fd = open("/dev/null", O_RDWR)) >= 0 && fd <= STDERR_FILENO) {
    }
    if (fd >= 0) close(fd);
}

}  // namespace

int main(int argc, char** argv) {
    OpenStandardDescriptors();
    // Whoever reads what is printed may end before this does.
    std::signal(SIGPIPE, SIG_IGN);
    tqscm::Settings settings;
    settings.socket = Quellan::Platform::ServiceManagerSocket();
    for (int i = 1; i < argc; i += 2) {
        const std::string_view word = argv[i];
        const std::string_view value = i + 1 < argc ? argv[i + 1] : "";
        bool isGood = true;
        if (word == "--help") {
            std::fputs(Help, stdout);
            return 0;
        }
        if (word == "--version") {
            std::printf("tqscm %s\n", TQ_VERSION);
            return 0;
        }
        if (word == "--socket") {
            settings.socket = value;
            isGood = !value.empty();
        } else if (word == "--request-limit") {
            isGood = ReadMs(value, settings.requestLimit);
        } else if (word == "--delay") {
            isGood = ReadMs(value, settings.autoStartDelay);
        } else {
            isGood = false;
        }
        if (!isGood) {
            std::fprintf(stderr, "tqscm: '%s' cannot be understood; tqscm --help says what can\n", argv[i]);
            return 2;
        }
    }
    try {
        tqscm::Manager manager(settings);
        std::printf("tqscm: ready at %s\n", settings.socket.c_str());
        std::fflush(stdout);
        manager.Run();
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "tqscm: %s\n", failure.what());
        return 3;
    }
}
