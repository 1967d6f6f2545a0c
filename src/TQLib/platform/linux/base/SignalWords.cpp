#include "TQLib/platform/linux/base/SignalWords.h"

#include "TQLib/platform/RaceTools.h"
#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/Futex.h"
#include "TQLib/platform/linux/base/Lock.h"

namespace Quellan::Platform {

namespace {

constexpr std::size_t LinesInChunk = 64;

constinit ShortLock g_lock;
const ForkLock<g_lock> g_lineForkLock(ForkOrder::SignalWords);
constinit SignalLine* g_freeLines TQ_GUARDED_BY(g_lock) = nullptr;

void FreeLine(SignalLine& line) noexcept TQ_REQUIRES(g_lock) {
    line.nextFree = g_freeLines;
    g_freeLines = &line;
}

SignalLine* TakeFree() noexcept {
    const Guard lock(g_lock);
    SignalLine* const line = g_freeLines;
    if (line) g_freeLines = line->nextFree;
    return line;
}

SignalLine* FirstOfNewChunk() {
    SignalLine* const chunk = new SignalLine[LinesInChunk];
    TellOwnMemory(chunk, LinesInChunk * sizeof(SignalLine));
    const Guard lock(g_lock);
    for (std::size_t i = LinesInChunk; i-- > 1;)
        FreeLine(chunk[i]);
    return chunk;
}

}  // namespace

// Somebody who was too late for the last use of the line may still hold it for a moment.
SignalLineOwner NewSignalLine(std::uint32_t value) {
    SignalLine* line = TakeFree();
    if (!line) line = FirstOfNewChunk();
    std::uint64_t state = line->word.load(std::memory_order_relaxed);
    for (Backoff backoff;; backoff.Pause()) {
        state &= SignalTag;
        if (line->word.compare_exchange_weak(state, state | std::uint64_t{value} << 32,
                                             std::memory_order_acq_rel, std::memory_order_relaxed))
            break;
    }
    return SignalLineOwner(line);
}

void SignalLineRecycle::operator()(SignalLine* line) const noexcept {
    const Guard lock(g_lock);
    FreeLine(*line);
}

}  // namespace Quellan::Platform
