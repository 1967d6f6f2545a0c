#include "support/Bench.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sched.h>
#include <string_view>
#include <time.h>

namespace {

// Only the measured thread runs, so a plain number will do.
std::size_t g_allocations = 0;

}  // namespace

// All memory of the process comes through these three: the program's definitions stand before the C
// library's, and `operator new` and the exceptions' own allocator call them.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);

[[gnu::visibility("default")]] void* malloc(std::size_t size) {
    ++g_allocations;
    return __libc_malloc(size);
}

[[gnu::visibility("default")]] void* calloc(std::size_t count, std::size_t size) {
    ++g_allocations;
    return __libc_calloc(count, size);
}

[[gnu::visibility("default")]] void* realloc(void* block, std::size_t size) {
    ++g_allocations;
    return __libc_realloc(block, size);
}
}

namespace Quellan::Corvel::Bench {
namespace {

// Short enough that a neighbour's burst hits all contestants of a round or none, long beside the clock's own
// cost.
constexpr double SliceNanoseconds = 1e6;
constexpr std::size_t Rounds = 101;

double ProcessorTime() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

double Median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

void PinToOneCore() {
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(static_cast<unsigned>(sched_getcpu()), &cores);
    if (sched_setaffinity(0, sizeof cores, &cores) != 0)
        std::fputs("The program is not pinned to a core.\n", stderr);
}

}  // namespace

Meter::Meter() : m_nanoseconds(ProcessorTime()), m_allocations(g_allocations) {}

Measurement Meter::Read() const {
    return {ProcessorTime() - m_nanoseconds, g_allocations - m_allocations};
}

int Contest::Run(int argc, char** argv) const {
    const std::string_view option = argc > 1 ? argv[1] : "";
    if (option == "--one" && argc == 5) return RunOne(argv[2], argv[3], std::strtoul(argv[4], nullptr, 10));
    if (option == "--list") {
        for (const Contestant& c : m_contestants)
            std::printf("%s\t%s\n", c.work.c_str(), c.name.c_str());
        return 0;
    }
    if (argc > 2 || option.starts_with("-")) {
        std::fprintf(stderr, "usage: %s [CASE | --list | --one CASE CONTESTANT COUNT]\n", argv[0]);
        return 2;
    }
    PinToOneCore();
    std::printf("%-34s %-26s %12s %8s %12s\n", "case", "contestant", "ns", "ratio", "allocations");
    const Contestant* const end = m_contestants.data() + m_contestants.size();
    for (const Contestant *begin = m_contestants.data(), *next; begin != end; begin = next) {
        next = std::find_if(begin, end, [&](const Contestant& c) { return c.work != begin->work; });
        if (begin->work.find(option) != std::string::npos) MeasureCase(begin, next);
    }
    return 0;
}

int Contest::RunOne(std::string_view work, std::string_view name, std::size_t count) const {
    for (const Contestant& c : m_contestants) {
        if (c.work != work || c.name != name) continue;
        c.repeat(count);
        return 0;
    }
    std::fputs("There is no such contestant.\n", stderr);
    return 2;
}

void Contest::MeasureCase(const Contestant* begin, const Contestant* end) {
    const auto size = static_cast<std::size_t>(end - begin);
    std::vector<std::size_t> counts(size, 1);
    std::vector<std::vector<double>> times(size);
    std::vector<std::vector<double>> ratios(size);
    std::vector<double> allocations(size);
    for (std::size_t i = 0; i < size; ++i) {
        while (begin[i].repeat(counts[i]).nanoseconds < SliceNanoseconds)
            counts[i] *= 2;
    }
    for (std::size_t round = 0; round < Rounds; ++round) {
        for (std::size_t i = 0; i < size; ++i) {
            const Measurement slice = begin[i].repeat(counts[i]);
            const auto count = static_cast<double>(counts[i]);
            times[i].push_back(slice.nanoseconds / count);
            ratios[i].push_back(times[0].back() / times[i].back());
            allocations[i] = static_cast<double>(slice.allocations) / count;
        }
    }
    for (std::size_t i = 0; i < size; ++i) {
        std::printf("%-34s %-26s %12.1f %8.2f %12.1f\n", begin[i].work.c_str(), begin[i].name.c_str(),
                    *std::min_element(times[i].begin(), times[i].end()), Median(ratios[i]), allocations[i]);
    }
    std::fflush(stdout);
}

}  // namespace Quellan::Corvel::Bench
