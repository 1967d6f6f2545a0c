#include "PlatformTest.h"
#include "platform/linux/internal/Errno.h"

#include <cerrno>

namespace Quellan::Corvel::Platform {
namespace {

TEST(Errno, BecomesAWindowsCode) {
    const struct {
        int error;
        DWORD code;
    } cases[] = {{0, 0},          {EPERM, 5},          {ENOENT, 2},       {EIO, 1117},
                 {EBADF, 6},      {ENOMEM, 8},         {EACCES, 5},       {EFAULT, 998},
                 {EBUSY, 170},    {EEXIST, 183},       {EXDEV, 17},       {ENOTDIR, 3},
                 {EISDIR, 5},     {EINVAL, 87},        {EMFILE, 4},       {ENFILE, 4},
                 {ETXTBSY, 32},   {EFBIG, 223},        {ENOSPC, 112},     {EDQUOT, 112},
                 {ESPIPE, 25},    {EROFS, 19},         {EMLINK, 1142},    {EPIPE, 232},
                 {EDEADLK, 1131}, {ENAMETOOLONG, 206}, {ENOSYS, 120},     {ENOTEMPTY, 145},
                 {ELOOP, 1921},   {EOPNOTSUPP, 50},    {ETIMEDOUT, 1460}, {ECANCELED, 995},
                 {9999, 31}};
    for (const auto& [error, code] : cases)
        EXPECT_EQ(CodeFromErrno(error), code) << error;
}

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
