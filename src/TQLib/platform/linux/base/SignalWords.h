// The words that hold the state of what can be waited on, and the queues of those who wait. They are never
// given back to the heap: who has found one through a handle may look at it at any time, and change it by
// comparison, whatever has become of the object.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

namespace Quellan::Platform {

using SignalWord = std::atomic<std::uint64_t>;

// Bits 0 to 3 of a word: what a Waitable says of it. While one of them is set only who holds the word may
// change its value.
constexpr std::uint64_t SignalFlags = 0xF;
// Bits 4 to 31: which use of the memory it is, so that a change by comparison never hits the next one.
constexpr std::uint64_t SignalTag = 0xFFFFFFF0;

// The upper half of a word.
constexpr std::uint32_t SignalValue(std::uint64_t state) noexcept {
    return static_cast<std::uint32_t>(state >> 32);
}

struct WaitBlock;

// A word and its queue, on a cache line of their own. The queue is guarded by the word.
struct alignas(64) SignalLine {
    SignalWord word{0};
    WaitBlock* first = nullptr;
    WaitBlock* last = nullptr;
    std::uint32_t generation = 0;  // of the process whose threads are in the queue
    SignalLine* nextFree = nullptr;
};

struct SignalLineRecycle {
    void operator()(SignalLine* line) const noexcept;
};
using SignalLineOwner = std::unique_ptr<SignalLine, SignalLineRecycle>;

// A line with an empty queue, without flags. May throw std::bad_alloc.
SignalLineOwner NewSignalLine(std::uint32_t value);

// What may be done with a line on behalf of a handle, without the object. Nothing where there is no line.
struct SignalWay {
    static constexpr std::uint32_t Wait = 1;     // wait until the value is not 0
    static constexpr std::uint32_t TakeOne = 2;  // the wait takes one of it
    static constexpr std::uint32_t Set = 4;      // make it 1

    bool May(std::uint32_t use) const noexcept { return line && tagAndUses & use; }
    bool IsCurrent(std::uint64_t state) const noexcept {
        return (state & SignalTag) == (tagAndUses & SignalTag);
    }

    SignalLine* line = nullptr;
    std::uint32_t tagAndUses = 0;  // the uses in the place of the flags
};

}  // namespace Quellan::Platform
