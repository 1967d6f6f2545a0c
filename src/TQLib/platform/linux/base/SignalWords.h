// The words that hold the state of what can be waited on. They are never given back to the heap: who has
// found one through a handle may look at it at any time, whatever has become of the object.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

namespace Quellan::Platform {

using SignalWord = std::atomic<std::uint64_t>;

// The upper half of a word.
constexpr std::uint32_t SignalValue(std::uint64_t state) noexcept {
    return static_cast<std::uint32_t>(state >> 32);
}

struct SignalWordRecycle {
    void operator()(SignalWord* word) const noexcept;
};
using SignalWordOwner = std::unique_ptr<SignalWord, SignalWordRecycle>;

// A word on a cache line of its own. May throw std::bad_alloc.
SignalWordOwner NewSignalWord(std::uint64_t state);

}  // namespace Quellan::Platform
