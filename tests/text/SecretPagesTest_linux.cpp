#include "TQLib/platform/Win32.h"
#include "TQLib/system/TQConsole.h"
#include "TQLib/text/memory/TQDataBuf.h"
#include "TQLib/text/memory/TQSecret.h"
#include "platform/Forked_linux.h"
#include "support/Role.h"
#include "support/ThrownCode.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace Quellan::Corvel;
using Quellan::Corvel::Test::ChildProcess;
using Quellan::Corvel::Test::Forked;
using Quellan::Corvel::Test::Role;
using Quellan::Corvel::Test::RoleArguments;
using Quellan::Corvel::Test::RoleProcess;
using Quellan::Corvel::Test::ThrownCode;

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

// The secret that is looked for: no place of this program holds two of its characters.
constexpr std::size_t MarkSize = 64;
volatile unsigned g_markStep = 37;
char MarkAt(std::size_t i) {
    return static_cast<char>('0' + i * g_markStep % 71);
}

// How many parts of it, of eight characters each, are in memory outside of locked pages, narrow or wide.
std::size_t PartsInMemory() {
    constexpr std::size_t PartSize = 8, Overlap = PartSize * sizeof(wchar_t);
    bool begins[256] = {};
    for (std::size_t i = 0; i < MarkSize; i += PartSize)
        begins[static_cast<unsigned char>(MarkAt(i))] = true;
    const auto isPart = [](const unsigned char* at, std::size_t width) {
        for (std::size_t begin = 0; begin < MarkSize; begin += PartSize) {
            std::size_t same = 0;
            while (same < PartSize && at[same * width] == MarkAt(begin + same))
                ++same;
            if (same == PartSize) return true;
        }
        return false;
    };

    struct Range {
        std::uintptr_t begin, end;
    };
    std::vector<Range> ranges;
    std::ifstream maps("/proc/self/smaps");
    for (std::string line; std::getline(maps, line);) {
        Range range{};
        char access = 0;
        if (std::sscanf(line.c_str(), "%lx-%lx %c", &range.begin, &range.end, &access) == 3)
            ranges.push_back(access == 'r' ? range : Range{});
        else if (line.starts_with("VmFlags:") && (line + ' ').find(" lo ") != std::string::npos)
            ranges.back() = {};
    }

    std::size_t parts = 0;
    std::vector<unsigned char> chunk(1 << 20);
    const int memory = open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
    for (const Range& range : ranges)
        for (std::uintptr_t at = range.begin; at + Overlap < range.end; at += chunk.size() - Overlap) {
            const std::size_t size = std::min<std::size_t>(chunk.size(), range.end - at);
            const ssize_t got = pread(memory, chunk.data(), size, static_cast<off_t>(at));
            const unsigned char* const end = chunk.data() + std::max<ssize_t>(0, got - ssize_t{Overlap});
            for (const unsigned char* place = chunk.data(); place < end; ++place)
                if (begins[*place]) parts += isPart(place, sizeof(char)) || isPart(place, sizeof(wchar_t));
            if (got < static_cast<ssize_t>(size)) break;
        }
    close(memory);
    return parts;
}

TQaSecretString Mark() {
    TQaSecretString mark;
    mark.Resize(MarkSize);
    for (std::size_t i = 0; i < MarkSize; ++i)
        mark.Span()[i] = MarkAt(i);
    return mark;
}

// Deeper in the stack than any look at memory, which leaves there what was left.
template <class Use>
TQ_NOINLINE auto Deep(Use use, const TQaSecretString& mark) {
    char depth[1 << 17] = {};
    Quellan::Compiler::ShowMemory(depth);
    return use(mark);
}

// Does `use` with the mark, and looks for it before and after the end of what `use` gives.
template <class Use>
void ExpectNoTrace(const char* what, Use use) {
    const TQaSecretString mark = Mark();
    {
        [[maybe_unused]] const auto made = Deep(use, mark);
        EXPECT_EQ(PartsInMemory(), 0u) << what;
    }
    EXPECT_EQ(PartsInMemory(), 0u) << what << ", and is gone";
}

