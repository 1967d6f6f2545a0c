#include "TQLib/platform/linux/base/SignalWords.h"

#include "TQLib/platform/RaceTools.h"
#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/Futex.h"

#include <mutex>

namespace Quellan::Platform {

namespace {

struct alignas(64) Line {
    SignalWord word{0};
    Line* nextFree = nullptr;
};

constexpr std::size_t LinesInChunk = 64;

constinit ShortLock g_lock;
const ForkLock<g_lock> g_lineForkLock(ForkOrder::SignalWords);
constinit Line* g_freeLines = nullptr;  // guarded by g_lock

void FreeLine(Line& line) noexcept {
    line.nextFree = g_freeLines;
    g_freeLines = &line;
}

Line* TakeFree() noexcept {
    const std::scoped_lock lock(g_lock);
    Line* const line = g_freeLines;
    if (line) g_freeLines = line->nextFree;
    return line;
}

Line* FirstOfNewChunk() {
    Line* const chunk = new Line[LinesInChunk];
    TellOwnMemory(chunk, LinesInChunk * sizeof(Line));
    const std::scoped_lock lock(g_lock);
    for (std::size_t i = LinesInChunk; i-- > 1;)
        FreeLine(chunk[i]);
    return chunk;
}

}  // namespace

SignalWordOwner NewSignalWord(std::uint64_t state) {
    Line* line = TakeFree();
    if (!line) line = FirstOfNewChunk();
    line->word.store(state, std::memory_order_relaxed);
    return SignalWordOwner(&line->word);
}

void SignalWordRecycle::operator()(SignalWord* word) const noexcept {
    static_assert(offsetof(Line, word) == 0);
    const std::scoped_lock lock(g_lock);
    FreeLine(*reinterpret_cast<Line*>(word));
}

}  // namespace Quellan::Platform
