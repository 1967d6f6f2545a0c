#include "PlatformTest.h"
#include "platform/linux/internal/Errno.h"

#include <cerrno>

namespace Quellan::Corvel::Platform {
namespace {

TEST(Errno, TellsAMissingFileFromAMissingFolder) {
    EXPECT_EQ(CodeFromErrno(ENOENT, "/no-such-file"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(CodeFromErrno(ENOENT, "no-such-file"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(CodeFromErrno(ENOENT, "/no-such-folder/"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(CodeFromErrno(ENOENT, "/no-such-folder/file"), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(CodeFromErrno(ENOENT, "/proc/self/exe/file"), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(CodeFromErrno(EACCES, "/no-such-folder/file"), ERROR_ACCESS_DENIED);
}

}  // namespace
}  // namespace Quellan::Corvel::Platform
