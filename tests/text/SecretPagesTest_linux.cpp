#include "TQLib/text/memory/TQDataBuf.h"
#include "platform/Forked_linux.h"

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <gmock/gmock.h>
#include <sstream>
#include <string>

using namespace Quellan::Corvel;
using Quellan::Corvel::Test::Forked;

namespace {

TQDataBuf<char> Secret(std::size_t bytes) {
    TQDataBuf<char> secret(bytes, _TQDataBufRoot::_SecureLevel::WipeAndLock);
    secret.Fill('s');
    return secret;
}

// What the kernel says of the mapping that holds an address.
std::string FlagsOf(const void* address) {
    std::ifstream maps("/proc/self/smaps");
    bool isInside = false;
    for (std::string line; std::getline(maps, line);) {
        std::uintptr_t begin = 0, end = 0;
        if (std::sscanf(line.c_str(), "%lx-%lx ", &begin, &end) == 2) {
            const auto at = reinterpret_cast<std::uintptr_t>(address);
            isInside = begin <= at && at < end;
        }
        if (isInside && line.starts_with("VmFlags:")) return line + ' ';
    }
    return {};
}

TEST(SecretPages, AreLockedAndLeftOutOfDumpsAndChildren) {
    for (const std::size_t bytes : {32u, 5000u}) {
        const auto secret = Secret(bytes);
        for (const char* flag : {" lo ", " dd ", " wf "})
            EXPECT_THAT(FlagsOf(secret.Data()), testing::HasSubstr(flag));
        EXPECT_EQ(Forked([&] {
                      const bool isGone = std::ranges::all_of(secret, [](char c) { return c == 0; });
                      // What the child keeps itself is locked anew.
                      const auto own = Secret(bytes);
                      return isGone && FlagsOf(own.Data()).find(" lo ") != std::string::npos ? 0 : 1;
                  }).Code(),
                  0);
    }
}

TEST(SecretPagesDeathTest, StandBetweenPagesThatNobodyMayTouch) {
    auto secret = Secret(32);
    const auto touch = [&](std::ptrdiff_t offset) {
        *const_cast<volatile char*>(secret.Data() + offset) = 1;
    };
    EXPECT_EXIT(touch(-4096), testing::KilledBySignal(SIGSEGV), "");
    EXPECT_EXIT(touch(4096), testing::KilledBySignal(SIGSEGV), "");
}

}  // namespace
