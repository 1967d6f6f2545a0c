// The rendered messages of an exception.
#pragma once

#include "TQLib/core/TQStrRes.h"
#include "TQLib/text/STLString.h"

#include <array>
#include <atomic>

namespace Quellan::Corvel {

// One line for each destination, kept from its first rendering until all are dropped. Several threads may
// look for lines and keep them; of two lines for one destination the first stays. Copying and dropping are
// for the one thread that changes the exception.
class TQLIB_API MessageCache {
  public:
    MessageCache() noexcept = default;
    // Throws 14 (ERROR_OUTOFMEMORY).
    MessageCache(const MessageCache& other);
    ~MessageCache();
    void Swap(MessageCache& other) noexcept;

    // Null where none is kept; valid until the lines are dropped.
    const STLString* Find(TQStrResDestination destination) const noexcept;
    // The line that is kept now. Throws as copying does.
    const STLString& Keep(TQStrResDestination destination, STLString&& line);
    void Drop() noexcept;

  private:
    std::array<std::atomic<const STLString*>, TQStrResDestinationCount> m_lines{};
};

}  // namespace Quellan::Corvel
