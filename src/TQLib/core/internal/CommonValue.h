// What the copies of a value class have in common.
#pragma once

#include "TQLib/text/memory/TQSmartPtr.h"

#include <new>
#include <utility>

namespace Quellan::Corvel {

// A value that nobody changes and that copies share, or none: copying can't fail. The copies may belong to
// different threads.
template <class T>
class CommonValue {
  public:
    CommonValue() noexcept = default;
    // Without memory the exception kept in reserve is thrown (`TQStdExceptions::ThrowReserved`).
    explicit CommonValue(T&& value) {
        auto* const record = new (std::nothrow) Record(std::move(value));
        if (!record) TQStdExceptions::ThrowReserved();
        m_holder = _TQRefHolder<_TQRefThrCount>(record);
    }

    // Null for none.
    [[nodiscard]] const T* Get() const noexcept {
        return m_holder.Record() ? &static_cast<const Record*>(m_holder.Record())->value : nullptr;
    }

  private:
    struct Record final : _TQRefRecord<_TQRefThrCount> {
        explicit Record(T&& from) noexcept : value(std::move(from)) {}
        void EndWithLast() noexcept override { delete this; }
        const T value;
    };

    _TQRefHolder<_TQRefThrCount> m_holder;
};

}  // namespace Quellan::Corvel
