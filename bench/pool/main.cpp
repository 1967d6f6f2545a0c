// Thread pools beside each other: items posted and run, order by requestor, post to start, memory.
#include "pool/Pools.h"
#include "support/Bench.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace Quellan::Corvel::Bench {
namespace {

// What the threads of all pools have run, a counter a thread: a common one would be what is measured.
struct alignas(128) Counter {
    std::atomic<std::size_t> count;
};
Counter g_counters[1024];
std::atomic<unsigned> g_counterCount;

void Count(const Payload&) {
    thread_local Counter& counter = g_counters[g_counterCount.fetch_add(1) % std::size(g_counters)];
    counter.count.store(counter.count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

std::size_t Counted() {
    std::size_t sum = 0;
    for (const Counter& counter : g_counters)
        sum += counter.count.load(std::memory_order_relaxed);
    return sum;
}

void Block(const Payload& item) {
    usleep(1'000);
    Count(item);
}

struct Case {
    unsigned threads;
    unsigned posters;
    std::size_t requestors;  // 0: anonymous
    bool isBlocking = false;
};

// One operation is an item, posted and run.
class Throughput {
  public:
    Throughput(Setting setting, Contestant contestant, Case c)
        : m_setting(setting), m_spread(setting), m_case(c), m_pool(contestant.make(c.threads, c.requestors)) {
        for (unsigned poster = 1; poster < c.posters; ++poster)
            m_others.emplace_back([this, poster] {
                for (unsigned turn = 0;;) {
                    m_turn.wait(turn);
                    turn = m_turn;
                    if (m_items == 0) return;
                    Post(poster);
                    if (--m_posting == 0) m_posting.notify_one();
                }
            });
    }
    ~Throughput() {
        Begin(0);
        for (std::thread& other : m_others)
            other.join();
    }

    Measurement Measure(std::size_t count) {
        const std::size_t items = std::max(count, m_case.isBlocking ? LeastBlocking : LeastItems);
        const std::size_t goal = Counted() + items;
        const Meter meter(m_setting);
        Begin(items);
        Post(0);
        for (unsigned posting; (posting = m_posting) != 0;)
            m_posting.wait(posting);
        while (Counted() < goal)
            usleep(20);
        Measurement result = meter.Read();
        const double part = static_cast<double>(count) / static_cast<double>(items);
        result.processor *= part;
        result.wall *= part;
        result.allocations = static_cast<std::size_t>(static_cast<double>(result.allocations) * part);
        return result;
    }

  private:
    // Enough that the wakings at its begin and end don't show.
    static constexpr std::size_t LeastItems = 50'000;
    static constexpr std::size_t LeastBlocking = 1'600;

    void Begin(std::size_t items) {
        m_items = items;
        m_posting = static_cast<unsigned>(m_others.size());
        ++m_turn;
        m_turn.notify_all();
    }
    void Post(unsigned poster) {
        Payload item{};
        item.run = m_case.isBlocking ? Block : Count;
        for (std::size_t i = poster; i < m_items; i += m_case.posters) {
            if (m_case.requestors == 0)
                m_pool->Post(item);
            else
                m_pool->PostFor(i % m_case.requestors, item);
        }
        m_pool->Finish();
    }

    Setting m_setting;
    Spread m_spread;
    Case m_case;
    std::unique_ptr<Pool> m_pool;
    std::size_t m_items = 0;  // 0: the posters' end
    std::atomic<unsigned> m_turn = 0;
    std::atomic<unsigned> m_posting = 0;  // of the other posters
    std::vector<std::thread> m_others;
};

// The least that a pool could do.
class RawFutex : public Pool {
  public:
    RawFutex() {
        m_thread = std::thread([this] {
            for (;;) {
                m_isPosted.wait(false);
                if (m_isOver) return;
                m_isPosted = false;
                m_item.run(m_item);
            }
        });
    }
    ~RawFutex() override {
        m_isOver = true;
        Wake();
        m_thread.join();
    }
    void Post(const Payload& item) override {
        m_item = item;
        Wake();
    }

  private:
    void Wake() {
        m_isPosted = true;
        m_isPosted.notify_one();
    }

    std::atomic<int> m_isPosted = false;  // the kernel's word
    std::atomic<bool> m_isOver = false;
    Payload m_item;
    std::thread m_thread;
};

std::optional<Meter> g_posted;
std::atomic<double> g_waited;

// One operation is from the post to the start of its handler, on a pool whose threads sleep. Its time is the
// given quantile of all.
class Latency {
  public:
    Latency(double quantile, Contestant contestant)
        : m_quantile(quantile), m_spread(Setting::AllCores), m_pool(contestant.make(2, 0)) {}

    Measurement Measure(std::size_t count) {
        Payload item{};
        item.run = [](const Payload&) { g_waited = g_posted->Read().wall; };
        std::vector<double> waited;
        const Meter whole(Setting::AllCores);
        for (std::size_t i = 0; i < count; ++i) {
            usleep(100);  // all of them sleep
            g_waited = 0;
            g_posted.emplace(Setting::AllCores);
            m_pool->Post(item);
            while (g_waited == 0)
                usleep(1);
            waited.push_back(g_waited);
        }
        const auto at =
            waited.begin() + static_cast<std::ptrdiff_t>(static_cast<double>(waited.size() - 1) * m_quantile);
        std::nth_element(waited.begin(), at, waited.end());
        Measurement result = whole.Read();
        result.wall = *at * static_cast<double>(count);
        return result;
    }

  private:
    double m_quantile;
    Spread m_spread;
    std::unique_ptr<Pool> m_pool;
};

std::string NameOf(const Case& c) {
    std::string name = std::to_string(c.threads) + " threads, " + std::to_string(c.posters) +
                       (c.posters == 1 ? " poster" : " posters");
    if (c.isBlocking) name += ", 1 ms of sleep";
    if (c.requestors != 0) name += ", " + std::to_string(c.requestors) + " requestors";
    return name;
}

void AddThroughput(Contest& contest, const std::vector<Contestant>& contestants) {
    for (const unsigned threads : {2u, 16u}) {
        for (const auto& [posters, requestors] : std::initializer_list<std::pair<unsigned, std::size_t>>{
                 {1, 0}, {2, 0}, {4, 0}, {8, 0}, {1, 8}, {4, 8}, {1, 1'000}, {4, 1'000}}) {
            const Case c{threads, posters, requestors};
            for (const Setting setting : {Setting::AllCores, Setting::OneCore})
                for (const Contestant& contestant : contestants)
                    if (contestant.Can(threads, posters, requestors))
                        contest.AddMade<Throughput>(setting, NameOf(c), contestant.name, setting, contestant,
                                                    c);
        }
    }
}

// What holds an item up beside handlers that sleep is wall time.
void AddBlocking(Contest& contest, const std::vector<Contestant>& contestants) {
    const Case c{.threads = 16, .posters = 1, .requestors = 0, .isBlocking = true};
    for (const Contestant& contestant : contestants)
        if (contestant.Can(c.threads, c.posters, c.requestors))
            contest.AddMade<Throughput>(Setting::AllCores, NameOf(c), contestant.name, Setting::AllCores,
                                        contestant, c);
}

void AddLatency(Contest& contest, const std::vector<Contestant>& contestants) {
    const Contestant futex{.name = "a futex", .make = [](unsigned, std::size_t) -> std::unique_ptr<Pool> {
                               return std::make_unique<RawFutex>();
                           }};
    for (const auto& [work, quantile] :
         {std::pair{"post to start, median", .5}, {"post to start, 99 %", .99}}) {
        const auto add = [&](const Contestant& c) {
            contest.AddMade<Latency>(Setting::AllCores, work, c.name, quantile, c);
        };
        add(contestants.front());
        add(futex);
        for (const Contestant& peer : std::span(contestants).subspan(1))
            if (!peer.isOnePoster) add(peer);  // such a one runs nothing before its end is waited for
    }
}

long PeakKilobytes() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

std::atomic<bool> g_isOpen;

// The peak of the memory with `items` items queued in the library's pool, and their drain.
int ShowMemory(std::size_t requestors, std::size_t items) {
    const std::unique_ptr<Pool> pool = LibraryPool().make(2, requestors);
    Payload item{};
    item.run = [](const Payload&) { g_isOpen.wait(false); };
    pool->Post(item);
    pool->Post(item);
    item.run = Count;
    const long before = PeakKilobytes();
    const Meter post(Setting::AllCores);
    for (std::size_t i = 0; i < items; ++i) {
        if (requestors == 0)
            pool->Post(item);
        else
            pool->PostFor(i % requestors, item);
    }
    const auto count = static_cast<double>(items);
    const double posted = post.Read().wall / count;
    const long peak = PeakKilobytes();
    const Meter drain(Setting::AllCores);
    g_isOpen = true;
    g_isOpen.notify_all();
    while (Counted() < items)
        usleep(1'000);
    std::printf(
        "%zu items, %zu requestors: peak %ld MB, %.0f bytes an item over its payload; %.0f ns an item "
        "to post, %.0f ns to drain\n",
        items, requestors, peak / 1024, static_cast<double>(peak - before) * 1024 / count - sizeof(Payload),
        posted, drain.Read().wall / count);
    return 0;
}

int Run(int argc, char** argv) {
    if (argc == 4 && std::string_view(argv[1]) == "--memory")
        return ShowMemory(std::strtoul(argv[2], nullptr, 10), std::strtoul(argv[3], nullptr, 10));
    std::vector<Contestant> contestants{LibraryPool()};
    for (Contestant& peer : PeerPools())
        contestants.push_back(std::move(peer));
    Contest contest;
    AddThroughput(contest, contestants);
    AddBlocking(contest, contestants);
    AddLatency(contest, contestants);
    return contest.Run(argc, argv);
}

}  // namespace
}  // namespace Quellan::Corvel::Bench

int main(int argc, char** argv) {
    return Quellan::Corvel::Bench::Run(argc, argv);
}
