#include "support/Bench.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sched.h>
#include <string_view>
#include <time.h>

namespace {

constinit thread_local std::size_t t_allocations = 0;

}  // namespace

// All memory of the process comes through these three: the program's definitions stand before the C
// library's, and `operator new` and the exceptions' own allocator call them.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);

[[gnu::visibility("default")]] void* malloc(std::size_t size) {
    ++t_allocations;
    return __libc_malloc(size);
}

[[gnu::visibility("default")]] void* calloc(std::size_t count, std::size_t size) {
    ++t_allocations;
    return __libc_calloc(count, size);
}

[[gnu::visibility("default")]] void* realloc(void* block, std::size_t size) {
    ++t_allocations;
    return __libc_realloc(block, size);
}
}

namespace Quellan::Corvel::Bench {
namespace {

// Short enough that a neighbour's burst hits all contestants of a round or none, long beside the clock's own
// cost.
constexpr double SliceNanoseconds = 1e6;
// An operation that hardly uses the processor has its slice too.
constexpr double SliceWallNanoseconds = 2e7;
constexpr std::size_t MostRounds = 101;
constexpr std::size_t LeastRounds = 9;
constexpr double CaseNanoseconds = 4e9;

// The cores that the program may use; the measuring thread has the first.
std::vector<unsigned> g_cores;

double ReadClock(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

double Median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

double Least(const std::vector<double>& values) {
    return *std::min_element(values.begin(), values.end());
}

void PinTo(std::span<const unsigned> allowed) {
    cpu_set_t cores;
    CPU_ZERO(&cores);
    for (const unsigned core : allowed)
        CPU_SET(core, &cores);
    if (sched_setaffinity(0, sizeof cores, &cores) != 0) std::fputs("A thread is not pinned.\n", stderr);
}

void PinTo(unsigned core) {
    PinTo(std::span(&core, 1));
}

void FindCores() {
    const auto own = static_cast<unsigned>(sched_getcpu());
    cpu_set_t cores;
    if (sched_getaffinity(0, sizeof cores, &cores) != 0) CPU_ZERO(&cores);
    g_cores = {own};
    for (unsigned core = 0; core < CPU_SETSIZE; ++core)
        if (core != own && CPU_ISSET(core, &cores)) g_cores.push_back(core);
}

const char* NameOf(Setting setting) {
    switch (setting) {
        case Setting::OneThread:
            return "1 thread";
        case Setting::OneCore:
            return "1 core";
        default:
            return "all cores";
    }
}

// Of one contestant, a value for each round.
struct Results {
    std::vector<double> times;
    std::vector<double> ratios;

    void Add(double time, const Results& library) {
        times.push_back(time);
        ratios.push_back(library.times.back() / time);
    }
};

}  // namespace

Meter::Meter(Setting setting) : m_setting(setting) {
    m_begin = Read();
}

Measurement Meter::Read() const {
    const clockid_t processor =
        m_setting == Setting::OneThread ? CLOCK_THREAD_CPUTIME_ID : CLOCK_PROCESS_CPUTIME_ID;
    return {ReadClock(processor) - m_begin.processor, ReadClock(CLOCK_MONOTONIC) - m_begin.wall,
            t_allocations - m_begin.allocations};
}

void PlaceWorker(Setting setting, unsigned number) {
    if (setting == Setting::AllCores && !g_cores.empty()) PinTo(g_cores[(number + 1) % g_cores.size()]);
}

Spread::Spread(Setting setting) : m_setting(setting) {
    if (m_setting == Setting::AllCores && !g_cores.empty()) PinTo(g_cores);
}

Spread::~Spread() {
    if (m_setting == Setting::AllCores && !g_cores.empty()) PinTo(g_cores.front());
}

int Contest::Run(int argc, char** argv) const {
    const std::string_view option = argc > 1 ? argv[1] : "";
    if (option == "--list") {
        for (const Contestant& c : m_contestants)
            std::printf("%s\t%s\t%s\n", NameOf(c.setting), c.work.c_str(), c.name.c_str());
        return 0;
    }
    FindCores();
    PinTo(g_cores.front());
    if (option == "--one" && argc == 5) return RunOne(argv[2], argv[3], std::strtoul(argv[4], nullptr, 10));
    const bool isTable = option == "--tabs";
    const int cases = isTable ? 2 : 1;
    const std::string_view only = argc > cases ? argv[cases] : "";
    if (argc > cases + 1 || only.starts_with("-")) {
        std::fprintf(stderr, "usage: %s [[--tabs] [CASE] | --list | --one CASE CONTESTANT COUNT]\n", argv[0]);
        return 2;
    }
    if (!isTable)
        std::printf("%-36s %-26s %-9s %12s %9s %12s %10s %11s\n", "case", "contestant", "where",
                    "best CPU ns", "CPU ratio", "best wall ns", "wall ratio", "allocations");
    for (std::span<const Contestant> rest = m_contestants; !rest.empty();) {
        const auto next = std::ranges::find_if(rest, [&](const Contestant& c) {
            return c.work != rest[0].work || c.setting != rest[0].setting;
        });
        const auto size = static_cast<std::size_t>(next - rest.begin());
        if (rest[0].work.find(only) != std::string::npos) MeasureCase(rest.first(size), isTable);
        rest = rest.subspan(size);
    }
    return 0;
}

int Contest::RunOne(std::string_view work, std::string_view name, std::size_t count) const {
    for (const Contestant& c : m_contestants) {
        if (c.work != work || c.name != name) continue;
        c.make()(count);
        return 0;
    }
    std::fputs("There is no such contestant.\n", stderr);
    return 2;
}

void Contest::MeasureCase(std::span<const Contestant> contestants, bool isTable) {
    struct Running {
        Repeat repeat;
        std::size_t count = 1;
        Results processor;
        Results wall;
        double allocations = 0;
    };
    std::vector<Running> running;
    for (const Contestant& c : contestants) {
        Running& r = running.emplace_back();
        r.repeat = c.make();
        for (;; r.count *= 2) {
            const double begin = ReadClock(CLOCK_MONOTONIC);
            if (r.repeat(r.count).processor >= SliceNanoseconds) break;
            if (ReadClock(CLOCK_MONOTONIC) - begin >= SliceWallNanoseconds) break;
        }
    }
    const double begin = ReadClock(CLOCK_MONOTONIC);
    for (std::size_t round = 0; round < MostRounds; ++round) {
        if (round >= LeastRounds && ReadClock(CLOCK_MONOTONIC) - begin > CaseNanoseconds) break;
        for (Running& r : running) {
            const Measurement slice = r.repeat(r.count);
            const auto count = static_cast<double>(r.count);
            r.processor.Add(slice.processor / count, running[0].processor);
            r.wall.Add(slice.wall / count, running[0].wall);
            r.allocations = static_cast<double>(slice.allocations) / count;
        }
    }
    for (std::size_t i = 0; i < running.size(); ++i) {
        const Running& r = running[i];
        const char* const name = contestants[i].name.c_str();
        const char* const where = NameOf(contestants[i].setting);
        const double times[] = {Least(r.processor.times), Median(r.processor.ratios), Least(r.wall.times),
                                Median(r.wall.ratios), r.allocations};
        if (isTable)
            std::printf("%s\t%s\t%s\t%.1f\t%.3f\t%.1f\t%.3f\t%.1f\n", contestants[i].work.c_str(), name,
                        where, times[0], times[1], times[2], times[3], times[4]);
        else
            std::printf("%-36s %-26s %-9s %12.1f %9.2f %12.1f %10.2f %11.1f\n", contestants[i].work.c_str(),
                        name, where, times[0], times[1], times[2], times[3], times[4]);
    }
    std::fflush(stdout);
}

}  // namespace Quellan::Corvel::Bench
