// The rendered messages of an exception.
#pragma once

#include "TQLib/core/TQStrRes.h"
#include "TQLib/text/STLString.h"
#include "TQLib/text/TQString.h"
#include "TQLib/text/memory/TQSmartPtr.h"

#include <array>
#include <atomic>

namespace Quellan::Corvel {

// A rendered line, which the copies of the exception share.
template <class Text>
class KeptLine {
  public:
    KeptLine() noexcept = default;
    KeptLine(const KeptLine& other) noexcept {
        if (other.m_record.load(std::memory_order_relaxed)) Share(other);
    }
    KeptLine& operator=(const KeptLine& other) noexcept;
    ~KeptLine() { Drop(); }

    // Null where none is kept; valid until it is dropped.
    [[nodiscard]] const Text* Find() const noexcept;
    // The line that is kept now. Without memory the exception kept in reserve is thrown.
    const Text& Keep(Text&& line);
    void Drop() noexcept {
        if (m_record.load(std::memory_order_relaxed)) Release();
    }

  private:
    struct Record;

    void Share(const KeptLine& other) noexcept;
    void Release() noexcept;

    std::atomic<Record*> m_record = nullptr;
};

extern template class KeptLine<STLString>;
extern template class KeptLine<_TQaString>;

// One line for each destination, and the user's as UTF-8, kept from its first rendering until all are dropped.
// Several threads may look for lines and keep them; of two lines for one destination the first stays.
// Assigning and dropping are for the one thread that changes the exception.
struct MessageCache {
    [[nodiscard]] KeptLine<STLString>& For(TQStrResDestination destination) noexcept {
        return lines[static_cast<std::size_t>(destination)];
    }
    void Drop() noexcept;

    std::array<KeptLine<STLString>, TQStrResDestinationCount> lines;
    KeptLine<_TQaString> utf8;
};

}  // namespace Quellan::Corvel
