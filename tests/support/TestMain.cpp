#include "support/Role.h"

#include <csignal>
#include <gmock/gmock.h>

int main(int argc, char** argv) {
    int exitCode = 0;
    if (Quellan::Corvel::Test::Role::Run(argc, argv, exitCode)) return exitCode;
#if !defined(_WIN32)
    // A shell starts what it runs in the background with these ignored, and the processes of the tests
    // inherit that.
    for (const int signal : {SIGINT, SIGQUIT, SIGHUP})
        std::signal(signal, SIG_DFL);
#endif
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