TEST(SecretPages, AreTheOnlyPlaceOfASecretWhateverIsDone) {
    {
        const std::string open(Mark().View());
        EXPECT_GE(PartsInMemory(), MarkSize / 8) << "what is open is found";
    }
    EXPECT_EQ(Forked([] {
                  const auto leave = [](const TQaSecretString& mark) {
                      char left[MarkSize];
                      for (std::size_t i = 0; i < MarkSize; ++i)
                          left[i] = mark.View()[i];
                      return std::count(left, left + MarkSize, '0');
                  };
                  return Deep(leave, Mark()) == 1 && PartsInMemory() != 0 ? 0 : 1;
              }).Code(),
              0)
        << "what is left on the stack is found";
    ExpectNoTrace("copies", [](const TQaSecretString& mark) { return mark.Copy(); });
    ExpectNoTrace("grows", [](const TQaSecretString& mark) {
        TQaSecretString text;
        for (int i = 0; i < 100; ++i)
            text.Append(mark.View());
        text.Assign(mark.View());
        return text;
    });
    ExpectNoTrace("changes its form", [](const TQaSecretString& mark) {
        return TQSecretString::FromUtf8(TQSecretString::FromUtf8(mark.View()).ToUtf8().View());
    });
    ExpectNoTrace("compares", [](const TQaSecretString& mark) { return mark.EqualsSecret(Mark()); });
    ExpectNoTrace("is taken from open memory", [](const TQaSecretString& mark) {
        BYTE open[MarkSize];
        for (std::size_t i = 0; i < MarkSize; ++i)
            open[i] = static_cast<BYTE>(mark.View()[i]);
        return TQSecretBuf::Take(open);
    });
    ExpectNoTrace("is a buffer", [](const TQaSecretString& mark) {
        TQDataBuf<char> buffer(mark.View(), _TQDataBufRoot::_SecureLevel::WipeAndLock);
        TQDataBuf<char> other = buffer;
        other.Insert(3, buffer);
        other.Remove(10, 20);
        buffer = std::move(other);
        return buffer;
    });
    ExpectNoTrace("is typed", [](const TQaSecretString& mark) {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        for (const char c : mark.View())
            EXPECT_EQ(write(ends[1], &c, 1), 1);
        close(ends[1]);
        const int input = dup(STDIN_FILENO);
        dup2(ends[0], STDIN_FILENO);
        TQSecretString typed = TQConsole(TQConsole::Stream::Error).ReadSecret(L"");
        dup2(input, STDIN_FILENO);
        close(input);
        close(ends[0]);
        EXPECT_EQ(typed.Size(), MarkSize);
        return typed;
    });
}

// Makes keys of 32 bytes until no more can be locked: how many, where that is told as it should be.
const Role g_keyCounter("count-keys", [](const RoleArguments& limits) {
    const rlimit limit{std::stoul(limits.at(0)), std::stoul(limits.at(1))};
    if (setrlimit(RLIMIT_MEMLOCK, &limit) != 0) return 2;
    if (geteuid() == 0 && setresuid(65534, 65534, 65534) != 0) return 3;
    std::vector<TQSecretBuf> keys;
    keys.reserve(10000);
    const auto add = [&] {
        keys.emplace_back().Resize(32);
        std::ranges::fill(keys.back().Span(), static_cast<BYTE>(keys.size()));
    };
    DWORD code = 0;
    while (!code)
        code = ThrownCode(add);
    keys.pop_back();
    if (code != ERROR_WORKING_SET_QUOTA) return 4;
    for (std::size_t i = 0; i < keys.size(); ++i)
        if (std::ranges::count(keys[i].View(), static_cast<BYTE>(i + 1)) != 32) return 5;
    keys.pop_back();
    if (ThrownCode(add) != 0) return 6;
    std::cout << keys.size() << std::endl;
    return 0;
});

TEST(SecretPages, HoldTwoThousandKeysUnderTheUsualLimit) {
    for (const char* soft : {"65536", "8192"}) {
        RoleProcess counter("count-keys", {soft, "65536"}, ChildProcess::Files::Piped);
        EXPECT_EQ(counter.ReadAll(), "2048\n") << soft;
        EXPECT_EQ(counter.ExitCode(), 0) << soft;
    }
}

TEST(SecretPages, WorkInAChildWhateverItsParentWasAbout) {
    std::atomic<bool> isOver = false;
    std::thread busy([&] {
        while (!isOver)
            for (const std::size_t size : {16u, 32u, 2000u, 5000u})
                Secret(size);
    });
    for (int round = 0; round < 100 && !HasFailure(); ++round) {
        auto inherited = std::make_unique<TQDataBuf<char>>(Secret(32));
        Forked child([&] {
            alarm(20);
            inherited.reset();
            for (const std::size_t size : {16u, 32u, 2000u})
                if (std::ranges::count(Secret(size), 's') != static_cast<std::ptrdiff_t>(size)) return 1;
            return 0;
        });
        EXPECT_EQ(child.Code(), 0) << round;
    }
    isOver = true;
    busy.join();
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
