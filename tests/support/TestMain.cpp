#include "support/Role.h"

#include <gmock/gmock.h>

int main(int argc, char** argv) {
    int exitCode = 0;
    if (Quellan::Corvel::Test::Role::Run(argc, argv, exitCode)) return exitCode;
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
