// Measures contestants that do the same work, by turns, and prints them beside each other. Linux alone.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Quellan::Corvel::Bench {

// The value counts as used: the compiler must not drop the work that made it.
template <class T>
void Keep(const T& value) {
    asm volatile("" : : "r,m"(value) : "memory");
}

// Who does the work of a case, and where.
enum class Setting {
    OneThread,  // the measuring thread alone
    OneCore,    // several threads on one core
    AllCores,   // several threads, each on a core given to it by `PlaceWorker`
};

// Times in nanoseconds. Processor time is that of the measuring thread, or with several threads that of the
// process.
struct Measurement {
    double processor = 0;
    double wall = 0;
    std::size_t allocations = 0;  // of the measuring thread
};

// What was used since it was made. The times may be read on any thread.
class Meter {
  public:
    explicit Meter(Setting setting);
    Measurement Read() const;

  private:
    Setting m_setting;
    Measurement m_begin;
};

// What the clock and, by this name, a profiler see: the operation and one step of a counter.
template <class Operation>
[[gnu::noipa]] void MeasuredLoop(Operation& operation, std::size_t count) {
    for (; count != 0; --count) {
        operation();
    }
}

// Called first by each further thread of a contestant: threads begin on the measuring one's core, and where
// the setting is `AllCores` go from there to the next ones in turn, worker 0 to the one after the measuring
// thread's.
void PlaceWorker(Setting setting, unsigned number);

// While it lives, the calling thread and those that begin on it may use all cores, where the setting is
// `AllCores`: for contestants whose threads are not to be got at.
class Spread {
  public:
    explicit Spread(Setting setting);
    Spread(const Spread&) = delete;
    Spread& operator=(const Spread&) = delete;
    ~Spread();

  private:
    Setting m_setting;
};

// The contestants of one program. Those of one case are given one after the other; the first is the library,
// to which the others are compared.
class Contest {
  public:
    // `operation` is copied; what it refers to must outlive the contest.
    template <class Operation>
    void Add(std::string work, std::string contestant, Operation operation) {
        AddMade<Operation>(Setting::OneThread, std::move(work), std::move(contestant), operation);
    }

    // The operation is made from copies of `arguments` before its case is measured, and ends with the case,
    // as do the threads it has. One with a member `Measurement Measure(std::size_t count)` does the
    // measuring itself.
    template <class Operation, class... Arguments>
    void AddMade(Setting setting, std::string work, std::string contestant, Arguments... arguments) {
        m_contestants.push_back({setting, std::move(work), std::move(contestant), [=]() -> Repeat {
                                     const auto operation = std::make_shared<Operation>(arguments...);
                                     return [=](std::size_t count) {
                                         return Measured(*operation, setting, count);
                                     };
                                 }});
    }

    // The program's main function; returns its exit code. Without arguments all cases are measured, with one
    // only those whose name contains it; `--tabs` before it parts the columns by tabs and leaves the headline
    // out, for other programs. `--list` prints setting, case and contestant in this way; `--one CASE
    // CONTESTANT COUNT` repeats one operation in `MeasuredLoop` and measures nothing.
    int Run(int argc, char** argv) const;

  private:
    using Repeat = std::function<Measurement(std::size_t count)>;

    struct Contestant {
        Setting setting;
        std::string work;
        std::string name;
        std::function<Repeat()> make;
    };

    template <class Operation>
    static Measurement Measured(Operation& operation, Setting setting, std::size_t count) {
        if constexpr (requires { operation.Measure(count); }) {
            return operation.Measure(count);
        } else {
            operation();  // warms caches; makes what is made once
            const Meter meter(setting);
            MeasuredLoop(operation, count);
            return meter.Read();
        }
    }

    int RunOne(std::string_view work, std::string_view name, std::size_t count) const;
    static void MeasureCase(std::span<const Contestant> contestants, bool isTable);

    std::vector<Contestant> m_contestants;
};

}  // namespace Quellan::Corvel::Bench
