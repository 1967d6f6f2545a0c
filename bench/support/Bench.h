// Measures contestants that do the same work, by turns, and prints them beside each other. Linux alone.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Quellan::Corvel::Bench {

// The value counts as used: the compiler must not drop the work that made it.
template <class T>
void Keep(const T& value) {
    asm volatile("" : : "r,m"(value) : "memory");
}

struct Measurement {
    double nanoseconds = 0;  // of processor time
    std::size_t allocations = 0;
};

// The processor time of this thread and the process's allocations since it was made.
class Meter {
  public:
    Meter();
    Measurement Read() const;

  private:
    double m_nanoseconds;
    std::size_t m_allocations;
};

// What the clock and, by this name, a profiler see: the operation and one step of a counter.
template <class Operation>
[[gnu::noipa]] void MeasuredLoop(Operation& operation, std::size_t count) {
    for (; count != 0; --count) {
        operation();
    }
}

// The contestants of one program. Those of one case are given one after the other; the first is the library,
// to which the others are compared.
class Contest {
  public:
    // `operation` is copied; what it refers to must outlive the contest.
    template <class Operation>
    void Add(std::string work, std::string contestant, Operation operation) {
        m_contestants.push_back(
            {std::move(work), std::move(contestant), [operation](std::size_t count) mutable {
                 operation();  // warms caches; makes what is made once
                 const Meter meter;
                 MeasuredLoop(operation, count);
                 return meter.Read();
             }});
    }

    // The program's main function; returns its exit code. Without arguments all cases are measured, with one
    // only those whose name contains it. `--list` prints case and contestant on a line with a tab between
    // them; `--one CASE CONTESTANT COUNT` repeats one operation in `MeasuredLoop` and measures nothing.
    int Run(int argc, char** argv) const;

  private:
    struct Contestant {
        std::string work;
        std::string name;
        std::function<Measurement(std::size_t)> repeat;
    };

    int RunOne(std::string_view work, std::string_view name, std::size_t count) const;
    static void MeasureCase(const Contestant* begin, const Contestant* end);

    std::vector<Contestant> m_contestants;
};

}  // namespace Quellan::Corvel::Bench
