#include "TQLib/platform/linux/base/SignalWords.h"

#include "TQLib/platform/RaceTools.h"
#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/Futex.h"
#include "TQLib/platform/linux/base/Lock.h"

namespace Quellan::Platform {

namespace {

struct alignas(64) Line {
    SignalWord word{0};
    Line* nextFree = nullptr;
};

constexpr std::size_t LinesInChunk = 64;

constinit ShortLock g_lock;
const ForkLock<g_lock> g_lineForkLock(ForkOrder::SignalWords);
constinit Line* g_freeLines TQ_GUARDED_BY(g_lock) = nullptr;

void FreeLine(Line& line) noexcept TQ_REQUIRES(g_lock) {
    line.nextFree = g_freeLines;
    g_freeLines = &line;
}

Line* TakeFree() noexcept {
    const Guard lock(g_lock);
    Line* const line = g_freeLines;
    if (line) g_freeLines = line->nextFree;
    return line;
}

Line* FirstOfNewChunk() {
    Line* const chunk = new Line[LinesInChunk];
    TellOwnMemory(chunk, LinesInChunk * sizeof(Line));
    const Guard lock(g_lock);
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
    const Guard lock(g_lock);
    FreeLine(*reinterpret_cast<Line*>(word));
}

}  // namespace Quellan::Platform
