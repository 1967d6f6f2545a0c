#include "TQLib/core/internal/MessageCache.h"

#include "TQLib/text/memory/TQStdExceptions.h"

#include <memory>
#include <new>
#include <utility>

namespace Quellan::Corvel {

namespace {

std::unique_ptr<const STLString> Made(STLString&& line) {
    auto* const made = new (std::nothrow) STLString(std::move(line));
    if (!made) TQStdExceptions::ThrowReserved();
    return std::unique_ptr<const STLString>(made);
}

}  // namespace

MessageCache::MessageCache(const MessageCache& other) : MessageCache() {
    for (std::size_t i = 0; i < m_lines.size(); ++i)
        if (const STLString* line = other.Find(static_cast<TQStrResDestination>(i)))
            m_lines[i] = Made(STLString(*line)).release();
}

MessageCache::~MessageCache() {
    Drop();
}

void MessageCache::Swap(MessageCache& other) noexcept {
    for (std::size_t i = 0; i < m_lines.size(); ++i)
        other.m_lines[i] = m_lines[i].exchange(other.m_lines[i]);
}

const STLString* MessageCache::Find(TQStrResDestination destination) const noexcept {
    return m_lines[static_cast<std::size_t>(destination)].load(std::memory_order_acquire);
}

const STLString& MessageCache::Keep(TQStrResDestination destination, STLString&& line) {
    std::unique_ptr<const STLString> made = Made(std::move(line));
    const STLString* kept = nullptr;
    if (m_lines[static_cast<std::size_t>(destination)].compare_exchange_strong(
            kept, made.get(), std::memory_order_acq_rel, std::memory_order_acquire))
        kept = made.release();
    return *kept;
}

void MessageCache::Drop() noexcept {
    for (auto& line : m_lines)
        delete line.exchange(nullptr);
}

}  // namespace Quellan::Corvel
